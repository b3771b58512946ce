"""The asyncio station over mutual TLS, against real nkdevice processes and a real mosquitto
started with --tls, on certificates made by scripts/make-certs.sh: what works with the right
certificates, and the clear refusal of every wrong one and of TLS on one side only."""
import asyncio
import json
import os
import subprocess
import sys

import pytest

import nkprotocol as nk
from conftest import SOURCE_DIR, Device, mqtt_panel, start_broker


def files(certs, stem, ca="ca.crt"):
    return nk.StationTls(os.path.join(certs, stem + ".crt"), os.path.join(certs, stem + ".key"),
                         os.path.join(certs, ca))


def device_tls(certs, stem, ca="ca.crt"):
    return ["--tls-cert", os.path.join(certs, stem + ".crt"), "--tls-key", os.path.join(certs, stem + ".key"),
            "--tls-ca", os.path.join(certs, ca)]


def run(coroutine):
    return asyncio.run(asyncio.wait_for(coroutine, 120))


@pytest.fixture
def tls_device(certs):
    d = Device(1, *device_tls(certs, "panel-1"))
    yield d
    d.close()


def test_tcp_over_tls_pushes_and_verifies(certs, tls_device):
    config = json.load(open(os.path.join(SOURCE_DIR, "examples", "config.json")))

    async def session():
        async with await nk.Station.tcp(tls_device.host, tls_device.port, address=1,
                                        tls=files(certs, "station")) as station:
            checksum = await station.push_config(config)
            state = await station.state()
            return checksum, state.csCfg

    checksum, reported = run(session())
    assert checksum == reported == nk.MessageSetConfigReq(3, **config).checksum()


def test_tcp_refusals_say_why(certs, tls_device):
    async def refusal(device, address, tls, ask=False):
        """The ConnectionError of connecting (and, with ask, of the first request)."""
        try:
            station = await nk.Station.tcp(device.host, device.port, address=address, tls=tls, timeout=20)
        except ConnectionError as e:
            return str(e)
        try:
            if ask:
                await station.state()
            return None
        except ConnectionError as e:
            return str(e)
        finally:
            await station.close()

    async def refusals():
        got = {}
        # The panel's certificate names panel 1: dialled as panel 2 it is refused.
        got["other panel"] = await refusal(tls_device, 2, files(certs, "station"))
        # The station trusts another CA than the one that signed the panel's certificate.
        got["panel of another CA"] = await refusal(tls_device, 1, files(certs, "station", "foreign/ca.crt"))
        # The panel refuses a station certificate of another CA, and an expired one; in TLS 1.3
        # the station hears of it at its first read.
        got["station of another CA"] = await refusal(tls_device, 1, files(certs, "foreign-station"), ask=True)
        got["expired station"] = await refusal(tls_device, 1, files(certs, "expired-station"), ask=True)
        # TLS on one side only, both ways.
        got["plain station"] = await refusal(tls_device, 1, None, ask=True)
        plain = Device(1)
        try:
            got["plain panel"] = await refusal(plain, 1, files(certs, "station"))
        finally:
            plain.close()
        expired = Device(1, *device_tls(certs, "expired-panel"))
        try:
            got["expired panel"] = await refusal(expired, 1, files(certs, "station"))
        finally:
            expired.close()
        return got

    got = run(refusals())
    assert "names panel 1, not panel 2" in got["other panel"]
    assert "was refused" in got["panel of another CA"] and "certificate" in got["panel of another CA"]
    assert "refused this side's TLS certificate" in got["station of another CA"]
    assert "refused this side's TLS certificate" in got["expired station"]
    assert "the panel speaks TLS" in got["plain station"]
    assert "closed the connection in the TLS handshake (a plain port, not TLS?)" in got["plain panel"]
    assert "certificate has expired" in got["expired panel"]


def test_example_reads_panels_over_tls(certs, tls_device):
    script = os.path.join(SOURCE_DIR, "python", "examples", "panel_table.py")
    args = [sys.executable, script, "--timeout", "20", "--tls-cert", os.path.join(certs, "station.crt"),
            "--tls-key", os.path.join(certs, "station.key"), "--tls-ca", os.path.join(certs, "ca.crt"),
            "--device", f"{tls_device.host}:{tls_device.port}/1", "--device", f"{tls_device.host}:{tls_device.port}/2"]
    out = subprocess.run(args, capture_output=True, text=True, timeout=120, env=dict(os.environ))
    rows = {line.split()[1]: line for line in out.stdout.splitlines()[1:]}
    assert out.returncode == 1, out.stderr  # the panel is not panel 2
    assert "error" not in rows["1"] and "names panel 1, not panel 2" in rows["2"]


def test_a_revoked_panel_certificate_is_refused(certs):
    subprocess.run(["bash", os.path.join(SOURCE_DIR, "scripts", "make-certs.sh"), "--revoke", certs, "panel-2"],
                   check=True, capture_output=True, timeout=120)
    revoked = Device(2, *device_tls(certs, "panel-2"))
    station_files = files(certs, "station")
    with_crl = nk.StationTls(station_files.cert, station_files.key, station_files.ca, os.path.join(certs, "crl.pem"))

    async def attempt(tls):
        try:
            station = await nk.Station.tcp(revoked.host, revoked.port, address=2, tls=tls, timeout=20)
        except ConnectionError as e:
            return str(e)
        await station.close()
        return "connected"

    try:
        assert run(attempt(station_files)) == "connected"  # without the list, nothing tells
        assert "certificate revoked" in run(attempt(with_crl))
    finally:
        revoked.close()


def test_files_that_cannot_serve_are_named(certs):
    with pytest.raises(ValueError, match="panel-9.crt"):
        nk.StationTls(os.path.join(certs, "panel-9.crt"), os.path.join(certs, "panel-9.key"),
                      os.path.join(certs, "ca.crt")).context()
    with pytest.raises(ValueError, match="key"):
        nk.StationTls(os.path.join(certs, "station.crt"), os.path.join(certs, "panel-1.key"),
                      os.path.join(certs, "ca.crt")).context()


def test_mqtt_over_tls_with_the_brokers_access_list(certs):
    host, port, stop_broker = start_broker("--tls", certs, "--fleet", "py")
    try:
        url = f"mqtts://{host}:{port}"
        with mqtt_panel(url, 5, "--tls-cert", os.path.join(certs, "panel-5.crt"), "--tls-key",
                        os.path.join(certs, "panel-5.key"), "--tls-ca", os.path.join(certs, "ca.crt")):

            async def session():
                async with await nk.Station.mqtt(host, port, fleet="py", address=5,
                                                 tls=files(certs, "station")) as station:
                    await station.wait_online(30)
                    checksum = await station.push_config({"opMode": 2, "deviceName": "tls"})
                    return checksum, (await station.state()).csCfg

            checksum, reported = run(session())
            assert checksum == reported

            async def refused(tls):
                try:
                    station = await nk.Station.mqtt(host, port, fleet="py", address=5, tls=tls, timeout=20)
                except (ConnectionError, asyncio.TimeoutError) as e:
                    return f"{type(e).__name__}: {e}"
                await station.close()
                return None

            # Panel 1's certificate lets its holder neither read panel 5's topics (its online
            # flag never arrives) nor write panel 5's down topic (no answer comes).
            async def as_panel_1():
                async with await nk.Station.mqtt(host, port, fleet="py", address=5, tls=files(certs, "panel-1"),
                                                 timeout=3) as station:
                    try:
                        await station.wait_online(3)
                        return "saw panel 5 online"
                    except asyncio.TimeoutError:
                        pass
                    try:
                        await station.state()
                        return "panel 5 answered"
                    except asyncio.TimeoutError:
                        return "no answer"

            assert run(as_panel_1()) == "no answer"
            # A plain station on the TLS broker hears why it is turned away.
            plain = run(refused(None))
            assert plain is not None and "takes TLS only" in plain
            # The broker's certificate must chain to the station's CA.
            foreign = run(refused(files(certs, "station", "foreign/ca.crt")))
            assert foreign is not None and "broker" in foreign and "was refused" in foreign
    finally:
        stop_broker()


def test_tls_station_on_a_plain_broker_is_told_so(certs, broker):
    async def session():
        try:
            await nk.Station.mqtt(broker[0], broker[1], fleet="py", address=5, tls=files(certs, "station"), timeout=20)
        except ConnectionError as e:
            return str(e)
        return None

    told = run(session())
    assert told is not None and "plain broker" in told
