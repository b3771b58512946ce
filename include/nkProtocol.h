#ifndef NK_PROTOCOL_ALL_H
#define NK_PROTOCOL_ALL_H

// The whole interface: the support layer, the message layer and the telegram layer.
#include "nkSupport.h"

#include "nkExport.h"
#include "nk_message.h"
#include "nk_messageDisplayConfiguration.h"
#include "nk_messageEvents.h"
#include "nk_messageGeneric.h"
#include "nk_messageImage.h"
#include "nk_messageSchedule.h"
#include "nk_messageSetConfig.h"
#include "nk_messageSetSchedules.h"
#include "nk_messageShutdown.h"
#include "nk_messageState.h"
#include "nk_messageStatistics.h"
#include "nk_messageTime.h"
#include "nk_protocol.h"
#include "nk_serializer.h"
#include "nk_telegram.h"
#include "tVector.h"

#endif
