#include <cstdio>

#include "nk_message.h"
#include "nk_messageEvents.h"
#include "nk_messageDisplayConfiguration.h"
#include "nk_messageGeneric.h"
#include "nk_messageImage.h"
#include "nk_messageSetConfig.h"
#include "nk_messageSetSchedules.h"
#include "nk_messageShutdown.h"
#include "nk_messageState.h"
#include "nk_messageStatistics.h"
#include "nk_messageTime.h"

namespace
{
template <typename T>
nk_message* make(nk_serializer* ser, nk_message::teVersion v)
{
    return new T(ser, v);
}

typedef nk_message* (*tMaker)(nk_serializer*, nk_message::teVersion);

// The factory's one table: type number -> receiving constructor. Types without a class
// (0, the reserved TAVO numbers 16 to 27, above 29) stay null and are reported unhandled.
struct tFactoryTable
{
    tMaker makers[nk_message::GENERIC_RSP + 1] = {};
    tFactoryTable()
    {
        makers[nk_message::EVENTS_REQ] = make<nk_messageEventsReq>;
        makers[nk_message::EVENTS_RSP] = make<nk_messageEventsRsp>;
        makers[nk_message::STATE_REQ] = make<nk_messageStateReq>;
        makers[nk_message::STATE_RSP] = make<nk_messageStateRsp>;
        makers[nk_message::GET_DISPLAY_CONFIGURATION_REQ] = make<nk_messageGetDisplayConfigurationReq>;
        makers[nk_message::GET_DISPLAY_CONFIGURATION_RSP] = make<nk_messageGetDisplayConfigurationRsp>;
        makers[nk_message::SET_CONFIG_REQ] = make<nk_messageSetConfigReq>;
        makers[nk_message::SET_CONFIG_RSP] = make<nk_messageSetConfigRsp>;
        makers[nk_message::SET_SCHEDULES_REQ] = make<nk_messageSetSchedulesReq>;
        makers[nk_message::SET_SCHEDULES_RSP] = make<nk_messageSetSchedulesRsp>;
        makers[nk_message::TIME] = make<nk_messageTime>;
        makers[nk_message::STATISTICS_REQ] = make<nk_messageStatisticsReq>;
        makers[nk_message::STATISTICS_RSP] = make<nk_messageStatisticsRsp>;
        makers[nk_message::SHUTDOWN] = make<nk_messageShutdown>;
        makers[nk_message::IMAGE] = make<nk_messageImage>;
        makers[nk_message::GENERIC_REQ] = make<nk_messageGenericReq>;
        makers[nk_message::GENERIC_RSP] = make<nk_messageGenericRsp>;
    }
};

const tFactoryTable s_factory;
}

nk_message* nk_message::getMessage(tBlob* blob)
{
    if (blob == nullptr) return nullptr;
    // The body is read in place: a large IMAGE is not copied once more just to be parsed.
    nk_serializer ser(blob->getBuffer(), blob->size());
    unsigned short type = 0;
    unsigned short version = 0;
    if (!ser.u16(type, nk_serializer::SER_READ) || !ser.u16(version, nk_serializer::SER_READ)) return nullptr;

    tMaker maker = type <= GENERIC_RSP ? s_factory.makers[type] : nullptr;
    if (maker == nullptr) {
        // Plain printf without a line end: peers' tooling matches this line as it stands.
        std::printf("!!!!! TODO !!!!!, unhandled message type: %d (version %d)", type, version);
        return nullptr;
    }
    // The body is read from behind the header; a body that fails still gives the object.
    return maker(&ser, static_cast<teVersion>(version));
}
