"""The protocol engine and telegrams from Python: an engine pair, frames equal to the golden
vectors, callbacks that raise, and threads."""
import threading
import time

import pytest

import nkprotocol as nk
from conftest import golden_vectors

GOLDEN = golden_vectors()


def wait_until(condition, step, seconds=60):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("condition not met in time")
        step()
        time.sleep(0.01)


class Pair:
    """Station (1) and device (2) joined by memory: what one sends, the other is pushed."""

    def __init__(self, on_request=None, default_timeout=10):
        self.station = nk.Protocol(1, default_timeout=default_timeout)
        self.device = nk.Protocol(2, on_request=on_request)
        self.to_device, self.to_station = bytearray(), bytearray()

    def round(self):
        self.station.poll(send=self.to_device.extend)
        if self.to_device:
            self.device.push(bytes(self.to_device))
            self.to_device.clear()
        self.device.poll(send=self.to_station.extend)
        if self.to_station:
            self.station.push(bytes(self.to_station))
            self.to_station.clear()
        self.station.poll(send=self.to_device.extend)


def state_device(source, content):
    request = nk.Message.parse(content)
    assert isinstance(request, nk.MessageStateReq)
    return nk.MessageStateRsp(request.version, serial=source, devName=request.name).to_bytes()


def test_engine_pair_answers_requests_single_and_multi_part():
    pair = Pair(on_request=state_device)
    answers = []
    pair.station.enqueue(nk.MessageStateReq(2, task=1, name="hall").to_bytes(), 2,
                         lambda *answer: answers.append(answer))
    assert pair.station.queued == 1 and pair.station.callbacks_held == 1
    wait_until(lambda: answers, pair.round)
    address, content, timed_out = answers[0]
    reply = nk.Message.parse(content)
    assert (address, timed_out) == (2, False)
    assert isinstance(reply, nk.MessageStateRsp) and (reply.serial, reply.devName) == (1, "hall")
    assert pair.station.queued == 0 and pair.station.callbacks_held == 0

    # Content far above the part size travels in many frames and is joined again.
    echoed = []
    saved = nk.Telegram.max_payload_size()
    nk.Protocol.set_max_payload_size(64)
    try:
        big = nk.MessageGenericReq(2, text1=bytes(range(256)) * 20, text2="x").to_bytes()
        echo = Pair(on_request=lambda source, content: content)
        echo.station.enqueue(big, 2, lambda *answer: echoed.append(answer))
        wait_until(lambda: echoed, echo.round)
    finally:
        nk.Protocol.set_max_payload_size(saved)
    assert echoed[0][1] == big and echo.device.incoming == 0


def test_requests_without_answer_time_out_and_no_send_function_drops():
    pair = Pair(on_request=lambda source, content: None)  # the device never answers
    answers = []
    pair.station.enqueue(nk.MessageStatisticsReq(1).to_bytes(), 2, lambda *a: answers.append(a), timeout=1)
    wait_until(lambda: answers, pair.round)
    assert answers == [(nk.ADDRESS_NONE, None, True)]

    alone = nk.Protocol(5)
    called = []
    alone.enqueue(b"\x0c\x00\x00\x00", 6, lambda *a: called.append(a))
    alone.poll()  # no send function: the telegram is removed, its callback never runs
    assert alone.queued == 0 and called == []


def test_frames_and_telegrams_match_the_golden_vectors():
    time_content = nk.MessageTime(0, currentTime=1700000000).to_bytes()
    part = nk.TelegramPart(id=0xFEDCBA98, source=0x12345678, destination=nk.ADDRESS_BROADCAST, part_id=1,
                           timestamp=0xF0000001, last=True, payload=time_content,
                           type=nk.TelegramType.REQUEST_FORCE_RESPONSE)
    assert part.to_bytes() == GOLDEN["frame.time_request"]

    stream = GOLDEN["frames.schedules_multipart"]
    parts, rest = nk.TelegramPart.read_frames(b"\x00\x7f" + stream + stream[:5])
    assert len(parts) > 1 and rest == stream[:5]
    assert [p.part_id for p in parts] == list(range(1, len(parts) + 1)) and parts[-1].last
    assert all(p.compression != nk.Compression.NONE for p in parts)
    schedules = GOLDEN["SET_SCHEDULES_REQ.v2"]
    assert nk.Telegram.join(parts) == schedules + 3 * schedules[4:]
    assert nk.Telegram.join(list(reversed(parts[:-1])) + parts[-1:]) == schedules + 3 * schedules[4:]
    with pytest.raises(ValueError, match="corrupt"):
        nk.Telegram.join([parts[0], parts[-1]])
    with pytest.raises(ValueError, match="incomplete"):
        nk.Telegram.join(parts[:-1])

    # An outgoing telegram cuts and compresses the same way, and its frames read back.
    saved = nk.Telegram.max_payload_size()
    nk.Telegram.set_max_payload_size(64)
    try:
        out = nk.Telegram(id=7, source=1, destination=2, content=schedules + 3 * schedules[4:], response=True)
    finally:
        nk.Telegram.set_max_payload_size(saved)
    assert out.type == nk.TelegramType.RESPONSE and len(out.parts) == len(parts)
    assert [p.payload for p in out.parts] == [p.payload for p in parts]
    again, rest = nk.TelegramPart.read_frames(out.to_bytes())
    assert rest == b"" and nk.Telegram.join(again) == schedules + 3 * schedules[4:]
    assert nk.Telegram(id=1, source=1, destination=2, content=b"abc", wants_response=True).type == \
        nk.TelegramType.REQUEST_FORCE_RESPONSE


def test_callbacks_that_raise_surface_from_poll_and_leave_the_engine_working():
    # A response callback that raises: poll raises it after the round, the request is gone.
    pair = Pair(on_request=state_device)

    def broken(address, content, timed_out):
        raise KeyError("station callback failed")

    pair.station.enqueue(nk.MessageStateReq(1).to_bytes(), 2, broken)
    with pytest.raises(KeyError, match="station callback failed"):
        wait_until(lambda: False, pair.round)
    assert pair.station.queued == 0 and pair.station.callbacks_held == 0
    answers = []
    pair.station.enqueue(nk.MessageStateReq(1).to_bytes(), 2, lambda *a: answers.append(a))
    wait_until(lambda: answers, pair.round)

    # A request handler that raises sends no answer; one that returns a wrong type is named.
    failing = Pair(on_request=lambda source, content: 1 / 0)
    failing.station.enqueue(nk.MessageStateReq(1).to_bytes(), 2, lambda *a: answers.append(a))
    failing.station.poll(send=failing.to_device.extend)
    failing.device.push(bytes(failing.to_device))
    with pytest.raises(ZeroDivisionError):
        failing.device.poll(send=failing.to_station.extend)
    assert failing.to_station == bytearray() and failing.device.queued == 0
    wrong = Pair(on_request=lambda source, content: 42)
    wrong.station.enqueue(b"\x0c\x00\x00\x00", 2)
    wrong.station.poll(send=wrong.to_device.extend)
    wrong.device.push(bytes(wrong.to_device))
    with pytest.raises(TypeError):
        wrong.device.poll(send=wrong.to_station.extend)

    # A send function that raises: the telegram is dropped as unsendable, the error surfaces.
    def refuse(data):
        raise OSError("link down")

    lonely = nk.Protocol(1)
    lonely.enqueue(b"\x0c\x00\x00\x00", 2, lambda *a: answers.append(a))
    with pytest.raises(OSError, match="link down"):
        lonely.poll(send=refuse)
    assert lonely.queued == 0
    with pytest.raises(TypeError, match="callable"):
        lonely.enqueue(b"x", 2, "not a function")


def test_threads_enqueue_while_one_thread_polls():
    pair = Pair(on_request=lambda source, content: content[::-1])
    threads, per_thread = 4, 50
    answers, stop = [], threading.Event()
    lock = threading.Lock()

    def record(address, content, timed_out):
        with lock:
            answers.append((content, timed_out))

    def poller():
        while not stop.is_set():
            pair.round()

    def requester(n):
        for i in range(per_thread):
            pair.station.enqueue(f"{n}:{i}".encode(), 2, record)

    polling = threading.Thread(target=poller)
    polling.start()
    workers = [threading.Thread(target=requester, args=(n,)) for n in range(threads)]
    for w in workers:
        w.start()
    for w in workers:
        w.join()
    deadline = time.monotonic() + 120
    while len(answers) < threads * per_thread and time.monotonic() < deadline:
        time.sleep(0.05)
    stop.set()
    polling.join()
    expected = {f"{n}:{i}".encode()[::-1] for n in range(threads) for i in range(per_thread)}
    assert sorted(c for c, _ in answers) == sorted(expected)  # each answered exactly once
    assert not any(t for _, t in answers) and pair.station.callbacks_held == 0


def test_poll_releases_the_gil_and_refuses_a_second_polling_thread():
    engine = nk.Protocol(1)
    engine.enqueue(b"\x0c\x00\x00\x00", 2)
    counter = [0]
    seen = []
    inside, done = threading.Event(), threading.Event()

    def count():
        while not done.is_set():
            counter[0] += 1

    def busy(data):
        seen.append(counter[0])
        inside.set()
        return 0  # try again: the engine waits between attempts, without the GIL

    counting = threading.Thread(target=count)
    counting.start()
    polling = threading.Thread(target=lambda: engine.poll(send=busy))
    polling.start()
    inside.wait(60)
    with pytest.raises(RuntimeError, match="already polling"):
        engine.poll()
    with pytest.raises(RuntimeError, match="already polling"):
        engine.push(b"\x01")
    polling.join()
    done.set()
    counting.join()
    assert len(seen) == 5 and seen[-1] > seen[0]  # the counter ran while the engine waited
    assert engine.queued == 0  # five refusals in a row: dropped
