#include <gtest/gtest.h>

#include "test_helpers.h"

#include <memory>
#include <sstream>
#include <vector>

#include "nk_messageDisplayConfiguration.h"

namespace
{
using tRsp = nk_messageGetDisplayConfigurationRsp;



std::unique_ptr<tRsp> parse(std::vector<unsigned char> const& bytes)
{
    tBlob blob(bytes.data(), static_cast<unsigned int>(bytes.size()));
    std::unique_ptr<nk_message> msg(nk_message::getMessage(&blob));
    auto* typed = dynamic_cast<tRsp*>(msg.get());
    if (typed) msg.release();
    return std::unique_ptr<tRsp>(typed);
}

void fill(tRsp& rsp)
{
    rsp.set("D", -90);
    rsp.addDisplayConfiguration("C", 1, true)->addLogicalDisplay("L", 2, 800, 480, false, 10, 20);
}

char const* const kV0 = "08 00 00 00  01 00  01 00 00 00 44  A6  01 00 00 00 43  01 80  01 00 "
                        " 01 00 00 00 4C  02 00  20 03  E0 01";
}

TEST(DisplayConfiguration, IdWordPackingAndSearch)
{
    tRsp::tLogicalDisplay a("a", 5, 1, 1, true, 0, 0);
    tRsp::tLogicalDisplay b("b", 32773, 1, 1, false, 0, 0);
    for (auto* d : {&a, &b}) {
        EXPECT_EQ(d->id(), 5);
        EXPECT_TRUE(d->isCurrent());
        EXPECT_EQ(d->idWord(), 32773);
    }

    tRsp rsp(nk_message::VERSION_1);
    tRsp::tDisplayConfiguration* config = rsp.addDisplayConfiguration("c", 5, true);
    EXPECT_EQ(rsp.getDisplayConfigurationById(32773), nullptr);
    EXPECT_EQ(rsp.getDisplayConfigurationById(5), config);
    EXPECT_EQ(rsp.getDisplayConfiguration(1), nullptr);

    tRsp::tLogicalDisplay* first = config->addLogicalDisplay("x", 3, 1, 1, false, 0, 0);
    config->addLogicalDisplay("y", 3, 2, 2, true, 0, 0);
    EXPECT_EQ(config->logicalDisplayCount(), 2);
    EXPECT_EQ(config->getLogicalDisplayById(3), first);
    EXPECT_EQ(config->getLogicalDisplayById(3 | 0x8000), nullptr);
    EXPECT_EQ(config->getLogicalDisplay(2), nullptr);
    config->clear();
    EXPECT_EQ(config->logicalDisplayCount(), 0);
}

TEST(DisplayConfiguration, BodyPerRevision)
{
    tRsp v0(nk_message::VERSION_0), v1(nk_message::VERSION_1);
    fill(v0);
    fill(v1);
    EXPECT_EQ(wire(v0), hex(kV0));
    auto expected1 = hex(kV0);
    expected1[2] = 0x01;
    for (unsigned char b : {0x0A, 0x00, 0x14, 0x00}) expected1.push_back(b);  // left, top
    EXPECT_EQ(wire(v1), expected1);

    auto back0 = parse(hex(kV0));
    ASSERT_NE(back0, nullptr);
    EXPECT_EQ(back0->name(), "D");
    EXPECT_EQ(back0->rot(), -90);
    ASSERT_NE(back0->getDisplayConfiguration(0), nullptr);
    EXPECT_TRUE(back0->getDisplayConfiguration(0)->isCurrent());
    tRsp::tLogicalDisplay* d0 = back0->getDisplayConfiguration(0)->getLogicalDisplay(0);
    ASSERT_NE(d0, nullptr);
    EXPECT_EQ(d0->pixelX(), 800);
    EXPECT_EQ(d0->left(), 0);
    EXPECT_EQ(d0->top(), 0);
    EXPECT_EQ(wire(*back0), hex(kV0));

    auto back1 = parse(expected1);
    ASSERT_NE(back1, nullptr);
    tRsp::tLogicalDisplay* d1 = back1->getDisplayConfigurationById(1)->getLogicalDisplayById(2);
    ASSERT_NE(d1, nullptr);
    EXPECT_EQ(d1->left(), 10);
    EXPECT_EQ(d1->top(), 20);
    EXPECT_FALSE(d1->isCurrent());
    EXPECT_EQ(wire(*back1), expected1);

    // Cut inside the logical display: the configuration stays, the display does not.
    auto cut = expected1;
    cut.resize(cut.size() - 1);
    auto partial = parse(cut);
    ASSERT_NE(partial, nullptr);
    ASSERT_EQ(partial->displayConfigurationCount(), 1);
    EXPECT_EQ(partial->getDisplayConfiguration(0)->logicalDisplayCount(), 0);

    // A forged count reads what is there and stops.
    auto forged = parse(hex("08 00 01 00  FF FF  00 00 00 00  00"));
    ASSERT_NE(forged, nullptr);
    EXPECT_EQ(forged->displayConfigurationCount(), 0);
}

TEST(DisplayConfiguration, JsonFormsAndReaders)
{
    tRsp rsp(nk_message::VERSION_0);
    fill(rsp);
    char const* const text = R"({"action":"displayConfig","type":"response","tv":1,"name":"D","rot":-90,)"
                             R"("dispConfigs":[{"name":"C","id":32769,"logDisps":[{"name":"L","id":2,"w":800,)"
                             R"("h":480,"l":10,"t":20}]}]})";
    EXPECT_EQ(rsp.getJson(), text);

    tJson json;
    ASSERT_TRUE(json.parse(text));
    tRsp reader(nk_message::VERSION_1);
    reader.set("old", 7);
    reader.addDisplayConfiguration("gone", 9, false);
    ASSERT_TRUE(reader.serializeFromJson(&json));
    EXPECT_EQ(reader.getJson(), text);
    EXPECT_EQ(reader.rot(), -90);
    EXPECT_EQ(reader.getDisplayConfigurationById(9), nullptr);
    ASSERT_NE(reader.getDisplayConfigurationById(1), nullptr);
    EXPECT_TRUE(reader.getDisplayConfigurationById(1)->isCurrent());

    // rot keeps its value when missing; tv 0 or the wrong type changes nothing.
    ASSERT_TRUE(json.parse(R"({"action":"displayConfig","type":"response","tv":1,"name":"E"})"));
    ASSERT_TRUE(reader.serializeFromJson(&json));
    EXPECT_EQ(reader.rot(), -90);
    EXPECT_EQ(reader.displayConfigurationCount(), 0);
    ASSERT_TRUE(json.parse(R"({"action":"displayConfig","type":"response","tv":0,"name":"F"})"));
    EXPECT_FALSE(reader.serializeFromJson(&json));
    ASSERT_TRUE(json.parse(R"({"action":"displayConfig","type":"request","tv":1,"name":"F"})"));
    EXPECT_FALSE(reader.serializeFromJson(&json));
    EXPECT_EQ(reader.name(), "E");

    nk_messageGetDisplayConfigurationReq req(nk_message::VERSION_0);
    EXPECT_EQ(wire(req), hex("07 00 00 00"));
    EXPECT_FALSE(req.serialize(nullptr, nk_serializer::SER_WRITE));
    EXPECT_EQ(req.getJson(), R"({"action":"displayConfig","type":"request","tv":1})");
    EXPECT_TRUE(req.serializeFromJson(&json));
    ASSERT_TRUE(json.parse(R"({"action":"displayConfig","type":"request"})"));
    EXPECT_FALSE(req.serializeFromJson(&json));
}
