#!/usr/bin/env python3
"""Wall time of whole nkctl runs against nkdevice over loopback TCP, beside a trivial TCP
request/answer made by a process of its own (bash's /dev/tcp against an echo server).

  bench/tools_process_latency.py --nkctl build/tools/nkctl --nkdevice build/tools/nkdevice [--runs 50]

The three commands run in turn, round after round, so that a change in the machine's load
touches all of them alike; the ratio of `nkctl state` to the trivial request/answer is taken
round by round and its median printed beside the medians and 90th percentiles of each, in
milliseconds. A measurement, not a test: it never fails on a figure.
"""
import argparse
import json
import os
import socket
import statistics
import subprocess
import tempfile
import threading
import time


DEVNULL = os.open(os.devnull, os.O_WRONLY)


def timed_once(cmd):
    """Wall time of one run, started with posix_spawn: the harness's own share stays small and
    the same for every command (subprocess.run with pipes cost from 0.1 to 2.5 ms a run here,
    depending on how the interpreter was started)."""
    started = time.perf_counter()
    pid = os.posix_spawnp(cmd[0], cmd, os.environ,
                          file_actions=[(os.POSIX_SPAWN_DUP2, DEVNULL, 1), (os.POSIX_SPAWN_DUP2, DEVNULL, 2)])
    _, status = os.waitpid(pid, 0)
    elapsed = (time.perf_counter() - started) * 1000.0
    if os.waitstatus_to_exitcode(status) != 0:
        failed = subprocess.run(cmd, capture_output=True, text=True, timeout=30)
        raise SystemExit("%s failed: %s" % (" ".join(cmd), failed.stderr.strip()))
    return elapsed


def echo_server():
    server = socket.socket()
    server.bind(("127.0.0.1", 0))
    server.listen(16)

    def serve():
        while True:
            peer, _ = server.accept()
            with peer:
                data = peer.recv(64)
                peer.sendall(data)

    threading.Thread(target=serve, daemon=True).start()
    return server.getsockname()[1]


def summary(times):
    ordered = sorted(times)
    return statistics.median(ordered), ordered[max(0, int(len(ordered) * 0.9) - 1)]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--nkctl", required=True)
    parser.add_argument("--nkdevice", required=True)
    parser.add_argument("--runs", type=int, default=50)
    args = parser.parse_args()

    port = echo_server()
    trivial = ["bash", "-c", 'exec 3<>/dev/tcp/127.0.0.1/%d; printf "state?\\n" >&3; read -r -u 3 line' % port]
    with tempfile.TemporaryDirectory() as work:
        device = subprocess.Popen([args.nkdevice, "--listen", "127.0.0.1:0", "--data", work + "/data"],
                                  stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
        try:
            address = json.loads(device.stdout.readline())["address"]
            commands = [
                ("trivial TCP request/answer (bash /dev/tcp)", trivial),
                ("nkctl --version (process start only)", [args.nkctl, "--version"]),
                ("nkctl state", [args.nkctl, "--json", "--device", address, "state"]),
            ]
            for _, cmd in commands:  # warm the page cache and the device
                timed_once(cmd)
            load_before = os.getloadavg()[0]
            times = {name: [] for name, _ in commands}
            for _ in range(args.runs):
                for name, cmd in commands:
                    times[name].append(timed_once(cmd))
            load_after = os.getloadavg()[0]
        finally:
            device.terminate()
            device.wait(10)
    print("load average (1 min): %.2f before, %.2f after; %d rounds" % (load_before, load_after, args.runs))
    for name, _ in commands:
        median, p90 = summary(times[name])
        print("%-45s median %7.2f ms   p90 %7.2f ms" % (name, median, p90))
    ratios = [s / t for s, t in zip(times["nkctl state"], times[commands[0][0]])]
    print("nkctl state / trivial, round by round: median %.2f, p10 %.2f, p90 %.2f"
          % (statistics.median(ratios), sorted(ratios)[max(0, int(len(ratios) * 0.1) - 1)],
             sorted(ratios)[max(0, int(len(ratios) * 0.9) - 1)]))


if __name__ == "__main__":
    main()
