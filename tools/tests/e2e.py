#!/usr/bin/env python3
"""nkdevice and nkctl as separate processes, over loopback TCP and a pseudo-terminal serial link.

Every child runs under a time limit and is killed when the test ends, whatever happened.
"""
import argparse
import fcntl
import hashlib
import json
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time

import harness
from harness import FAILURES, check, kill_children, start

ARGS = None


def read_line(proc, seconds=10):
    return harness.read_line(proc, seconds)


def start_device(data, *extra):
    proc = start([ARGS.nkdevice, "--data", data, *extra])
    line = read_line(proc)
    if not line:
        raise RuntimeError("nkdevice did not start: " + proc.stderr.read() if proc.poll() is not None else "no output")
    return proc, json.loads(line)


def stop(proc, seconds=10):
    try:
        return proc.wait(seconds)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
        return None


def ctl(link, *args, seconds=30):
    """Runs nkctl; gives (exit status, JSON objects printed, standard error)."""
    try:
        done = subprocess.run([ARGS.nkctl, "--json", *link, *args], capture_output=True, text=True, timeout=seconds)
    except subprocess.TimeoutExpired:
        return None, [], "nkctl hung"
    objects = [json.loads(line) for line in done.stdout.splitlines() if line.strip()]
    return done.returncode, objects, done.stderr


def one_error_line(result, fragment, what):
    status, _, err = result
    lines = [line for line in err.splitlines() if line.strip()]
    check(status not in (0, None) and len(lines) == 1 and fragment in lines[0],
          "%s: one line naming '%s' (got %r, exit %r)" % (what, fragment, err.strip(), status))


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def answer_bytes(sock):
    """Bytes of the next read from a raw connection: 0 when the peer closed it, -1 on time-out."""
    try:
        return len(sock.recv(65536))
    except socket.timeout:
        return -1
    except ConnectionResetError:
        return 0


def schedules_as_library_writes(path):
    """The schedule set as the library's getJson writes it: entries nested, "frame" = flags."""
    doc = json.load(open(ARGS.examples + "/schedules.json"))
    for schedule in doc["schedules"]:
        schedule["frame"] = schedule["flags"]
    json.dump(doc, open(path, "w"))
    return path


def session(link, work, image_id):
    """Pushes configuration, schedules and an image and reads everything back."""
    status, out, err = ctl(link, "config", "push", ARGS.examples + "/config.json")
    check(status == 0 and out and out[0]["verified"], "config push verified (%s)" % err.strip())
    cs_cfg = out[0]["cs"] if out else None
    status, out, err = ctl(link, "schedules", "push", schedules_as_library_writes(work + "/sched.json"))
    check(status == 0 and out and out[0]["verified"], "schedules push verified (%s)" % err.strip())
    cs_sched = out[0]["cs"] if out else None
    status, out, err = ctl(link, "image", "push", ARGS.examples + "/image.png", "--id", str(image_id))
    check(status == 0 and out and out[0]["present"], "image push stored (%s)" % err.strip())
    status, out, _ = ctl(link, "state")
    state = out[0] if out else {}
    check(status == 0 and state.get("csCfg") == cs_cfg and state.get("csSched") == cs_sched,
          "state reports both checksums")
    check({"uid": image_id, "uidText": str(image_id)} in state.get("images", []), "state lists the image")
    check(state.get("devName") == "lobby panel", "state reports the configured name")
    status, out, _ = ctl(link, "events", "--sort", "id-desc")
    check(status == 0 and len(out) > 3 and all("event" in o for o in out), "events come back, one per line")
    status, out, _ = ctl(link, "statistics")
    check(status == 0 and out and out[0]["imgUpdateCount"] >= 1, "statistics count the image update")
    status, out, _ = ctl(link, "display-config")
    check(status == 0 and out and out[0].get("dispConfigs"), "display configuration comes back")
    status, out, _ = ctl(link, "time")
    check(status == 0 and out and out[0]["action"] == "time", "time is set")
    return state


def tcp_part(work):
    data = work + "/tcp-data"
    device, hello = start_device(data, "--listen", "127.0.0.1:0")
    address = hello["address"]
    link = ["--device", address]
    before = session(link, work, 42)

    # Garbage, a telegram cut off mid-frame and an abrupt disconnect must not stop the device.
    host, port = address.rsplit(":", 1)
    for payload in (os.urandom(4096), b"\x01" + bytes(range(0x80, 0x100)), b"\x02\x01\x02garbage\x01\x90"):
        with socket.create_connection((host, int(port)), timeout=5) as raw:
            raw.sendall(payload)
    # On one connection: a stray end byte ahead of a request, then a frame that never ends.
    request = work + "/state-request.json"
    json.dump({"action": "state", "type": "request", "tv": 1}, open(request, "w"))
    frames = subprocess.run([ARGS.nkctl, "encode", request], capture_output=True, timeout=10).stdout
    with socket.create_connection((host, int(port)), timeout=5) as raw:
        raw.sendall(b"\x02noise" + frames)
        check(answer_bytes(raw) > 0, "a request behind a stray end byte is answered")
        try:
            raw.sendall(b"\x01" + b"\x80" * (32 << 20))
            closed = answer_bytes(raw) == 0
        except OSError:
            closed = True
        check(closed, "a frame that never ends closes its connection")
    status, _, _ = ctl(link, "state")
    check(status == 0, "device still serves after garbage and cut telegrams")

    # A run that computes no checksum and uses no TLS starts without OpenSSL: loading it costs
    # more than the whole request. One that does compute a checksum loads it when needed.
    loaded = subprocess.run([ARGS.nkctl, "--json", *link, "state"], capture_output=True, text=True, timeout=30,
                            env=dict(os.environ, LD_DEBUG="files"))
    check(loaded.returncode == 0 and "libc.so" in loaded.stderr and "libcrypto" not in loaded.stderr
          and "libssl" not in loaded.stderr, "nkctl state loads neither libcrypto nor libssl")
    status, sums, err = ctl([], "config", "checksum", ARGS.examples + "/config.json")
    check(status == 0 and len(sums[0].get("cs", "")) == 40, "a checksum is computed all the same (%s)" % err)

    # Several stations at once.
    runs = [subprocess.Popen([ARGS.nkctl, "--json", *link, "state"], stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            for _ in range(6)]
    codes = []
    for run in runs:
        try:
            codes.append(run.wait(30))
        except subprocess.TimeoutExpired:
            run.kill()
            codes.append(None)
    check(codes == [0] * 6, "six stations served at once")
    status, out, _ = ctl(link + ["--device", address], "state")
    check(status == 0 and len(out) == 2 and all(o["device"] == address for o in out),
          "one station talks to two links at once, each line naming its device")
    refused = "127.0.0.1:%d" % free_port()
    status, out, err = ctl(link + ["--device", refused, "--device", address], "state")
    check(status == 4 and len(out) == 3 and "connection refused" in err
          and {"device": refused, "error": "connection refused by " + refused, "exitCode": 4} in out,
          "a device that cannot be reached fails alone, also as an error object (%s)" % err.strip())
    os.environ["NKCTL_DEVICES"] = "1@%s, %s" % (address, address)
    status, out, _ = ctl([], "state")
    del os.environ["NKCTL_DEVICES"]
    check(status == 0 and [o["device"] for o in out] == ["1@" + address, address], "devices from the environment")
    with open(work + "/devices.txt", "w") as f:
        f.write("# panels\n%s\n\n" % address)
    status, out, _ = ctl(["--devices-file", work + "/devices.txt"], "state")
    check(status == 0 and len(out) == 1, "devices from a file")
    status, out, err = ctl(["--device", "9@" + address, "--timeout", "1"], "state")
    check(status == 5 and "time-out: device 9 at " + address in err, "another protocol address is not answered")

    # Ids above 2^53 come also as text; a removal of an image the device does not hold fails.
    big = 9007199254740993
    status, out, _ = ctl(link, "image", "push", ARGS.examples + "/image.png", "--id", str(big))
    check(status == 0 and out and out[0]["uidText"] == str(big), "a large id comes back as text too")
    status, out, _ = ctl(link, "state")
    check(status == 0 and {"uid": big, "uidText": str(big)} in out[0]["images"], "state gives ids as text too")
    status, out, err = ctl(link, "image", "remove", "--id", str(big - 1))
    check(status == 7 and out and out[0]["removed"] is False and "not held" in err,
          "removing an image the device does not hold fails (%s)" % err.strip())
    status, out, _ = ctl(link, "image", "remove", "--id", str(big))
    check(status == 0 and out and out[0]["removed"], "a large id is removed exactly")
    status, out, _ = ctl(link, "events", "--limit", "3", "--since", "2020-01-01T00:00:00Z")
    check(status == 0 and len(out) == 3 and all("event" in o and o["device"] == address for o in out),
          "events one per line, limited")

    # A large schedule set is merged away from the links: other stations keep their answers
    # while it is worked on. (The merge of 30000 schedules takes seconds; a state round trip a
    # fraction of one. A frozen device answers no state before the push has its answer.)
    big = work + "/big-schedules.json"
    json.dump({"action": "schedules", "type": "request", "tv": 1, "schedules": [
        {"uid": i, "name": "s", "startTime": 0, "stopTime": 0, "flags": 0, "frame": 1,
         "entries": [{"uid": 1, "name": "e", "duration": 5, "imageUid": i}]} for i in range(1, 20001)]}, open(big, "w"))
    push = subprocess.Popen([ARGS.nkctl, "--json", *link, "--timeout", "60", "schedules", "push", big],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    answered_meanwhile = 0
    states_ok = True
    while push.poll() is None:
        status, _, _ = ctl(link, "state")
        states_ok = states_ok and status == 0
        if push.poll() is None and status == 0:
            answered_meanwhile += 1
        time.sleep(0.2)
    pushed = push.communicate(timeout=60)
    check(push.returncode == 0 and states_ok and answered_meanwhile > 0,
          "other stations are answered while a large schedule set is merged (%d answers meanwhile; %s)"
          % (answered_meanwhile, pushed[1].strip()))
    status, _, _ = ctl(link, "schedules", "push", schedules_as_library_writes(work + "/sched.json"))
    status, out, _ = ctl(link, "state")
    before = out[0] if status == 0 and out else {}

    # A kill at any moment keeps what was confirmed.
    device.kill()
    device.wait()
    device, hello = start_device(data, "--listen", "127.0.0.1:0")
    link = ["--device", hello["address"]]
    status, out, _ = ctl(link, "state")
    after = out[0] if out else {}
    check(status == 0 and after.get("csCfg") == before.get("csCfg") and after.get("csSched") == before.get("csSched")
          and after.get("images") == before.get("images"), "state survives a kill and a restart")

    status, out, _ = ctl(link, "image", "remove", "--id", "42")
    check(status == 0 and out and out[0]["removed"], "image removed")

    # A second device on the same port is refused with one line.
    second = subprocess.run([ARGS.nkdevice, "--data", work + "/other", "--listen", hello["address"]],
                            capture_output=True, text=True, timeout=10)
    check(second.returncode != 0 and "in use" in second.stderr and len(second.stderr.splitlines()) == 1,
          "port in use gives one line (%s)" % second.stderr.strip())
    second = subprocess.run([ARGS.nkdevice, "--data", data, "--listen", "127.0.0.1:0"],
                            capture_output=True, text=True, timeout=10)
    check(second.returncode != 0 and "in use" in second.stderr, "a data directory serves one device only")

    status, out, _ = ctl(link, "shutdown")
    check(status == 0 and out and out[0]["action"] == "shutdown", "shutdown acknowledged")
    check(stop(device) == 0, "device stops cleanly after shutdown")


def bad_input_part(work):
    link = ["--device", "127.0.0.1:9"]
    result = ctl(link, "config", "push", work + "/missing.json")
    one_error_line(result, "No such file", "missing file")
    check(result[0] == 3, "a missing input file exits with 3")
    with open(work + "/broken.json", "w") as f:
        f.write('{\n  "action": "config",\n  "type": "request" "tv": 1\n}\n')
    one_error_line(ctl(link, "config", "push", work + "/broken.json"), "broken.json:3:", "malformed JSON")
    one_error_line(ctl(link, "image", "push", ARGS.examples + "/image.png", "--id", "18446744073709551616"),
                   "out of range", "id out of range")
    one_error_line(ctl(link, "image", "push", ARGS.examples + "/image.png", "--id", "1", "--mime", "image/gif"),
                   "unknown mime type", "unknown mime type")
    result = ctl(link, "image", "push", ARGS.examples + "/image.png")
    one_error_line(result, "--id is required", "usage error")
    check(result[0] == 2, "a usage error exits with 2")

    # A port nobody listens on, and a peer that accepts but never answers.
    result = ctl(["--device", "127.0.0.1:%d" % free_port()], "state")
    check(result[0] == 4 and "connection refused" in result[2] and len(result[2].splitlines()) == 1,
          "refused connection: one line, exit 4")
    with socket.socket() as silent:
        silent.bind(("127.0.0.1", 0))
        silent.listen(4)
        address = "127.0.0.1:%d" % silent.getsockname()[1]
        started = time.monotonic()
        result = ctl(["--device", address, "--timeout", "1"], "state")
        check(result[0] == 5 and "time-out: device 1 at " + address in result[2]
              and len(result[2].splitlines()) == 1, "silent device: one line, exit 5")
        check(time.monotonic() - started < 10, "time-out is bounded")


def codec_part(work):
    request = work + "/state-request.json"
    json.dump({"action": "state", "type": "request", "tv": 1, "name": "hall", "task": 1}, open(request, "w"))
    frames = subprocess.run([ARGS.nkctl, "encode", request], capture_output=True, timeout=10).stdout
    decoded = subprocess.run([ARGS.nkctl, "--json", "decode"], input=b"\xaa\x02" + frames + b"junk",
                             capture_output=True, timeout=10)
    objects = [json.loads(line) for line in decoded.stdout.decode().splitlines()]
    telegrams = [o for o in objects if "telegram" in o]
    check(len(telegrams) == 1 and telegrams[0]["message"]["name"] == "STATE_REQ"
          and telegrams[0]["message"]["json"]["name"] == "hall", "encode then decode gives the message back")
    # What decode prints for a schedule set is pushable and gives the same set: flags 6 on
    # logical display 1 stay flags 6 on display 1.
    schedules = work + "/frame-schedules.json"
    json.dump({"action": "schedules", "type": "request", "tv": 1, "schedules": [
        {"uid": 8, "name": "eight", "startTime": "2024-03-01T08:30:00+01:00", "stopTime": 0, "flags": 6, "frame": 1,
         "entries": [{"uid": 1, "name": "a", "duration": 5, "imageUid": "9007199254740993"}]}]}, open(schedules, "w"))
    status, sums, err = ctl([], "schedules", "checksum", schedules)
    frames = subprocess.run([ARGS.nkctl, "encode", schedules], capture_output=True, timeout=10).stdout
    decoded = subprocess.run([ARGS.nkctl, "--json", "decode"], input=frames, capture_output=True, timeout=10)
    printed = [json.loads(line) for line in decoded.stdout.decode().splitlines()][0]["message"]["json"]
    check(printed["schedules"][0]["frame"] == 1 and printed["schedules"][0]["startTime"] == 1709278200,
          "decode prints the logical display as \"frame\" and the time in UTC")
    json.dump(printed, open(work + "/printed.json", "w"))
    status2, sums2, err2 = ctl([], "schedules", "checksum", work + "/printed.json")
    check(status == 0 and status2 == 0 and sums and sums2 and sums[0]["cs"] == sums2[0]["cs"],
          "a decoded schedule set pushed back gives the same checksum (%s%s)" % (err.strip(), err2.strip()))
    # Base64 that does not decode is refused, not sent as empty content; -o says why it fails.
    for content, good in (("Zg==", True), ("Zh==", False), ("Zg", False), ("Z!==", False)):
        image = work + "/image-request.json"
        json.dump({"action": "images", "type": "request", "tv": 1,
                   "images": [{"uid": 1, "name": "f", "mime": 0, "content": content}]}, open(image, "w"))
        done = subprocess.run([ARGS.nkctl, "encode", "--hex", image], capture_output=True, text=True, timeout=10)
        check((done.returncode == 0) if good else (done.returncode == 3 and "not valid base64" in done.stderr),
              "encode %s base64 %r (%s)" % ("takes" if good else "refuses", content, done.stderr.strip()))
    done = subprocess.run([ARGS.nkctl, "encode", request, "-o", work + "/missing/dir/out.bin"],
                          capture_output=True, text=True, timeout=10)
    check(done.returncode != 0 and "No such file or directory" in done.stderr, "encode -o says why it cannot write")
    hexed = subprocess.run([ARGS.nkctl, "encode", "--hex", request], capture_output=True, timeout=10).stdout
    decoded = subprocess.run([ARGS.nkctl, "--json", "decode"], input=hexed, capture_output=True, timeout=10)
    check(decoded.returncode == 0 and b"STATE_REQ" in decoded.stdout, "decode reads hex")


def serial_part(work):
    cable = start([ARGS.pty_pair])
    line = read_line(cable)
    if not check(bool(line), "pseudo-terminal pair created"):
        return
    device_end, station_end = line.split()
    device, _ = start_device(work + "/serial-data", "--serial", device_end, "--address", "7")
    link = ["--serial", station_end, "--address", "7"]
    # Line noise with a stray end byte must not leave the device deaf.
    noise = os.open(station_end, os.O_WRONLY | os.O_NOCTTY)
    os.write(noise, b"\x02\x7fnoise\x02")
    os.close(noise)
    session(link, work, 43)
    # One program per port: a second station on the line is refused, not handed the answers.
    holder = os.open(station_end, os.O_RDWR | os.O_NOCTTY)
    fcntl.flock(holder, fcntl.LOCK_EX | fcntl.LOCK_NB)
    status, _, err = ctl(link, "state")
    os.close(holder)
    check(status == 4 and "busy" in err, "a serial port held by another program is refused (%s)" % err.strip())
    status, out, _ = ctl(link, "shutdown")
    check(status == 0, "shutdown over the serial link")
    check(stop(device) == 0, "serial device stops cleanly")


def on_terminal(cmd, seconds=60):
    """Runs cmd with standard error on a pseudo-terminal; gives (exit status, stdout, the
    terminal's text)."""
    master, slave = os.openpty()
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=slave, text=True)
    os.close(slave)
    screen = b""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        try:
            chunk = os.read(master, 65536)
        except OSError:  # the last writer closed the terminal
            break
        if not chunk:
            break
        screen += chunk
    os.close(master)
    try:
        status = proc.wait(max(1, deadline - time.monotonic()))
    except subprocess.TimeoutExpired:
        proc.kill()
        status = None
    return status, proc.stdout.read(), screen.decode(errors="replace")


def transfer_part(work):
    """What a user sees of a long transfer: progress in file bytes, a local limit, a device
    that stops taking bytes."""
    data = work + "/transfer-data"
    device, hello = start_device(data, "--listen", "127.0.0.1:0")
    link = ["--device", hello["address"]]
    image = work + "/three.png"
    with open(image, "wb") as f:
        f.write(os.urandom(3 << 20))

    # On a terminal: "preparing" first, then lines counting the file's bytes, each with a
    # rate and the time left, ending at 100 % of the file.
    status, out, screen = on_terminal([ARGS.nkctl, "--json", *link, "image", "push", image, "--id", "77"])
    steps = [step.replace("\x1b[K", "").strip() for step in re.split(r"[\r\n]", screen)]
    steps = [step for step in steps if step]
    progress = [re.fullmatch(r"image 77: +(\d+)% ([\d.]+ (?:bytes|KiB|MiB)) of 3\.0 MiB, [\d.]+ (?:bytes|KiB|MiB)/s, "
                             r"(?:\d+ s|--) left(; waiting for the device)?", step) for step in steps]
    check(status == 0 and '"present":true' in out, "pushed with a terminal on standard error (exit %r)" % status)
    check(steps and steps[0].startswith("image 77: preparing"), "the preparation is shown first (%r)" % steps[:1])
    preparing = len([step for step in steps if step.startswith("image 77: preparing")])
    shown = [match for match in progress if match]
    check(shown and preparing + len(shown) == len(steps) and all(progress[preparing:]),
          "after the preparation, every line is progress in file bytes (%r)" % steps)
    check(shown and shown[-1].group(1) == "100" and shown[-1].group(2) == "3.0 MiB",
          "the last line counts the whole file (%r)" % steps[-1:])
    status, _, err = ctl(link, "image", "push", image, "--id", "78")
    check(status == 0 and err == "", "no progress text when standard error is not a terminal (%r)" % err[:80])

    # Two devices in one call: each gets the whole file (the first a copy of the request,
    # the last the request itself).
    second, second_hello = start_device(work + "/transfer-data-2", "--listen", "127.0.0.1:0")
    status, out, err = ctl(link + ["--device", second_hello["address"]], "image", "push", image, "--id", "81")
    expected = hashlib.sha1(open(image, "rb").read()).hexdigest()
    stored = [hashlib.sha1(open(d + "/images/image_id81.png", "rb").read()).hexdigest()
              for d in (data, work + "/transfer-data-2") if os.path.exists(d + "/images/image_id81.png")]
    check(status == 0 and len(out) == 2 and all(o["present"] and o["cs"] == expected for o in out)
          and stored == [expected, expected], "one push to two devices stores the same file on both (%r)" % err)
    second.terminate()
    stop(second)

    # Larger than one request may be: refused at once, before reading, with exit 8; the
    # device is not blamed and gets nothing.
    huge = work + "/huge.png"
    with open(huge, "wb") as f:
        f.truncate(300 << 20)  # sparse: no disk, no time
    status, out, err = ctl(link, "--timeout", "60", "image", "push", huge, "--id", "79", seconds=30)
    lines = err.strip().splitlines()
    check(status == 8 and len(lines) == 1 and "local limit" in lines[0] and "nothing was sent" in lines[0]
          and "time-out" not in err, "a request above the local limit: one line, exit 8 (%r, exit %r)" % (err, status))
    status, out, _ = ctl(link, "state")
    check(status == 0 and out and 79 not in [i["uid"] for i in out[0].get("images", [])], "the device got nothing")
    device.terminate()
    stop(device)

    # A peer that takes the connection but never reads: a time-out once the link has taken
    # no byte for --timeout seconds, not a hang and not a memory spike.
    big = work + "/sixteen.png"
    with open(big, "wb") as f:
        f.write(os.urandom(16 << 20))
    with socket.socket() as deaf:
        deaf.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        deaf.bind(("127.0.0.1", 0))
        deaf.listen(1)
        address = "127.0.0.1:%d" % deaf.getsockname()[1]
        status, _, err = ctl(["--device", address, "--timeout", "1"], "image", "push", big, "--id", "80", seconds=60)
        check(status == 5 and "took no byte" in err and len(err.strip().splitlines()) == 1,
              "a device that stops reading: one line, exit 5 (%r, exit %r)" % (err.strip(), status))


def wrap_in_emulator(work):
    """Points the program arguments at scripts that start each program under the emulator."""
    for name in ("nkdevice", "nkctl", "pty_pair"):
        script = os.path.join(work, name + ".sh")
        with open(script, "w") as out:
            out.write('#!/bin/sh\nexec %s "%s" "$@"\n' % (ARGS.emulator, getattr(ARGS, name)))
        os.chmod(script, 0o755)
        setattr(ARGS, name, script)


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    for name in ("--nkdevice", "--nkctl", "--pty-pair", "--examples"):
        parser.add_argument(name, required=True)
    parser.add_argument("--emulator", default="", help="runs the programs of a cross build (e.g. qemu-arm)")
    ARGS = parser.parse_args()
    work = tempfile.mkdtemp(prefix="nk-e2e-")
    if ARGS.emulator:
        wrap_in_emulator(work)
    try:
        tcp_part(work)
        bad_input_part(work)
        codec_part(work)
        transfer_part(work)
        serial_part(work)
    except Exception as error:  # a broken step must still end with the children killed
        check(False, "unexpected error: %r" % error)
    finally:
        kill_children()
        shutil.rmtree(work, ignore_errors=True)
    print("%d check(s) failed" % len(FAILURES) if FAILURES else "all checks passed")
    return 1 if FAILURES else 0


if __name__ == "__main__":
    sys.exit(main())
