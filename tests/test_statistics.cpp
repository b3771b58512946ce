#include <gtest/gtest.h>

#include "test_helpers.h"

#include <memory>
#include <sstream>
#include <vector>

#include "nk_messageStatistics.h"

namespace
{


std::unique_ptr<nk_message> parse(std::vector<unsigned char> const& bytes)
{
    tBlob blob(bytes.data(), static_cast<unsigned int>(bytes.size()));
    return std::unique_ptr<nk_message>(nk_message::getMessage(&blob));
}
}

TEST(StatisticsRsp, EnergySplitSaturates)
{
    nk_messageStatisticsRsp rsp(nk_message::VERSION_0);
    EXPECT_EQ(rsp.energy_Wh(), 0u);
    rsp.set(0, 0.9999, 0, 0, 0, 0);
    EXPECT_EQ(rsp.energy_Wh(), 0u);
    EXPECT_EQ(rsp.energy_mWh(), 999u);
    rsp.set(0, -5, 0, 0, 0, 0);
    EXPECT_EQ(rsp.energy_Wh(), 0u);
    EXPECT_EQ(rsp.energy_mWh(), 0u);
    rsp.set(0, 5e9, 0, 0, 0, 0);
    EXPECT_EQ(rsp.energy_Wh(), 4294967295u);
    rsp.set(0, 12.3456, 0, 0, 0, 0);
    EXPECT_EQ(rsp.energy_Wh(), 12u);
    EXPECT_EQ(rsp.energy_mWh(), 345u);
    EXPECT_DOUBLE_EQ(rsp.energyConsumption_Wh(), 12.345);
}

TEST(StatisticsRsp, BodyIsTheSameInEveryVersion)
{
    char const* const body = "07 00 00 00  0C 00 00 00  59 01 00 00  EC FF  E8 03 00 00  2D 00  D0 07 00 00";
    for (unsigned short v = 0; v <= 3; ++v) {
        nk_messageStatisticsRsp rsp(static_cast<nk_message::teVersion>(v));
        rsp.set(7, 12.3456, -20, 1000, 45, 2000);
        auto expected = hex(body);
        expected.insert(expected.begin(), {0x0F, 0x00, static_cast<unsigned char>(v), 0x00});
        EXPECT_EQ(wire(rsp), expected);

        auto back = parse(expected);
        auto* typed = dynamic_cast<nk_messageStatisticsRsp*>(back.get());
        ASSERT_NE(typed, nullptr);
        EXPECT_EQ(typed->tempCaseMin(), -20);
        EXPECT_EQ(typed->tempCaseMaxTime(), 2000u);
        EXPECT_EQ(wire(*typed), expected);
    }

    // Cut after tempCaseMin: the four fields before the cut are replaced, the rest kept.
    nk_messageStatisticsRsp target(nk_message::VERSION_0);
    target.set(1, 2.002, 3, 4, 5, 6);
    auto cut = hex("07 00 00 00  0C 00 00 00  59 01 00 00  EC FF  E8 03 00");
    tBlob blob(cut.data(), static_cast<unsigned int>(cut.size()));
    nk_serializer reader(&blob);
    EXPECT_FALSE(target.serialize(&reader, nk_serializer::SER_READ));
    EXPECT_EQ(target.imgUpdateCount(), 7u);
    EXPECT_EQ(target.energy_Wh(), 12u);
    EXPECT_EQ(target.energy_mWh(), 345u);
    EXPECT_EQ(target.tempCaseMin(), -20);
    EXPECT_EQ(target.tempCaseMinTime(), 4u);
    EXPECT_EQ(target.tempCaseMax(), 5);
    EXPECT_FALSE(target.serialize(nullptr, nk_serializer::SER_WRITE));
}

TEST(StatisticsRsp, JsonFormAndWriteBackReader)
{
    nk_messageStatisticsRsp rsp(nk_message::VERSION_1);
    rsp.set(7, 12.3456, -20, 1000, 45, 2000);
    EXPECT_EQ(rsp.getJson(), R"({"action":"statistics","type":"response","tv":1,"imgUpdateCount":7,"energy_Wh":12,)"
                             R"("energy_mWh":345,"tempCaseMin":-20,"tempCaseMinTime":1000,"tempCaseMax":45,)"
                             R"("tempCaseMaxTime":2000})");

    tJson json;
    ASSERT_TRUE(json.parse(R"({"action":"statistics","type":"request","tv":1,"imgUpdateCount":99})"));
    EXPECT_FALSE(rsp.serializeFromJson(&json));
    EXPECT_EQ(rsp.imgUpdateCount(), 7u);

    // Only the update count is taken; the object read now holds the message's own values.
    ASSERT_TRUE(json.parse(R"({"action":"statistics","type":"response","tv":1,"imgUpdateCount":99,)"
                           R"("energy_Wh":1,"energy_mWh":2,"tempCaseMin":3,"tempCaseMinTime":4,"tempCaseMax":5,)"
                           R"("tempCaseMaxTime":6})"));
    ASSERT_TRUE(rsp.serializeFromJson(&json));
    EXPECT_EQ(rsp.imgUpdateCount(), 99u);
    EXPECT_EQ(rsp.energy_Wh(), 12u);
    EXPECT_EQ(rsp.tempCaseMin(), -20);
    EXPECT_EQ(json.getJson(false), R"({"action":"statistics","type":"response","tv":1,"imgUpdateCount":99,)"
                                   R"("energy_Wh":12,"energy_mWh":345,"tempCaseMin":-20,"tempCaseMinTime":1000,)"
                                   R"("tempCaseMax":45,"tempCaseMaxTime":2000})");

    ASSERT_TRUE(json.parse(R"({"action":"statistics","type":"response","tv":1})"));
    ASSERT_TRUE(rsp.serializeFromJson(&json));
    EXPECT_EQ(rsp.imgUpdateCount(), 99u);
}

TEST(StatisticsReq, EmptyBodyAndJson)
{
    nk_messageStatisticsReq req(nk_message::VERSION_2);
    EXPECT_TRUE(req.serialize(nullptr, nk_serializer::SER_READ));
    EXPECT_EQ(wire(req), hex("0E 00 02 00"));
    auto back = parse(hex("0E 00 02 00"));
    ASSERT_NE(dynamic_cast<nk_messageStatisticsReq*>(back.get()), nullptr);
    EXPECT_EQ(req.getJson(), R"({"action":"statistics","type":"request","tv":1})");
    tJson json;
    ASSERT_TRUE(json.parse(req.getJson()));
    EXPECT_TRUE(req.serializeFromJson(&json));
    ASSERT_TRUE(json.parse(R"({"action":"statistics","type":"request","tv":0})"));
    EXPECT_FALSE(req.serializeFromJson(&json));
}
