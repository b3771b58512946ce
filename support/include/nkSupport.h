#ifndef NK_SUPPORT_H
#define NK_SUPPORT_H

// Every public header of the support layer.
#include "SHA1.h"
#include "base128.h"
#include "base64.h"
#include "crc8.h"
#include "tBlob.h"
#include "tCompression.h"
#include "tCriticalSection.h"
#include "tFile.h"
#include "tJson.h"
#include "tLog.h"
#include "tString.h"
#include "tStringList.h"
#include "tTime.h"

#endif
