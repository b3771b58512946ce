#include "serial.h"

#include <cerrno>
#include <cstring>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <termios.h>

#include "tool_error.h"

std::shared_ptr<Link> openSerial(asio::io_context& io, std::string const& path, unsigned int baud)
{
    asio::serial_port port(io);
    std::error_code ec;
    port.open(path, ec);
    if (ec) throw ToolError("cannot open serial port " + path + ": " + ec.message(), EXIT_CONNECT);

    // One program per port: a second station on the same line would read the first one's
    // answers as its own. flock holds against every program that asks for it (also root's);
    // TIOCEXCL refuses further opens by programs that do not ask.
    if (::flock(port.native_handle(), LOCK_EX | LOCK_NB) != 0) {
        if (errno == EWOULDBLOCK)
            throw ToolError("serial port " + path + " is busy: another program holds it", EXIT_CONNECT);
        throw ToolError("cannot lock serial port " + path + ": " + std::strerror(errno), EXIT_CONNECT);
    }
    ::ioctl(port.native_handle(), TIOCEXCL);

    // Raw mode: no echo, no line editing, no translation of CR/LF or of the frame bytes
    // 0x01/0x02 (which a cooked line discipline would take for control characters).
    termios tio{};
    if (::tcgetattr(port.native_handle(), &tio) != 0)
        throw ToolError("cannot configure serial port " + path + ": not a terminal", EXIT_CONNECT);
    ::cfmakeraw(&tio);
    tio.c_cflag |= CLOCAL | CREAD;
    tio.c_cc[VMIN] = 1;
    tio.c_cc[VTIME] = 0;
    ::tcsetattr(port.native_handle(), TCSANOW, &tio);
    // Bytes that arrived before this program opened the port (a late answer to an earlier
    // run) are not meant for it.
    ::tcflush(port.native_handle(), TCIFLUSH);

    using base = asio::serial_port_base;
    port.set_option(base::baud_rate(baud), ec);
    if (ec) throw ToolError("cannot set " + std::to_string(baud) + " baud on " + path + ": " + ec.message(), EXIT_CONNECT);
    port.set_option(base::character_size(8), ec);
    port.set_option(base::parity(base::parity::none), ec);
    port.set_option(base::stop_bits(base::stop_bits::one), ec);
    port.set_option(base::flow_control(base::flow_control::none), ec);
    return std::make_shared<SerialLink>(std::move(port), path);
}
