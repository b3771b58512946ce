// The offline commands: decode a capture into telegrams, encode a message into frames.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

#include "commands.h"
#include "file_input.h"
#include "frame_decoder.h"
#include "json_bridge.h"
#include "message_json.h"
#include "tool_error.h"

namespace
{
struct Capture
{
    tBlob frames;
};

unsigned int captureFrames(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
{
    static_cast<Capture*>(ctx)->frames.append(data, length);
    return length;
}

void ignoreAnswer(unsigned int, tBlob*, void*, bool, void*) {}

// Strict base64: the library's reader takes what it can of anything and gives empty or
// shortened content for text that does not decode ("Zg" without padding, "Zh==" with stray
// bits), which would be sent as if it were the file. Empty when valid, else the reason.
std::string base64Fault(std::string const& text)
{
    static const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    if (text.size() % 4 != 0) return "its length " + std::to_string(text.size()) + " is not a multiple of 4";
    const std::size_t padding = text.size() - std::min(text.size(), text.find_last_not_of('=') + 1);
    if (padding > 2) return "it ends in more than two '='";
    const std::size_t body = text.size() - padding;
    for (std::size_t i = 0; i < body; ++i)
        if (alphabet.find(text[i]) == std::string::npos)
            return "character " + std::to_string(i + 1) + " is not a base64 digit";
    if (padding > 0) {
        // The bits behind the last whole byte must be 0, or they carry nothing and the text
        // is not what any encoder writes.
        const std::size_t last = alphabet.find(text[body - 1]);
        if ((padding == 1 && (last & 0x3)) || (padding == 2 && (last & 0xF)))
            return "its last digit carries bits beyond the last byte";
    }
    return std::string();
}

void checkImageContents(tJson const& json, std::string const& source)
{
    if (json.getString("action") != "images") return;
    const ToolJson document = toToolJson(json);
    auto images = document.find("images");
    if (images == document.end() || !images->is_array()) return;
    for (std::size_t i = 0; i < images->size(); ++i) {
        auto content = (*images)[i].find("content");
        if (content == (*images)[i].end()) continue;
        const std::string where = source + ": images[" + std::to_string(i) + "].content";
        if (!content->is_string()) throw ToolError(where + " is not a base64 text");
        const std::string fault = base64Fault(content->get<std::string>());
        if (!fault.empty()) throw ToolError(where + " is not valid base64: " + fault);
    }
}

void writeAll(int fd, tBlob const& bytes, std::string const& where)
{
    unsigned int done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.getBuffer() + done, bytes.size() - done);
        if (n <= 0) throw ToolError("cannot write " + where + ": " + std::strerror(errno), EXIT_FAILURE_OTHER);
        done += static_cast<unsigned int>(n);
    }
}
}

int cmdDecode(CtlContext& ctx, std::string const& file)
{
    const tBlob bytes = bytesFromCapture(readFileBytes(file.empty() ? "-" : file));
    FrameDecoder decoder;
    unsigned int telegrams = 0;
    int status = 0;
    auto emitAll = [&](std::vector<tJson> const& objects) {
        for (tJson const& object : objects) {
            if (object.has("telegram")) ++telegrams;
            if (object.has("error")) status = 1;
            ctx.output.emit(object, object.has("telegram") ? "telegram" : "");
        }
    };
    emitAll(decoder.feed(bytes));
    emitAll(decoder.finish());
    if (telegrams == 0) {
        reportError("nkctl", "no telegram found in " + (file.empty() ? std::string("standard input") : file));
        return 1;
    }
    return status;
}

int cmdEncode(CtlContext& ctx, EncodeOptions const& options)
{
    tJson json = readJsonFile(options.file);
    checkImageContents(json, options.file);
    std::unique_ptr<nk_message> message = messageFromJson(json, options.file, options.version);
    nk_serializer content;
    if (!message->serializeMsg(&content)) throw ToolError(options.file + ": the message could not be written");

    // The engine builds the frames exactly as it would send them: compression, parts, CRC.
    Capture capture;
    {
        nk_protocol engine(ctx.station.ownAddress, nullptr, nullptr, ctx.station.timeout_s, nullptr, nullptr, nullptr);
        tBlob body(content);
        if (json.getString("type") == "response")
            engine.respond_TS(&body, ctx.station.deviceAddress, options.telegramId);
        else
            engine.enqueue_TS(&body, ctx.station.deviceAddress, &ignoreAnswer, 0, nullptr);
        engine.poll(nullptr, &capture, &captureFrames, nullptr);
    }

    const bool hex = options.hex || (options.out.empty() && ::isatty(STDOUT_FILENO) == 1);
    tBlob output;
    if (hex) {
        std::string text;
        char pair[4];
        for (unsigned int i = 0; i < capture.frames.size(); ++i) {
            std::snprintf(pair, sizeof pair, "%02x", capture.frames.getBuffer()[i]);
            text += pair;
        }
        text += '\n';
        output.append(reinterpret_cast<unsigned char const*>(text.data()), static_cast<unsigned int>(text.size()));
    } else {
        output = capture.frames;
    }
    if (options.out.empty()) {
        writeAll(STDOUT_FILENO, output, "standard output");
    } else {
        // The cause, which the atomic write does not report: a missing directory, no
        // permission, a full disk.
        FILE* probe = std::fopen((options.out + "~").c_str(), "wb");
        if (!probe) throw ToolError("cannot write " + options.out + ": " + std::strerror(errno), EXIT_FAILURE_OTHER);
        std::fclose(probe);
        std::remove((options.out + "~").c_str());
        if (!tFile::writeAtomic(tString(options.out), output))
            throw ToolError("cannot write " + options.out + ": " + (errno ? std::strerror(errno) : "write failed"),
                            EXIT_FAILURE_OTHER);
    }
    return 0;
}
