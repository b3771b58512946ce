"""Messages built from Python keywords give the bytes the C++ golden vectors hold; the factory,
JSON and checksums agree with them; bad fields and bad bytes raise exceptions that name them."""
import json

import pytest

import nkprotocol as nk
from conftest import SOURCE_DIR, golden_vectors

GOLDEN = golden_vectors()
BIG_ID = 0xFEDCBA9876543210
TOP_BIT = 0x8000000000000000
BEFORE_1900 = -2208988800 - 86400
YEAR_2100 = 4102444800


def config_fields():
    return dict(
        updateTime=86399, minUpdateTemp=-40, balanceTime=255, updateTemp=-1, opMode=3, heatMode=0,
        curDispSwCfg=0x8001, defaultLogicalDisplay=7, slideshowInterval_sec=65535,
        deviceName="Platform 3 \u2192 north", sleepUserEna=True,
        timeslots=[{"name": "night", "start": 79200, "stop": 86399, "activity": 1},
                   {"name": "flags", "start": 3600, "stop": 7200, "activity": 0xFFFFFFF2}],
        frames=[{"name": "ticker", "left": 0, "top": 1000, "width": 1920, "height": 80, "id": 10, "logDisp": 1,
                 "realtimeTimeout": 65535},
                {"name": "clock", "left": 1800, "top": 0, "width": 120, "height": 60, "id": 65535, "logDisp": 2,
                 "realtimeTimeout": 0}])


def schedules_fields():
    return dict(schedules=[
        {"uid": BIG_ID, "name": "morning", "startTime": BEFORE_1900, "stopTime": YEAR_2100, "flags": 0xA500000F,
         "frame": 0xFFFF,
         "entries": [{"name": "first", "uid": 0xFFFFFFFFFFFFFFFF, "duration": 4000000000, "imageUid": BIG_ID},
                     {"name": "", "uid": TOP_BIT, "duration": 0, "imageUid": 0}]},
        {"uid": 2, "name": "evening", "startTime": -1, "stopTime": -TOP_BIT, "flags": 6, "frame": 1,
         "entries": [{"name": "only", "uid": 3, "duration": 60, "imageUid": TOP_BIT | 42}]}])


def golden_messages(v):
    """The messages of the C++ golden test, built here from keywords."""
    config = nk.MessageSetConfigReq(v, **config_fields())
    schedules = nk.MessageSetSchedulesReq(v, **schedules_fields())
    return {
        "TIME": nk.MessageTime(v, currentTime=0xFEDCBA98),
        "SHUTDOWN": nk.MessageShutdown(v),
        "GENERIC_REQ": nk.MessageGenericReq(v, text1=b"key\0with nul", text2="Gr\u00fc\u00dfe"),
        "GENERIC_RSP": nk.MessageGenericRsp(v, text1="", text2="x" * 40),
        "STATE_REQ": nk.MessageStateReq(v, task=1, name="Lobby S\u00fcd"),
        "STATE_RSP": nk.MessageStateRsp(
            v, serial=0xFFFFFFFF, ci="ci-1", csCfg="a9993e364706816aba3e25717850c26c9cd0d89d", csSched="",
            omc=4000000000, second=59, vc="vc 1.2", va="va 3.4", evc=0x80000000, legacy="legacy",
            devName="Dev \u00e9", devCus="customer", images=[{"uid": BIG_ID}, {"uid": 1}, {"uid": TOP_BIT}],
            flags=0x80000001, extState=(BIG_ID & ~0xFF) | (5 << 1) | 1),
        "STATISTICS_REQ": nk.MessageStatisticsReq(v),
        "STATISTICS_RSP": nk.MessageStatisticsRsp(
            v, imgUpdateCount=4000000000, energy=1234.5, tempCaseMin=-40, tempCaseMinTime=4000000001,
            tempCaseMax=85, tempCaseMaxTime=0xFFFFFFFF),
        "GET_DISPLAY_CONFIGURATION_REQ": nk.MessageGetDisplayConfigurationReq(v),
        "GET_DISPLAY_CONFIGURATION_RSP": nk.MessageGetDisplayConfigurationRsp(v, name="Main", rot=-90, dispConfigs=[
            {"name": "split", "id": 0x8001, "logDisps": [
                {"name": "left", "id": 0x8001, "w": 960, "h": 1080, "l": 0, "t": 0},
                {"name": "right", "id": 0x8002, "w": 960, "h": 1080, "l": 960, "t": 65535}]},
            {"name": "full", "id": 0x7FFF, "logDisps": [
                {"name": "all", "id": 3, "w": 1920, "h": 1080, "l": 0, "t": 0}]}]),
        "SET_CONFIG_REQ": config,
        "SET_CONFIG_RSP": nk.MessageSetConfigRsp(v, cs=config.checksum()),
        "SET_SCHEDULES_REQ": schedules,
        "SET_SCHEDULES_RSP": nk.MessageSetSchedulesRsp(v, cs=schedules.checksum()),
        "EVENTS_REQ": nk.MessageEventsReq(v, task=7),
        "EVENTS_RSP": nk.MessageEventsRsp(v, task=7, events=[
            {"timeFirst": 4000000000, "timeLast": 4000000001, "id": 0xFFFFFFFF, "type": 0xFFFF,
             "event": "\u00dcberhitzung", "cat": 1, "occ": 3, "refImage": "image_id18364758544493064720.png",
             "subEvents": ["sensor 2", ""]},
            {"timeFirst": 0, "timeLast": 0, "id": 0, "type": 0, "event": "", "cat": 255, "occ": 0,
             "refImage": "", "subEvents": []}]),
        "IMAGE": nk.MessageImage(v, taskRemove=1, taskFbc=2, files=[
            {"uid": BIG_ID, "name": "logo", "mime": "image/png", "content": b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR"},
            {"uid": 1, "name": "x", "mime": "text/xml", "content": b"<a/>"}]),
    }


@pytest.mark.parametrize("version", [0, 1, 2, 3])
def test_keyword_messages_are_byte_equal_to_the_golden_vectors(version):
    messages = golden_messages(version)
    assert len(messages) == 17
    for name, message in messages.items():
        key = f"{name}.v{version}"
        assert message.to_bytes().hex() == GOLDEN[key].hex(), key
        assert message.type_name == name and message.version == version
        if version == 3:
            assert message.to_json().encode() == GOLDEN[key + ".json"], key + ".json"
    for name in ("SET_CONFIG_REQ", "SET_SCHEDULES_REQ"):
        key = f"{name}.checksum.v{version}"
        assert messages[name].checksum().encode() == GOLDEN[key], key


def test_factory_reads_every_golden_message_into_its_class():
    seen = 0
    for name, data in GOLDEN.items():
        parts = name.split(".")
        if len(parts) != 2 or not parts[0].isupper():
            continue
        message = nk.Message.parse(data)
        assert message.type_name == name.split(".")[0]
        assert type(message).__name__.startswith("Message") and type(message) is not nk.Message
        assert message.to_bytes() == data, name
        seen += 1
    assert seen == 17 * 4
    rsp = nk.Message.parse(GOLDEN["STATE_RSP.v1"])
    assert isinstance(rsp, nk.MessageStateRsp)
    assert (rsp.serial, rsp.second, rsp.images[0]["uid"]) == (0xFFFFFFFF, 59, BIG_ID)
    assert rsp.image_present(TOP_BIT) and not rsp.image_present(2)
    image = nk.Message.parse(GOLDEN["IMAGE.v3"])
    assert [f["content"] for f in image.files] == [b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR", b"<a/>"]
    assert nk.Message.parse(GOLDEN["GENERIC_REQ.v2"]).text1 == b"key\0with nul"


def test_json_round_trip_and_messages_built_from_json_files():
    for name, message in golden_messages(3).items():
        if name.startswith("GENERIC"):
            assert message.to_json() == "{}"
            continue
        if name == "SET_SCHEDULES_REQ":
            # Its JSON repeats the flags word as "frame", the logical display, which is 16 bits.
            with pytest.raises(ValueError, match=r"schedules\[0\]\.frame is out of range"):
                type(message)(3, **json.loads(message.to_json()))
            continue
        again = type(message)(3, **json.loads(message.to_json()))
        assert again.to_json() == message.to_json(), name
    with open(f"{SOURCE_DIR}/examples/config.json") as f:
        config = nk.MessageSetConfigReq(2, **json.load(f))
    assert config.opMode == 2 and config.frames[0]["name"] == "main"
    assert len(config.checksum()) == 40
    config.update(opMode=1)
    assert config.to_dict()["opMode"] == 1


def test_bad_fields_raise_and_name_the_field():
    cases = [
        (lambda: nk.MessageSetConfigReq(opMod=1), TypeError, "opMod"),
        (lambda: nk.MessageSetConfigReq(opMode="two"), ValueError, "opMode"),
        (lambda: nk.MessageSetConfigReq(opMode=300), ValueError, "opMode"),
        (lambda: nk.MessageSetConfigReq(frames=[{"nam": "x"}]), ValueError, "frames[0]"),
        (lambda: nk.MessageSetConfigReq(action="state"), ValueError, "action"),
        (lambda: nk.MessageStateRsp(serial=-1), ValueError, "serial"),
        (lambda: nk.MessageStateRsp(second=1 << 32), ValueError, "second"),
        (lambda: nk.MessageGenericReq(text1=5), TypeError, "text1"),
        (lambda: nk.MessageImage(files=[{"uid": 1, "name": "x", "content": b""}]), ValueError, "mime"),
        (lambda: nk.MessageShutdown(anything=1), TypeError, "anything"),
    ]
    for make, error, field in cases:
        with pytest.raises(error, match=field.replace("[", r"\[")):
            make()
    with pytest.raises(AttributeError, match="opMod"):
        nk.MessageSetConfigReq().opMod


def test_bad_bytes_raise_with_the_reason():
    with pytest.raises(ValueError, match="too short: 3 bytes"):
        nk.Message.parse(b"\x0c\x00\x00")
    with pytest.raises(ValueError, match="unhandled message type 16 .TAVO_AUTHORIZE_REQ., version 1"):
        nk.Message.parse(bytes.fromhex("10000100"))
    with pytest.raises(ValueError, match="unhandled message type 0"):
        nk.Message.parse(bytes(4))
    cut = GOLDEN["STATE_RSP.v2"][:-5]
    with pytest.raises(ValueError, match="STATE_RSP version 2"):
        nk.Message.parse(cut)
    lenient = nk.Message.parse(cut, strict=False)
    assert isinstance(lenient, nk.MessageStateRsp) and lenient.serial == 0xFFFFFFFF
    assert isinstance(nk.Message.parse(bytes.fromhex("0c000000")), nk.MessageShutdown)
    with pytest.raises(ValueError, match="bytes left over"):
        nk.Message.parse(bytes.fromhex("0c00000000"))


def test_names_checksums_and_comparison():
    assert nk.type_name(29) == "GENERIC_RSP" and nk.type_name(30) == "invalid" and nk.type_name(0) == "invalid"
    assert nk.vector_u64_checksum([5, 3, 5]) == nk.vector_u64_checksum([3, 5])
    assert nk.vector_u64_checksum([1, 23]) == nk.vector_u64_checksum([123])
    assert nk.vector_u64_checksum([BIG_ID, 23, 1, TOP_BIT, 23]).encode() == GOLDEN["checksum.u64_values"]
    a, b = nk.MessageTime(1, currentTime=5), nk.MessageTime(1, currentTime=5)
    assert a == b and a != nk.MessageTime(1, currentTime=6) and a != nk.MessageTime(2, currentTime=5)
    events = nk.MessageEventsRsp(2, events=[{"id": i, "timeFirst": 10 - i} for i in (1, 3, 2)])
    events.sort(nk.EventSort.ID_ASC)
    assert [e["id"] for e in events.events] == [1, 2, 3]
    assert nk.MessageSetSchedulesReq(2, **schedules_fields()).required_image_ids()


def test_type_stubs_name_everything_the_module_has():
    import ast
    import os

    from nkprotocol import _nkprotocol

    with open(os.path.join(os.path.dirname(nk.__file__), "_nkprotocol.pyi")) as f:
        tree = ast.parse(f.read())
    stubbed = {node.name: node for node in tree.body if isinstance(node, (ast.ClassDef, ast.FunctionDef))}
    stubbed.update({t.id: node for node in tree.body if isinstance(node, ast.AnnAssign) for t in [node.target]})
    public = {name for name in dir(_nkprotocol) if not name.startswith("_")}
    assert public <= set(stubbed), sorted(public - set(stubbed))
    for name, node in stubbed.items():
        if isinstance(node, ast.ClassDef) and name in public:
            members = {n.name for n in node.body if isinstance(n, ast.FunctionDef) and not n.name.startswith("_")}
            missing = {m for m in members if not hasattr(getattr(_nkprotocol, name), m)}
            assert not missing, (name, missing)
