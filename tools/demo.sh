#!/usr/bin/env bash
# The demo behind `make demo`: nkdevice on a loopback port with a fresh data directory, and a
# scripted nkctl session against it. Prints a transcript; exits 0 only if every step did what
# it should.
#   tools/demo.sh [BUILD_DIR]
set -u
build=${1:-build}
nkctl="$build/tools/nkctl"
nkdevice="$build/tools/nkdevice"
examples="$(cd "$(dirname "$0")/../examples" && pwd)"
work=$(mktemp -d)
device_pid=""
address=""
failures=0

cleanup() {
  if [ -n "$device_pid" ] && kill -0 "$device_pid" 2>/dev/null; then
    kill "$device_pid" 2>/dev/null
    wait "$device_pid" 2>/dev/null
  fi
  rm -rf "$work"
}
trap cleanup EXIT

step() { printf '\n== %s\n' "$*"; }

verdict() {  # verdict CONDITION-STATUS TEXT
  if [ "$1" -eq 0 ]; then
    echo "   -> ok: $2"
  else
    echo "   -> FAILED: $2"
    failures=$((failures + 1))
  fi
}

# Runs nkctl against the device, shows its readable output (at most 24 lines) and keeps it.
ctl() {
  echo "\$ nkctl $*"
  "$nkctl" --human --device "$address" "$@" >"$work/last" 2>&1
  local status=$?
  head -n 24 "$work/last" | sed 's/^/   /'
  [ "$(wc -l <"$work/last")" -gt 24 ] && echo "   ..."
  return $status
}

shown() { grep -q -- "$1" "$work/last"; }

start_device() {
  "$nkdevice" --listen 127.0.0.1:0 --data "$work/data" >"$work/device.out" 2>"$work/device.err" &
  device_pid=$!
  address=""
  for _ in $(seq 50); do
    address=$(sed -n 's/.*"address":"\([^"]*\)".*/\1/p' "$work/device.out" | head -n 1)
    [ -n "$address" ] && break
    sleep 0.1
  done
  [ -n "$address" ]
}

# Waits up to five seconds for the device to exit; gives its exit status (124 if it did not).
wait_device() {
  for _ in $(seq 50); do
    if ! kill -0 "$device_pid" 2>/dev/null; then
      wait "$device_pid"
      return $?
    fi
    sleep 0.1
  done
  return 124
}

for program in "$nkctl" "$nkdevice"; do
  [ -x "$program" ] || { echo "demo: $program is missing; run make build first" >&2; exit 1; }
done

step "start nkdevice on a loopback port with a fresh data directory"
start_device
verdict $? "nkdevice listens on ${address:-nothing}"
[ -n "$address" ] || { cat "$work/device.err"; exit 1; }

step "push a configuration"
ctl config push "$examples/config.json"
status=$?; shown "verified: true"; verdict $((status + $?)) "the device returned the configuration's checksum"

step "push a schedule set"
ctl schedules push "$examples/schedules.json"
status=$?; shown "verified: true"; verdict $((status + $?)) "the device returned the schedule set's checksum"

step "push an image"
ctl image push "$examples/image.png" --id 42
status=$?; shown "present: true"; verdict $((status + $?)) "image 42 is stored"

step "read the state"
ctl state
status=$?; shown "- id: 42"; verdict $((status + $?)) "the state lists image 42"
checksums_before=$(grep -E "configuration checksum|schedules checksum" "$work/last")

step "read the event log, newest first"
ctl events --sort id-desc
status=$?; shown "IMAGE"; verdict $((status + $?)) "the device logged the requests it received"

step "read the statistics"
ctl statistics
status=$?; shown "image updates: 1"; verdict $((status + $?)) "one image update counted"

step "read the display configuration"
ctl display-config
status=$?; shown "display configurations"; verdict $((status + $?)) "display configurations reported"

step "restart the device on the same data directory"
kill "$device_pid"
wait_device
verdict $? "nkdevice stopped on SIGTERM"
start_device
verdict $? "nkdevice listens again on ${address:-nothing}"
ctl state
status=$?
[ "$(grep -E "configuration checksum|schedules checksum" "$work/last")" = "$checksums_before" ] && shown "- id: 42"
verdict $((status + $?)) "both checksums and image 42 survived the restart"

step "shut the device down"
ctl shutdown
verdict $? "shutdown acknowledged"
wait_device
verdict $? "nkdevice exited cleanly"
device_pid=""

echo
if [ "$failures" -eq 0 ]; then
  echo "demo: every step did what it should"
  exit 0
fi
echo "demo: $failures step(s) failed"
exit 1
