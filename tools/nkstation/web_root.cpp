#include "web_root.h"

#include <filesystem>
#include <system_error>

namespace
{
bool holdsDashboard(std::filesystem::path const& dir)
{
    std::error_code ec;
    return std::filesystem::is_regular_file(dir / "index.html", ec);
}
}

std::string findWebRoot()
{
    std::error_code ec;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const std::filesystem::path installed = program.parent_path().parent_path() / "share" / "nkstation" / "web";
        if (holdsDashboard(installed)) return installed.string();
    }
#ifdef NK_STATION_WEB_SOURCE
    if (holdsDashboard(NK_STATION_WEB_SOURCE)) return NK_STATION_WEB_SOURCE;
#endif
    return std::string();
}
