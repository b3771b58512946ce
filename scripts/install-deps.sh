#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need.
# Idempotent: does nothing (and needs no network) when everything is present.
#   scripts/install-deps.sh          host build, tests, benchmarks, fuzzing
#   scripts/install-deps.sh --arm    also the armhf cross toolchain and qemu-user
set -euo pipefail

packages=(
  cmake ninja-build make g++ clang libclang-rt-14-dev pkg-config
  nlohmann-json3-dev libssl-dev libgtest-dev libgmock-dev libbenchmark-dev
  libasio-dev libcli11-dev python3
)
if [ "${1:-}" = "--arm" ]; then
  packages+=(g++-arm-linux-gnueabihf qemu-user libssl-dev:armhf libgtest-dev:armhf libbenchmark-dev:armhf)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
if [ "${1:-}" = "--arm" ] && ! dpkg --print-foreign-architectures | grep -qx armhf; then
  "${sudo_cmd[@]}" dpkg --add-architecture armhf
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
