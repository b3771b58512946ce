// The offline commands: decode a capture into telegrams, encode a message into frames.
#include <cstdio>
#include <unistd.h>

#include "commands.h"
#include "file_input.h"
#include "frame_decoder.h"
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

void writeAll(int fd, tBlob const& bytes, std::string const& where)
{
    unsigned int done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.getBuffer() + done, bytes.size() - done);
        if (n <= 0) throw ToolError("cannot write " + where);
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
    } else if (!tFile::writeAtomic(tString(options.out), output)) {
        throw ToolError("cannot write " + options.out);
    }
    return 0;
}
