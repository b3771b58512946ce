"""Shared fixtures: the golden vectors, real nkdevice processes and a real mosquitto broker."""
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
    """A real nkdevice on a free loopback port, with its own data directory."""

    def __init__(self, address=1):
        binary = os.environ.get("NK_NKDEVICE")
        if not binary or not os.access(binary, os.X_OK):
            raise RuntimeError("NK_NKDEVICE does not name the nkdevice program (set by CTest)")
        self.data = tempfile.mkdtemp(prefix="nkpy-device-")
        self.address = address
        self.proc = subprocess.Popen(
            [binary, "--listen", "127.0.0.1:0", "--address", str(address), "--data", self.data],
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


@pytest.fixture(scope="module")
def broker():
    """A mosquitto on a free loopback port, started and stopped by scripts/broker.sh; the tests
    of one file share it, each on topics of its own."""
    script = os.path.join(SOURCE_DIR, "scripts", "broker.sh")
    work = tempfile.mkdtemp(prefix="nkpy-broker-")
    started = subprocess.run(["bash", script, "start", work], capture_output=True, text=True, timeout=60)
    if started.returncode != 0:
        raise RuntimeError("the broker did not start: " + started.stderr)
    url = started.stdout.strip()
    host, port = url[len("mqtt://"):].rsplit(":", 1)
    try:
        yield (host, int(port))
    finally:
        subprocess.run(["bash", script, "stop", work], timeout=60)
        shutil.rmtree(work, ignore_errors=True)


@pytest.fixture
def mqtt_device(broker):
    """A real nkdevice serving one panel (address 5, fleet "py") through the broker."""
    binary = os.environ.get("NK_NKDEVICE")
    if not binary or not os.access(binary, os.X_OK):
        raise RuntimeError("NK_NKDEVICE does not name the nkdevice program (set by CTest)")
    data = tempfile.mkdtemp(prefix="nkpy-mqtt-device-")
    proc = subprocess.Popen([binary, "--mqtt", f"mqtt://{broker[0]}:{broker[1]}", "--fleet", "py", "--address", "5",
                             "--data", data], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    line = []
    reader = threading.Thread(target=lambda: line.append(proc.stdout.readline()), daemon=True)
    reader.start()
    reader.join(30)
    try:
        if not line or not line[0]:
            raise RuntimeError("nkdevice --mqtt did not announce itself")
        assert json.loads(line[0])["event"] == "serving"
        yield broker, 5
    finally:
        stop(proc)
        shutil.rmtree(data, ignore_errors=True)
