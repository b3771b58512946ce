#!/usr/bin/env python3
"""The Wireshark dissector (tools/wireshark/nk.lua) against captured loopback traffic.

dumpcap captures three kinds of traffic while the test runs:
  1. nkctl against nkdevice on a free port (found by the heuristic, not by the default port):
     every request the tools send and every answer, with a multi-part Huffman-compressed image;
  2. frames the tools encode (nkctl encode) in every layout revision, GENERIC frames, a frame
     with a bad CRC and a frame written in two TCP segments, sent over a plain TCP connection;
  3. nkdevice serving through a mosquitto broker, asked on its fleet topic.
tshark then decodes the capture with the dissector and every decoded field is checked.
tshark, dumpcap and mosquitto are required: without them the test fails.
"""
import argparse
import hashlib
import json
import os
import random
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

ARGS = None
FAILURES = []
CHILDREN = []


def check(condition, what):
    print(("ok   " if condition else "FAIL ") + what, flush=True)
    if not condition:
        FAILURES.append(what)
    return condition


def registered_tcp_ports():
    out = subprocess.run(["tshark", "-G", "decodes"], capture_output=True, text=True, timeout=120).stdout
    return {int(line.split("\t")[1]) for line in out.splitlines() if line.startswith("tcp.port\t")}


def free_port(taken):
    """A free port below the kernel's client ports that no dissector is registered for, so
    that the server side decides how a connection is decoded."""
    rng = random.Random()
    while True:
        port = rng.randrange(20000, 30000)
        if port in taken:
            continue
        with socket.socket() as probe:
            try:
                probe.bind(("127.0.0.1", port))
            except OSError:
                continue
        taken.add(port)
        return port


def run(cmd, seconds=120, **kw):
    done = subprocess.run(cmd, capture_output=True, timeout=seconds, **kw)
    if done.returncode != 0:
        raise RuntimeError("%s failed (%d): %s" % (" ".join(cmd), done.returncode, done.stderr.decode(errors="replace")))
    return done.stdout


# ---- frames written here only for what the tools cannot produce (GENERIC messages) ----
def base128(data):
    bits = "".join("{:08b}".format(b) for b in data)
    bits += "0" * (-len(bits) % 7)
    return bytes(0x80 | int(bits[i:i + 7], 2) for i in range(0, len(bits), 7))


def crc8(data):
    crc = 0
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = ((crc << 1) ^ 0x07) & 0xFF if crc & 0x80 else (crc << 1) & 0xFF
    return crc


def frame(payload, src=1, dst=2, tlg=1, kind=2, part=1, flags_part=0x08):
    body = struct.pack("<IIIIIBI", src, dst, tlg, part, 1700000000, kind | flags_part, len(payload)) + payload
    return b"\x01" + base128(body + bytes([crc8(body)])) + b"\x02"


def nk_string(text):
    raw = text.encode()
    return struct.pack("<I", len(raw)) + raw


# ---- capture ----
def start_capture(path, ports):
    flt = " or ".join("tcp port %d" % p for p in ports)
    proc = subprocess.Popen([ARGS.dumpcap, "-i", "lo", "-B", "64", "-f", flt, "-w", path],
                            stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    CHILDREN.append(proc)
    deadline = time.time() + 30
    while time.time() < deadline:
        line = proc.stderr.readline()
        if not line:
            break
        if line.startswith("File:"):
            return proc
    raise RuntimeError("dumpcap did not start capturing on lo")


def stop_capture(proc):
    time.sleep(1)  # let the last packets reach the capture
    proc.send_signal(signal.SIGINT)
    report = proc.stderr.read()
    proc.wait(30)
    dropped = [line for line in report.splitlines() if "dropped" in line]
    check(dropped and "/0 " in dropped[0], "the capture lost no packet (%s)" % (dropped[0] if dropped else report.strip()))


# ---- traffic ----
def device_session(work, port, image):
    data = os.path.join(work, "device")
    device = subprocess.Popen([ARGS.nkdevice, "--data", data, "--listen", "127.0.0.1:%d" % port],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    CHILDREN.append(device)
    device.stdout.readline()
    link = ["--json", "--device", "127.0.0.1:%d" % port, "--timeout", "60"]
    ex = ARGS.examples
    for cmd in (["state"], ["state", "--name", "lobby"], ["config", "push", ex + "/config.json"],
                ["schedules", "push", ex + "/schedules.json"],
                ["image", "push", image, "--id", "42", "--mime", "application/octet-stream"],
                ["events"], ["statistics"], ["display-config"], ["time"], ["shutdown"]):
        run([ARGS.nkctl, *link, *cmd], seconds=180)
    device.wait(30)


RESPONSES = {
    "state_rsp": {"action": "state", "type": "response", "tv": 1, "serial": 1234, "ci": "A", "csCfg": "",
                  "csSched": "", "vc": "1", "va": "", "omc": 3, "evc": 5, "devName": "P", "devCus": "",
                  "flags": 1, "images": [{"uid": 7}], "extState": 263},
    "display_rsp": {"action": "displayConfig", "type": "response", "tv": 1, "name": "D", "rot": -90,
                    "dispConfigs": [{"name": "C", "id": 32769,
                                     "logDisps": [{"name": "L", "id": 2, "w": 800, "h": 480, "l": 10, "t": 20}]}]},
    "events_rsp": {"action": "events", "type": "response", "tv": 1, "task": 7,
                   "events": [{"timeFirst": 1, "timeLast": 2, "id": 3, "type": 4, "event": "msg", "cat": 1,
                               "occ": 5, "refImage": "ref", "subEvents": ["a", "b"]}]},
    "statistics_rsp": {"action": "statistics", "type": "response", "tv": 1, "imgUpdateCount": 7,
                       "energy_Wh": 12, "energy_mWh": 345, "tempCaseMin": -20, "tempCaseMinTime": 1000,
                       "tempCaseMax": 45, "tempCaseMaxTime": 2000},
    "image": {"action": "images", "type": "request", "tv": 1, "taskRemove": 1, "taskFbc": 9,
              "images": [{"uid": 42, "name": "x.png", "cs": "aaf4c61ddcc5e8a2dabede0f3b482cd9aea9434d",
                          "mime": 0, "content": "aGVsbG8="}]},
}


def encode(work, name, version, extra=()):
    path = os.path.join(work, name + ".json")
    if name in RESPONSES:
        with open(path, "w") as out:
            json.dump(RESPONSES[name], out)
    else:
        path = os.path.join(ARGS.examples, name + ".json")
    return run([ARGS.nkctl, "encode", path, "--version", str(version), *extra])


def revisions(work):
    """(bytes of every layout revision, in one write)."""
    frames = []
    for name, versions in (("state_rsp", (0, 1, 2)), ("config", (0, 1, 2, 3)), ("schedules", (1, 2)),
                           ("image", (0, 1, 2, 3)), ("display_rsp", (0, 1)), ("events_rsp", (0,)),
                           ("statistics_rsp", (0,))):
        for v in versions:
            frames.append(encode(work, name, v))
    frames.append(encode(work, "statistics_rsp", 0, ("--telegram-id", "7")))
    # The JSON reader of STATISTICS_RSP takes only the update count, so the energy and the
    # signed temperatures come from a frame written here.
    frames.append(frame(struct.pack("<HHIIIhIhI", 15, 0, 8, 12, 345, -20, 1000, 45, 2000), tlg=8, kind=3))
    frames.append(frame(struct.pack("<HH", 28, 0) + nk_string("get") + nk_string("brightness"), tlg=5))
    frames.append(frame(struct.pack("<HH", 29, 0) + nk_string("80") + nk_string(""), tlg=5, kind=3))
    return b"".join(frames)


def stream_session(port, work):
    server = socket.create_server(("127.0.0.1", port))
    received = []
    reader = threading.Thread(target=lambda: received.append(drain(server)), daemon=True)
    reader.start()
    client = socket.create_connection(("127.0.0.1", port))
    client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    client.sendall(revisions(work))
    time.sleep(0.3)
    good = frame(struct.pack("<HH", 11, 0) + struct.pack("<I", 123456), tlg=9, kind=1)
    bad = bytearray(good)
    bad[len(bad) // 2] ^= 0x01                 # one bit of the encoded body: still base128
    client.sendall(bytes(bad))
    time.sleep(0.3)
    split = frame(struct.pack("<HH", 28, 0) + nk_string("split") + nk_string("across two segments"), tlg=6)
    client.sendall(split[:10])
    time.sleep(0.5)
    client.sendall(split[10:])
    time.sleep(0.3)
    client.close()
    reader.join(30)
    server.close()


def drain(server):
    conn, _ = server.accept()
    data = b""
    while True:
        chunk = conn.recv(65536)
        if not chunk:
            break
        data += chunk
    conn.close()
    return data


def mqtt_session(port, work):
    """A mosquitto broker on loopback and nkdevice serving address 3 of fleet1 through it:
    mosquitto_pub sends a STATE_REQ that nkctl encoded on the down topic, the device answers on
    the up topic (mosquitto_sub waits for it), and a frame-like payload goes to an online topic.
    Every message crosses the capture twice: to the broker and from it."""
    conf = os.path.join(work, "mosquitto.conf")
    with open(conf, "w") as out:
        out.write("listener %d 127.0.0.1\nallow_anonymous true\npersistence false\n" % port)
    broker = subprocess.Popen(["mosquitto", "-c", conf], stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    CHILDREN.append(broker)
    deadline = time.time() + 30
    while time.time() < deadline:
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            break
        except OSError:
            time.sleep(0.1)
    link = ["-h", "127.0.0.1", "-p", str(port), "-q", "1"]
    device = subprocess.Popen([ARGS.nkdevice, "--mqtt", "mqtt://127.0.0.1:%d" % port, "--fleet", "fleet1",
                               "--address", "3", "--data", os.path.join(work, "panel3")],
                              stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    CHILDREN.append(device)
    online = subprocess.run(["mosquitto_sub", *link, "-t", "nk/fleet1/3/online", "-C", "1", "-W", "60"],
                            capture_output=True, timeout=90)
    check(online.stdout.strip() == b"1", "nkdevice is online through the broker (%r)" % online.stdout)
    answer = subprocess.Popen(["mosquitto_sub", *link, "-t", "nk/fleet1/3/up", "-C", "1", "-W", "60"],
                              stdout=subprocess.DEVNULL)
    CHILDREN.append(answer)
    time.sleep(0.5)
    request = os.path.join(work, "state_req.json")
    with open(request, "w") as out:
        json.dump({"action": "state", "type": "request", "tv": 1, "name": "mqtt name", "task": 1}, out)
    payload = os.path.join(work, "state_req.bin")
    run([ARGS.nkctl, "--address", "3", "--from", "100", "encode", request, "-o", payload])
    run(["mosquitto_pub", *link, "-t", "nk/fleet1/3/down", "-f", payload], seconds=60)
    check(answer.wait(90) == 0, "the device answered on its up topic")
    with open(payload, "wb") as out:
        out.write(b"\x01\x80\x80\x02")
    run(["mosquitto_pub", *link, "-t", "nk/fleet1/9/online", "-f", payload], seconds=60)
    device.terminate()
    device.wait(30)
    broker.terminate()
    broker.wait(30)


# ---- reading tshark's JSON ----
def flatten(node, out):
    """All field values under node, by field name (nested frames excluded)."""
    if isinstance(node, list):
        for item in node:
            flatten(item, out)
        return
    if not isinstance(node, dict):
        return
    for key, value in node.items():
        if key == "nk":
            continue
        if isinstance(value, (dict, list)) and not (isinstance(value, list) and all(isinstance(v, str) for v in value)):
            flatten(value, out)
        else:
            for v in value if isinstance(value, list) else [value]:
                out.setdefault(key, []).append(v)


def frames_in(node, packet, topic, found):
    """Every frame the dissector shows: dicts under the key "nk" carrying "nk.encoded"."""
    if isinstance(node, list):
        for item in node:
            frames_in(item, packet, topic, found)
    elif isinstance(node, dict):
        if "nk.encoded" in node or "nk.body_len" in node:
            fields = {}
            flatten(node, fields)
            found.append({"packet": packet, "topic": topic, "f": fields, "experts": json.dumps(node)})
        topic = node.get("nk.mqtt_topic", topic)
        for key, value in node.items():
            if key == "nk" or isinstance(value, (dict, list)):
                frames_in(value, packet, topic, found)


def tshark(capture, mqtt_port, *args):
    """tshark with the dissector. The device and stream ports are random, and the kernel's
    client ports may be ones another dissector is registered for, so the heuristics (ours
    finds the streams) are asked first; MQTT is on a random port too."""
    return run(["tshark", "-r", capture, "-X", "lua_script:" + ARGS.dissector, "-o", "tcp.try_heuristic_first:TRUE",
                "-d", "tcp.port==%d,mqtt" % mqtt_port, *args], seconds=600)


def decode(capture, mqtt_port):
    return json.loads(tshark(capture, mqtt_port, "-T", "json", "--no-duplicate-keys"))


def first(record, key):
    values = record["f"].get(key)
    return values[0] if values else None


def find(frames, msg_type, version=None, **fields):
    for record in frames:
        if first(record, "nk.type") != msg_type:
            continue
        if version is not None and first(record, "nk.version") != str(version):
            continue
        if all(first(record, k.replace("__", ".")) == v for k, v in fields.items()):
            return record
    return None


def main():
    global ARGS
    parser = argparse.ArgumentParser()
    for name in ("nkctl", "nkdevice", "examples", "dissector", "build"):
        parser.add_argument("--" + name, required=True)
    ARGS = parser.parse_args()
    for tool in ("tshark", "dumpcap", "mosquitto", "mosquitto_pub", "mosquitto_sub"):
        if not shutil.which(tool):
            print("FAIL %s is not installed (scripts/install-deps.sh installs it)" % tool)
            return 1
    ARGS.dumpcap = shutil.which("dumpcap")

    work = tempfile.mkdtemp(prefix="nk-wireshark-")
    try:
        # An image that Huffman shrinks but that stays above the 1 MiB part size: two parts.
        rng = random.Random(16)
        content = bytes(rng.randrange(64) for _ in range(1600000))
        image = ARGS.image = os.path.join(work, "big.7z")
        with open(image, "wb") as out:
            out.write(content)

        taken = registered_tcp_ports()
        device_port, stream_port, mqtt_port = free_port(taken), free_port(taken), free_port(taken)
        capture = os.path.join(work, "capture.pcapng")
        dumpcap = start_capture(capture, (device_port, stream_port, mqtt_port))
        device_session(work, device_port, image)
        stream_session(stream_port, work)
        mqtt_session(mqtt_port, work)
        stop_capture(dumpcap)

        packets = decode(capture, mqtt_port)
        frames = []
        for packet in packets:
            layers = packet["_source"]["layers"]
            number = layers["frame"]["frame.number"]
            frames_in(layers.get("nk", []), number, None, frames)
        check(len(frames) > 20, "the dissector found frames in the capture (%d)" % len(frames))
        # Every body on the wire here is exact: read to its end, nothing left over.
        inexact = [(r["packet"], first(r, "nk.type"), first(r, "nk.version")) for r in frames
                   if "nk.msg.short" in r["experts"] or "nk.msg.extra" in r["experts"]]
        check(not inexact, "every message body read exactly to its end (not: %s)" % inexact)
        rle = [r for r in frames if first(r, "nk.flags.compression") == "1"]
        check(rle and all(first(r, "nk.type") for r in rle) and not any("nk.comp.bad" in r["experts"] for r in frames),
              "RLE telegrams decompressed to their messages (%d), no compressed content refused" % len(rle))
        check_device_session(frames, packets)
        check_revisions(frames)
        check_stream_cases(frames, packets)
        check_mqtt(frames)
        check_filters(capture, mqtt_port, frames)
        check_registration()
        check_installed(work, capture, mqtt_port, frames)
    finally:
        for proc in CHILDREN:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
        if not os.environ.get("NK_KEEP_CAPTURE"):
            shutil.rmtree(work, ignore_errors=True)
        else:
            print("capture kept in " + work)

    if FAILURES:
        print("%d check(s) failed" % len(FAILURES))
        return 1
    print("all checks passed")
    return 0


def checksum_of(kind, path):
    out = run([ARGS.nkctl, "--json", kind, "checksum", path]).decode()
    return json.loads(out.splitlines()[0])


def check_device_session(frames, packets):
    names = {first(r, "nk.type") for r in frames}
    every = ["STATE_REQ", "STATE_RSP", "EVENTS_REQ", "EVENTS_RSP", "SET_CONFIG_REQ", "SET_CONFIG_RSP",
             "GET_DISPLAY_CONFIGURATION_REQ", "GET_DISPLAY_CONFIGURATION_RSP", "SET_SCHEDULES_REQ",
             "SET_SCHEDULES_RSP", "TIME", "SHUTDOWN", "IMAGE", "STATISTICS_REQ", "STATISTICS_RSP",
             "GENERIC_REQ", "GENERIC_RSP"]
    check(all(n in names for n in every), "every message type decoded (missing: %s)" % [n for n in every if n not in names])

    check(find(frames, "STATE_REQ", nk__state_req__task="1", nk__state_req__name="lobby") is not None,
          "STATE_REQ: task 1 and the new name")
    rsp = find(frames, "STATE_RSP", nk__state_rsp__devName="lobby")
    check(rsp is not None and first(rsp, "nk.state_rsp.serial") == "1" and first(rsp, "nk.src") == "1"
          and first(rsp, "nk.flags.type") == "3", "STATE_RSP from the device: serial 1, name, source 1, response")
    # the device answers the image with its state: configuration, schedules and images held
    held = find(frames, "STATE_RSP", 2, nk__src="1", nk__state_rsp__images__uid="42")
    check(held is not None and first(held, "nk.state_rsp.flags") == "7"
          and [first(held, "nk.state_rsp.flags." + k) for k in ("configHeld", "schedulesHeld", "imagesHeld")]
          == ["1", "1", "1"], "STATE_RSP answering the image: the image id and the three held flags")
    cfg = find(frames, "SET_CONFIG_REQ", 3)
    check(cfg is not None and first(cfg, "nk.config_req.deviceName") == "lobby panel"
          and first(cfg, "nk.config_req.minUpdateTemp") == "-20" and first(cfg, "nk.config_req.opMode") == "2"
          and first(cfg, "nk.config_req.slideshowInterval_sec") == "10"
          and first(cfg, "nk.config_req.flags.sleepUserEna") == "1"
          and first(cfg, "nk.config_req.timeslots.name") == "opening hours"
          and first(cfg, "nk.config_req.timeslots.stop") == "72000"
          and first(cfg, "nk.config_req.frames.name") == "main" and first(cfg, "nk.config_req.frames.width") == "1920",
          "SET_CONFIG_REQ version 3 as nkctl pushed it")
    cs = checksum_of("config", ARGS.examples + "/config.json")
    check(find(frames, "SET_CONFIG_RSP", nk__config_rsp__cs=cs.get("cs", cs.get("checksum"))) is not None,
          "SET_CONFIG_RSP carries the configuration checksum")
    sch = find(frames, "SET_SCHEDULES_REQ", 2)
    check(sch is not None and sch["f"].get("nk.schedules_req.schedules.name") == ["morning", "evening"]
          and sch["f"].get("nk.schedules_req.schedules.entries.name") == ["welcome", "menu", "closing"]
          and first(sch, "nk.schedules_req.schedules.uid") == "7"
          and sch["f"].get("nk.schedules_req.schedules.stopTime") == ["0", "1709330400"]
          and sch["f"].get("nk.schedules_req.schedules.flags.loop") == ["1", "0"],
          "SET_SCHEDULES_REQ version 2 as nkctl pushed it")
    cs = checksum_of("schedules", ARGS.examples + "/schedules.json")
    check(find(frames, "SET_SCHEDULES_RSP", nk__schedules_rsp__cs=cs.get("cs", cs.get("checksum"))) is not None,
          "SET_SCHEDULES_RSP carries the schedules checksum")
    for name in ("EVENTS_REQ", "EVENTS_RSP", "STATISTICS_REQ", "STATISTICS_RSP", "GET_DISPLAY_CONFIGURATION_REQ",
                 "GET_DISPLAY_CONFIGURATION_RSP", "SHUTDOWN"):
        check(find(frames, name) is not None, name + " from the tools")
    tm = find(frames, "TIME")
    check(tm is not None and abs(int(first(tm, "nk.time.currentTime")) - time.time()) < 86400,
          "TIME carries the station's clock")

    # The image: two parts, Huffman, reassembled and decompressed to the file's bytes.
    parts = [r for r in frames if first(r, "nk.flags.compression") == "2" and first(r, "nk.dst") == "1"]
    check(sorted(first(r, "nk.part") for r in parts) == ["1", "2"], "the image travels in two Huffman parts")
    img = find(frames, "IMAGE", 3, nk__image__images__uid="42")
    with open(ARGS.image, "rb") as f:
        content = f.read()
    shown = first(img, "nk.image.images.content") if img else None
    check(img is not None and first(img, "nk.tlg.parts") == "2" and first(img, "nk.part") == "2"
          and first(img, "nk.image.images.mime") == "3"
          and shown is not None and bytes.fromhex(shown.replace(":", "")) == content,
          "IMAGE reassembled from both parts and decompressed: the file's 1600000 bytes")


def check_revisions(frames):
    v = {}
    for ver in (0, 1, 2):
        v[ver] = find(frames, "STATE_RSP", ver, nk__state_rsp__serial="1234")
    check(v[0] is not None and first(v[0], "nk.state_rsp.legacy") == "" and first(v[0], "nk.state_rsp.images") is None
          and first(v[0], "nk.state_rsp.devName") == "P" and first(v[0], "nk.state_rsp.flags") == "1",
          "STATE_RSP version 0: legacy text, no image list")
    check(v[1] is not None and first(v[1], "nk.state_rsp.legacy") is None and first(v[1], "nk.state_rsp.images.uid") == "7"
          and first(v[1], "nk.state_rsp.extState") is None, "STATE_RSP version 1: image list, no extState")
    check(v[2] is not None and first(v[2], "nk.state_rsp.extState") == "263"
          and first(v[2], "nk.state_rsp.extState.radio") == "3" and first(v[2], "nk.state_rsp.extState.linkUp") == "1"
          and first(v[2], "nk.state_rsp.evc") == "5", "STATE_RSP version 2: extState 0x107 = 4G, link up")
    for ver in (0, 1, 2, 3):
        c = find(frames, "SET_CONFIG_REQ", ver, nk__config_req__deviceName="lobby panel")
        has_frames = c is not None and first(c, "nk.config_req.frames.name") == "main"
        check(c is not None and has_frames == (ver >= 3) and "nk.msg.extra" not in c["experts"]
              and "nk.msg.short" not in c["experts"], "SET_CONFIG_REQ version %d: frames only from 3" % ver)
    for ver in (1, 2):
        s = find(frames, "SET_SCHEDULES_REQ", ver, nk__schedules_req__schedules__name="morning")
        check(s is not None and (first(s, "nk.schedules_req.schedules.stopTime") is not None) == (ver == 2)
              and s["f"].get("nk.schedules_req.schedules.entries.imageUid") == ["42", "43", "42"]
              and "nk.msg.extra" not in s["experts"], "SET_SCHEDULES_REQ version %d: stop times only in 2" % ver)
    for ver in (0, 1, 2, 3):
        i = find(frames, "IMAGE", ver, nk__image__images__name="x.png")
        check(i is not None and first(i, "nk.image.images.content") == "68:65:6c:6c:6f"
              and first(i, "nk.image.images.cs") == "aaf4c61ddcc5e8a2dabede0f3b482cd9aea9434d"
              and first(i, "nk.image.taskRemove") == "1"
              and (first(i, "nk.image.taskFbc") == "9") == (ver >= 3), "IMAGE version %d: task fbc only from 3" % ver)
    for ver in (0, 1):
        d = find(frames, "GET_DISPLAY_CONFIGURATION_RSP", ver, nk__display_rsp__name="D")
        check(d is not None and first(d, "nk.display_rsp.name") == "D" and first(d, "nk.display_rsp.rot") == "-90"
              and first(d, "nk.display_rsp.dispConfigs.id.id") == "1"
              and first(d, "nk.display_rsp.dispConfigs.id.current") == "1"
              and first(d, "nk.display_rsp.dispConfigs.logDisps.w") == "800"
              and (first(d, "nk.display_rsp.dispConfigs.logDisps.t") == "20") == (ver == 1),
              "GET_DISPLAY_CONFIGURATION_RSP version %d: left and top only from 1" % ver)
    e = find(frames, "EVENTS_RSP", 0, nk__events_rsp__task="7")
    check(e is not None and first(e, "nk.events_rsp.events.event") == "msg"
          and first(e, "nk.events_rsp.events.refImage") == "ref"
          and first(e, "nk.events_rsp.events.occ") == "5"
          and first(e, "nk.events_rsp.events.subEventCount") == "2"
          and e["f"].get("nk.events_rsp.events.subEvents.subEvent") == ["", ""],
          "EVENTS_RSP: a record with its two sub-event strings as written")
    s = find(frames, "STATISTICS_RSP", 0, nk__statistics_rsp__imgUpdateCount="8")
    check(s is not None and first(s, "nk.statistics_rsp.energy_mWh") == "345"
          and first(s, "nk.statistics_rsp.tempCaseMin") == "-20" and first(s, "nk.statistics_rsp.tempCaseMax") == "45"
          and first(s, "nk.statistics_rsp.tempCaseMaxTime") == "2000",
          "STATISTICS_RSP: energy and signed temperatures")
    g = find(frames, "GENERIC_REQ", 0, nk__generic_req__text1="get")
    check(g is not None and first(g, "nk.generic_req.text2") == "brightness", "GENERIC_REQ: both texts")
    g = find(frames, "GENERIC_RSP", 0, nk__generic_rsp__text1="80")
    check(g is not None and first(g, "nk.generic_rsp.text2") == "", "GENERIC_RSP: both texts, one empty")


def check_stream_cases(frames, packets):
    bad = [r for r in frames if first(r, "nk.tlg.id") == "9"]
    check(len(bad) == 1 and first(bad[0], "nk.crc.good") == "0" and "nk.crc.bad" in bad[0]["experts"]
          and first(bad[0], "nk.type") is None, "a bad CRC is flagged and its payload not taken")
    split = find(frames, "GENERIC_REQ", 0, nk__generic_req__text1="split")
    segments = None
    if split:
        for packet in packets:
            layers = packet["_source"]["layers"]
            if layers["frame"]["frame.number"] == split["packet"]:
                segments = layers.get("tcp.segments", {}).get("tcp.segment.count")
    check(split is not None and first(split, "nk.generic_req.text2") == "across two segments" and segments == "2",
          "a frame written in two TCP segments is reassembled (segments: %s)" % segments)
    per_packet = {}
    for r in frames:
        per_packet[r["packet"]] = per_packet.get(r["packet"], 0) + 1
    check(max(per_packet.values()) >= 5, "several frames in one segment (at most %d)" % max(per_packet.values()))


def check_mqtt(frames):
    # each message twice: to the broker and from it
    down = [r for r in frames if r["topic"] == "nk/fleet1/3/down"]
    up = [r for r in frames if r["topic"] == "nk/fleet1/3/up"]
    check(len(down) == 2 and all(first(r, "nk.state_req.name") == "mqtt name" and first(r, "nk.dst") == "3"
                                 for r in down), "MQTT down topic: the STATE_REQ inside is decoded")
    check(len(up) == 2 and all(first(r, "nk.type") == "STATE_RSP" and first(r, "nk.src") == "3"
                               and first(r, "nk.state_rsp.serial") == "3" for r in up),
          "MQTT up topic: the device's STATE_RSP inside is decoded")
    check(not any(r["topic"].endswith("/online") for r in frames if r["topic"]), "MQTT online topics are left alone")


def check_filters(capture, mqtt_port, frames):
    def packets(expr):
        out = tshark(capture, mqtt_port, "-Y", expr, "-T", "fields", "-e", "frame.number")
        return sorted(set(out.decode().split()))

    def holding(predicate):
        return sorted({r["packet"] for r in frames if predicate(r)})
    state = holding(lambda r: first(r, "nk.type") == "STATE_RSP")
    check(len(state) >= 3 and packets('nk.type == "STATE_RSP"') == state,
          'display filter nk.type == "STATE_RSP" finds the packets holding one (%s)' % state)
    seven = holding(lambda r: first(r, "nk.tlg.id") == "7")
    check(len(seven) == 1 and packets("nk.tlg.id == 7") == seven, "display filter nk.tlg.id == 7 finds telegram 7")
    check(packets("nk.crc.bad") == holding(lambda r: first(r, "nk.crc.good") == "0") != [],
          "display filter nk.crc.bad finds the bad frame")


def check_registration():
    out = run(["tshark", "-G", "decodes", "-X", "lua_script:" + ARGS.dissector]).decode()
    check("tcp.port\t5000\tnk" in out, "the device port 5000 is registered for nk")


def check_installed(work, capture, mqtt_port, frames):
    """cmake --install puts the three files in <prefix>/<libdir>/wireshark/plugins; with the
    prefix ~/.local that is the user's Lua plugin folder, and tshark loads it from there."""
    home = os.path.join(work, "home")
    run(["cmake", "--install", ARGS.build, "--prefix", os.path.join(home, ".local")])
    folder = os.path.join(home, ".local", "lib", "wireshark", "plugins")
    names = sorted(os.listdir(folder)) if os.path.isdir(folder) else []
    check(names == ["nk.lua", "nk_codecs.lua", "nk_messages.lua"], "installed in the Lua plugin folder: %s" % names)
    env = dict(os.environ, HOME=home)
    out = run(["tshark", "-r", capture, "-o", "tcp.try_heuristic_first:TRUE", "-d", "tcp.port==%d,mqtt" % mqtt_port,
               "-Y", 'nk.type == "STATE_RSP"', "-T", "fields", "-e", "frame.number"], env=env).decode()
    state = sorted({r["packet"] for r in frames if first(r, "nk.type") == "STATE_RSP"})
    check(sorted(set(out.split())) == state, "tshark loads the installed plugin without -X")


if __name__ == "__main__":
    sys.exit(main())
