#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "SHA1.h"
#include "nk_messageSetConfig.h"

namespace
{
using Bytes = std::vector<unsigned char>;

Bytes bytesOf(tBlob const& b) { return Bytes(b.getBuffer(), b.getBuffer() + b.size()); }

Bytes body(nk_message& m)
{
    nk_serializer s;
    EXPECT_TRUE(m.serialize(&s, nk_serializer::SER_WRITE));
    return bytesOf(s);
}

std::unique_ptr<nk_message> throughFactory(nk_message& m)
{
    nk_serializer s;
    EXPECT_TRUE(m.serializeMsg(&s));
    return std::unique_ptr<nk_message>(nk_message::getMessage(&s));
}

const long long s_midnight = 19000LL * 86400;  // some UTC midnight

tTime at(unsigned int h, unsigned int m, unsigned int s) { return tTime(s_midnight + h * 3600 + m * 60 + s); }

std::string sha1sumOf(std::string const& text)
{
    std::string path = testing::TempDir() + "nk_config_checksum.txt";
    std::ofstream(path, std::ios::binary) << text;
    FILE* p = popen(("sha1sum " + path).c_str(), "r");
    char out[41] = {};
    if (p == nullptr || std::fread(out, 1, 40, p) != 40) out[0] = 0;
    if (p) pclose(p);
    return out;
}

void fill(nk_messageSetConfigReq& c)
{
    c.updateTime = 3600;
    c.minUpdateTemp = -5;
    c.opMode = 2;
    c.sleep_setUserEnabled(true);
    c.device_setName("lobby");
    c.timeSlot_add_ts("day", 28800, 36000, true, false);
    c.frm_change_ts("news", 1, 2, 300, 200, 0, 4, 30);
}
}

TEST(TimeSlots, ActivityAndTimeUntilNextSlot)
{
    tTimeSlot morning("m", 28800, 36000, true, true);
    EXPECT_EQ(morning.activity(), 3u);
    morning.setActivity(false, true);
    EXPECT_EQ(morning.activity(), 2u);
    tTime end = at(10, 0, 0), after = at(10, 0, 1), start = at(8, 0, 0), before = at(7, 59, 0), late = at(10, 30, 0);
    EXPECT_TRUE(morning.activeAtTime(&end));
    EXPECT_FALSE(morning.activeAtTime(&after));
    EXPECT_EQ(morning.delayToStart(&before), 60u);
    EXPECT_EQ(morning.delayToStart(&late), 77400u);
    EXPECT_EQ(morning.delayToStart(&start), 0xFFFFFFFFu);
    EXPECT_TRUE(morning.activeAtTime(&start));
    EXPECT_EQ(morning.delayToStart(nullptr), 0xFFFFFFFFu);

    nk_messageSetConfigReq c(nk_message::VERSION_3);
    EXPECT_EQ(c.timeSlot_durationToNextTimeSlotFromTime_sec_ts(start), 0u);  // empty list
    c.timeSlot_add_ts("night", 79200, 21600, true, false);                     // never active
    tTime eleven = at(23, 0, 0);
    EXPECT_EQ(c.timeSlot_durationToNextTimeSlotFromTime_sec_ts(eleven), 82800u);
    c.timeSlot_clear_ts();
    c.timeSlot_add_ts("a", 32400, 34200, 1u);
    c.timeSlot_add_ts("b", 43200, 46800, 1u);
    tTime ten = at(10, 0, 0);
    EXPECT_EQ(c.timeSlot_durationToNextTimeSlotFromTime_sec_ts(ten), 7200u);
    tTime nearMidnight = at(23, 59, 50);  // next start is tomorrow's 09:00
    EXPECT_EQ(c.timeSlot_durationToNextTimeSlotFromTime_sec_ts(nearMidnight), 32410u);
    tTime atStart = at(9, 0, 0);
    EXPECT_EQ(c.timeSlot_durationToNextTimeSlotFromTime_sec_ts(atStart), 0u);

    tTimeslots list;
    list.add("x", 1, 2, 0u);
    list.remove(5);
    EXPECT_EQ(list.count(), 1u);
    list.remove(0);
    EXPECT_EQ(list.count(), 0u);
    EXPECT_EQ(list.get(0), nullptr);
}

TEST(Frames, IdsAreChosenKeptAndUpdated)
{
    nk_messageSetConfigReq c(nk_message::VERSION_3);
    EXPECT_EQ(c.getNewFrameId(500), 500);
    c.frm_change_ts("a", 0, 0, 10, 10, 0, 0, 1);
    c.frm_change_ts("b", 0, 0, 10, 10, 3, 0, 1);
    c.frm_change_ts("c", 0, 0, 10, 10, 42, 0, 1);
    c.frm_change_ts("c2", 5, 0, 10, 10, 42, 1, 2);  // updates 42
    EXPECT_EQ(c.frm_getListOfFrameIds(), (std::vector<int>{10, 11, 42}));
    tFrame f;
    ASSERT_TRUE(c.frm_getById(42, &f));
    EXPECT_EQ(f.name(), "c2");
    EXPECT_EQ(f.left(), 5);
    EXPECT_EQ(c.getNewFrameId(3), c.getNewFrameId(10));
    EXPECT_EQ(c.getNewFrameId(3), 12);
    EXPECT_EQ(c.getNewFrameId(42), 43);
    tFrame missing = c.frm_get(7);
    EXPECT_EQ(missing.width(), 64);
    EXPECT_EQ(missing.height(), 64);
    EXPECT_EQ(missing.realtimeTimeout(), 120);
    EXPECT_EQ(missing.id(), 0);
    EXPECT_FALSE(c.frm_remove(99));
    EXPECT_TRUE(c.frm_remove(11));
    EXPECT_EQ(c.frm_count(), 2);
    EXPECT_FALSE(c.frame_get_ts(2, &f));
    EXPECT_FALSE(c.frm_getById(42, nullptr));
}

namespace
{
// Every stored frame as "id:name", in list order.
std::vector<std::string> framesOf(nk_messageSetConfigReq const& c)
{
    std::vector<std::string> out;
    tFrame f;
    for (unsigned int i = 0; c.frame_get_ts(i, &f); ++i) out.push_back(std::to_string(f.id()) + ":" + f.name().c_str());
    return out;
}
}

TEST(Frames, BulkReadsFollowTheRulesOfOneChangeAtATime)
{
    std::mt19937 rng(3);
    for (int round = 0; round < 100; ++round) {
        // Ids below 10 ask for a fresh one; a few ids from 10 up collide with fresh ones and
        // with each other, so updates and fresh ids interleave.
        std::vector<tFrame> frames;
        for (unsigned i = 0, n = rng() % 40; i < n; ++i) {
            unsigned short id = static_cast<unsigned short>(rng() % 2 ? rng() % 10 : 10 + rng() % 20);
            frames.emplace_back(("f" + std::to_string(i)).c_str(), i, 0, 10, 10, id, 1, 5);
        }
        nk_messageSetConfigReq reference(nk_message::VERSION_3);
        tJson json;
        json.addString("action", "config");
        json.addString("type", "request");
        json.addInt("tv", 3);
        nk_messageSetConfigReq empty(nk_message::VERSION_3);
        Bytes wire = body(empty);
        wire.resize(wire.size() - 4);  // the frame count of an empty list
        nk_serializer framesBody;
        unsigned int count = static_cast<unsigned int>(frames.size());
        framesBody.u32(count, nk_serializer::SER_WRITE);
        for (tFrame f : frames) {
            reference.frm_change_ts(f.name(), f.left(), f.top(), f.width(), f.height(), f.id(), f.logDisp(),
                                    f.realtimeTimeout());
            tJson o;
            o.addString("name", f.name());
            o.addInt("left", f.left());
            o.addInt("width", 10);
            o.addInt("height", 10);
            o.addInt("id", f.id());
            o.addInt("logDisp", 1);
            o.addInt("realtimeTimeout", 5);
            json.addToArray("frames", o);
            tString name = f.name();
            unsigned short left = f.left(), top = 0, w = 10, h = 10, id = f.id(), logDisp = 1, timeout = 5;
            framesBody.string(name, nk_serializer::SER_WRITE);
            for (unsigned short* v : {&left, &top, &w, &h, &id, &logDisp, &timeout}) framesBody.u16(*v, nk_serializer::SER_WRITE);
        }
        Bytes framesBytes = bytesOf(framesBody);
        wire.insert(wire.end(), framesBytes.begin(), framesBytes.end());

        nk_serializer in;
        in.append(wire.data(), static_cast<unsigned int>(wire.size()));
        nk_messageSetConfigReq fromWire(&in, nk_message::VERSION_3);
        nk_messageSetConfigReq fromJson(nk_message::VERSION_3);
        ASSERT_TRUE(fromJson.serializeFromJson(&json));
        nk_messageSetConfigReq copied(nk_message::VERSION_3);
        copied.frm_change_ts("old", 0, 0, 1, 1, 10, 0, 0);  // replaced by the copy
        copied.setConfigFrom(&reference);

        ASSERT_EQ(framesOf(fromWire), framesOf(reference)) << "round " << round;
        ASSERT_EQ(framesOf(fromJson), framesOf(reference)) << "round " << round;
        ASSERT_EQ(framesOf(copied), framesOf(reference)) << "round " << round;
    }

    // With every id from 10 up taken, a frame that asks for a fresh id is not stored.
    std::vector<tFrame> all;
    nk_messageSetConfigReq full(nk_message::VERSION_3);
    tJson json;
    json.addString("action", "config");
    json.addString("type", "request");
    json.addInt("tv", 3);
    for (unsigned int id = 10; id <= 0xFFFF; ++id) {
        tJson o;
        o.addInt("id", id % 2 ? 0 : id);  // half fresh, half given
        json.addToArray("frames", o);
    }
    tJson extra;
    json.addToArray("frames", extra);
    ASSERT_TRUE(full.serializeFromJson(&json));
    EXPECT_EQ(full.frm_count(), 65526);
    EXPECT_EQ(full.getNewFrameId(10), 0);
}

TEST(ConfigWire, DefaultBodyRevisionsAndFactory)
{
    nk_messageSetConfigReq v2(nk_message::VERSION_2);
    Bytes fixed = {0xD0, 0xB6, 0x00, 0x00, 0xEC, 0x03, 0x05, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00};
    Bytes expected = fixed;
    expected.insert(expected.end(), 8, 0x00);  // no slots, empty name
    EXPECT_EQ(body(v2), expected);
    nk_messageSetConfigReq v3(nk_message::VERSION_3);
    expected.insert(expected.end(), 4, 0x00);  // no frames
    EXPECT_EQ(body(v3), expected);

    // Slot: "day" 28800..36000 activity 1; name "lobby"; frame "news" gets id 10.
    Bytes slotAndName = {0x01, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 'd', 'a', 'y', 0x80, 0x70, 0x00, 0x00,
                         0xA0, 0x8C, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00, 'l', 'o', 'b', 'b', 'y'};
    Bytes frames = {0x01, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00, 0x00, 'n', 'e', 'w', 's', 0x01, 0x00, 0x02, 0x00,
                    0x2C, 0x01, 0xC8, 0x00, 0x0A, 0x00, 0x04, 0x00, 0x1E, 0x00};
    for (unsigned v = 0; v <= 3; ++v) {
        nk_messageSetConfigReq c(static_cast<nk_message::teVersion>(v));
        fill(c);
        Bytes b = body(c);
        EXPECT_EQ(b.size(), v < 3 ? 48u : 74u) << "version " << v;
        EXPECT_EQ(Bytes(b.begin() + 16, b.begin() + 48), slotAndName);
        if (v == 3) {
            EXPECT_EQ(Bytes(b.begin() + 48, b.end()), frames);
        }
        EXPECT_EQ(b[15], 0x01);  // sleep switch
        auto back = throughFactory(c);
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(back->type(), nk_message::SET_CONFIG_REQ);
        EXPECT_EQ(back->version(), v);
        EXPECT_EQ(body(*back), b);
        auto* cfg = static_cast<nk_messageSetConfigReq*>(back.get());
        EXPECT_EQ(cfg->frm_count(), v < 3 ? 0 : 1);
        EXPECT_EQ(cfg->device_getName(), "lobby");
    }

    // Two received frames with id 12: one frame, the second's values. Unused flag bits are
    // dropped. A body cut inside the slots keeps the defaults behind the cut.
    Bytes twice = fixed;
    twice[15] = 0xFE;
    Bytes tail = {0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0};
    twice.insert(twice.end(), tail.begin(), tail.end());
    for (unsigned char left = 1; left <= 2; ++left) {
        Bytes frame = {0, 0, 0, 0, left, 0, 0, 0, 9, 0, 9, 0, 12, 0, 0, 0, 5, 0};
        twice.insert(twice.end(), frame.begin(), frame.end());
    }
    nk_serializer in;
    in.append(twice.data(), static_cast<unsigned int>(twice.size()));
    nk_messageSetConfigReq got(&in, nk_message::VERSION_3);
    EXPECT_EQ(got.frm_getListOfFrameIds(), std::vector<int>{12});
    EXPECT_EQ(got.frm_get(0).left(), 2);
    EXPECT_FALSE(got.sleep_getUserEnabled());
    nk_serializer cut;
    Bytes shortBody = {0x10, 0x0E, 0x00, 0x00, 0xFB};
    cut.append(shortBody.data(), static_cast<unsigned int>(shortBody.size()));
    nk_messageSetConfigReq partial(&cut, nk_message::VERSION_3);
    EXPECT_EQ(partial.updateTime, 3600u);
    EXPECT_EQ(partial.minUpdateTemp, -5);
    EXPECT_EQ(partial.balanceTime, 3);
    EXPECT_EQ(partial.slideshowInterval_sec, 5);
}

TEST(ConfigJson, TextReaderRulesAndSetters)
{
    nk_messageSetConfigReq c(nk_message::VERSION_2);
    EXPECT_EQ(c.getJson(), "{\"action\":\"config\",\"type\":\"request\",\"tv\":1,\"updateTime\":46800,\"minUpdateTemp\":-20,"
                           "\"balanceTime\":3,\"updateTemp\":5,\"opMode\":0,\"heatMode\":1,\"curDispSwCfg\":0,"
                           "\"defaultLogicalDisplay\":0,\"slideshowInterval_sec\":5,\"sleepUserEna\":false,\"deviceName\":\"\"}");
    fill(c);
    tString text = c.getJson();  // the frames are in the JSON form whatever the version
    EXPECT_NE(text.str().find("\"timeslots\":[{\"name\":\"day\",\"start\":28800,\"stop\":36000,\"activity\":1}]"),
              std::string::npos);
    EXPECT_NE(text.str().find("\"frames\":[{\"name\":\"news\",\"left\":1,\"top\":2,\"width\":300,\"height\":200,\"id\":10,"
                              "\"logDisp\":4,\"realtimeTimeout\":30}]"),
              std::string::npos);

    tJson json;
    ASSERT_TRUE(json.parse(text));
    nk_messageSetConfigReq r(nk_message::VERSION_3);
    ASSERT_TRUE(r.serializeFromJson(&json));
    EXPECT_EQ(r.getJson(), text);

    tJson partial;
    ASSERT_TRUE(partial.parse("{\"action\":\"config\",\"type\":\"request\",\"tv\":1,\"minUpdateTemp\":200,"
                              "\"slideshowInterval_sec\":2}"));
    ASSERT_TRUE(r.serializeFromJson(&partial));
    EXPECT_EQ(r.minUpdateTemp, -56);  // cut to 8-bit two's complement
    EXPECT_EQ(r.slideshowInterval_sec, 2);
    EXPECT_EQ(r.updateTime, 3600u);  // missing: kept
    EXPECT_TRUE(r.sleep_getUserEnabled());
    EXPECT_EQ(r.timeSlot_count_ts(), 0u);  // lists are rebuilt from what is there
    EXPECT_EQ(r.frm_count(), 0);
    EXPECT_EQ(r.device_getName(), "");

    for (char const* refused : {"{\"action\":\"config\",\"type\":\"response\",\"tv\":1,\"updateTime\":1}",
                                "{\"action\":\"state\",\"type\":\"request\",\"tv\":1,\"updateTime\":1}",
                                "{\"action\":\"config\",\"type\":\"request\",\"updateTime\":1}",
                                "{\"action\":\"config\",\"type\":\"request\",\"tv\":0,\"updateTime\":1}"}) {
        ASSERT_TRUE(json.parse(refused));
        EXPECT_FALSE(c.serializeFromJson(&json)) << refused;
        EXPECT_EQ(c.updateTime, 3600u);
    }
    EXPECT_FALSE(c.serializeFromJson(nullptr));

    c.setSlideShowInterval_s(2);
    EXPECT_EQ(c.getSlideShowInterval_s(), 5);
    EXPECT_FALSE(c.device_setName("lobby"));
    EXPECT_TRUE(c.device_setName("hall"));
    c.opMode = 7;
    EXPECT_EQ(c.operatingModeName(), "invalid operating mode");
    c.heatMode = 0;
    EXPECT_EQ(c.heatingModeName(), "tempering");
}

TEST(ConfigChecksum, IsTheSha1OfTheJsonText)
{
    nk_messageSetConfigReq c(nk_message::VERSION_2);
    fill(c);
    std::string text = c.getJson().str();
    SHA1 sha;
    sha.Input(c.getJson());
    tString cs = c.checksum(nk_message::VERSION_2);
    EXPECT_EQ(cs, sha.Result());
    EXPECT_EQ(cs.str(), sha1sumOf(text));
    EXPECT_EQ(c.checksum(nk_message::VERSION_3), cs);
    EXPECT_EQ(c.version(), nk_message::VERSION_2);

    nk_messageSetConfigReq copy(nk_message::VERSION_3);
    copy.frm_change_ts("old", 0, 0, 1, 1, 77, 0, 1);
    copy.setConfigFrom(&c);
    EXPECT_EQ(copy.checksum(nk_message::VERSION_3), cs);
    EXPECT_EQ(copy.version(), nk_message::VERSION_3);
    copy.timeSlot_set_ts(0, tTimeSlot("day", 28800, 36001, 1u));
    EXPECT_NE(copy.checksum(nk_message::VERSION_3), cs);

    nk_messageSetConfigRsp rsp(nk_message::VERSION_0);
    EXPECT_EQ(body(rsp), Bytes(4, 0x00));
    rsp.setChecksum(cs);
    auto back = throughFactory(rsp);
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(static_cast<nk_messageSetConfigRsp*>(back.get())->getChecksum(), cs);
    EXPECT_EQ(rsp.getJson(), "{\"action\":\"config\",\"type\":\"response\",\"tv\":1,\"cs\":\"" + cs.str() + "\"}");
    tJson json;
    ASSERT_TRUE(json.parse("{\"action\":\"config\",\"type\":\"request\",\"tv\":1,\"cs\":\"x\"}"));
    EXPECT_FALSE(rsp.serializeFromJson(&json));
    EXPECT_EQ(rsp.getChecksum(), cs);
    ASSERT_TRUE(json.parse("{\"action\":\"config\",\"type\":\"response\",\"tv\":1}"));
    EXPECT_TRUE(rsp.serializeFromJson(&json));
    EXPECT_EQ(rsp.getChecksum(), "");
}
