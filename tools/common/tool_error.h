#ifndef NK_TOOLS_TOOL_ERROR_H
#define NK_TOOLS_TOOL_ERROR_H

#include <stdexcept>
#include <string>

// The exit statuses of the tools, one per kind of failure, so that a script can tell a typo
// from an unreachable device or a device that refused. Listed in --help and in the README.
enum ExitCode : int
{
    EXIT_OK = 0,
    EXIT_FAILURE_OTHER = 1,    // anything not listed below (an unexpected answer, a lost link)
    EXIT_USAGE = 2,            // unknown command or option, a malformed option value
    EXIT_INPUT = 3,            // an input file that cannot be read or does not hold what it should
    EXIT_CONNECT = 4,          // the device cannot be reached (refused, unknown host, port busy, TLS refused)
    EXIT_TIMEOUT = 5,          // the device did not answer in time
    EXIT_MISMATCH = 6,         // the device confirmed another checksum than the one sent
    EXIT_REFUSED = 7,          // the device refused the request or did not do what was asked
    EXIT_LOCAL_LIMIT = 8,      // a local limit (the size of one request) stopped it before anything was sent
};

// The text listed under --help.
inline char const* exitCodeHelp()
{
    return "Exit status: 0 success, 1 other failure, 2 usage error, 3 bad input or TLS file, 4 cannot connect "
           "(also: a TLS certificate refused, or TLS on one side only), "
           "5 time-out, 6 checksum mismatch, 7 refused by the device, 8 local send limit. With several "
           "devices the highest status of any device.";
}

// A failure that ends a tool's command with one line on standard error. It never leaves
// the tools: the programs' main functions catch it and exit with its code.
struct ToolError : std::runtime_error
{
    explicit ToolError(std::string const& what, ExitCode code = EXIT_INPUT) : std::runtime_error(what), code(code) {}
    ExitCode code;
};

#endif
