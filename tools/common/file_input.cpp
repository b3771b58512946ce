#include "file_input.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "tool_error.h"

tBlob readFileBytes(std::string const& path)
{
    const bool standardInput = path == "-";
    const int fd = standardInput ? STDIN_FILENO : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw ToolError("cannot read " + path + ": " + std::strerror(errno));
    tBlob content;
    unsigned char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n > 0) {
            content.append(buffer, static_cast<unsigned int>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            const int saved = errno;
            if (!standardInput) ::close(fd);
            throw ToolError("cannot read " + path + ": " + std::strerror(saved));
        }
        break;
    }
    if (!standardInput) ::close(fd);
    return content;
}

tJson parseJsonObject(std::string const& text, std::string const& source)
{
    tJson json;
    if (json.parse(tString(text))) return json;

    // The library's parser only says yes or no; find where the text goes wrong for the user.
    try {
        nlohmann::json checked = nlohmann::json::parse(text);
        if (!checked.is_object()) throw ToolError(source + ": the top-level JSON value is not an object");
    } catch (nlohmann::json::parse_error const& e) {
        std::size_t line = 1, column = 1;
        const std::size_t stop = std::min<std::size_t>(e.byte == 0 ? 0 : e.byte - 1, text.size());
        for (std::size_t i = 0; i < stop; ++i) {
            if (text[i] == '\n') {
                ++line;
                column = 1;
            } else {
                ++column;
            }
        }
        std::string reason = e.what();
        const std::size_t colon = reason.rfind(": ");
        if (colon != std::string::npos) reason = reason.substr(colon + 2);
        // The parser quotes the bytes it last read; binary input must not reach the terminal.
        for (char& c : reason)
            if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) c = '?';
        throw ToolError(source + ":" + std::to_string(line) + ":" + std::to_string(column) +
                        ": malformed JSON: " + reason);
    }
    throw ToolError(source + ": malformed JSON");
}

tJson readJsonFile(std::string const& path)
{
    const tBlob bytes = readFileBytes(path);
    return parseJsonObject(std::string(reinterpret_cast<char const*>(bytes.getBuffer()), bytes.size()),
                           path == "-" ? "standard input" : path);
}
