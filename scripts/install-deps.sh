#!/usr/bin/env bash
# Installs the Debian packages that building, testing and benchmarking need.
# Idempotent: does nothing (and needs no network) when everything is present.
#   scripts/install-deps.sh          host build, tests, benchmarks, fuzzing
#   scripts/install-deps.sh --arm    also the armhf cross toolchain and qemu-user
set -euo pipefail

packages=(
  cmake ninja-build make g++ clang libclang-rt-14-dev pkg-config
  nlohmann-json3-dev libssl-dev libgtest-dev libgmock-dev libbenchmark-dev
  libasio-dev libcli11-dev python3 help2man tshark
  mosquitto mosquitto-clients libmosquitto-dev libsqlite3-dev libcpp-httplib-dev openssl
  python3-dev pybind11-dev python3-pytest python3-paho-mqtt
  libjs-chart.js chromium chromium-driver python3-selenium
)
if [ "${1:-}" = "--arm" ]; then
  packages+=(g++-arm-linux-gnueabihf qemu-user libssl-dev:armhf libgtest-dev:armhf libbenchmark-dev:armhf
    libmosquitto-dev:armhf)
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
# A mirror caught mid-sync fails one index (seen with bookworm-security armhf); the indexes that
# did arrive still serve, and the install below fails clearly if a package really is missing.
"${sudo_cmd[@]}" apt-get update -qq || echo "install-deps: apt-get update reported errors, continuing" >&2
if "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"; then
  exit 0
fi
[ "${1:-}" = "--arm" ] || exit 1
# libssl3 is Multi-Arch: same, so both architectures must carry one version. When the amd64 and
# armhf indexes disagree (one suite's armhf index missing), pin both to the armhf candidate.
# After `make test` has upgraded the host's libssl from the security suite, that pin is a
# downgrade of the host's package, which apt refuses unless allowed.
ssl=$(apt-cache policy libssl3:armhf | awk '/Candidate:/ {print $2}')
echo "install-deps: retrying with OpenSSL $ssl in both architectures" >&2
pinned=()
for p in "${missing[@]}"; do
  case "$p" in libssl-dev|libssl-dev:armhf) ;; *) pinned+=("$p") ;; esac
done
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends --allow-downgrades "${pinned[@]}" \
  "libssl3=$ssl" "libssl3:armhf=$ssl" "libssl-dev=$ssl" "libssl-dev:armhf=$ssl"
