"""An asyncio station for one panel, over TCP or through an MQTT broker.

    station = await Station.tcp("127.0.0.1", 5000, address=1)
    state = await station.state()
    checksum = await station.push_config({"opMode": 2, "deviceName": "Lobby"})
    await station.close()

Each request goes through the library's engine; the answer comes back as a message object, and
a push is verified against the checksum (or state) that the panel reports.

Both links take mutual TLS 1.3 (``tls=StationTls(cert, key, ca)``): over TCP the panel's
certificate must chain to the CA and name the panel's address as its common name, as the C++
tools check; over MQTT the broker's must chain to the CA and name the broker's host.
"""
from __future__ import annotations

import asyncio
import math
import ssl
import time
from dataclasses import dataclass
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


@dataclass(frozen=True)
class StationTls:
    """The station's side of mutual TLS 1.3, as PEM files: its certificate and key, the CA that
    panels' and the broker's certificates must chain to, and optionally the CA's revocation list
    (then a revoked peer certificate is refused)."""

    cert: str
    key: str
    ca: str
    crl: Optional[str] = None

    def context(self, check_hostname: bool = False) -> ssl.SSLContext:
        """A client context on these files. Over TCP no host name is checked: the station checks
        that the panel's certificate names the panel's address instead. Raises ValueError naming
        a file that cannot serve."""
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        context.minimum_version = ssl.TLSVersion.TLSv1_3
        context.check_hostname = check_hostname
        context.verify_mode = ssl.CERT_REQUIRED
        try:
            context.load_cert_chain(self.cert, self.key)
        except (OSError, ssl.SSLError) as e:
            raise ValueError(f"cannot use the TLS certificate {self.cert} with the key {self.key}: {e}") from e
        for what, path in (("CA", self.ca), ("revocation list", self.crl)):
            try:
                if path:
                    context.load_verify_locations(cafile=path)
            except (OSError, ssl.SSLError) as e:
                raise ValueError(f"cannot use the TLS {what} {path}: {e}") from e
        if self.crl:
            context.verify_flags |= ssl.VERIFY_CRL_CHECK_LEAF
        return context


TlsOption = Union[StationTls, ssl.SSLContext, None]


def _context(tls: TlsOption, check_hostname: bool) -> Optional[ssl.SSLContext]:
    return tls.context(check_hostname) if isinstance(tls, StationTls) else tls


def _names_panel(name: str, address: int) -> bool:
    """A panel's certificate names its address in decimal without leading zeros (CN=1001), as
    the broker topics write it."""
    return name.isdigit() and name.isascii() and (name == "0" or not name.startswith("0")) and int(name) == address


def _common_name(peercert: Optional[Dict[str, Any]]) -> str:
    for rdn in (peercert or {}).get("subject", ()):
        for key, value in rdn:
            if key == "commonName":
                return value
    return ""


def _looks_like_tls(data: bytes) -> bool:
    """A TLS record (handshake or alert) begins so; the protocol's frames never do."""
    return len(data) >= 3 and data[0] in (0x15, 0x16) and data[1] == 0x03 and data[2] <= 0x04


class _TcpLink:
    """Frame bytes over one TCP connection, plain or TLS."""

    def __init__(self, reader: asyncio.StreamReader, writer: asyncio.StreamWriter,
                 on_data: Callable[[bytes], None], on_close: Callable[[str], None]) -> None:
        self._writer = writer
        self._tls = writer.get_extra_info("ssl_object") is not None
        self._task = asyncio.get_running_loop().create_task(self._read(reader, on_data, on_close))

    async def _read(self, reader, on_data, on_close) -> None:
        reason = "the panel closed the connection"
        first = True
        try:
            while True:
                data = await reader.read(65536)
                if not data:
                    break
                # A TLS panel answers a plain station's frames with an alert and closes.
                if first and not self._tls and _looks_like_tls(data):
                    reason = "the panel speaks TLS, this side plain TCP (give tls=StationTls(...))"
                    self._writer.close()
                    break
                first = False
                on_data(data)
        except asyncio.CancelledError:
            reason = "the station closed the connection"
        except ssl.SSLError as e:
            # In TLS 1.3 a client hears that its certificate was refused only when it reads.
            reason = (f"the panel refused this side's TLS certificate ({e.reason or e})" if first
                      else f"TLS error: {e.reason or e}")
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
                      timeout: float, tls: TlsOption = None) -> "_MqttLink":
        import paho.mqtt.client as mqtt

        loop = asyncio.get_running_loop()
        base = f"{prefix}/{fleet}/{address}"
        topics = {"down": base + "/down", "up": base + "/up", "online": base + "/online"}
        client = mqtt.Client(client_id=f"nkstation-py-{address}-{id(loop):x}-{time.monotonic_ns():x}",
                             clean_session=True, protocol=mqtt.MQTTv311)
        if tls is not None:
            # The broker's certificate names its host, which is checked.
            client.tls_set_context(_context(tls, check_hostname=True))
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
                # Closed before any answer: a TLS listener does that to a plain client.
                if tls is None:
                    loop.call_soon_threadsafe(settle, ConnectionError(
                        f"the broker at {host}:{port} closed the connection before accepting it, as a broker that "
                        "takes TLS only does with a plain client: give tls=StationTls(...)"))

        client.on_connect = on_connect
        client.on_subscribe = on_subscribe
        client.on_message = on_message
        client.on_disconnect = on_disconnect
        try:
            await loop.run_in_executor(None, client.connect, host, port, 30)
        except ssl.SSLCertVerificationError as e:
            raise ConnectionError(f"the TLS certificate of the broker at {host}:{port} was refused: "
                                  f"{e.verify_message}") from e
        except (ssl.SSLEOFError, ConnectionResetError) as e:
            if tls is None:
                raise ConnectionError(f"cannot reach the broker at {host}:{port}: {e}") from e
            raise ConnectionError(f"the broker at {host}:{port} closed the connection in the TLS handshake, as a "
                                  "plain broker does with a TLS client: connect without tls") from e
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
    async def tcp(cls, host: str, port: int, address: int = 1, tls: TlsOption = None,
                  **options: Any) -> "Station":
        """The panel at host:port; with tls (a :class:`StationTls`, or an ssl.SSLContext of the
        caller's) over TLS, where the panel's certificate must also name address. A refused
        certificate, TLS on one side only or an unreachable panel raise ConnectionError saying
        which."""
        station = cls(address, **options)
        where = f"{host}:{port}"
        try:
            reader, writer = await asyncio.wait_for(
                asyncio.open_connection(host, port, ssl=_context(tls, check_hostname=False)), station.timeout)
        except ssl.SSLCertVerificationError as e:
            raise ConnectionError(f"the TLS certificate of {where} was refused: {e.verify_message}") from e
        except (ssl.SSLEOFError, ConnectionResetError) as e:
            if tls is None:
                raise ConnectionError(f"cannot reach the panel at {where}: {e}") from e
            raise ConnectionError(f"{where} closed the connection in the TLS handshake (a plain port, not TLS?)") from e
        except ssl.SSLError as e:
            raise ConnectionError(f"TLS handshake with {where} failed: {e.reason or e}") from e
        except (OSError, asyncio.TimeoutError) as e:
            raise ConnectionError(f"cannot reach the panel at {where}: {e or 'timed out'}") from e
        if tls is not None:
            # The CA alone would let any panel of the fleet answer for another.
            name = _common_name(writer.get_extra_info("peercert"))
            if not _names_panel(name, address):
                writer.close()
                named = f"panel {name}" if name.isdigit() else repr(name)
                raise ConnectionError(f"the TLS certificate of {where} names {named}, not panel {address}")
        station._start(_TcpLink(reader, writer, station._received, station._lost))
        return station

    @classmethod
    async def mqtt(cls, host: str, port: int, fleet: str, address: int, prefix: str = "nk",
                   tls: TlsOption = None, **options: Any) -> "Station":
        """The panel through the broker at host:port; with tls (a :class:`StationTls`) over TLS
        1.3 with the station's client certificate, the broker's certificate checked against the
        CA and the host name (an ssl.SSLContext given instead is used as it is)."""
        station = cls(address, **options)
        link = await _MqttLink.connect(host, port, prefix, fleet, address, station._received, station._lost,
                                       station.timeout, tls)
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
