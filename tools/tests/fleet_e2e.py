#!/usr/bin/env python3
"""The fleet with its real parts as separate processes: mosquitto (scripts/broker.sh), nkstation
with its SQLite store and HTTP API, and simulated panels (nkdevice --simulate) among them a
panel that confirms a wrong checksum and one that never answers.

Checks convergence, refusal of bad input without a half-applied change, durability across
kill -9 of the station and of the panels, a broker restarted mid-push, garbage on the broker
topics, event and statistics collection and the event stream. Every child is killed at the end.
"""
import argparse
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
    def __init__(self, url):
        self.proc = start(ARGS.emulator + [ARGS.nkstation, "--mqtt", url, "--fleet", FLEET, "--db",
                                           ARGS.work + "/station.db", "--http", "127.0.0.1:0", "--timeout", "3",
                                           "--poll-interval", "4", "--collect-interval", "3",
                                           "--max-concurrent", "8"])
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


def main():
    config = json.load(open(os.path.join(ARGS.examples, "config.json")))
    schedules = json.load(open(os.path.join(ARGS.examples, "schedules.json")))
    url = broker("start")
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
