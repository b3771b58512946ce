#!/usr/bin/env bash
# Runs the minimal device and station against each other on a loopback port.
set -euo pipefail
dir=$1
port=$(( 20000 + RANDOM % 20000 ))
"$dir/minimal_device" "$port" > "${TMPDIR:-/tmp}/minimal_device.$$" &
device=$!
trap 'kill $device 2>/dev/null || true; rm -f "${TMPDIR:-/tmp}/minimal_device.$$"' EXIT
for _ in $(seq 50); do grep -q listening "${TMPDIR:-/tmp}/minimal_device.$$" && break; sleep 0.1; done
timeout 20 "$dir/minimal_station" "$port"
timeout 10 tail --pid=$device -f /dev/null   # the device stops on SHUTDOWN
cat "${TMPDIR:-/tmp}/minimal_device.$$"
