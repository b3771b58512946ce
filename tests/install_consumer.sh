#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, then builds and runs a consumer project
# against it twice: through find_package(nkProtocol) and through pkg-config.
set -euo pipefail
build=$1
src=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
libdir=$(find "$work/prefix" -name 'libnkProtocol.so' -printf '%h\n' | head -n 1)

cmake -S "$src" -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/cmake" >/dev/null
LD_LIBRARY_PATH="$libdir" "$work/cmake/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$src/consumer.cpp" -o "$work/pc-consumer" $(pkg-config --cflags --libs nkProtocol)
LD_LIBRARY_PATH="$libdir" "$work/pc-consumer"
