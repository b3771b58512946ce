"""The asyncio station against real nkdevice processes over loopback TCP, and the example
script that tabulates a fleet's state."""
import asyncio
import json
import os
import subprocess
import sys

import pytest

import nkprotocol as nk
from conftest import SOURCE_DIR


def run(coroutine):
    return asyncio.run(asyncio.wait_for(coroutine, 120))


def test_station_round_trip_with_a_real_device(device):
    with open(os.path.join(SOURCE_DIR, "examples", "config.json")) as f:
        config = json.load(f)
    with open(os.path.join(SOURCE_DIR, "examples", "schedules.json")) as f:
        schedules = json.load(f)

    async def session():
        async with await nk.Station.tcp(device.host, device.port, address=device.address) as station:
            before = await station.state(name="Hall \u00e9ast")
            config_cs = await station.push_config(config)
            schedules_cs = await station.push_schedules(schedules)
            await station.push_image(42, b"\x89PNG\r\n\x1a\n" + bytes(range(256)) * 8, mime="image/png")
            after = await station.state()
            statistics = await station.statistics()
            events = await station.events()
            display = await station.display_config()
            return before, config_cs, schedules_cs, after, statistics, events, display

    before, config_cs, schedules_cs, after, statistics, events, display = run(session())
    assert isinstance(before, nk.MessageStateRsp) and before.devName == "Hall \u00e9ast"
    assert config_cs == nk.MessageSetConfigReq(2, **config).checksum() == after.csCfg
    assert schedules_cs == after.csSched and len(schedules_cs) == 40
    assert after.image_present(42) and not before.image_present(42)
    assert isinstance(statistics, nk.MessageStatisticsRsp)
    assert isinstance(events, nk.MessageEventsRsp) and events.to_dict()["events"]
    assert isinstance(display, nk.MessageGetDisplayConfigurationRsp)

    # What the device stored survives its restart: a fresh station on a fresh connection sees it.
    async def again():
        async with await nk.Station.tcp(device.host, device.port, address=device.address) as station:
            return await station.state()

    assert run(again()).csCfg == config_cs


def test_station_failures_raise_instead_of_returning_false(device):
    async def wrong_address():
        async with await nk.Station.tcp(device.host, device.port, address=9, timeout=1) as station:
            await station.state()

    with pytest.raises(asyncio.TimeoutError, match="STATE_REQ to 9: no answer within 1 s"):
        run(wrong_address())

    async def bad_config():
        async with await nk.Station.tcp(device.host, device.port, address=device.address) as station:
            await station.push_config({"opMode": "fast"})

    with pytest.raises(ValueError, match="opMode"):
        run(bad_config())

    async def closed_port():
        await nk.Station.tcp("127.0.0.1", 1, address=1, timeout=5)

    with pytest.raises(ConnectionError, match="127.0.0.1:1"):
        run(closed_port())

    async def device_goes_away():
        async with await nk.Station.tcp(device.host, device.port, address=device.address) as station:
            await station.shutdown()
            await asyncio.get_running_loop().run_in_executor(None, device.proc.wait, 60)
            await station.state()

    with pytest.raises(ConnectionError):
        run(device_goes_away())


def test_example_prints_every_panel_of_a_device_list(devices):
    script = os.path.join(SOURCE_DIR, "python", "examples", "panel_table.py")
    args = [sys.executable, script, "--timeout", "20"]
    for d in devices:
        args += ["--device", f"{d.host}:{d.port}/{d.address}"]
    args += ["--device", "127.0.0.1:1/7"]  # nobody listens there
    out = subprocess.run(args, capture_output=True, text=True, timeout=120, env=dict(os.environ))
    lines = out.stdout.splitlines()
    assert out.returncode == 1, out.stderr  # one panel could not be read
    assert lines[0].split()[:3] == ["device", "address", "name"]
    for d in devices:
        row = next(line for line in lines if line.startswith(f"{d.host}:{d.port}"))
        assert row.split()[1] == str(d.address) and "error" not in row
    assert "127.0.0.1:1" in next(line for line in lines if "error" in line)
