"""libnkProtocol for Python: messages, telegrams, the protocol engine and an asyncio station.

Messages take their fields as keywords named like the members of their JSON form::

    import nkprotocol as nk
    request = nk.MessageStateReq(version=2)
    reply = nk.Message.parse(data)          # the class of the type in the header
    reply.serial, reply.to_dict(), reply.to_bytes()

The engine (:class:`Protocol`) is the library's own; :class:`Station` drives one over TCP or MQTT
from asyncio.
"""
from ._nkprotocol import (  # noqa: F401
    ADDRESS_BROADCAST,
    ADDRESS_NONE,
    Compression,
    EventSort,
    Message,
    MessageEventsReq,
    MessageEventsRsp,
    MessageGenericReq,
    MessageGenericRsp,
    MessageGetDisplayConfigurationReq,
    MessageGetDisplayConfigurationRsp,
    MessageImage,
    MessageSetConfigReq,
    MessageSetConfigRsp,
    MessageSetSchedulesReq,
    MessageSetSchedulesRsp,
    MessageShutdown,
    MessageStateReq,
    MessageStateRsp,
    MessageStatisticsReq,
    MessageStatisticsRsp,
    MessageTime,
    Protocol,
    Telegram,
    TelegramPart,
    TelegramType,
    type_name,
    vector_u64_checksum,
)
from .station import ChecksumMismatch, Station, StationError, StationTls  # noqa: F401
