// The tools' parsing of what users type and what arrives on the link.
#include <gtest/gtest.h>

#include <vector>

#include "device_store.h"
#include "endpoint.h"
#include "file_input.h"
#include "frame_decoder.h"
#include "frame_gate.h"
#include "json_check.h"
#include "mime_types.h"
#include "nk_messageSetConfig.h"
#include "output.h"
#include "tool_error.h"

TEST(ToolsInput, AddressesAndNumbers)
{
    EXPECT_EQ(parseEndpoint("10.0.0.5:4000", "127.0.0.1").text(), "10.0.0.5:4000");
    EXPECT_EQ(parseEndpoint("4000", "127.0.0.1").text(), "127.0.0.1:4000");
    EXPECT_EQ(parseEndpoint("[::1]:80", "127.0.0.1").host, "::1");
    EXPECT_THROW(parseEndpoint("host:65536", "x"), ToolError);
    EXPECT_THROW(parseEndpoint("host:", "x"), ToolError);
    EXPECT_THROW(parseEndpoint("[::1]80", "x"), ToolError);

    EXPECT_EQ(parseUnsigned("18446744073709551615", "id", 0, ~0ull), ~0ull);
    try {
        parseUnsigned("18446744073709551616", "image id", 0, ~0ull);
        FAIL();
    } catch (ToolError const& e) {
        EXPECT_NE(std::string(e.what()).find("image id out of range"), std::string::npos);
    }
    EXPECT_THROW(parseUnsigned("-1", "id", 0, 10), ToolError);
    EXPECT_THROW(parseUnsigned("12a", "id", 0, 100), ToolError);
    EXPECT_THROW(parseUnsigned("", "id", 0, 100), ToolError);
}

TEST(ToolsInput, StoredImageNamesOnly)
{
    unsigned long long id = 0;
    EXPECT_TRUE(parseImageFileName("image_id42.png", id));
    EXPECT_EQ(id, 42u);
    EXPECT_TRUE(parseImageFileName("image_id18446744073709551615.jpg", id));
    EXPECT_EQ(id, 18446744073709551615ull);
    EXPECT_FALSE(parseImageFileName("image_id18446744073709551616.jpg", id));  // overflow
    EXPECT_FALSE(parseImageFileName("image_id42.png~", id));                    // temporary file
    EXPECT_FALSE(parseImageFileName("image_id.png", id));
    EXPECT_FALSE(parseImageFileName("image_id7.", id));  // the library's name for an unsupported type
    EXPECT_FALSE(parseImageFileName("../image_id1.png", id));
}

TEST(ToolsInput, MimeTypesAndJsonErrors)
{
    EXPECT_EQ(mimeTypeFor("a/b/photo.JPEG", ""), "image/jpeg");
    EXPECT_EQ(mimeTypeFor("x.bin", "application/octet-stream"), "application/octet-stream");
    EXPECT_THROW(mimeTypeFor("x.gif", ""), ToolError);
    EXPECT_THROW(mimeTypeFor("dir.png/file", ""), ToolError);
    EXPECT_THROW(mimeTypeFor("x.png", "IMAGE/PNG"), ToolError);

    EXPECT_EQ(parseJsonObject("{\"a\":1}", "s").getInt("a"), 1);
    try {
        parseJsonObject("{\n \"a\": 1,\n \"b\" 2}", "f.json");
        FAIL();
    } catch (ToolError const& e) {
        EXPECT_EQ(std::string(e.what()).rfind("f.json:3:6: malformed JSON", 0), 0u) << e.what();
    }
    EXPECT_THROW(parseJsonObject("[1, 2]", "s"), ToolError);
    try {
        parseJsonObject("{\"a\": \xff\x1b\n}", "bin");
        FAIL();
    } catch (ToolError const& e) {
        const std::string text = e.what();
        EXPECT_EQ(text.find_first_of("\x1b\xff\n"), std::string::npos) << text;
    }

    // A configuration member that the reader would not take as given is named.
    auto configCheck = [](char const* members) {
        tJson given = parseJsonObject(std::string("{\"action\":\"config\",\"type\":\"request\",\"tv\":1") +
                                          members + "}",
                                      "c.json");
        nk_messageSetConfigReq config(nk_message::VERSION_3);
        EXPECT_TRUE(config.serializeFromJson(&given));
        tJson readBack;
        config.serializeToJson(&readBack);
        try {
            checkReadAsGiven(given, readBack, "c.json");
        } catch (ToolError const& e) {
            return std::string(e.what());
        }
        return std::string();
    };
    EXPECT_EQ(configCheck(",\"updateTime\":600,\"frames\":[{\"name\":\"f\",\"width\":800}]"), "");
    EXPECT_NE(configCheck(",\"updateTime\":\"600\"").find("\"updateTime\": \"600\" is not a valid value"),
              std::string::npos);
    EXPECT_NE(configCheck(",\"frames\":[{\"width\":70000}]").find("frames[0].width"), std::string::npos);
    EXPECT_NE(configCheck(",\"updatTime\":600").find("unknown member \"updatTime\""), std::string::npos);

    const std::string human = renderHuman("{\"a\":1,\"list\":[{\"uid\":5},{\"uid\":6}],\"s\":\"\"}");
    EXPECT_EQ(human, "  a: 1\n  list:\n    - id: 5\n    - id: 6\n  s: \"\"\n");
}

TEST(ToolsInput, CaptureAsHexOrBytes)
{
    const unsigned char hexText[] = "01 8a\nFF";
    tBlob bytes = bytesFromCapture(tBlob(hexText, sizeof hexText - 1));
    ASSERT_EQ(bytes.size(), 3u);
    EXPECT_EQ(bytes.getBuffer()[2], 0xFF);
    const unsigned char raw[] = {0x01, 0x8a, 0x02};
    EXPECT_EQ(bytesFromCapture(tBlob(raw, 3)), tBlob(raw, 3));
    const unsigned char odd[] = "abc";
    EXPECT_EQ(bytesFromCapture(tBlob(odd, 3)).size(), 3u);  // odd digit count: taken as bytes
}

TEST(ToolsInput, FrameGatePassesFramesOnly)
{
    // A stray end byte and noise ahead of a frame, the frame split across three reads, noise
    // after it, then a second frame.
    const std::vector<std::vector<unsigned char>> reads = {
        {0x02, 0x55, 0x01, 0x81}, {0x82}, {0x83, 0x02, 0x7f, 0x02}, {0x01, 0x90, 0x02}};
    FrameGate gate(16);
    std::vector<unsigned char> passed;
    for (auto const& read : reads)
        EXPECT_TRUE(gate.feed(read.data(), read.size(), [&](unsigned char const* data, std::size_t n) {
            passed.insert(passed.end(), data, data + n);
        }));
    EXPECT_EQ(passed, (std::vector<unsigned char>{0x01, 0x81, 0x82, 0x83, 0x02, 0x01, 0x90, 0x02}));
    EXPECT_EQ(gate.droppedBytes(), 4u);

    // A frame that never ends is refused once it passes the bound, also across reads.
    FrameGate bounded(6);
    const unsigned char longFrame[] = {0x01, 0x80, 0x80, 0x80};
    auto ignore = [](unsigned char const*, std::size_t) {};
    EXPECT_TRUE(bounded.feed(longFrame, sizeof longFrame, ignore));
    EXPECT_FALSE(bounded.feed(longFrame + 1, 3, ignore));
    EXPECT_GE(FrameGate::defaultMaxFrameBytes(), std::size_t(16) << 20);
}
