#!/usr/bin/env python3
"""Mutual TLS with the real parts as separate processes, on certificates made by
scripts/make-certs.sh.

tcp: nkdevice --listen and nkctl over TLS: a push works with the right certificates; a station
certificate from another CA, an expired one, a panel's certificate used as a station's, a
revoked one and a device certificate that names another panel are refused; a plain client on
the TLS port and a TLS client on a plain port fail at once with exit status 4 and one line
saying so.

broker: mosquitto started by scripts/broker.sh --tls: a panel cannot publish on another panel's
topic nor read another's down topic (checked with mosquitto_pub/mosquitto_sub and that panel's
certificate), expired, foreign and missing certificates are turned away, and nkstation brings
simulated panels to their desired state over TLS, beside a panel it dials over TLS; the panels
it dials whose certificate names another panel or comes from another CA, and a plain one, are
shown failed with the reason, as is a TLS panel dialled by a plain station; a client that
disagrees with the broker on TLS is told so; a revoked panel certificate is refused after the
broker's restart.
"""
import argparse
import json
import os
import queue
import shutil
import socket
import ssl
import subprocess
import sys
import tempfile
import threading
import time
import urllib.request

import harness
from harness import FAILURES, check, kill_children, start

ARGS = None
CERTS = None
FLEET = "tls"


def make_certs(*addresses):
    subprocess.run(["bash", ARGS.make_certs, CERTS, *map(str, addresses)], check=True, timeout=300)


def tls_args(stem, ca="ca.crt"):
    return ["--tls-cert", "%s/%s.crt" % (CERTS, stem), "--tls-key", "%s/%s.key" % (CERTS, stem),
            "--tls-ca", os.path.join(CERTS, ca)]


def start_device(work, name, *extra):
    proc = start(ARGS.emulator + [ARGS.nkdevice, "--data", os.path.join(work, name), "--listen", "127.0.0.1:0",
                                  *extra])
    line = harness.read_line(proc, 60)
    if not line:
        raise RuntimeError("nkdevice did not start: " + (proc.stderr.read() if proc.poll() is not None else "no output"))
    return proc, json.loads(line)["address"]


def stop_device(proc):
    """Stops a device and gives its standard error (its warnings)."""
    proc.terminate()
    try:
        proc.wait(30)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
    return proc.stderr.read()


def ctl(device, *args, seconds=120):
    """nkctl with a generous time-out, so that a refusal cannot pass for a time-out (status 5)."""
    done = subprocess.run(ARGS.emulator + [ARGS.nkctl, "--json", "--timeout", "60", "--device", device, *args],
                          capture_output=True, text=True, timeout=seconds)
    objects = [json.loads(line) for line in done.stdout.splitlines() if line.strip()]
    return done.returncode, objects, done.stderr


def refused(result, fragment, what):
    status, _, err = result
    lines = [line for line in err.splitlines() if line.strip()]
    return check(status == 4 and len(lines) == 1 and fragment in lines[0],
                 "%s: exit 4 and one line naming '%s' (got exit %r, %r)" % (what, fragment, status, err.strip()))


def tcp_part(work):
    make_certs(1, 2)
    station = tls_args("station")
    device, address = start_device(work, "panel-1", "--address", "1", *tls_args("panel-1"))

    status, out, err = ctl(address, *station, "config", "push", os.path.join(ARGS.examples, "config.json"))
    check(status == 0 and out and out[0]["verified"], "a configuration push over TLS is verified (%s)" % err.strip())
    image = os.path.join(work, "large.png")
    with open(image, "wb") as f:
        f.write(os.urandom(3 << 20))
    status, out, err = ctl(address, *station, "image", "push", image, "--id", "7")
    check(status == 0 and out and out[0]["present"], "a 3 MiB image push over TLS is stored (%s)" % err.strip())

    refused(ctl(address, *tls_args("foreign-station"), "state"), "unknown ca", "a station certificate of another CA")
    refused(ctl(address, *tls_args("expired-station"), "state"), "certificate expired",
            "an expired station certificate")
    refused(ctl(address, *tls_args("panel-2"), "state"), "refused this side's TLS certificate",
            "a panel's certificate presented as a station's")
    refused(ctl("2@" + address, *station, "state"), "names panel 1, not panel 2",
            "a device whose certificate names another panel")
    refused(ctl(address, *tls_args("station", "foreign/ca.crt"), "state"), "was refused",
            "a device certificate that does not chain to the station's CA")
    refused(ctl(address, "state"), "speaks TLS", "a plain client on the TLS port")
    status, out, _ = ctl(address, *station, "state")
    check(status == 0 and out and {"uid": 7, "uidText": "7"} in out[0].get("images", []),
          "the device still serves its station after the refusals")
    log = stop_device(device)
    for fragment in ("unable to get local issuer certificate", "certificate has expired",
                     "names a panel, not a station", "speaks no TLS"):
        check(fragment in log, "the device logs the refusal: %s" % fragment)

    # Revocation: the device given the CA's list refuses the revoked station certificate.
    subprocess.run(["bash", ARGS.make_certs, "--revoke", CERTS, "station"], check=True, timeout=120,
                   capture_output=True)
    device, address = start_device(work, "panel-1", "--address", "1", *tls_args("panel-1"),
                                   "--tls-crl", os.path.join(CERTS, "crl.pem"))
    refused(ctl(address, *station, "state"), "certificate revoked", "a revoked station certificate")
    stop_device(device)

    device, address = start_device(work, "expired", "--address", "1", *tls_args("expired-panel"))
    status, out, err = ctl(address, *station, "state")
    # The certificate verifies up to its dates: the station names what is wrong with it.
    refused((status, out, err), "certificate has expired", "a device with an expired certificate")
    stop_device(device)

    device, address = start_device(work, "plain", "--address", "1")
    refused(ctl(address, *station, "state"), "plain port", "a TLS client on a plain port")
    check("speaks TLS" in stop_device(device), "the plain device logs the TLS client it refused")

    # Files that cannot serve are refused before anything is connected.
    status, _, err = ctl(address, "--tls-cert", CERTS + "/station.crt", "state")
    check(status == 2 and "together" in err, "a certificate without key and CA is a usage error (%r)" % err.strip())
    status, _, err = ctl(address, *tls_args("station")[:2], "--tls-key", CERTS + "/panel-1.key", "--tls-ca",
                         CERTS + "/ca.crt", "state")
    check(status == 3 and "mismatch" in err, "a key of another certificate is refused (%r)" % err.strip())
    done = subprocess.run(ARGS.emulator + [ARGS.nkdevice, "--data", work + "/wrong", "--address", "1",
                                           *tls_args("panel-2")], capture_output=True, text=True, timeout=60)
    check(done.returncode == 3 and "names '2', not the panel 1" in done.stderr,
          "a device refuses to start with another panel's certificate (%r)" % done.stderr.strip())

    slow_tls_devices(work)


def serve_tls_once(handle):
    """A TLS device of panel 1's certificate on loopback with a small receive buffer; the first
    connection, once its handshake is done, goes to handle on a thread. Gives the address and
    the thread."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_3
    context.load_cert_chain(os.path.join(CERTS, "panel-1.crt"), os.path.join(CERTS, "panel-1.key"))
    context.load_verify_locations(os.path.join(CERTS, "ca.crt"))
    context.verify_mode = ssl.CERT_REQUIRED
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    listener.bind(("127.0.0.1", 0))
    listener.listen(1)

    def accept():
        with listener:
            peer, _ = listener.accept()
            with context.wrap_socket(peer, server_side=True) as connection:
                handle(connection)

    thread = threading.Thread(target=accept, daemon=True)
    thread.start()
    return "127.0.0.1:%d" % listener.getsockname()[1], thread


def push(address, path, timeout):
    return subprocess.run(ARGS.emulator + [ARGS.nkctl, "--json", "--timeout", str(timeout), "--device", address,
                                           *tls_args("station"), "image", "push", path, "--id", "80"],
                          capture_output=True, text=True, timeout=120)


def slow_tls_devices(work):
    """nkctl waits for each piece of a request to be written over TLS instead of queueing all of
    it: a device that stops reading ends the push with a time-out once no byte has moved for
    --timeout seconds, and one that reads slowly gets every frame once, although the station's
    timer ticks while it waits."""
    big = os.path.join(work, "sixteen.png")
    with open(big, "wb") as f:
        f.write(os.urandom(16 << 20))
    pushed = threading.Event()
    address, thread = serve_tls_once(lambda connection: pushed.wait(60))
    done = push(address, big, 1)
    pushed.set()
    check(done.returncode == 5 and "took no byte" in done.stderr and len(done.stderr.strip().splitlines()) == 1,
          "a TLS device that stops reading: one line, exit 5 (%r, exit %r)" % (done.stderr.strip(), done.returncode))

    four = os.path.join(work, "four.png")
    with open(four, "wb") as f:
        f.write(os.urandom(4 << 20))  # with its header, five parts of at most 1 MiB
    ends = []

    def read_slowly(connection):
        while True:
            data = connection.recv(65536)
            if not data:
                break
            ends.append(data.count(b"\x02"))
            time.sleep(0.02)

    address, thread = serve_tls_once(read_slowly)
    done = push(address, four, 2)
    thread.join(30)
    check(done.returncode == 5 and sum(ends) == 5,
          "a TLS device that reads slowly gets each of the five frames once (%d frames, exit %r, %r)"
          % (sum(ends), done.returncode, done.stderr.strip()))


class Subscriber:
    """mosquitto_sub with a client certificate; one thread reads its lines into a queue, so
    that no line is lost to a read that timed out."""

    def __init__(self, port, stem, *topics):
        command = ["mosquitto_sub", "-h", "127.0.0.1", "-p", port, "-q", "1", "-v", "--cafile",
                   CERTS + "/ca.crt", "--cert", "%s/%s.crt" % (CERTS, stem), "--key", "%s/%s.key" % (CERTS, stem)]
        for topic in topics:
            command += ["-t", topic]
        self.proc = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        harness.CHILDREN.append(self.proc)
        self.lines = queue.Queue()
        threading.Thread(target=self._read, daemon=True).start()

    def _read(self):
        for line in self.proc.stdout:
            self.lines.put(line.decode(errors="replace").strip())

    def lines_until(self, marker, publish, seconds=60):
        """Publishes (with publish()) until marker arrives; the lines before it."""
        seen = []
        deadline = time.time() + seconds
        while time.time() < deadline:
            publish()
            try:
                while True:
                    line = self.lines.get(timeout=1)
                    if line.endswith(" " + marker):
                        return seen
                    seen.append(line)
            except queue.Empty:
                pass
        return None

    def stop(self):
        self.proc.kill()
        self.proc.wait()


def mqtt_pub(port, stem, topic, payload):
    command = ["mosquitto_pub", "-h", "127.0.0.1", "-p", port, "-q", "1", "-t", topic, "-m", payload,
               "--cafile", CERTS + "/ca.crt"]
    if stem:
        command += ["--cert", "%s/%s.crt" % (CERTS, stem), "--key", "%s/%s.key" % (CERTS, stem)]
    return subprocess.run(command, capture_output=True, text=True, timeout=60).returncode


def topic(address, kind):
    return "nk/%s/%d/%s" % (FLEET, address, kind)


def broker_part(work):
    # The first address names the expired and the foreign panel certificates.
    make_certs(1009, 1001, 1002, 1003, 2001, 2002)
    broker_dir = os.path.join(work, "broker")
    url = subprocess.run(["bash", ARGS.broker_script, "start", broker_dir, "--tls", CERTS, "--fleet", FLEET],
                         capture_output=True, text=True, timeout=60, check=True).stdout.strip()
    check(url.startswith("mqtts://"), "the broker script gives an mqtts:// URL (%s)" % url)
    port = url.rsplit(":", 1)[1]
    try:
        # Publish: the panel's own up topic arrives, the other panel's never does. The marker is
        # published after the attempt by the same panel, so the attempt would have come first.
        station = Subscriber(port, "station", "nk/%s/+/up" % FLEET)
        ready = station.lines_until("ready", lambda: mqtt_pub(port, "panel-1001", topic(1001, "up"), "ready"))
        check(ready is not None, "a panel publishes on its own up topic")
        mqtt_pub(port, "panel-1001", topic(1002, "up"), "forged")
        after = station.lines_until("done", lambda: mqtt_pub(port, "panel-1001", topic(1001, "up"), "done"))
        check(after is not None and not any("forged" in line for line in after),
              "a panel cannot publish on another panel's up topic (%r)" % after)
        station.stop()

        # Read: the panel subscribes to its own down topic and another's; only its own delivers.
        panel = Subscriber(port, "panel-1001", topic(1001, "down"), topic(1002, "down"))
        ready = panel.lines_until("ready", lambda: mqtt_pub(port, "station", topic(1001, "down"), "ready"))
        check(ready is not None, "a panel reads its own down topic")
        mqtt_pub(port, "station", topic(1002, "down"), "secret")
        after = panel.lines_until("done", lambda: mqtt_pub(port, "station", topic(1001, "down"), "done"))
        check(after is not None and not any("secret" in line for line in after),
              "a panel cannot read another panel's down topic (%r)" % after)
        panel.stop()

        check(mqtt_pub(port, "expired-panel", topic(1001, "up"), "x") != 0, "the broker refuses an expired certificate")
        check(mqtt_pub(port, "foreign-panel", topic(1001, "up"), "x") != 0, "the broker refuses a foreign CA's panel")
        check(mqtt_pub(port, None, topic(1001, "up"), "x") != 0, "the broker refuses a client without certificate")
        plain = subprocess.run(["mosquitto_pub", "-h", "127.0.0.1", "-p", port, "-t", topic(1001, "up"), "-m", "x"],
                               capture_output=True, timeout=60)
        check(plain.returncode != 0, "the broker refuses a plain client")

        tls_on_one_side(work, url)
        fleet_over_tls(work, url)

        # A revoked panel certificate is refused once the broker has read the new list.
        check(mqtt_pub(port, "panel-1002", topic(1002, "up"), "x") == 0, "panel 1002 publishes before any revocation")
        subprocess.run(["bash", ARGS.make_certs, "--revoke", CERTS, "panel-1002"], check=True, timeout=120,
                       capture_output=True)
        subprocess.run(["bash", ARGS.broker_script, "stop", broker_dir], timeout=60, check=True)
        subprocess.run(["bash", ARGS.broker_script, "start", broker_dir, port, "--tls", CERTS, "--fleet", FLEET],
                       capture_output=True, timeout=60, check=True)
        check(mqtt_pub(port, "panel-1002", topic(1002, "up"), "x") != 0, "the broker refuses a revoked certificate")
        check(mqtt_pub(port, "panel-1001", topic(1001, "up"), "x") == 0, "the broker still takes the others")
    finally:
        subprocess.run(["bash", ARGS.broker_script, "stop", broker_dir], timeout=60)


def warning_with(proc, fragment, seconds=60):
    """The first line on a child's standard error that holds fragment, or None."""
    deadline = time.time() + seconds
    while time.time() < deadline:
        line = harness.read_line(proc, deadline - time.time(), proc.stderr)
        if not line:
            return None
        if fragment in line:
            return line.strip()
    return None


def tls_on_one_side(work, url):
    """A plain client on the TLS broker and a TLS client on a plain one hear why they are turned away."""
    plain_dir = os.path.join(work, "plain-broker")
    plain_url = subprocess.run(["bash", ARGS.broker_script, "start", plain_dir], capture_output=True, text=True,
                               timeout=60, check=True).stdout.strip()
    try:
        station = start([ARGS.nkstation, "--mqtt", "mqtt://" + url.split("://", 1)[1], "--fleet", FLEET, "--db",
                         work + "/plain-station.db", "--http", "127.0.0.1:0"])
        line = warning_with(station, "takes TLS only")
        check(line is not None and "mqtts://" in line, "a plain station on the TLS broker is told to use mqtts:// (%s)"
              % line)
        station.kill()
        panel = start(ARGS.emulator + [ARGS.nkdevice, "--mqtt", "mqtts://" + plain_url.split("://", 1)[1], "--fleet",
                                       FLEET, "--address", "1001", "--data", work + "/tls-on-plain",
                                       *tls_args("panel-1001")])
        line = warning_with(panel, "plain broker")
        check(line is not None and "TLS handshake" in line, "a TLS panel on a plain broker is told so (%s)" % line)
        panel.kill()
    finally:
        subprocess.run(["bash", ARGS.broker_script, "stop", plain_dir], timeout=60)


def start_station(work, db, *args):
    """nkstation on a free HTTP port; its API's address."""
    station = start([ARGS.nkstation, "--db", os.path.join(work, db), "--http", "127.0.0.1:0", "--timeout", "5",
                     "--poll-interval", "5", *args])
    line = harness.read_line(station, 60)
    if not line:
        raise RuntimeError("nkstation did not start: " + (station.stderr.read() if station.poll() is not None else ""))
    return station, "http://" + json.loads(line)["http"]


def fleet_over_tls(work, url):
    # Panels the station dials over TLS: one as it should be, one whose certificate names
    # another panel, one whose certificate comes from another CA, and a plain one.
    good, good_at = start_device(work, "dial-2001", "--address", "2001", *tls_args("panel-2001"))
    _, other_named_at = start_device(work, "dial-2002", "--address", "2002", *tls_args("panel-2002"))
    _, foreign_at = start_device(work, "dial-1009", "--address", "1009", "--tls-cert", CERTS + "/foreign-panel.crt",
                                 "--tls-key", CERTS + "/foreign-panel.key", "--tls-ca", CERTS + "/ca.crt")
    _, plain_at = start_device(work, "dial-2004", "--address", "2004")
    # ... and one that trusts another CA than the station's, so it refuses the station.
    _, distrustful_at = start_device(work, "distrustful-2002", "--address", "2002", "--tls-cert", CERTS + "/panel-2002.crt",
                                     "--tls-key", CERTS + "/panel-2002.key", "--tls-ca", CERTS + "/foreign/ca.crt")
    panels_file = os.path.join(work, "panels.txt")
    with open(panels_file, "w") as f:
        f.write("# dialled over TLS\n1009@%s\n2004@%s\n" % (foreign_at, plain_at))
    station, http = start_station(work, "station.db", "--mqtt", url, "--fleet", FLEET, *tls_args("station"),
                                  "--tls-crl", CERTS + "/crl.pem", "--panel", "2001@" + good_at,
                                  "--panel", "2003@" + other_named_at, "--panels-file", panels_file)
    start(ARGS.emulator + [ARGS.nkdevice, "--mqtt", url, "--fleet", FLEET, "--simulate", "3", "--address", "1001",
                           "--tls-cert", CERTS + "/panel-{address}.crt", "--tls-key", CERTS + "/panel-{address}.key",
                           "--tls-ca", CERTS + "/ca.crt"])

    def get(path, base=http):
        with urllib.request.urlopen(base + path, timeout=30) as response:
            return json.loads(response.read())

    def wait_for(what, predicate, seconds=180):
        deadline = time.time() + seconds
        while time.time() < deadline:
            try:
                if predicate():
                    return check(True, what)
            except (OSError, ValueError, KeyError):
                pass
            time.sleep(0.5)
        return check(False, what)

    request = urllib.request.Request(http + "/api/devices/2002", method="PUT",
                                     data=json.dumps({"transport": "tcp", "endpoint": distrustful_at}).encode())
    with urllib.request.urlopen(request, timeout=30) as response:
        check(response.status == 200, "a panel to dial over TLS is registered through the API")
    wait_for("three broker panels and one dialled panel come online over TLS",
             lambda: get("/api/summary")["online"] == 4 and get("/api/devices/2001")["online"])
    config = json.load(open(os.path.join(ARGS.examples, "config.json")))
    schedules = json.load(open(os.path.join(ARGS.examples, "schedules.json")))
    request = urllib.request.Request(http + "/api/groups/default/desired", method="PUT",
                                     data=json.dumps({"config": config, "schedules": schedules}).encode(),
                                     headers={"Content-Type": "application/json"})
    with urllib.request.urlopen(request, timeout=30) as response:
        check(response.status == 200, "the desired configuration is accepted")

    def in_sync():
        devices = [d for d in get("/api/devices") if d["address"] in (1001, 1002, 1003, 2001)]
        return len(devices) == 4 and all(d["status"] == "in sync" and d["desired"].get("csCfg") and
                                         d["reported"]["csCfg"] == d["desired"]["csCfg"] for d in devices)

    wait_for("the fleet converges over TLS: every panel, on the broker or dialled, reports the desired "
             "configuration", in_sync)

    def refused(address, fragment):
        device = get("/api/devices/%d" % address)
        return device["status"] == "failed" and not device["online"] and fragment in device["error"]

    wait_for("a dialled panel whose certificate names another panel is failed, saying so",
             lambda: refused(2003, "names panel 2002, not panel 2003"))
    wait_for("a dialled panel whose certificate comes from another CA is failed, saying so",
             lambda: refused(1009, "was refused: unable to get local issuer certificate"))
    wait_for("a dialled panel that refuses the station's certificate is failed, saying so",
             lambda: refused(2002, "refused this side's TLS certificate"))
    # At once, not after a time-out: the plain device closes on the first TLS bytes.
    wait_for("a plain panel dialled over TLS is failed with the plain port as the reason",
             lambda: refused(2004, "closed the connection in the TLS handshake (a plain port, not TLS?)"))

    # The same panel dialled by a station without TLS: the panel's alert says why.
    plain, plain_http = start_station(work, "plain-station.db", "--panel", "2001@" + good_at)
    wait_for("a TLS panel dialled by a plain station is failed, saying that it speaks TLS",
             lambda: (lambda d: d["status"] == "failed" and "the peer speaks TLS" in d["error"] and
                      "--tls-cert" in d["error"])(get("/api/devices/2001", plain_http)))
    plain.kill()
    check(get("/api/devices/2001")["status"] == "in sync", "the TLS station still has the panel in sync")
    good.terminate()
    good.wait(30)


def main():
    global ARGS, CERTS
    parser = argparse.ArgumentParser()
    parser.add_argument("--part", choices=("tcp", "broker"), required=True)
    for name in ("--nkdevice", "--nkctl", "--make-certs", "--examples"):
        parser.add_argument(name, required=True)
    parser.add_argument("--nkstation")
    parser.add_argument("--broker-script")
    parser.add_argument("--emulator", default="", help="runs the programs of a cross build (e.g. qemu-arm)")
    ARGS = parser.parse_args()
    ARGS.emulator = ARGS.emulator.split()
    work = tempfile.mkdtemp(prefix="nk-tls-")
    CERTS = os.path.join(work, "certs")
    try:
        if ARGS.part == "tcp":
            tcp_part(work)
        else:
            broker_part(work)
    except Exception as error:  # a broken step must still end with the children killed
        check(False, "unexpected error: %r" % error)
    finally:
        kill_children()
        shutil.rmtree(work, ignore_errors=True)
    print("%d check(s) failed" % len(FAILURES) if FAILURES else "all checks passed")
    return 1 if FAILURES else 0


if __name__ == "__main__":
    sys.exit(main())
