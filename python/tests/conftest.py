"""Shared fixtures: the golden vectors, real nkdevice processes and a real mosquitto broker."""
import contextlib
import json
import os
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time

import pytest

SOURCE_DIR = os.environ.get("NK_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))


def golden_vectors():
    """name -> bytes, from tests/golden/vectors.txt (written by the C++ golden test)."""
    vectors = {}
    with open(os.path.join(SOURCE_DIR, "tests", "golden", "vectors.txt")) as f:
        for line in f:
            if line.startswith("#") or not line.strip():
                continue
            name, hexbytes = line.split()
            vectors[name] = bytes.fromhex(hexbytes)
    return vectors


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def wait_for_port(port, proc, seconds=30):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if proc.poll() is not None:
            raise RuntimeError(f"process ended with {proc.returncode}: {proc.stderr.read() if proc.stderr else ''}")
        try:
            socket.create_connection(("127.0.0.1", port), timeout=1).close()
            return
        except OSError:
            time.sleep(0.05)
    raise RuntimeError(f"nothing listens on port {port} after {seconds} s")


def stop(proc):
    if proc.poll() is None:
        proc.terminate()
        try:
            proc.wait(10)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait()


class Device:
    """A real nkdevice on a free loopback port, with its own data directory; extra options
    (such as its TLS files) go on its command line."""

    def __init__(self, address=1, *extra):
        binary = os.environ.get("NK_NKDEVICE")
        if not binary or not os.access(binary, os.X_OK):
            raise RuntimeError("NK_NKDEVICE does not name the nkdevice program (set by CTest)")
        self.data = tempfile.mkdtemp(prefix="nkpy-device-")
        self.address = address
        self.proc = subprocess.Popen(
            [binary, "--listen", "127.0.0.1:0", "--address", str(address), "--data", self.data, *extra],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = []
        reader = threading.Thread(target=lambda: line.append(self.proc.stdout.readline()), daemon=True)
        reader.start()
        reader.join(30)
        if not line or not line[0]:
            stop(self.proc)
            raise RuntimeError("nkdevice did not announce its port: " + self.proc.stderr.read())
        hello = json.loads(line[0])
        self.host, port = hello["address"].rsplit(":", 1)
        self.port = int(port)

    def close(self):
        stop(self.proc)
        shutil.rmtree(self.data, ignore_errors=True)


@pytest.fixture
def device():
    d = Device()
    yield d
    d.close()


@pytest.fixture
def devices():
    started = [Device(address) for address in (1, 2, 3)]
    yield started
    for d in started:
        d.close()


def start_broker(*options):
    """A mosquitto on a free loopback port started by scripts/broker.sh: (host, port, stop)."""
    script = os.path.join(SOURCE_DIR, "scripts", "broker.sh")
    work = tempfile.mkdtemp(prefix="nkpy-broker-")
    started = subprocess.run(["bash", script, "start", work, *options], capture_output=True, text=True, timeout=60)
    if started.returncode != 0:
        shutil.rmtree(work, ignore_errors=True)
        raise RuntimeError("the broker did not start: " + started.stderr)
    host, port = started.stdout.strip().split("://", 1)[1].rsplit(":", 1)

    def stop_broker():
        subprocess.run(["bash", script, "stop", work], timeout=60)
        shutil.rmtree(work, ignore_errors=True)
    return host, int(port), stop_broker


@pytest.fixture(scope="module")
def broker():
    """A mosquitto on a free loopback port; the tests of one file share it, each on topics of
    its own."""
    host, port, stop_broker = start_broker()
    try:
        yield (host, port)
    finally:
        stop_broker()


@pytest.fixture(scope="module")
def certs():
    """A test CA with the station's, the broker's and panels 1, 2 and 5's certificates (and the
    expired and foreign ones), made by scripts/make-certs.sh."""
    out = tempfile.mkdtemp(prefix="nkpy-certs-")
    subprocess.run(["bash", os.path.join(SOURCE_DIR, "scripts", "make-certs.sh"), out, "1", "2", "5"],
                   check=True, capture_output=True, timeout=300)
    yield out
    shutil.rmtree(out, ignore_errors=True)


@contextlib.contextmanager
def mqtt_panel(url, address, *extra):
    """A real nkdevice serving one panel through the broker at url (fleet "py"); extra options
    (such as its TLS files) go on its command line."""
    binary = os.environ.get("NK_NKDEVICE")
    if not binary or not os.access(binary, os.X_OK):
        raise RuntimeError("NK_NKDEVICE does not name the nkdevice program (set by CTest)")
    data = tempfile.mkdtemp(prefix="nkpy-mqtt-device-")
    proc = subprocess.Popen([binary, "--mqtt", url, "--fleet", "py", "--address", str(address), "--data", data,
                             *extra], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    line = []
    reader = threading.Thread(target=lambda: line.append(proc.stdout.readline()), daemon=True)
    reader.start()
    reader.join(30)
    try:
        if not line or not line[0]:
            raise RuntimeError("nkdevice --mqtt did not announce itself")
        assert json.loads(line[0])["event"] == "serving"
        yield proc
    finally:
        stop(proc)
        shutil.rmtree(data, ignore_errors=True)


@pytest.fixture
def mqtt_device(broker):
    """A real nkdevice serving one panel (address 5, fleet "py") through the broker."""
    with mqtt_panel(f"mqtt://{broker[0]}:{broker[1]}", 5):
        yield broker, 5
