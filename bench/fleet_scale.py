#!/usr/bin/env python3
"""Fleet scale: one mosquitto, one nkstation and N simulated panels on this machine.

Starts the broker (scripts/broker.sh), the station and the simulators (nkdevice --simulate, in
several processes), waits until every panel is online and in sync with nothing desired, sets a
fleet-wide configuration through the API and measures the time until every panel is in sync
with it, the station's resident memory, the CPU time of each process and the broker messages
per panel for the change (the station's published and received counts).

  bench/fleet_scale.py --build build --panels 10000 [--processes 4]
"""
import argparse
import json
import os
import shutil
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

CHILDREN = []


def start(cmd):
    proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    CHILDREN.append(proc)
    return proc


def first_line(proc, seconds=120):
    """The program's start line (JSON); lines a wrapper prints before it are passed over."""
    def read():
        for line in proc.stdout:
            if line.startswith("{"):
                out.append(line)
                return
        out.append("")
    out = []
    t = threading.Thread(target=read, daemon=True)
    t.start()
    t.join(seconds)
    if not out or not out[0]:
        raise RuntimeError("no start line from " + str(proc.args[:3]))
    return json.loads(out[0])


def cpu_seconds(pid):
    fields = open("/proc/%d/stat" % pid).read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def rss_mib(pid):
    for line in open("/proc/%d/status" % pid):
        if line.startswith("VmRSS:"):
            return int(line.split()[1]) / 1024
    return 0


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", default="build")
    parser.add_argument("--panels", type=int, default=10000)
    parser.add_argument("--processes", type=int, default=4)
    parser.add_argument("--max-concurrent", type=int, default=512)
    parser.add_argument("--limit", type=int, default=600, help="seconds to wait for each phase")
    parser.add_argument("--station-wrapper", default="",
                        help="command the station runs under, e.g. 'heaptrack -o FILE' (its RSS is then not the station's)")
    args = parser.parse_args()
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    work = tempfile.mkdtemp(prefix="nk-fleet-bench-")
    script = os.path.join(root, "scripts", "broker.sh")
    url = subprocess.run(["bash", script, "start", work + "/broker"], capture_output=True, text=True,
                         check=True).stdout.strip()
    broker_pid = int(open(work + "/broker/mosquitto.pid").read())
    try:
        station = start(args.station_wrapper.split() + [os.path.join(args.build, "tools", "nkstation"), "--mqtt", url, "--fleet", "bench",
                         "--db", work + "/station.db", "--http", "127.0.0.1:0", "--max-concurrent",
                         str(args.max_concurrent), "--poll-interval", "86400", "--collect-interval", "86400",
                         "--timeout", "30"])
        http = "http://" + first_line(station)["http"]

        def get(path):
            with urllib.request.urlopen(http + path, timeout=60) as r:
                return json.loads(r.read())

        def put(path, body):
            req = urllib.request.Request(http + path, data=json.dumps(body).encode(), method="PUT")
            with urllib.request.urlopen(req, timeout=60) as r:
                return json.loads(r.read())

        def wait(what, predicate):
            began = time.time()
            while time.time() - began < args.limit:
                s = get("/api/summary")
                if predicate(s):
                    return time.time() - began, s
                time.sleep(0.5)
            raise RuntimeError("%s not reached within %d s: %s" % (what, args.limit, get("/api/summary")))

        sims = []
        per = (args.panels + args.processes - 1) // args.processes
        began = time.time()
        for i in range(args.processes):
            count = min(per, args.panels - i * per)
            if count <= 0:
                break
            sims.append(start([os.path.join(args.build, "tools", "nkdevice"), "--mqtt", url, "--fleet", "bench",
                               "--simulate", str(count), "--address", str(1 + i * per), "--poll-ms", "1000"]))
        for s in sims:
            first_line(s)
        online_s, _ = wait("all online and in sync",
                           lambda s: s["online"] == args.panels and s["status"].get("in sync", 0) == args.panels)
        online_s = time.time() - began
        before = get("/api/summary")["broker"]
        cpu_before = {p: cpu_seconds(p) for p in [station.pid, broker_pid] + [s.pid for s in sims]}
        config = json.load(open(os.path.join(root, "examples", "config.json")))
        config["slideshowInterval_sec"] = 17
        changed = time.time()
        put("/api/groups/default/desired", {"config": config})
        cs = get("/api/devices/1")["desired"]["csCfg"]
        sync_s, summary = wait("all in sync with the change",
                               lambda s: s["status"].get("in sync", 0) == args.panels and s["working"] == 0
                               and s["queued"] == 0)
        sync_s = time.time() - changed
        after = summary["broker"]
        sample = get("/api/devices?limit=50")
        assert all(d["reported"]["csCfg"] == cs for d in sample), "panels report another checksum"
        cpu = {p: cpu_seconds(p) - cpu_before[p] for p in cpu_before}
        messages = (after["published"] - before["published"]) + (after["received"] - before["received"])
        result = {
            "panels": args.panels,
            "simulator processes": len(sims),
            "online and in sync (s)": round(online_s, 1),
            "fleet-wide change to all in sync (s)": round(sync_s, 1),
            "station RSS (MiB)": round(rss_mib(station.pid), 1),
            "broker RSS (MiB)": round(rss_mib(broker_pid), 1),
            "broker messages per panel for the change": round(messages / args.panels, 2),
            "CPU s during the change: station": round(cpu[station.pid], 1),
            "CPU s during the change: broker": round(cpu[broker_pid], 1),
            "CPU s during the change: simulators": round(sum(cpu[s.pid] for s in sims), 1),
            "load average": open("/proc/loadavg").read().split()[:3],
        }
        print(json.dumps(result, indent=1))
    finally:
        # Stopped with SIGTERM first, so that a wrapper (a profiler) writes its data.
        for c in CHILDREN:
            if c.poll() is None:
                c.terminate()
        for c in CHILDREN:
            try:
                c.wait(60)
            except subprocess.TimeoutExpired:
                c.kill()
                c.wait()
        subprocess.run(["bash", script, "stop", work + "/broker"])
        shutil.rmtree(work, ignore_errors=True)


if __name__ == "__main__":
    main()
