#!/usr/bin/env python3
"""The fleet with its real parts as separate processes: mosquitto (scripts/broker.sh), nkstation
with its SQLite store and HTTP API, and simulated panels (nkdevice --simulate) among them a
panel that confirms a wrong checksum and one that never answers.

Checks convergence, refusal of bad input without a half-applied change, durability across
kill -9 of the station and of the panels, a broker restarted mid-push, garbage on the broker
topics, event and statistics collection and the event stream. Every child is killed at the end.
"""
import argparse
import hashlib
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import urllib.error
import urllib.request

import harness
from harness import FAILURES, check, kill_children, start

ARGS = None
FLEET = "e2e"
FIRST = 1000
GOOD = 18          # addresses 1000..1017 behave
WRONG = FIRST + 18  # confirms a wrong checksum
SILENT = FIRST + 19  # online, never answers
COUNT = 20
RENAMED = FIRST + 3  # has a device override


def read_line(proc, seconds=30):
    return harness.read_line(proc, seconds)


def broker(command, *extra):
    out = subprocess.run(["bash", ARGS.broker_script, command, ARGS.work + "/broker", *extra],
                         capture_output=True, text=True, timeout=60)
    if out.returncode != 0:
        raise RuntimeError("broker script failed: " + out.stderr)
    return out.stdout.strip()


class Station:
    def __init__(self, url, db="station.db", *extra, fleet=FLEET):
        self.proc = start(ARGS.emulator + [ARGS.nkstation, "--mqtt", url, "--fleet", fleet, "--db",
                                           ARGS.work + "/" + db, "--http", "127.0.0.1:0", "--timeout", "3",
                                           "--poll-interval", "4", "--collect-interval", "3",
                                           "--max-concurrent", "8", *extra])
        line = read_line(self.proc)
        if not line:
            raise RuntimeError("nkstation did not start: " + (self.proc.stderr.read() if self.proc.poll() is not None
                                                               else "no output"))
        self.http = "http://" + json.loads(line)["http"]

    def call(self, method, path, body=None, raw=None):
        data = raw if raw is not None else (json.dumps(body).encode() if body is not None else None)
        request = urllib.request.Request(self.http + path, data=data, method=method,
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=30) as response:
                return response.status, json.loads(response.read())
        except urllib.error.HTTPError as e:
            return e.code, json.loads(e.read() or b"null")

    def get(self, path):
        return self.call("GET", path)[1]

    def upload(self, content, query="", content_type=None):
        """POST /api/images with the file as the body: (status, answer)."""
        request = urllib.request.Request(self.http + "/api/images" + query, data=content, method="POST",
                                         headers={"Content-Type": content_type} if content_type else {})
        try:
            with urllib.request.urlopen(request, timeout=30) as response:
                return response.status, json.loads(response.read())
        except urllib.error.HTTPError as e:
            return e.code, json.loads(e.read() or b"null")

    def fetch(self, path):
        with urllib.request.urlopen(self.http + path, timeout=30) as response:
            return response.read(), response.headers.get("Content-Type")

    def kill(self):
        self.proc.kill()
        self.proc.wait()


def panels(url, *extra):
    proc = start(ARGS.emulator + [ARGS.nkdevice, "--mqtt", url, "--fleet", FLEET, "--simulate", str(COUNT),
                                  "--address", str(FIRST), "--data", ARGS.work + "/panels",
                                  "--fault", "wrong-checksum:%d" % WRONG, "--fault", "silent:%d" % SILENT, *extra])
    if not read_line(proc):
        raise RuntimeError("nkdevice --simulate did not start")
    return proc


def wait_for(what, predicate, seconds=120):
    deadline = time.time() + seconds
    last = None
    while time.time() < deadline:
        try:
            last = predicate()
            if last:
                return check(True, what)
        except (OSError, ValueError, KeyError):
            pass
        time.sleep(0.3)
    return check(False, what + " (last: %r)" % (last,))


def statuses(station):
    return {d["address"]: d for d in station.get("/api/devices")}


def converged(station, cs=None):
    """The good panels in sync (with configuration checksum cs, when given), the faulty ones failed."""
    devices = statuses(station)
    # The panel with its own name has its own configuration checksum.
    good = all(devices.get(a, {}).get("status") == "in sync" and
               devices[a]["reported"]["csCfg"] == devices[a]["desired"]["csCfg"] and
               (cs is None or a == RENAMED or devices[a]["reported"]["csCfg"] == cs) for a in range(FIRST, FIRST + GOOD))
    wrong = devices.get(WRONG, {})
    silent = devices.get(SILENT, {})
    return good and wrong.get("status") == "failed" and "checksum mismatch" in wrong.get("error", "") and \
        silent.get("status") == "failed" and "no answer" in silent.get("error", "")


def publish(url, topic, payload):
    port = url.rsplit(":", 1)[1]
    subprocess.run(["mosquitto_pub", "-p", port, "-q", "1", "-t", topic, "-m", payload], check=True, timeout=30)


def read_stream(station, seconds):
    """The change events the stream sends within seconds."""
    host, port = station.http[len("http://"):].split(":")
    sock = socket.create_connection((host, int(port)), timeout=seconds)
    sock.sendall(b"GET /api/stream HTTP/1.1\r\nHost: x\r\nLast-Event-ID: 0\r\n\r\n")
    data = b""
    deadline = time.time() + seconds
    try:
        while time.time() < deadline and data.count(b"event: change") < 3:
            chunk = sock.recv(65536)
            if not chunk:
                break
            data += chunk
    except socket.timeout:
        pass
    sock.close()
    return data.decode(errors="replace")


def panel_file(address, uid):
    return os.path.join(ARGS.work, "panels", str(address), "images", "image_id%d.png" % uid)


def images_step(station, config, schedules):
    """Uploads, their refusals, and image sets reaching the panels, with removals."""
    png = open(os.path.join(ARGS.examples, "image.png"), "rb").read()
    other = png + b"another picture"  # still a PNG by its signature, other content
    before = station.get("/api/images")
    status, body = station.upload(b"", "?type=image/png")
    check(status == 400 and body.get("member") == "body", "an empty upload is refused naming the body: %s" % body)
    status, body = station.upload(png, "", "image/gif")
    check(status == 415 and body.get("member") == "type" and "image/gif" in body["error"],
          "an upload of a type panels do not take is refused naming the type: %s" % body)
    status, body = station.upload(png, "?type=image/jpeg")
    check(status == 400 and body.get("member") == "body", "PNG content sent as JPEG is refused: %s" % body)
    status, body = station.upload(png)
    check(status == 415 and body.get("member") == "type", "an upload without a type is refused: %s" % body)
    check(before == [] and station.get("/api/images") == [] and os.listdir(ARGS.work + "/station.db.images") == [],
          "refused uploads stored no record and no file")

    status, first = station.upload(png, "?name=welcome", "image/png; charset=binary")
    digest = hashlib.sha1(png).hexdigest()
    check(status == 201 and first["id"] == digest and first["bytes"] == len(png) and first["type"] == "image/png",
          "an upload answers with its content id, the SHA-1 of the file: %s" % first)
    status, again = station.upload(png, "?type=image/png&name=welcome")
    check(status == 200 and again["id"] == digest, "the same file uploaded again is kept once")
    status, second = station.upload(other, "?type=image/png&name=menu")
    check(status == 201 and second["id"] == hashlib.sha1(other).hexdigest(), "a second image is kept")
    kept = sorted(os.listdir(ARGS.work + "/station.db.images"))
    check(kept == sorted([digest, second["id"]]) and open(ARGS.work + "/station.db.images/" + digest, "rb").read() == png,
          "the files are named by their digest beside the database: %s" % kept)
    content, content_type = station.fetch("/api/images/" + digest)
    check(content == png and content_type == "image/png", "an image is served back with its type")
    check([i["id"] for i in station.get("/api/images")] == [digest, second["id"]], "the list holds both images once")
    status, body = station.call("GET", "/api/images/" + "0" * 40)
    check(status == 404 and body.get("member") == "id", "an unknown image is 404")

    big = (1 << 60) + 5  # beyond 2^53: given and reported as text too
    wanted = [{"uid": 42, "image": digest}, {"uid": 43, "image": second["id"]}, {"uid": str(big), "image": digest}]
    unknown = [{"uid": 42, "image": digest}, {"uid": 43, "image": "0123456789abcdef0123456789abcdef01234567"}]
    before = station.get("/api/groups/default/desired")
    status, body = station.call("PUT", "/api/groups/default/desired",
                                {"config": config, "schedules": schedules, "images": unknown})
    check(status == 400 and body.get("member") == "images" and "images[1]" in body["error"]
          and "0123456789abcdef" in body["error"], "an unknown image in a desired set is refused naming it: %s" % body)
    status, body = station.call("PUT", "/api/groups/default/desired",
                                {"config": config, "images": [{"uid": 42, "image": digest}, {"uid": "42", "image": digest}]})
    check(status == 400 and body.get("member") == "images" and "twice" in body["error"], "a uid given twice is refused")
    check(station.get("/api/groups/default/desired") == before, "a refused image set changed nothing")

    status, body = station.call("PUT", "/api/groups/default/desired",
                                {"config": config, "schedules": schedules, "images": wanted})
    check(status == 200 and body["images"][2]["uidText"] == str(big), "the group's image set is accepted: %s" % body)

    def holding(uids):
        def ok():
            if not converged(station):
                return False
            for address in range(FIRST, FIRST + GOOD):
                device = station.get("/api/devices/%d" % address)
                if sorted(i["idText"] for i in device["reported"]["images"]) != sorted(str(u) for u in uids):
                    return False
            return True
        return ok

    wait_for("the image set reaches the panels, which end in sync", holding([42, 43, big]))
    check(open(panel_file(FIRST, 43), "rb").read() == other and open(panel_file(FIRST, 42), "rb").read() == png,
          "the panels hold the files' bytes under their uids")
    device = station.get("/api/devices/%d" % FIRST)
    check({i["idText"]: i.get("image") for i in device["reported"]["images"]} ==
          {"42": digest, "43": second["id"], str(big): digest}, "the station shows which content each uid holds")

    # Other content under a held uid, and uids left out: the new content replaces the old and
    # the rest is removed after the push.
    status, _ = station.call("PUT", "/api/groups/default/desired",
                             {"config": config, "schedules": schedules, "images": [{"uid": 42, "image": second["id"]}]})
    check(status == 200, "a smaller image set is accepted")
    wait_for("replaced content and removals reach the panels", holding([42]))
    check(open(panel_file(FIRST + 1, 42), "rb").read() == other and not os.path.exists(panel_file(FIRST + 1, 43)),
          "a panel holds the new content under uid 42 and no longer holds 43")

    # An image whose file went missing from the station fails the panels with that reason, and
    # nothing after it is pushed; uploading the file again heals the store and the fleet.
    third = png + b"a third picture"
    status, body = station.upload(third, "?type=image/png")
    os.remove(ARGS.work + "/station.db.images/" + body["id"])
    config5 = dict(config, slideshowInterval_sec=40)
    status, _ = station.call("PUT", "/api/groups/default/desired",
                             {"config": config5, "schedules": schedules, "images": [{"uid": 44, "image": body["id"]}]})
    check(status == 200, "an image set naming a held record is accepted")
    wait_for("panels fail with the missing file as the reason",
             lambda: all(d["status"] == "failed" and "missing from the station's image store" in d["error"]
                         for a, d in statuses(station).items() if a < FIRST + GOOD))
    check(all(d["reported"]["csCfg"] != d["desired"]["csCfg"] and 42 in [i["id"] for i in d["reported"]["images"]]
              for a, d in statuses(station).items() if a < FIRST + GOOD),
          "neither the configuration after the image nor the removal was pushed")
    status, _ = station.upload(third, "?type=image/png")
    check(status == 201, "the file uploaded again is written again")
    wait_for("the retried panels take the image and end in sync", holding([44]))


# A store as the first released station left it (schema version 2), to migrate.
SCHEMA_2 = """
CREATE TABLE devices (address INTEGER PRIMARY KEY, grp TEXT NOT NULL DEFAULT 'default',
  transport TEXT NOT NULL DEFAULT 'mqtt', last_seen INTEGER NOT NULL DEFAULT 0, online INTEGER NOT NULL DEFAULT 0,
  reported INTEGER NOT NULL DEFAULT 0, serial INTEGER NOT NULL DEFAULT 0, name TEXT NOT NULL DEFAULT '',
  cs_cfg TEXT NOT NULL DEFAULT '', cs_sched TEXT NOT NULL DEFAULT '', images TEXT NOT NULL DEFAULT '[]',
  flags INTEGER NOT NULL DEFAULT 0, version TEXT NOT NULL DEFAULT '', status TEXT NOT NULL DEFAULT 'pending',
  last_error TEXT NOT NULL DEFAULT '', attempts INTEGER NOT NULL DEFAULT 0, next_attempt INTEGER NOT NULL DEFAULT 0);
CREATE TABLE desired (scope INTEGER NOT NULL, key TEXT NOT NULL, config TEXT, schedules TEXT, name TEXT,
  changed INTEGER NOT NULL DEFAULT 0, PRIMARY KEY (scope, key));
CREATE TABLE events (seq INTEGER PRIMARY KEY AUTOINCREMENT, address INTEGER NOT NULL, event_id INTEGER NOT NULL,
  time INTEGER NOT NULL, category INTEGER NOT NULL, type INTEGER NOT NULL, text TEXT NOT NULL,
  UNIQUE (address, event_id));
CREATE TABLE statistics (seq INTEGER PRIMARY KEY AUTOINCREMENT, address INTEGER NOT NULL, time INTEGER NOT NULL,
  json TEXT NOT NULL);
CREATE INDEX devices_by_group ON devices (grp);
CREATE INDEX events_by_category ON events (category, seq);
PRAGMA user_version = 2;
"""


def migration_step(url, config):
    """An older store is migrated in place and keeps what it held."""
    import sqlite3
    db = sqlite3.connect(ARGS.work + "/old.db")
    db.executescript(SCHEMA_2)
    db.execute("INSERT INTO devices (address, grp, reported, images, status) VALUES (5, 'hall', 1, '[\"42\"]', 'offline')")
    db.execute("INSERT INTO desired (scope, key, config, name) VALUES (0, 'hall', ?, 'hall panel')", (json.dumps(config),))
    db.commit()
    db.close()
    old = Station(url, "old.db")
    device = old.get("/api/devices/5")
    desired = old.get("/api/groups/hall/desired")
    check(old.get("/api/summary")["schemaVersion"] == 4 and device["group"] == "hall"
          and device["transport"] == "mqtt" and device["endpoint"] is None
          and [i["id"] for i in device["reported"]["images"]] == [42] and desired["config"] == config
          and desired["name"] == "hall panel" and desired["images"] is None,
          "a store of schema version 2 is migrated and keeps its devices and desired state")
    old.kill()


def listening_panel(address, port=0, data="listening"):
    """A real nkdevice on a loopback TCP port, which the station dials: (process, HOST:PORT)."""
    proc = start(ARGS.emulator + [ARGS.nkdevice, "--listen", "127.0.0.1:%d" % port, "--address", str(address),
                                  "--data", "%s/%s-%d" % (ARGS.work, data, address)])
    line = read_line(proc)
    if not line:
        raise RuntimeError("nkdevice --listen did not start")
    return proc, json.loads(line)["address"]


def dial_out_step(url, config, schedules):
    """Panels the station dials over TCP, beside panels on the broker: one named on the command
    line, one registered through the API; both are worked on as the broker panels are, and one
    that goes away is shown offline with the reason and reconnected when it is back."""
    fleet, first, named, registered = "dial", 5000, 5100, 5101
    sim = start(ARGS.emulator + [ARGS.nkdevice, "--mqtt", url, "--fleet", fleet, "--simulate", "2",
                                 "--address", str(first)])
    if not read_line(sim):
        raise RuntimeError("nkdevice --simulate did not start")
    panel, endpoint = listening_panel(named)
    other, other_endpoint = listening_panel(registered)
    station = Station(url, "dial.db", "--panel", "%d@%s" % (named, endpoint), fleet=fleet)
    check(station.get("/api/devices/%d" % named)["transport"] == "tcp" and
          station.get("/api/devices/%d" % named)["endpoint"] == endpoint, "a --panel is registered with transport tcp")

    for body, member in (({"transport": "udp"}, "transport"), ({"transport": "tcp"}, "endpoint"),
                         ({"transport": "tcp", "endpoint": "127.0.0.1:0"}, "endpoint"),
                         ({"transport": "tcp", "endpoint": "127.0.0.1:x"}, "endpoint"),
                         ({"endpoint": other_endpoint}, "endpoint"), ({"colour": "red"}, "colour")):
        status, answer = station.call("PUT", "/api/devices/%d" % registered, body)
        check(status == 400 and answer.get("member") == member, "a device registration %s is refused naming %s: %s"
              % (json.dumps(body), member, answer))
    check(station.call("GET", "/api/devices/%d" % registered)[0] == 404, "refused registrations stored nothing")
    status, answer = station.call("PUT", "/api/devices/%d" % registered, {"transport": "tcp", "endpoint": other_endpoint})
    check(status == 200 and answer["endpoint"] == other_endpoint, "a panel is registered for dial-out through the API")

    status, _ = station.call("PUT", "/api/groups/default/desired", {"config": config, "schedules": schedules})
    check(status == 200, "the desired state of the mixed fleet is accepted")
    addresses = [first, first + 1, named, registered]

    def in_sync(cs=None):
        devices = statuses(station)
        return all(devices.get(a, {}).get("status") == "in sync" and devices[a]["online"] and
                   devices[a]["reported"]["csCfg"] == devices[a]["desired"]["csCfg"] and
                   (cs is None or devices[a]["reported"]["csCfg"] == cs) for a in addresses)

    wait_for("dialled panels converge beside the broker's", in_sync)
    summary = station.get("/api/summary")
    check(summary["dialOut"] == {"panels": 2, "connected": 2} and summary["broker"]["connected"],
          "the summary counts the dialled panels: %s" % summary.get("dialOut"))
    check(any(e["address"] == named for e in station.get("/api/events?limit=100000")) and
          any(s["address"] == named for s in station.get("/api/statistics?address=%d" % named)),
          "events and statistics of a dialled panel are collected")

    # The panel goes away: offline with the reason; a change made meanwhile waits for it, and
    # the station dials it again once it is back on its port.
    port = int(endpoint.rsplit(":", 1)[1])
    panel.terminate()
    panel.wait(30)
    wait_for("a dialled panel that went away is offline with the reason",
             lambda: (lambda d: not d["online"] and d["status"] in ("offline", "pending") and
                      ("connection refused" in d["error"] or "closed by peer" in d["error"]))(
                 station.get("/api/devices/%d" % named)), 60)
    changed = dict(config, slideshowInterval_sec=45)
    station.call("PUT", "/api/groups/default/desired", {"config": changed, "schedules": schedules})
    wait_for("its change waits (pending) while it cannot be reached",
             lambda: station.get("/api/devices/%d" % named)["status"] == "pending", 60)
    panel, _ = listening_panel(named, port)
    cs = station.get("/api/devices/%d" % named)["desired"]["csCfg"]
    wait_for("the panel back on its port is dialled again and ends in sync with the change", lambda: in_sync(cs), 120)

    # The panel moves (a new device with empty storage at another port): the station leaves the
    # old connection, dials the new endpoint and brings the new device to the desired state.
    moved, moved_endpoint = listening_panel(named, data="moved")
    status, answer = station.call("PUT", "/api/devices/%d" % named, {"transport": "tcp", "endpoint": moved_endpoint})
    check(status == 200 and answer["endpoint"] == moved_endpoint, "a dialled panel is moved to another endpoint")
    wait_for("the moved panel is dialled at its new endpoint and ends in sync", lambda: in_sync(cs) and os.path.exists(
        os.path.join(ARGS.work, "moved-%d" % named, "config.bin")), 120)

    # Back to the broker: the station stops dialling it.
    status, answer = station.call("PUT", "/api/devices/%d" % registered, {"transport": "mqtt"})
    check(status == 200 and answer["transport"] == "mqtt" and answer["endpoint"] is None,
          "a panel is moved back to the broker")
    wait_for("a panel moved to the broker is no longer dialled",
             lambda: station.get("/api/summary")["dialOut"] == {"panels": 1, "connected": 1}, 30)
    station.kill()
    for proc in (sim, panel, other, moved):
        proc.kill()
        proc.wait()


def main():
    config = json.load(open(os.path.join(ARGS.examples, "config.json")))
    schedules = json.load(open(os.path.join(ARGS.examples, "schedules.json")))
    url = broker("start")
    migration_step(url, config)
    station = Station(url)
    sim = panels(url)

    wait_for("all %d simulated panels are known and online" % COUNT,
             lambda: station.get("/api/summary")["online"] == COUNT)

    # Bad input is refused whole, with the member named; nothing is stored.
    status, body = station.call("PUT", "/api/groups/default/desired", raw=b"{\"config\": ")
    check(status == 400 and "JSON" in body["error"], "malformed JSON is refused with 400")
    bad = dict(config, updateTime="noon")
    status, body = station.call("PUT", "/api/groups/default/desired", {"config": bad, "schedules": schedules})
    check(status == 400 and body.get("member") == "config" and "updateTime" in body["error"],
          "a configuration member the library would misread is refused naming it: %s" % body)
    status, body = station.call("PUT", "/api/groups/default/desired", {"config": config, "colour": "red"})
    check(status == 400 and body.get("member") == "colour", "an unknown member is refused naming it")
    status, body = station.call("PUT", "/api/devices/4242/desired", {"name": "nobody"})
    check(status == 404 and "4242" in body["error"], "desired state for an unknown device is refused with 404")
    check(station.get("/api/groups/default/desired")["config"] is None, "no refused change was half-applied")

    status, _ = station.call("PUT", "/api/groups/default/desired", {"config": config, "schedules": schedules})
    check(status == 200, "the group's configuration and schedule set are accepted")
    cs = station.get("/api/devices/%d" % FIRST)["desired"]["csCfg"]
    wait_for("the fleet converges: good panels in sync, the faulty ones failed with their reasons",
             lambda: converged(station, cs))
    wrong = station.get("/api/devices/%d" % WRONG)
    check(wrong["reported"]["csCfg"] != "" and wrong["attempts"] >= 1, "the wrong-checksum panel is retried with back-off")

    images_step(station, config, schedules)

    # A per-device override: the name goes into that panel's configuration alone.
    status, _ = station.call("PUT", "/api/devices/%d/desired" % RENAMED, {"name": "lobby 3"})
    check(status == 200, "a device override is accepted")
    wait_for("the overridden panel reports its new name, in sync",
             lambda: (lambda d: d["status"] == "in sync" and d["reported"]["name"] == "lobby 3")(
                 station.get("/api/devices/%d" % RENAMED)))
    check(station.get("/api/devices/%d" % (FIRST + 4))["reported"]["name"] == config["deviceName"],
          "the other panels keep the group's name")

    # Garbage on a panel's up topic and a payload for a panel that does not exist.
    publish(url, "nk/%s/%d/up" % (FLEET, FIRST + 1), "\x02garbage\x03")
    publish(url, "nk/%s/7777/up" % FLEET, "\x02not a panel\x03")
    publish(url, "nk/%s/abc/up" % FLEET, "junk")
    time.sleep(2)
    status, _ = station.call("GET", "/api/devices/7777")
    check(status == 404, "a payload on an unknown panel's topic creates no device")
    check(station.get("/api/devices/%d" % (FIRST + 1))["status"] == "in sync", "garbage leaves the panel in sync")
    check(station.get("/api/summary")["broker"]["stray"] >= 1, "the stray payload is counted")

    # Durability: a confirmed change survives kill -9 of the station, which then resumes.
    config2 = dict(config, slideshowInterval_sec=25)
    status, _ = station.call("PUT", "/api/groups/default/desired", {"config": config2, "schedules": schedules})
    check(status == 200, "a second configuration is accepted")
    station.kill()
    station = Station(url)
    check(station.get("/api/groups/default/desired")["config"] == config2, "the confirmed change survived kill -9")
    cs2 = station.get("/api/devices/%d" % FIRST)["desired"]["csCfg"]
    check(cs2 != cs, "the new configuration has another checksum")
    wait_for("the restarted station brings the fleet to the new configuration", lambda: converged(station, cs2))

    # Panels killed mid-push and restarted end in sync.
    config3 = dict(config, slideshowInterval_sec=30)
    station.call("PUT", "/api/groups/default/desired", {"config": config3, "schedules": schedules})
    sim.kill()
    sim.wait()
    wait_for("killed panels are seen offline or pending through their last will",
             lambda: all(d["status"] in ("offline", "pending") or not d["online"]
                         for d in statuses(station).values()), 60)
    sim = panels(url)
    cs3 = station.get("/api/devices/%d" % FIRST)["desired"]["csCfg"]
    wait_for("restarted panels end in sync with the change made while they were down", lambda: converged(station, cs3))

    # The broker restarted mid-push.
    config4 = dict(config, slideshowInterval_sec=35)
    station.call("PUT", "/api/groups/default/desired", {"config": config4, "schedules": schedules})
    port = url.rsplit(":", 1)[1]
    broker("stop")
    broker("start", port)
    cs4 = station.get("/api/devices/%d" % FIRST)["desired"]["csCfg"]
    wait_for("after a broker restart mid-push the fleet converges", lambda: converged(station, cs4), 180)

    # Events and statistics were collected, events once each.
    events = station.get("/api/events?limit=100000")
    keys = [(e["address"], e["id"]) for e in events]
    check(len(events) > 0 and len(keys) == len(set(keys)), "events collected, each once (%d)" % len(events))
    check(all(e["idText"] == str(e["id"]) for e in events), "event ids are also given as text")
    later = station.get("/api/events?since=%d" % events[-1]["seq"]) if events else []
    check(all(e["seq"] > events[-1]["seq"] for e in later), "events since a sequence number come after it")
    status, body = station.call("GET", "/api/events?limit=abc")
    check(status == 400 and body.get("member") == "limit", "a malformed query is refused naming it")
    check(len(station.get("/api/statistics")) > 0, "statistics samples collected")

    stream = read_stream(station, 20)
    check("event: change" in stream and "\"kind\"" in stream, "the event stream sends changes")

    summary = station.get("/api/summary")
    check(summary["status"].get("in sync") == GOOD, "summary counts the panels in sync: %s" % summary["status"])
    check(summary["schemaVersion"] >= 1, "the store reports its schema version")

    sim.send_signal(signal.SIGTERM)
    sim.wait(30)
    wait_for("cleanly stopped panels are offline", lambda: station.get("/api/summary")["online"] == 0, 60)
    station.kill()

    dial_out_step(url, config, schedules)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--nkstation", required=True)
    parser.add_argument("--nkdevice", required=True)
    parser.add_argument("--broker-script", required=True)
    parser.add_argument("--examples", required=True)
    parser.add_argument("--emulator", default="")
    ARGS = parser.parse_args()
    ARGS.emulator = ARGS.emulator.split() if ARGS.emulator else []
    ARGS.work = tempfile.mkdtemp(prefix="nk-fleet-e2e-")
    try:
        main()
    except Exception as e:  # a failure to start is a failure of the test, never a skip
        check(False, "unexpected error: %r" % (e,))
    finally:
        kill_children()
        try:
            broker("stop")
        except Exception:
            pass
        shutil.rmtree(ARGS.work, ignore_errors=True)
    print("%d failure(s)" % len(FAILURES))
    sys.exit(1 if FAILURES else 0)
