#!/usr/bin/env python3
"""Wall time of whole nkctl runs against nkdevice over loopback TCP, beside a trivial TCP
request/answer made by a process of its own (bash's /dev/tcp against an echo server).

  bench/tools_process_latency.py --nkctl build/tools/nkctl --nkdevice build/tools/nkdevice [--runs 50]

Prints the median and the 90th percentile of each, in milliseconds. A measurement, not a test:
it never fails on a figure.
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


def timed(cmd, runs):
    times = []
    for _ in range(runs):
        started = time.perf_counter()
        done = subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=30)
        times.append((time.perf_counter() - started) * 1000.0)
        if done.returncode != 0:
            raise SystemExit("%s failed: %s" % (" ".join(cmd), done.stderr.decode().strip()))
    times.sort()
    return statistics.median(times), times[int(len(times) * 0.9) - 1]


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
            rows = [
                ("trivial TCP request/answer (bash /dev/tcp)", timed(trivial, args.runs)),
                ("nkctl --version (process start only)", timed([args.nkctl, "--version"], args.runs)),
                ("nkctl state", timed([args.nkctl, "--json", "--device", address, "state"], args.runs)),
            ]
        finally:
            device.terminate()
            device.wait(10)
    print("load average: %.2f %.2f %.2f" % os.getloadavg())
    for name, (median, p90) in rows:
        print("%-45s median %7.2f ms   p90 %7.2f ms" % (name, median, p90))


if __name__ == "__main__":
    main()
