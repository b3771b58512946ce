"""The asyncio station through a real mosquitto broker, against nkdevice --mqtt and against a
panel built on the same bindings, both on the fleet's topics (nk/<fleet>/<address>/down, /up,
/online)."""
import asyncio
import json
import os
import threading

import paho.mqtt.client as mqtt
import pytest

import nkprotocol as nk
from conftest import SOURCE_DIR


class MqttPanel:
    """A panel on the broker: frames from .../down go into its engine, its answers to .../up."""

    def __init__(self, broker, fleet, address, name):
        self.address, self.name = address, name
        self.config = nk.MessageSetConfigReq(3)
        base = f"nk/{fleet}/{address}"
        self.down, self.up, self.online = base + "/down", base + "/up", base + "/online"
        self.engine = nk.Protocol(address, on_request=self.answer)
        self.ready = threading.Event()
        self.client = mqtt.Client(client_id=f"panel-{fleet}-{address}", protocol=mqtt.MQTTv311)
        self.client.will_set(self.online, b"0", qos=1, retain=True)
        self.client.on_connect = lambda c, u, f, rc: c.subscribe(self.down, qos=1)
        self.client.on_subscribe = lambda c, u, mid, q: (c.publish(self.online, b"1", qos=1, retain=True),
                                                         self.ready.set())
        self.client.on_message = self.received
        self.client.connect(*broker)
        self.client.loop_start()
        assert self.ready.wait(60), "the panel could not subscribe"

    def received(self, client, userdata, message):
        # paho's network thread is the panel's only polling thread. An answer is queued while
        # the request is handled and goes out on the poll after.
        self.engine.push(bytes(message.payload))
        for _ in range(2):
            self.engine.poll(send=lambda data: self.client.publish(self.up, data, qos=1) and None)

    def answer(self, source, content):
        request = nk.Message.parse(content)
        if isinstance(request, nk.MessageStateReq):
            return nk.MessageStateRsp(request.version, serial=self.address, devName=self.name,
                                      csCfg=self.config.checksum()).to_bytes()
        if isinstance(request, nk.MessageSetConfigReq):
            self.config = request
            return nk.MessageSetConfigRsp(request.version, cs=request.checksum()).to_bytes()
        return None

    def close(self):
        self.client.publish(self.online, b"0", qos=1, retain=True).wait_for_publish(30)
        self.client.disconnect()
        self.client.loop_stop()


def run(coroutine):
    return asyncio.run(asyncio.wait_for(coroutine, 120))


def test_station_over_mqtt_reads_state_and_pushes_a_verified_configuration(broker):
    panels = [MqttPanel(broker, "lobby", address, f"panel {address}") for address in (7, 8)]
    with open(os.path.join(SOURCE_DIR, "examples", "config.json")) as f:
        config = json.load(f)

    async def session():
        stations = [await nk.Station.mqtt(*broker, fleet="lobby", address=a) for a in (7, 8)]
        try:
            states = await asyncio.gather(*(s.state() for s in stations))
            checksum = await stations[0].push_config(config)
            after = await stations[0].state()
            for _ in range(600):  # the retained online message arrives on its own
                if stations[1].online:
                    break
                await asyncio.sleep(0.05)
            return states, checksum, after, stations[1].online
        finally:
            for s in stations:
                await s.close()

    try:
        states, checksum, after, online = run(session())
    finally:
        for p in panels:
            p.close()
    assert [(s.serial, s.devName) for s in states] == [(7, "panel 7"), (8, "panel 8")]
    assert checksum == nk.MessageSetConfigReq(3, **config).checksum() == after.csCfg
    assert panels[0].config.deviceName == "lobby panel" and online is True


def test_station_over_mqtt_with_a_real_device(mqtt_device):
    (host, port), address = mqtt_device
    with open(os.path.join(SOURCE_DIR, "examples", "schedules.json")) as f:
        schedules = json.load(f)

    async def session():
        async with await nk.Station.mqtt(host, port, fleet="py", address=address) as station:
            await station.wait_online(60)
            renamed = await station.state(name="mqtt panel")
            checksum = await station.push_schedules(schedules)
            await station.push_image(9, b"\x89PNG\r\n\x1a\n" + bytes(1000))
            after = await station.state()
            return renamed, checksum, after

    renamed, checksum, after = run(session())
    assert renamed.devName == "mqtt panel" and renamed.serial == address
    assert checksum == after.csSched and after.image_present(9)


def test_station_over_mqtt_fails_clearly(broker):
    async def nobody_there():
        async with await nk.Station.mqtt(*broker, fleet="lobby", address=99, timeout=1) as station:
            assert station.online is None
            with pytest.raises(asyncio.TimeoutError, match="panel 99 did not come online within 0.5 s"):
                await station.wait_online(0.5)
            await station.state()

    with pytest.raises(asyncio.TimeoutError, match="STATE_REQ to 99"):
        run(nobody_there())

    async def no_broker():
        await nk.Station.mqtt("127.0.0.1", 1, fleet="lobby", address=1, timeout=5)

    with pytest.raises(ConnectionError, match="127.0.0.1:1"):
        run(no_broker())
