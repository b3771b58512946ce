#include <gtest/gtest.h>

#include "test_helpers.h"

#include <cstdio>
#include <memory>
#include <vector>

#include "SHA1.h"
#include "nk_message.h"
#include "nk_messageGeneric.h"
#include "nk_messageShutdown.h"
#include "nk_messageTime.h"

namespace
{


std::unique_ptr<nk_message> parse(std::vector<unsigned char> const& v, std::string* printed = nullptr)
{
    tBlob b = blobOf(v);
    testing::internal::CaptureStdout();
    nk_message* m = nk_message::getMessage(&b);
    std::fflush(stdout);
    std::string out = testing::internal::GetCapturedStdout();
    if (printed) *printed = out;
    return std::unique_ptr<nk_message>(m);
}

std::string sha1Of(std::string const& text)
{
    SHA1 s;
    s.Input(reinterpret_cast<unsigned char const*>(text.data()), static_cast<unsigned int>(text.size()));
    return s.Result().str();
}
}

TEST(MessageFactory, HeaderAndUnhandledTypes)
{
    std::string printed;
    auto shutdown = parse({0x0C, 0x00, 0x00, 0x00}, &printed);
    ASSERT_NE(shutdown, nullptr);
    EXPECT_EQ(shutdown->type(), nk_message::SHUTDOWN);
    EXPECT_EQ(shutdown->version(), nk_message::VERSION_0);
    EXPECT_EQ(printed, "");

    EXPECT_EQ(parse({0x10, 0x00, 0x01, 0x00}, &printed), nullptr);
    EXPECT_EQ(printed, "!!!!! TODO !!!!!, unhandled message type: 16 (version 1)");
    EXPECT_EQ(parse({0x00, 0x00, 0x00, 0x00}, &printed), nullptr);
    EXPECT_EQ(printed, "!!!!! TODO !!!!!, unhandled message type: 0 (version 0)");
    EXPECT_EQ(parse({0x1E, 0x00, 0x07, 0x00}, &printed), nullptr);
    EXPECT_EQ(printed, "!!!!! TODO !!!!!, unhandled message type: 30 (version 7)");
    EXPECT_EQ(parse({0x0C, 0x00, 0x00}, &printed), nullptr);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(nk_message::getMessage(nullptr), nullptr);

    // A body cut short still yields the object; the field not read stays 0, whatever the
    // receiver's clock says.
    auto shortTime = parse({0x0B, 0x00, 0x02, 0x00, 0x01, 0x02, 0x03});
    ASSERT_NE(shortTime, nullptr);
    EXPECT_EQ(shortTime->version(), nk_message::VERSION_2);
    EXPECT_EQ(static_cast<nk_messageTime*>(shortTime.get())->currentTime, 0u);
}

namespace
{
// A message whose body is the base's: nothing can be written for it.
struct tBaseBodyMessage : nk_message
{
    tBaseBodyMessage() : nk_message(TIME, VERSION_0) {}
    bool serialize(nk_serializer* ser, nk_serializer::teSerDirection dir) override
    {
        return nk_message::serialize(ser, dir);
    }
    bool serializeToJson(tJson*) override { return false; }
    bool serializeFromJson(tJson*) override { return false; }
};
}

TEST(MessageFactory, TypeNames)
{
    EXPECT_EQ(nk_message::typeName(nk_message::GENERIC_RSP), "GENERIC_RSP");
    EXPECT_EQ(nk_message::typeName(nk_message::GET_DISPLAY_CONFIGURATION_REQ), "GET_DISPLAY_CONFIGURATION_REQ");
    EXPECT_EQ(nk_message::typeName(nk_message::TAVO_ASSIGNMENT_RSP), "TAVO_ASSIGNMENT_RSP");
    EXPECT_EQ(nk_message::typeName(static_cast<nk_message::teType>(30)), "invalid");
    EXPECT_EQ(nk_message::typeName(static_cast<nk_message::teType>(0)), "invalid");
    EXPECT_EQ(nk_message::typeName(static_cast<nk_message::teType>(0xFFFF)), "invalid");
    nk_messageShutdown s(nk_message::VERSION_1);
    EXPECT_EQ(s.typeName(), "SHUTDOWN");

    tBaseBodyMessage base;
    nk_serializer ser;
    EXPECT_FALSE(base.serializeMsg(&ser));
    EXPECT_EQ(base.getJson(), "");
}

TEST(SimpleMessages, WireBytesAndRoundTrips)
{
    nk_messageTime time(nk_message::VERSION_1);
    time.currentTime = 0x64FA1B2C;
    nk_serializer ser;
    ASSERT_TRUE(time.serializeMsg(&ser));
    EXPECT_EQ(bytes(ser), (std::vector<unsigned char>{0x0B, 0x00, 0x01, 0x00, 0x2C, 0x1B, 0xFA, 0x64}));
    auto back = std::unique_ptr<nk_message>(nk_message::getMessage(&ser));
    ASSERT_NE(back, nullptr);
    ASSERT_EQ(back->type(), nk_message::TIME);
    EXPECT_EQ(static_cast<nk_messageTime*>(back.get())->currentTime, 0x64FA1B2Cu);

    nk_messageShutdown shutdown(nk_message::VERSION_0);
    nk_serializer ser2;
    ASSERT_TRUE(shutdown.serializeMsg(&ser2));
    EXPECT_EQ(bytes(ser2), (std::vector<unsigned char>{0x0C, 0x00, 0x00, 0x00}));

    nk_messageGenericReq empty(nk_message::VERSION_0, "", "");
    nk_serializer ser3;
    ASSERT_TRUE(empty.serializeMsg(&ser3));
    EXPECT_EQ(bytes(ser3), (std::vector<unsigned char>{0x1C, 0x00, 0x00, 0x00, 0, 0, 0, 0, 0, 0, 0, 0}));

    nk_messageGenericRsp rsp(nk_message::VERSION_3, tString("r\0x", 3), "second");
    nk_serializer ser4;
    ASSERT_TRUE(rsp.serializeMsg(&ser4));
    auto rspBack = std::unique_ptr<nk_message>(nk_message::getMessage(&ser4));
    ASSERT_NE(rspBack, nullptr);
    ASSERT_EQ(rspBack->type(), nk_message::GENERIC_RSP);
    auto* r = static_cast<nk_messageGenericRsp*>(rspBack.get());
    EXPECT_EQ(r->text1, tString("r\0x", 3));
    EXPECT_EQ(r->text2, "second");

    // A short generic body leaves the failed text empty.
    auto cut = parse({0x1C, 0x00, 0x00, 0x00, 1, 0, 0, 0, 'a', 5, 0, 0, 0, 'b'});
    ASSERT_NE(cut, nullptr);
    auto* g = static_cast<nk_messageGenericReq*>(cut.get());
    EXPECT_EQ(g->text1, "a");
    EXPECT_TRUE(g->text2.isEmpty());

    EXPECT_FALSE(time.serializeMsg(nullptr));
    EXPECT_FALSE(time.serialize(nullptr, nk_serializer::SER_WRITE));
    EXPECT_FALSE(shutdown.serialize(nullptr, nk_serializer::SER_WRITE));
}

TEST(SimpleMessages, JsonForms)
{
    nk_messageTime time(nk_message::VERSION_0);
    time.currentTime = 4000000000u;
    EXPECT_EQ(time.getJson(), "{\"action\":\"time\",\"type\":\"request\",\"tv\":1,\"currentTime\":4000000000}");
    nk_messageShutdown shutdown(nk_message::VERSION_0);
    EXPECT_EQ(shutdown.getJson(), "{\"action\":\"shutdown\",\"type\":\"request\",\"tv\":1}");
    nk_messageGenericRsp rsp(nk_message::VERSION_0, "a", "b");
    EXPECT_EQ(rsp.getJson(), "{}");

    tJson j;
    ASSERT_TRUE(j.parse("{\"action\":\"time\",\"type\":\"request\",\"tv\":1,\"currentTime\":17}"));
    EXPECT_TRUE(time.serializeFromJson(&j));
    EXPECT_EQ(time.currentTime, 17u);
    // A missing member keeps the current value.
    ASSERT_TRUE(j.parse("{\"action\":\"time\",\"type\":\"request\",\"tv\":2}"));
    EXPECT_TRUE(time.serializeFromJson(&j));
    EXPECT_EQ(time.currentTime, 17u);

    char const* refused[] = {
        "{\"action\":\"time\",\"type\":\"response\",\"tv\":1,\"currentTime\":5}",
        "{\"action\":\"time\",\"type\":\"request\",\"tv\":0,\"currentTime\":5}",
        "{\"action\":\"time\",\"type\":\"request\",\"currentTime\":5}",
        "{\"action\":\"shutdown\",\"type\":\"request\",\"tv\":1,\"currentTime\":5}",
    };
    for (char const* text : refused) {
        ASSERT_TRUE(j.parse(text));
        EXPECT_FALSE(time.serializeFromJson(&j)) << text;
        EXPECT_EQ(time.currentTime, 17u);
    }
    EXPECT_FALSE(time.serializeFromJson(nullptr));
    EXPECT_FALSE(time.serializeToJson(nullptr));

    ASSERT_TRUE(j.parse("{\"action\":\"shutdown\",\"type\":\"request\",\"tv\":1}"));
    EXPECT_TRUE(shutdown.serializeFromJson(&j));
    ASSERT_TRUE(j.parse("{\"action\":\"shutdown\",\"type\":\"request\"}"));
    EXPECT_FALSE(shutdown.serializeFromJson(&j));

    // The generic reader takes anything, even null, and changes nothing.
    nk_messageGenericReq req(nk_message::VERSION_0, "x", "y");
    EXPECT_TRUE(req.serializeFromJson(nullptr));
    EXPECT_TRUE(req.serializeFromJson(&j));
    EXPECT_EQ(req.text1, "x");
    tJson untouched;
    untouched.addInt("keep", 1);
    EXPECT_TRUE(req.serializeToJson(&untouched));
    EXPECT_EQ(untouched.getJson(false), "{\"keep\":1}");
}

TEST(MessageServices, IdSetChecksumAndLogHook)
{
    EXPECT_EQ(nk_message::vectorU64Checksum({5, 3, 5}).str(), sha1Of("35"));
    EXPECT_EQ(nk_message::vectorU64Checksum({3, 5}), nk_message::vectorU64Checksum({5, 3, 5}));
    EXPECT_EQ(nk_message::vectorU64Checksum({}).str(), sha1Of(""));
    EXPECT_EQ(nk_message::vectorU64Checksum({1, 23}), nk_message::vectorU64Checksum({123}));
    EXPECT_EQ(nk_message::vectorU64Checksum({18446744073709551615ull, 0}).str(), sha1Of("018446744073709551615"));

    static std::string seen;
    nk_message::log("dropped %d", 1);  // no hook yet: nothing happens
    nk_message::registerLog([](char const* format, va_list args) {
        char buf[64];
        std::vsnprintf(buf, sizeof buf, format, args);
        seen = buf;
    });
    nk_message::log("value %d and %s", 42, "text");
    EXPECT_EQ(seen, "value 42 and text");
    nk_message::log(nullptr);
    nk_message::registerLog(nullptr);
    nk_message::log("after %d", 2);
    EXPECT_EQ(seen, "value 42 and text");
}
