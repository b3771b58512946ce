#include "tls_handoff.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tool_error.h"

namespace
{
std::string ownDirectory()
{
    std::vector<char> path(4096);
    const ssize_t length = readlink("/proc/self/exe", path.data(), path.size() - 1);
    if (length <= 0) return ".";
    std::string exe(path.data(), static_cast<std::size_t>(length));
    const std::size_t slash = exe.rfind('/');
    return slash == std::string::npos ? "." : exe.substr(0, slash);
}
}

void handOffToTlsBuild(char** argv)
{
    const std::string directory = ownDirectory();
    const std::string candidates[] = {directory + "/nkctl-tls", directory + "/" NK_CTL_TLS_DIR "/nkctl-tls"};
    std::string tried;
    for (std::string const& candidate : candidates) {
        execv(candidate.c_str(), argv);
        tried += (tried.empty() ? "" : ", ") + candidate + " (" + std::strerror(errno) + ")";
    }
    throw ToolError("TLS runs need nkctl-tls, which could not be started: " + tried, EXIT_FAILURE_OTHER);
}
