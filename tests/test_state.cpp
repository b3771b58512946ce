#include <gtest/gtest.h>

#include "test_helpers.h"

#include <memory>
#include <sstream>
#include <vector>

#include "nk_messageState.h"

namespace
{


template <typename T>
std::unique_ptr<T> parse(std::vector<unsigned char> const& bytes)
{
    tBlob blob(bytes.data(), static_cast<unsigned int>(bytes.size()));
    std::unique_ptr<nk_message> msg(nk_message::getMessage(&blob));
    T* typed = dynamic_cast<T*>(msg.get());
    if (typed) msg.release();
    return std::unique_ptr<T>(typed);
}

// One response filled the same way for every revision; only the layout differs.
void fill(nk_messageStateRsp& rsp)
{
    rsp.set(1234, "A", "", "", 3, 4, "1", "", 5, "L", "P", "", {7});
    rsp.setFlags(1);
    rsp.setExtState(0x100);
    rsp.setMobileState(NK_MOBILE_RAN_4G, true);
}

char const* const kCommon = "D2 04 00 00  01 00 00 00 41  00 00 00 00  00 00 00 00  01 00 00 00 31  00 00 00 00 "
                            "03 00 00 00  04 00 00 00  05 00 00 00 ";
char const* const kTail = "01 00 00 00 50  00 00 00 00  01 00 00 00";
}

TEST(StateReq, WireJsonAndReader)
{
    nk_messageStateReq req(nk_message::VERSION_0);
    EXPECT_EQ(wire(req), hex("01 00 00 00  00  00 00 00 00"));
    req.setTaskNewName("ab");
    EXPECT_EQ(wire(req), hex("01 00 00 00  01  02 00 00 00 61 62"));
    EXPECT_EQ(req.getJson(), R"({"action":"state","type":"request","tv":1,"name":"ab","task":1})");

    auto back = parse<nk_messageStateReq>(wire(req));
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(back->task(), 1);
    EXPECT_EQ(back->newName(), "ab");

    nk_messageStateReq reader(nk_message::VERSION_0);
    tJson json;
    ASSERT_TRUE(json.parse(R"({"action":"state","type":"request","tv":0,"name":"x","task":1})"));
    EXPECT_FALSE(reader.serializeFromJson(&json));
    EXPECT_EQ(reader.task(), 0);
    ASSERT_TRUE(json.parse(R"({"action":"state","type":"response","tv":1,"name":"x"})"));
    EXPECT_FALSE(reader.serializeFromJson(&json));
    ASSERT_TRUE(json.parse(R"({"action":"state","type":"request","tv":1,"name":"x"})"));
    EXPECT_TRUE(reader.serializeFromJson(&json));
    EXPECT_EQ(reader.newName(), "x");
    EXPECT_EQ(reader.task(), 0);  // missing integer keeps its value
}

TEST(StateRsp, BodyPerRevision)
{
    nk_messageStateRsp v0(nk_message::VERSION_0), v1(nk_message::VERSION_1), v2(nk_message::VERSION_2);
    fill(v0);
    fill(v1);
    fill(v2);
    std::string const common = kCommon;
    // Version 0: legacy string, no images, no extState.
    EXPECT_EQ(wire(v0), hex(("02 00 00 00 " + common + "01 00 00 00 4C " + kTail).c_str()));
    // Version 1: images, no extState.
    EXPECT_EQ(wire(v1), hex(("02 00 01 00 " + common + kTail + " 01 00 00 00 07 00 00 00 00 00 00 00").c_str()));
    // Version 2: images and extState (bits 8 up kept, 4G active in the low byte).
    auto const bytes2 = hex(("02 00 02 00 " + common + kTail +
                             " 01 00 00 00 07 00 00 00 00 00 00 00  07 01 00 00 00 00 00 00").c_str());
    EXPECT_EQ(wire(v2), bytes2);

    for (nk_messageStateRsp* sent : {&v0, &v1, &v2}) {
        auto back = parse<nk_messageStateRsp>(wire(*sent));
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(back->version(), sent->version());
        EXPECT_EQ(wire(*back), wire(*sent));
        EXPECT_EQ(back->serial(), 1234u);
        EXPECT_EQ(back->second(), 4u);
        EXPECT_EQ(back->devName(), "P");
        EXPECT_EQ(back->legacy(), sent->version() == nk_message::VERSION_0 ? "L" : "");
        EXPECT_EQ(back->images().size(), sent->version() == nk_message::VERSION_0 ? 0u : 1u);
        EXPECT_EQ(back->extState(), sent->version() == nk_message::VERSION_2 ? 0x107u : 0u);
    }

    // A body cut inside the image list keeps what came before it.
    auto cut = bytes2;
    cut.resize(cut.size() - 12);
    auto partial = parse<nk_messageStateRsp>(cut);
    ASSERT_NE(partial, nullptr);
    EXPECT_EQ(partial->flags(), 1u);
    EXPECT_TRUE(partial->images().empty());
    EXPECT_EQ(partial->extState(), 0u);

    // A forged image count far beyond the bytes fails without allocating for it.
    auto forged = hex(("02 00 01 00 " + common + kTail + " FF FF FF FF 07 00 00 00 00 00 00 00").c_str());
    auto forgedMsg = parse<nk_messageStateRsp>(forged);
    ASSERT_NE(forgedMsg, nullptr);
    EXPECT_EQ(forgedMsg->images(), tUidList{7});
}

TEST(StateRsp, MobileStateAndImageQueries)
{
    nk_messageStateRsp rsp(nk_message::VERSION_2);
    rsp.setExtState(0xABCDEF0123456700ULL | 0xFF);
    rsp.setMobileState(NK_MOBILE_RAN_5G, true);
    EXPECT_EQ(rsp.extState(), 0xABCDEF012345670DULL);
    EXPECT_EQ(rsp.mobileRan(), NK_MOBILE_RAN_5G);
    EXPECT_TRUE(rsp.mobileActive());
    rsp.setMobileState(NK_MOBILE_RAN_5G, false);
    EXPECT_EQ(rsp.extState(), 0xABCDEF012345670CULL);
    EXPECT_FALSE(rsp.mobileActive());
    // A value outside the enumeration cannot reach bit 8.
    rsp.setMobileState(static_cast<teNkMobileRan>(0xFF), true);
    EXPECT_EQ(rsp.extState(), 0xABCDEF01234567FFULL);

    EXPECT_TRUE(rsp.imageUidsPresent({}));
    EXPECT_FALSE(rsp.imageUidPresent(7));
    rsp.set(0, "", "", "", 0, 0, "", "", 0, "", "", "", {7, 9});
    EXPECT_TRUE(rsp.imageUidPresent(9));
    EXPECT_TRUE(rsp.imageUidsPresent({9, 7}));
    EXPECT_FALSE(rsp.imageUidsPresent({7, 8}));
}

TEST(StateRsp, JsonFormAndReader)
{
    nk_messageStateRsp rsp(nk_message::VERSION_0);
    fill(rsp);
    EXPECT_EQ(rsp.getJson(), R"({"action":"state","type":"response","tv":1,"serial":1234,"ci":"A","csCfg":"","csSched":"",)"
                             R"("vc":"1","va":"","omc":3,"evc":5,"devName":"P","devCus":"","flags":1,)"
                             R"("images":[{"uid":7}],"extState":263})");

    // uids and extState above 2^63 travel unsigned; the second counter and legacy text do not travel.
    rsp.set(1, "", "", "", 2, 3, "", "", 4, "L", "", "", {0xFFFFFFFFFFFFFFFEULL});
    rsp.setExtState(0x8000000000000001ULL);
    tJson json;
    ASSERT_TRUE(json.parse(rsp.getJson()));
    nk_messageStateRsp reader(nk_message::VERSION_2);
    reader.setFlags(42);
    ASSERT_TRUE(reader.serializeFromJson(&json));
    EXPECT_EQ(reader.images(), tUidList{0xFFFFFFFFFFFFFFFEULL});
    EXPECT_EQ(reader.extState(), 0x8000000000000001ULL);
    EXPECT_EQ(reader.flags(), 1u);
    EXPECT_EQ(reader.second(), 0u);
    EXPECT_EQ(reader.legacy(), "");

    // Missing integers keep their values; the image list is rebuilt, a missing uid gives 0.
    ASSERT_TRUE(json.parse(R"({"action":"state","type":"response","tv":1,"images":[{"x":1},{"uid":5}]})"));
    ASSERT_TRUE(reader.serializeFromJson(&json));
    EXPECT_EQ(reader.serial(), 1u);
    EXPECT_EQ(reader.extState(), 0x8000000000000001ULL);
    EXPECT_EQ(reader.images(), (tUidList{0, 5}));

    ASSERT_TRUE(json.parse(R"({"action":"state","type":"response","serial":9})"));
    EXPECT_FALSE(reader.serializeFromJson(&json));
    EXPECT_EQ(reader.serial(), 1u);
    EXPECT_FALSE(reader.serializeFromJson(nullptr));
    EXPECT_FALSE(rsp.serializeToJson(nullptr));
}
