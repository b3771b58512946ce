#ifndef NK_TOOLS_SERIAL_H
#define NK_TOOLS_SERIAL_H

#include <memory>
#include <string>

#include <asio.hpp>

#include "link.h"

using SerialLink = StreamLink<asio::serial_port>;

// Opens a serial port (or a pseudo-terminal) in raw mode, 8N1, no flow control, at baud.
// Throws ToolError naming the path and the cause.
std::shared_ptr<Link> openSerial(asio::io_context& io, std::string const& path, unsigned int baud);

#endif
