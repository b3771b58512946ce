#!/usr/bin/env python3
"""Throughput and peak memory of `nkctl image push` to nkdevice over loopback TCP, beside the
same file copied over loopback TCP by two small processes of their own and written with fsync
and rename, as the device stores an image; and the same push over mutual TLS 1.3.

  bench/tools_push.py --nkctl build/tools/nkctl --nkdevice build/tools/nkdevice [--mib 50] [--runs 5]

Each run times one whole sending process, from its start until the receiver has the file
durably in place and says so (nkctl: the device's answer; the copy: a one-byte
acknowledgement after the rename and the directory's fsync). The sender's peak memory is its
maximum resident set (getrusage of the child); the receiver's is VmHWM of the long-running
process, reset through /proc/PID/clear_refs before each run. Prints medians with the spread
(fastest and slowest run), MB/s (10^6 bytes per second), the ratio of the median times and the
median of the ratios of each run's pair (the push against the copy of the same round), the CPU time
of sender and receiver (user and system, every thread), each peak as a multiple of the file
size, a memcpy of the file's bytes in this process for scale, and the
load before and after. A measurement, not a test: it never fails on a figure.

Further ways of pushing (another transport, say) are added as one more entry of VARIANTS: a
function that starts its receiver and gives what push_once needs.
"""
import argparse
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

PYTHON = "/usr/bin/python3"
MAKE_CERTS = os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "scripts", "make-certs.sh")

# The copy's receiver: one file per connection, 8-byte length first, then the bytes; written
# to a temporary name, fsync, rename, fsync of the directory, then one byte back.
COPY_RECEIVER = r"""
import os, socket, struct, sys
directory = sys.argv[1]
server = socket.socket()
server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
server.bind(("127.0.0.1", 0))
server.listen(4)
print(server.getsockname()[1], flush=True)
buffer = bytearray(1 << 20)
view = memoryview(buffer)
while True:
    peer, _ = server.accept()
    with peer:
        header = b""
        while len(header) < 8:
            more = peer.recv(8 - len(header))
            if not more:
                break
            header += more
        if len(header) < 8:
            continue
        left = struct.unpack("<Q", header)[0]
        temporary = os.path.join(directory, "copy.bin~")
        with open(temporary, "wb", buffering=0) as out:
            while left:
                n = peer.recv_into(view[:min(left, len(buffer))])
                if n == 0:
                    break
                out.write(view[:n])
                left -= n
            os.fsync(out.fileno())
        os.rename(temporary, os.path.join(directory, "copy.bin"))
        folder = os.open(directory, os.O_RDONLY)
        os.fsync(folder)
        os.close(folder)
        peer.sendall(b"k")
"""

# The copy's sender: reads the file in 1 MiB pieces and sends them, then waits for the byte.
COPY_SENDER = r"""
import os, socket, struct, sys
path, port = sys.argv[1], int(sys.argv[2])
size = os.path.getsize(path)
link = socket.create_connection(("127.0.0.1", port))
link.sendall(struct.pack("<Q", size))
buffer = bytearray(1 << 20)
view = memoryview(buffer)
with open(path, "rb", buffering=0) as source:
    while True:
        n = source.readinto(buffer)
        if not n:
            break
        link.sendall(view[:n])
if link.recv(1) != b"k":
    sys.exit("no acknowledgement")
"""


class Receiver:
    """A long-running receiving process and the command that pushes one file to it."""

    def __init__(self, process, command):
        self.process = process
        self.command = command  # function(path, run number) -> argv of the sender

    def reset_peak(self):
        try:
            with open("/proc/%d/clear_refs" % self.process.pid, "w") as f:
                f.write("5")
            return True
        except OSError:
            return False

    def cpu_seconds(self):
        """CPU time of all the process's threads so far (the first field of each schedstat, ns)."""
        total = 0
        directory = "/proc/%d/task" % self.process.pid
        for task in os.listdir(directory):
            try:
                with open(os.path.join(directory, task, "schedstat")) as f:
                    total += int(f.read().split()[0])
            except OSError:  # a thread that ended meanwhile
                pass
        return total / 1e9

    def peak_kib(self):
        with open("/proc/%d/status" % self.process.pid) as f:
            for line in f:
                if line.startswith("VmHWM:"):
                    return int(line.split()[1])
        return 0

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


def start_copy(args, work):
    directory = os.path.join(work, "copy")
    os.mkdir(directory)
    process = subprocess.Popen([PYTHON, "-I", "-S", "-c", COPY_RECEIVER, directory],
                               stdout=subprocess.PIPE, text=True)
    port = int(process.stdout.readline())
    return Receiver(process, lambda path, run: [PYTHON, "-I", "-S", "-c", COPY_SENDER, path, str(port)])


def start_nkdevice(args, work):
    process = subprocess.Popen([args.nkdevice, "--listen", "127.0.0.1:0", "--data", os.path.join(work, "device")],
                               stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    address = json.loads(process.stdout.readline())["address"]
    return Receiver(process, lambda path, run: [args.nkctl, "--json", "--timeout", "120", "--device", address,
                                                "image", "push", path, "--id", str(1000 + run),
                                                "--mime", "application/octet-stream"])


def start_nkdevice_tls(args, work):
    """The same push over mutual TLS 1.3, with the test certificates of scripts/make-certs.sh."""
    certs = os.path.join(work, "certs")
    subprocess.run(["bash", MAKE_CERTS, certs, "1"], check=True, capture_output=True)

    def tls(stem):
        return ["--tls-cert", os.path.join(certs, stem + ".crt"), "--tls-key", os.path.join(certs, stem + ".key"),
                "--tls-ca", os.path.join(certs, "ca.crt")]

    process = subprocess.Popen([args.nkdevice, "--listen", "127.0.0.1:0", "--data", os.path.join(work, "device-tls"),
                                *tls("panel-1")], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    address = json.loads(process.stdout.readline())["address"]
    return Receiver(process, lambda path, run: [args.nkctl, "--json", "--timeout", "120", "--device", address,
                                                *tls("station"), "image", "push", path, "--id", str(1000 + run),
                                                "--mime", "application/octet-stream"])


# (name, starter); the first is the baseline the others are compared with.
VARIANTS = [
    ("TCP copy + fsync + rename (python3)", start_copy),
    ("nkctl image push -> nkdevice (TCP)", start_nkdevice),
    ("nkctl image push -> nkdevice (TLS 1.3)", start_nkdevice_tls),
]


def push_once(receiver, path, run):
    """Seconds, sender peak KiB, receiver peak KiB, sender CPU seconds, receiver CPU seconds of
    one push."""
    receiver.reset_peak()
    command = receiver.command(path, run)
    receiver_cpu = receiver.cpu_seconds()
    # Standard error goes to a file: a pipe nobody reads while waiting could stall the sender.
    with tempfile.TemporaryFile() as errors:
        started = time.perf_counter()
        sender = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=errors)
        _, status, usage = os.wait4(sender.pid, 0)
        elapsed = time.perf_counter() - started
        sender.returncode = os.waitstatus_to_exitcode(status)
        if sender.returncode != 0:
            errors.seek(0)
            raise SystemExit("%s failed (exit %d): %s" %
                             (" ".join(command), sender.returncode, errors.read().decode().strip()))
    return (elapsed, usage.ru_maxrss, receiver.peak_kib(), usage.ru_utime + usage.ru_stime,
            receiver.cpu_seconds() - receiver_cpu)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--nkctl", required=True)
    parser.add_argument("--nkdevice", required=True)
    parser.add_argument("--mib", type=int, default=50, help="file size in MiB (default 50)")
    parser.add_argument("--runs", type=int, default=5, help="pushes per variant, alternating (default 5)")
    args = parser.parse_args()

    size = args.mib << 20
    load_before = os.getloadavg()
    with tempfile.TemporaryDirectory(dir=os.environ.get("TMPDIR")) as work:
        path = os.path.join(work, "content.bin")
        with open(path, "wb") as f:
            # Random, so that compression gains nothing; written in pieces, so that this
            # process stays small (a child's maximum resident set counts it until exec).
            for _ in range(args.mib):
                f.write(os.urandom(1 << 20))
        receivers = []
        try:
            for name, start in VARIANTS:
                receivers.append((name, start(args, work)))
            results = {name: [] for name, _ in VARIANTS}
            # Alternating runs, so that a change of load falls on every variant alike.
            for run in range(args.runs):
                for name, receiver in receivers:
                    results[name].append(push_once(receiver, path, run))
        finally:
            for _, receiver in receivers:
                receiver.stop()

    print("load average before: %.2f %.2f %.2f, after: %.2f %.2f %.2f" % (load_before + os.getloadavg()))
    print("file: %d MiB of random bytes; medians of %d runs; memcpy of its bytes here: %.1f ms" %
          (args.mib, args.runs, memcpy_ms(size)))
    baseline = None
    for name, _ in VARIANTS:
        runs = results[name]
        times = [r[0] for r in runs]
        seconds = statistics.median(times)
        sender = statistics.median(r[1] for r in runs)
        receiver = statistics.median(r[2] for r in runs)
        if baseline is None:
            baseline = times
        pairs = statistics.median(t / b for t, b in zip(times, baseline))
        sender_cpu = statistics.median(r[3] for r in runs)
        receiver_cpu = statistics.median(r[4] for r in runs)
        print("%s\n    %.1f ms (%.1f-%.1f), %.1f MB/s, %.2fx (pairs %.2fx); CPU sender %.1f ms + receiver %.1f ms; "
              "peak sender %.1f MiB (%.2fx file), receiver %.1f MiB (%.2fx file)" %
              (name, seconds * 1000, min(times) * 1000, max(times) * 1000, size / seconds / 1e6,
               seconds / statistics.median(baseline), pairs, sender_cpu * 1000, receiver_cpu * 1000,
               sender / 1024.0, sender * 1024.0 / size, receiver / 1024.0, receiver * 1024.0 / size))
    return 0


def memcpy_ms(size):
    """The median of five copies of size bytes between two buffers of this process (a bytearray
    slice assignment is one memcpy), after one to fault both in."""
    source = bytearray(os.urandom(1 << 20)) * (size >> 20)
    target = bytearray(len(source))
    times = []
    for _ in range(6):
        started = time.perf_counter()
        target[:] = source
        times.append(time.perf_counter() - started)
    return statistics.median(times[1:]) * 1000


if __name__ == "__main__":
    sys.exit(main())
