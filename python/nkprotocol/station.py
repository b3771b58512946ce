"""An asyncio station for one panel, over TCP or through an MQTT broker.

    station = await Station.tcp("127.0.0.1", 5000, address=1)
    state = await station.state()
    checksum = await station.push_config({"opMode": 2, "deviceName": "Lobby"})
    await station.close()

Each request goes through the library's engine; the answer comes back as a message object, and
a push is verified against the checksum (or state) that the panel reports.
"""
from __future__ import annotations

import asyncio
import math
import time
from typing import Any, Callable, Dict, Mapping, Optional, Set, Union

from . import _nkprotocol as _nk

#: The station's own protocol address, as nkctl uses it.
STATION_ADDRESS = 100
#: How often the engine is polled when nothing arrives, so that time-outs are noticed.
POLL_INTERVAL_S = 0.2


class StationError(Exception):
    """A panel answered with something other than what was asked, or not at all."""


class ChecksumMismatch(StationError):
    """A panel reports another checksum than the one of what was pushed."""

    def __init__(self, what: str, expected: str, reported: str) -> None:
        super().__init__(f"{what}: the panel reports checksum {reported!r}, expected {expected!r}")
        self.what = what
        self.expected = expected
        self.reported = reported


class _TcpLink:
    """Frame bytes over one TCP connection."""

    def __init__(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter,
                 on_data: Callable[[bytes], None], on_close: Callable[[str], None]) -> None:
        self._writer = writer
        self._task = asyncio.get_running_loop().create_task(self._read(reader, on_data, on_close))

    async def _read(self, reader, on_data, on_close) -> None:
        reason = "the panel closed the connection"
        try:
            while True:
                data = await reader.read(65536)
                if not data:
                    break
                on_data(data)
        except asyncio.CancelledError:
            reason = "the station closed the connection"
        except OSError as e:
            reason = f"connection failed: {e}"
        on_close(reason)

    def write(self, data: bytes) -> None:
        self._writer.write(data)

    async def close(self) -> None:
        self._task.cancel()
        self._writer.close()
        try:
            await self._writer.wait_closed()
        except OSError:
            pass


class _MqttLink:
    """Frame bytes through a broker: published to <prefix>/<fleet>/<address>/down, received from
    .../up; .../online (retained) tells whether the panel is there."""

    def __init__(self, client: Any, topics: Dict[str, str]) -> None:
        self._client = client
        self._topics = topics
        self.online: Optional[bool] = None

    @classmethod
    async def connect(cls, host: str, port: int, prefix: str, fleet: str, address: int,
                      on_data: Callable[[bytes], None], on_close: Callable[[str], None],
                      timeout: float) -> "_MqttLink":
        import paho.mqtt.client as mqtt

        loop = asyncio.get_running_loop()
        base = f"{prefix}/{fleet}/{address}"
        topics = {"down": base + "/down", "up": base + "/up", "online": base + "/online"}
        client = mqtt.Client(client_id=f"nkstation-py-{address}-{id(loop):x}-{time.monotonic_ns():x}",
                             clean_session=True, protocol=mqtt.MQTTv311)
        link = cls(client, topics)
        ready: asyncio.Future = loop.create_future()

        def settle(result: Optional[BaseException]) -> None:
            if not ready.done():
                ready.set_exception(result) if result else ready.set_result(None)

        def on_connect(c, userdata, flags, rc):
            if rc != 0:
                loop.call_soon_threadsafe(settle, ConnectionError(f"broker refused the connection: {mqtt.connack_string(rc)}"))
                return
            c.subscribe([(topics["up"], 1), (topics["online"], 1)])

        def on_subscribe(c, userdata, mid, granted):
            if any(q == 128 for q in granted):
                loop.call_soon_threadsafe(settle, ConnectionError(f"broker refused the subscription to {base}"))
            else:
                loop.call_soon_threadsafe(settle, None)

        def on_message(c, userdata, msg):
            if msg.topic == topics["up"]:
                loop.call_soon_threadsafe(on_data, bytes(msg.payload))
            elif msg.topic == topics["online"]:
                link.online = bytes(msg.payload) == b"1"

        def on_disconnect(c, userdata, rc):
            if rc != 0:
                loop.call_soon_threadsafe(on_close, f"lost the broker: {mqtt.error_string(rc)}")

        client.on_connect = on_connect
        client.on_subscribe = on_subscribe
        client.on_message = on_message
        client.on_disconnect = on_disconnect
        try:
            await loop.run_in_executor(None, client.connect, host, port, 30)
        except OSError as e:
            raise ConnectionError(f"cannot reach the broker at {host}:{port}: {e}") from e
        client.loop_start()
        try:
            await asyncio.wait_for(ready, timeout)
        except BaseException:
            client.loop_stop()
            client.disconnect()
            raise
        return link

    def write(self, data: bytes) -> None:
        info = self._client.publish(self._topics["down"], data, qos=1)
        if info.rc != 0:
            raise ConnectionError(f"publishing to {self._topics['down']} failed (code {info.rc})")

    async def close(self) -> None:
        self._client.disconnect()
        await asyncio.get_running_loop().run_in_executor(None, self._client.loop_stop)


Config = Union[_nk.MessageSetConfigReq, Mapping[str, Any]]
Schedules = Union[_nk.MessageSetSchedulesReq, Mapping[str, Any]]


class Station:
    """Requests to one panel. Build it with :meth:`tcp` or :meth:`mqtt`; use it from one event loop."""

    def __init__(self, address: int, own_address: int = STATION_ADDRESS, version: int = 3,
                 timeout: float = 10.0) -> None:
        self.address = address
        self.version = version
        self.timeout = timeout
        self._engine = _nk.Protocol(own_address, default_timeout=max(1, math.ceil(timeout)))
        self._link: Any = None
        self._waiting: Set[asyncio.Future] = set()
        self._closed: Optional[str] = None
        self._ticker: Optional[asyncio.Task] = None

    @classmethod
    async def tcp(cls, host: str, port: int, address: int = 1, **options: Any) -> "Station":
        station = cls(address, **options)
        try:
            reader, writer = await asyncio.wait_for(asyncio.open_connection(host, port), station.timeout)
        except (OSError, asyncio.TimeoutError) as e:
            raise ConnectionError(f"cannot reach the panel at {host}:{port}: {e or 'timed out'}") from e
        station._start(_TcpLink(reader, writer, station._received, station._lost))
        return station

    @classmethod
    async def mqtt(cls, host: str, port: int, fleet: str, address: int, prefix: str = "nk",
                   **options: Any) -> "Station":
        station = cls(address, **options)
        link = await _MqttLink.connect(host, port, prefix, fleet, address, station._received, station._lost,
                                       station.timeout)
        station._start(link)
        return station

    @property
    def online(self) -> Optional[bool]:
        """Over MQTT, what the panel's online topic says (None before it said anything)."""
        return getattr(self._link, "online", None)

    async def wait_online(self, timeout: Optional[float] = None) -> None:
        """Over MQTT, wait until the panel says it is online: a request published before the
        panel subscribed would be lost."""
        seconds = self.timeout if timeout is None else timeout
        deadline = asyncio.get_running_loop().time() + seconds
        while not self.online:
            if self._closed:
                raise ConnectionError(self._closed)
            if asyncio.get_running_loop().time() > deadline:
                raise asyncio.TimeoutError(f"panel {self.address} did not come online within {seconds:g} s")
            await asyncio.sleep(0.05)

    # Requests

    async def request(self, message: _nk.Message, timeout: Optional[float] = None,
                      expect: Optional[type] = None) -> _nk.Message:
        """Send a request and wait for the answer, parsed into its message class."""
        if self._closed:
            raise ConnectionError(self._closed)
        loop = asyncio.get_running_loop()
        answer: asyncio.Future = loop.create_future()
        seconds = self.timeout if timeout is None else timeout
        what = f"{message.type_name} to {self.address}"

        def done(address: int, content: Optional[bytes], timed_out: bool) -> None:
            if answer.done():
                return
            if timed_out:
                answer.set_exception(asyncio.TimeoutError(f"{what}: no answer within {seconds:g} s"))
            else:
                answer.set_result(content)

        self._waiting.add(answer)
        try:
            self._engine.enqueue(message.to_bytes(), self.address, done, max(1, math.ceil(seconds)))
            self._poll()
            # The engine times the request out; the margin only guards against a stalled loop.
            content = await asyncio.wait_for(answer, seconds + 30)
        finally:
            self._waiting.discard(answer)
        reply = _nk.Message.parse(content)
        if expect is not None and not isinstance(reply, expect):
            raise StationError(f"{what}: answered with {reply.type_name}, expected {expect.__name__}")
        return reply

    async def state(self, name: Optional[str] = None) -> _nk.MessageStateRsp:
        """The panel's state; with name, the panel is renamed first."""
        request = _nk.MessageStateReq(self.version, **({"task": 1, "name": name} if name is not None else {}))
        return await self.request(request, expect=_nk.MessageStateRsp)

    async def push_config(self, config: Config) -> str:
        """Send a configuration (a message or its JSON form) and return the checksum the panel
        confirmed; ChecksumMismatch when it reports another."""
        if not isinstance(config, _nk.MessageSetConfigReq):
            config = _nk.MessageSetConfigReq(self.version, **dict(config))
        reply = await self.request(config, expect=_nk.MessageSetConfigRsp)
        return self._verified("configuration", config.checksum(), reply.cs)

    async def push_schedules(self, schedules: Schedules) -> str:
        """Send a schedule set (a message or its JSON form) and return the confirmed checksum."""
        if not isinstance(schedules, _nk.MessageSetSchedulesReq):
            schedules = _nk.MessageSetSchedulesReq(self.version, **dict(schedules))
        reply = await self.request(schedules, expect=_nk.MessageSetSchedulesRsp)
        return self._verified("schedules", schedules.checksum(), reply.cs)

    async def push_image(self, uid: int, content: bytes, mime: str = "image/png", name: str = "") -> None:
        """Store an image; the state the panel answers with must list it."""
        image = _nk.MessageImage(self.version, files=[{"uid": uid, "name": name, "mime": mime, "content": content}])
        reply = await self.request(image, expect=_nk.MessageStateRsp)
        if not reply.image_present(uid):
            raise StationError(f"image {uid}: the panel's state does not list it after the push")

    async def remove_image(self, uid: int) -> None:
        image = _nk.MessageImage(self.version, taskRemove=1,
                                 images=[{"uid": uid, "name": "", "cs": "", "mime": 0, "content": ""}])
        reply = await self.request(image, expect=_nk.MessageStateRsp)
        if reply.image_present(uid):
            raise StationError(f"image {uid}: the panel still lists it after the removal")

    async def statistics(self) -> _nk.MessageStatisticsRsp:
        return await self.request(_nk.MessageStatisticsReq(self.version), expect=_nk.MessageStatisticsRsp)

    async def events(self) -> _nk.MessageEventsRsp:
        return await self.request(_nk.MessageEventsReq(self.version), expect=_nk.MessageEventsRsp)

    async def display_config(self) -> _nk.MessageGetDisplayConfigurationRsp:
        return await self.request(_nk.MessageGetDisplayConfigurationReq(self.version),
                                  expect=_nk.MessageGetDisplayConfigurationRsp)

    async def set_time(self, seconds: Optional[int] = None) -> _nk.Message:
        """Set the panel's clock (to the station's by default)."""
        message = _nk.MessageTime(self.version)
        if seconds is not None:
            message.update(currentTime=seconds)
        return await self.request(message)

    async def shutdown(self) -> _nk.Message:
        return await self.request(_nk.MessageShutdown(self.version), expect=_nk.MessageShutdown)

    async def close(self) -> None:
        if self._ticker:
            self._ticker.cancel()
        if self._link and not self._closed:
            self._closed = "the station is closed"
            await self._link.close()
        self._fail_waiting(self._closed or "the station is closed")

    async def __aenter__(self) -> "Station":
        return self

    async def __aexit__(self, *exc: Any) -> None:
        await self.close()

    # The engine on the event loop

    def _start(self, link: Any) -> None:
        self._link = link
        self._ticker = asyncio.get_running_loop().create_task(self._tick())

    async def _tick(self) -> None:
        while True:
            await asyncio.sleep(POLL_INTERVAL_S)
            self._poll()

    def _poll(self) -> None:
        if self._closed:
            return
        try:
            self._engine.poll(send=self._link.write)
        except Exception as e:
            # Only the link's write can raise here (the answer callbacks do not), and the engine
            # dropped the telegram it could not send: nothing more will come over this link.
            self._lost(f"writing to the link failed: {e}")

    def _received(self, data: bytes) -> None:
        if self._closed:
            return
        self._engine.push(data)
        self._poll()

    def _lost(self, reason: str) -> None:
        if not self._closed:
            self._closed = reason
        self._fail_waiting(reason)

    def _fail_waiting(self, reason: str) -> None:
        for answer in list(self._waiting):
            if not answer.done():
                answer.set_exception(ConnectionError(reason))

    def _verified(self, what: str, expected: str, reported: str) -> str:
        if expected != reported:
            raise ChecksumMismatch(what, expected, reported)
        return reported
