#!/usr/bin/env python3
"""The demo behind `make demo`: a fleet kept in sync through a broker, every link on mutual TLS.

Makes a test CA and certificates (scripts/make-certs.sh), starts a private mosquitto that accepts
only TLS clients with those certificates (scripts/broker.sh --tls), nkstation with a fresh SQLite store, a simulated
fleet of panels (nkdevice --simulate) and one real nkdevice process with its own data directory;
pushes a group configuration and schedule set through the station's HTTP API and shows the fleet
converging, then takes the real panel offline, changes what it should hold while it is away and
brings it back. Prints a transcript and the dashboard's address; with NK_DEMO_WATCH=1 (make demo
WATCH=1) and run from a terminal it waits for Enter before the push and before stopping, so that
the fleet can be watched converging in the dashboard. Exits 0 only if every step did what it should. Everything it started is stopped on any
exit.
    tools/fleet_demo.py [BUILD_DIR]
"""
import json
import os
import select
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BUILD = os.path.abspath(sys.argv[1] if len(sys.argv) > 1 else os.path.join(ROOT, "build"))
NKSTATION = os.path.join(BUILD, "tools", "nkstation")
NKDEVICE = os.path.join(BUILD, "tools", "nkdevice")
BROKER_SCRIPT = os.path.join(ROOT, "scripts", "broker.sh")
MAKE_CERTS = os.path.join(ROOT, "scripts", "make-certs.sh")
EXAMPLES = os.path.join(ROOT, "examples")

FLEET = "demo"
SIMULATED = 36          # panels in the simulating process
FIRST_SIMULATED = 100   # their addresses: 100 on
REAL = 7                # the one real nkdevice process
PANELS = SIMULATED + 1
PATIENCE = 180          # seconds a step may take on a loaded machine before it counts as failed

children = []
failures = []
work = tempfile.mkdtemp(prefix="nk-fleet-demo-")
broker_dir = os.path.join(work, "broker")
certs = os.path.join(work, "certs")


def step(text):
    print("\n== " + text, flush=True)


def verdict(ok, text):
    print(("   -> ok: " if ok else "   -> FAILED: ") + text, flush=True)
    if not ok:
        failures.append(text)
    return ok


def say(text):
    print("   " + text, flush=True)


def first_line(proc, seconds=30):
    """The first line a child prints (its announcement), or None if it said nothing in time."""
    got = []
    reader = threading.Thread(target=lambda: got.append(proc.stdout.readline()), daemon=True)
    reader.start()
    reader.join(seconds)
    return json.loads(got[0]) if got and got[0].strip() else None


def start(name, cmd):
    log = open(os.path.join(work, name + ".err"), "w")
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=log, text=True)
    children.append((name, proc))
    announcement = first_line(proc)
    if announcement is None:
        raise RuntimeError("%s did not start: %s" % (name, open(log.name).read().strip() or "no output"))
    return proc, announcement


def dashboard_page(url):
    try:
        with urllib.request.urlopen(url, timeout=30) as response:
            return response.read()
    except (OSError, ValueError):
        return b""


def hold(text, seconds):
    """Asked to (NK_DEMO_WATCH=1) and run from a terminal, waits for Enter (at most seconds) so that
    a person can look at the dashboard; otherwise goes straight on, so that `make demo` never
    stops to wait for someone who is not there."""
    if os.environ.get("NK_DEMO_WATCH") != "1" or not sys.stdin.isatty():
        return
    say("%s (it goes on by itself after %d minutes)" % (text, seconds // 60))
    if select.select([sys.stdin], [], [], seconds)[0]:
        sys.stdin.readline()


def stop(proc, sig=signal.SIGTERM, seconds=30):
    """Sends sig and waits for the process; gives its exit status (killed after the time limit)."""
    if proc.poll() is None:
        proc.send_signal(sig)
        try:
            proc.wait(seconds)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()
    return proc.returncode


def tls(stem):
    """The options that put a program's links on mutual TLS with the certificate certs/STEM.crt."""
    return ["--tls-cert", os.path.join(certs, stem + ".crt"), "--tls-key", os.path.join(certs, stem + ".key"),
            "--tls-ca", os.path.join(certs, "ca.crt")]


def broker(command, *extra):
    out = subprocess.run(["bash", BROKER_SCRIPT, command, broker_dir, *extra], capture_output=True, text=True,
                         timeout=60)
    if out.returncode != 0:
        raise RuntimeError("scripts/broker.sh %s failed: %s" % (command, out.stderr.strip()))
    return out.stdout.strip()


class Station:
    def __init__(self, url):
        self.proc, announcement = start("nkstation", [
            NKSTATION, "--mqtt", url, "--fleet", FLEET, "--db", os.path.join(work, "station.db"),
            "--http", "127.0.0.1:0", "--timeout", "5", "--poll-interval", "30", "--collect-interval", "60",
            "--max-concurrent", "16", *tls("station")])
        self.base = "http://" + announcement["http"]
        self.dashboard = announcement.get("dashboard")

    def call(self, method, path, body=None):
        data = json.dumps(body).encode() if body is not None else None
        request = urllib.request.Request(self.base + path, data=data, method=method,
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=30) as response:
                return response.status, json.loads(response.read())
        except urllib.error.HTTPError as e:
            return e.code, json.loads(e.read() or b"null")

    def get(self, path):
        status, body = self.call("GET", path)
        if status != 200:
            raise RuntimeError("GET %s: %d %s" % (path, status, body))
        return body


def counts_text(summary):
    by_status = summary["status"]
    order = ["in sync", "pushing", "pending", "failed", "offline"]
    parts = ["%s %d" % (s, by_status[s]) for s in order if by_status.get(s)]
    parts += ["%s %d" % (s, n) for s, n in sorted(by_status.items()) if s not in order and n]
    return "%d online of %d: %s" % (summary["online"], summary["devices"], ", ".join(parts) or "no devices")


def watch(station, what, done, seconds=PATIENCE):
    """Prints the count per status whenever it changes, until done(summary, devices) holds."""
    start_time = time.time()
    shown = None
    while time.time() - start_time < seconds:
        summary = station.get("/api/summary")
        line = counts_text(summary)
        if line != shown:
            say("%5.1f s  %s" % (time.time() - start_time, line))
            shown = line
        if done(summary):
            return verdict(True, "%s (%.1f s)" % (what, time.time() - start_time))
        time.sleep(0.5)
    return verdict(False, "%s within %d s" % (what, seconds))


def all_in_sync(station):
    """Every panel in sync and holding exactly the checksums it should, as the panels reported them."""
    devices = station.get("/api/devices")
    return len(devices) == PANELS and all(
        d["status"] == "in sync" and d["reported"] and d["desired"].get("csCfg")
        and d["reported"]["csCfg"] == d["desired"]["csCfg"] and d["reported"]["csSched"] == d["desired"]["csSched"]
        for d in devices)


def real_panel(url):
    return start("nkdevice-%d" % REAL, [NKDEVICE, "--mqtt", url, "--fleet", FLEET, "--address", str(REAL),
                                         "--data", os.path.join(work, "panel-%d" % REAL), *tls("panel-%d" % REAL)])[0]


def demo():
    for program in (NKSTATION, NKDEVICE):
        if not os.access(program, os.X_OK):
            raise RuntimeError(program + " is missing; run make build first")
    config = json.load(open(os.path.join(EXAMPLES, "config.json")))
    schedules = json.load(open(os.path.join(EXAMPLES, "schedules.json")))

    step("make a test CA and certificates for the station, the broker and every panel (scripts/make-certs.sh)")
    addresses = [REAL] + list(range(FIRST_SIMULATED, FIRST_SIMULATED + SIMULATED))
    made = subprocess.run(["bash", MAKE_CERTS, certs, *map(str, addresses)], capture_output=True, text=True,
                          timeout=600)
    verdict(made.returncode == 0, "%d panel certificates, each naming its panel's address (CN)" % len(addresses)
            if made.returncode == 0 else "make-certs.sh failed: " + made.stderr.strip())

    step("start a private mosquitto broker on a loopback port: TLS 1.3 only, client certificates, an access list")
    url = broker("start", "--tls", certs, "--fleet", FLEET)
    verdict(url.startswith("mqtts://"), "broker at " + url)
    intruder = subprocess.run(["mosquitto_pub", "-p", url.rsplit(":", 1)[1], "-q", "1", "-t",
                               "nk/%s/%d/up" % (FLEET, REAL), "-m", "forged", "--cafile", os.path.join(certs, "ca.crt")],
                              capture_output=True, text=True, timeout=60)
    verdict(intruder.returncode != 0, "a client without a certificate is turned away")

    step("start nkstation with a fresh SQLite store")
    station = Station(url)
    print("station: %s/" % station.base, flush=True)
    print("dashboard: %s  (open it in a browser to watch the fleet)" % station.dashboard, flush=True)
    verdict(station.dashboard is not None and b"nkstation dashboard" in dashboard_page(station.dashboard),
            "the station serves its dashboard")
    verdict(station.get("/api/summary")["devices"] == 0, "the station knows no panel yet")

    step("start %d simulated panels (addresses %d to %d) and one real nkdevice (address %d)"
         % (SIMULATED, FIRST_SIMULATED, FIRST_SIMULATED + SIMULATED - 1, REAL))
    start("nkdevice-simulated", [NKDEVICE, "--mqtt", url, "--fleet", FLEET, "--simulate", str(SIMULATED),
                                 "--address", str(FIRST_SIMULATED), *tls("panel-{address}")])
    panel = real_panel(url)
    watch(station, "all %d panels came online and reported their state" % PANELS,
          lambda s: s["online"] == PANELS and s["devices"] == PANELS and s["working"] == 0 and s["queued"] == 0)

    hold("open the dashboard at %s now to watch the push; press Enter to go on" % station.dashboard, 300)

    step("push a configuration and a schedule set to the group 'default' through the HTTP API")
    say("$ curl -X PUT %s/api/groups/default/desired -d '{\"config\": <examples/config.json>, "
        "\"schedules\": <examples/schedules.json>}'" % station.base)
    status, body = station.call("PUT", "/api/groups/default/desired", {"config": config, "schedules": schedules})
    verdict(status == 200, "the desired state is accepted (%d)" % status)
    desired = station.get("/api/devices/%d" % REAL)["desired"]
    say("desired checksums: configuration %s, schedules %s" % (desired.get("csCfg"), desired.get("csSched")))
    watch(station, "the fleet converged: every panel in sync",
          lambda s: s["status"].get("in sync") == PANELS and all_in_sync(station))

    step("take the real panel %d offline (SIGTERM)" % REAL)
    verdict(stop(panel) == 0, "nkdevice %d stopped cleanly" % REAL)
    watch(station, "the station sees panel %d offline" % REAL,
          lambda s: (lambda d: not d["online"] and d["status"] == "offline")(station.get("/api/devices/%d" % REAL)))

    step("give panel %d its own name while it is offline" % REAL)
    status, _ = station.call("PUT", "/api/devices/%d/desired" % REAL, {"name": "lobby east"})
    verdict(status == 200, "the device override is accepted (%d)" % status)
    watch(station, "panel %d is pending: offline with work waiting" % REAL,
          lambda s: station.get("/api/devices/%d" % REAL)["status"] == "pending")

    step("bring panel %d back on the same data directory" % REAL)
    panel = real_panel(url)
    watch(station, "panel %d is back, reports its new name, and the whole fleet is in sync" % REAL,
          lambda s: s["status"].get("in sync") == PANELS and all_in_sync(station)
          and station.get("/api/devices/%d" % REAL)["reported"]["name"] == "lobby east")
    device = station.get("/api/devices/%d" % REAL)
    say("panel %d: online %s, status %s, name '%s', configuration %s"
        % (REAL, device["online"], device["status"], device["reported"]["name"], device["reported"]["csCfg"]))

    hold("the fleet keeps running for the dashboard at %s; press Enter to stop it" % station.dashboard, 600)

    step("stop the panels, the station and the broker")
    for name, proc in reversed(children):
        if proc.poll() is None:
            verdict(stop(proc) == 0, name + " stopped cleanly")
    broker("stop")


def cleanup():
    for _, proc in children:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
    subprocess.run(["bash", BROKER_SCRIPT, "stop", broker_dir], capture_output=True, timeout=60)
    shutil.rmtree(work, ignore_errors=True)


def interrupted(signum, _frame):
    raise KeyboardInterrupt("signal %d" % signum)


def main():
    signal.signal(signal.SIGTERM, interrupted)
    signal.signal(signal.SIGHUP, interrupted)
    try:
        demo()
    except KeyboardInterrupt:
        failures.append("interrupted")
        print("\ndemo: interrupted", flush=True)
    except Exception as e:  # a step that could not even run: say why, then clean up
        failures.append(str(e))
        print("\ndemo: %s" % e, file=sys.stderr, flush=True)
    finally:
        cleanup()
    print()
    if not failures:
        print("demo: every step did what it should")
        return 0
    print("demo: %d step(s) failed" % len(failures))
    return 1


if __name__ == "__main__":
    sys.exit(main())
