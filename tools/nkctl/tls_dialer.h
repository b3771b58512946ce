#ifndef NK_TOOLS_TLS_DIALER_H
#define NK_TOOLS_TLS_DIALER_H

#include <memory>

#include "station.h"

// The dialer of TLS 1.3 links that present files.cert and accept a device only when its
// certificate chains to files.ca and names the device's address. Throws ToolError (input) when
// a file cannot be used. Linked into the programs built with TLS only.
std::unique_ptr<TlsDialer> makeTlsDialer(TlsFiles const& files);

#endif
