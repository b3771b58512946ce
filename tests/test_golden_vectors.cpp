// Golden vectors: the bytes and texts that peers see, for fixed messages, frames and support
// formats, compared with tests/golden/vectors.txt. The file is written by a 64-bit build
// (NK_GOLDEN_WRITE=1 rewrites it) and the 32-bit ARM build must match it byte for byte, so a
// 64-bit field cut to `long` or `size_t` anywhere shows up here. Values are chosen to fill
// 64-bit fields (ids with the top bit set, negative start times, times past 2038).
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "nkProtocol.h"

namespace
{
typedef nk_message M;

const unsigned long long kBigId = 0xFEDCBA9876543210ull;
const unsigned long long kTopBit = 0x8000000000000000ull;
const long long kBefore1900 = -2208988800ll - 86400;  // 1899-12-31 00:00:00 UTC
const long long kYear2100 = 4102444800ll;            // 2100-01-01 00:00:00 UTC
const unsigned int kStamp = 0xF0000001u;             // frame time stamp, never the clock

std::string golden_path() { return std::string(NK_SOURCE_DIR) + "/tests/golden/vectors.txt"; }

std::string hex(unsigned char const* p, unsigned int n)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(2 * n);
    for (unsigned int i = 0; i < n; ++i) {
        s += digits[p[i] >> 4];
        s += digits[p[i] & 15];
    }
    return s;
}
std::string hex(tBlob const& b) { return hex(b.getBuffer(), b.size()); }
std::string hex(tString const& t) { return hex(reinterpret_cast<unsigned char const*>(t.data()), t.length()); }

tBlob blobOf(std::string const& s) { return tBlob(reinterpret_cast<unsigned char const*>(s.data()), static_cast<unsigned int>(s.size())); }

// A sample with runs, text and every byte value, so both codecs take their real paths.
tBlob codecSample()
{
    std::string s(40, 'A');
    s += "the quick brown fox jumps over the lazy dog; THE QUICK BROWN FOX";
    for (int i = 0; i < 256; ++i) s += static_cast<char>(i);
    s += std::string(300, '\0');
    return blobOf(s);
}

typedef std::vector<std::pair<std::string, std::string>> Vectors;

class Collector
{
public:
    void add(std::string const& name, std::string const& hexBytes) { m_vectors.emplace_back(name, hexBytes); }
    void addText(std::string const& name, tString const& text) { add(name, hex(text)); }
    Vectors const& vectors() const { return m_vectors; }

    // The message as sent, its compact JSON text and a check that the factory reads back
    // exactly what was written (64-bit fields included) on this build.
    void addMessage(std::string const& name, M& msg, bool withJson)
    {
        nk_serializer ser;
        ASSERT_TRUE(msg.serializeMsg(&ser)) << name;
        add(name, hex(ser));
        std::unique_ptr<M> back(M::getMessage(&ser));
        ASSERT_TRUE(back) << name;
        nk_serializer again;
        ASSERT_TRUE(back->serializeMsg(&again)) << name;
        EXPECT_EQ(hex(again), hex(ser)) << name << " does not survive the factory";
        if (withJson) addText(name + ".json", msg.getJson());
    }

private:
    Vectors m_vectors;
};

void supportVectors(Collector& c)
{
    tBlob all;
    for (int i = 0; i < 256; ++i) all.append(static_cast<unsigned char>(i));

    std::vector<unsigned char> enc(base128::encodedSize(all.size()));
    base128::encode(enc.data(), all.getBuffer(), all.size());
    c.add("base128.all_bytes", hex(enc.data(), static_cast<unsigned int>(enc.size())));
    std::vector<unsigned char> dec(base128::decodedSize(static_cast<unsigned int>(enc.size())));
    base128::decode(dec.data(), enc.data(), static_cast<unsigned int>(enc.size()));
    EXPECT_EQ(hex(dec.data(), static_cast<unsigned int>(dec.size())), hex(all));

    unsigned char crcs[] = {crc_crc8init(reinterpret_cast<unsigned char const*>("123456789"), 9),
                            crc_crc8init(all.getBuffer(), all.size())};
    c.add("crc8.check_and_all_bytes", hex(crcs, 2));

    tBlob sample = codecSample();
    tBlob rle = tCompression::encodeRLE(sample);
    tBlob huffman = tCompression::encodeHuffman(sample);
    c.add("rle.sample", hex(rle));
    c.add("huffman.sample", hex(huffman));
    EXPECT_EQ(hex(tCompression::decodeRLE(rle)), hex(sample));
    EXPECT_EQ(hex(tCompression::decodeHuffman(huffman)), hex(sample));

    SHA1 sha;
    sha.Input(reinterpret_cast<unsigned char const*>("abc"), 3);
    c.addText("sha1.abc", sha.Result());
    sha.Input(sample.getBuffer(), sample.size());
    c.addText("sha1.sample", sha.Result());
    c.addText("base64.all_bytes", base64::encode(all.getBuffer(), all.size()));

    tJson json;
    json.addString("name", tString("Gr\xC3\xBC\xC3\x9F" "e \"quoted\"\n"));
    json.addUInt("u64", kBigId);
    json.addInt("i64", static_cast<long long>(kTopBit));
    json.addInt("start", kBefore1900);
    json.addBool("on", true);
    json.addBinary("bin", tBlob(all.getBuffer(), 40));
    tStringList list;
    list.add("a");
    list.add(tString("b\0c", 3));
    json.addStringArray("list", list);
    tJson inner;
    inner.addUInt("id", 0xFFFFFFFFFFFFFFFFull);
    json.addToArray("items", inner);
    json.addToArray("items", inner);
    tString text = json.getJson(false);
    c.addText("json.compact", text);
    tJson parsed;
    ASSERT_TRUE(parsed.parse(text));
    EXPECT_EQ(parsed.getUInt("u64"), kBigId);
    EXPECT_EQ(parsed.getInt("i64"), static_cast<long long>(kTopBit));
    EXPECT_EQ(parsed.getInt("start"), kBefore1900);

    c.addText("string.decimal", tString::fromUInt64(kBigId) + " " + tString::fromInt64(static_cast<long long>(kTopBit)) +
                                    " " + tString::fromInt64(tString("-9223372036854775807").toIntDef(0)));

    // Calendar arithmetic beyond 2038 and before 1970, where a 32-bit time_t would fail.
    tString calendar;
    for (long long t : {kYear2100 + 45296, kBefore1900 + 3723, -1ll, 0x7FFFFFFFll + 1}) {
        tTime tm(t);
        calendar = calendar + tString::format("%d-%02d-%02d %02d:%02d:%02d %u;", tm.getYear(), tm.getMonth(),
                                              tm.getMDay(), tm.getHour(), tm.getMinute(), tm.getSecond(),
                                              tm.dayTimeSeconds());
    }
    tTime set(0);
    set.year(2106);
    set.month(2);
    set.mDay(7);
    set.hour(6);
    set.minute(28);
    set.second(16);
    calendar = calendar + tString::fromInt64(set.timeSec());
    c.addText("time.calendar", calendar);

    nk_serializer ser;
    unsigned long long u64 = kBigId;
    short i16 = -2;
    unsigned int u32 = 0xFFFFFFFEu;
    tString str("a\0b", 3);
    tBlob blob = blobOf("xyz");
    ASSERT_TRUE(ser.u64(u64, nk_serializer::SER_WRITE) && ser.i16(i16, nk_serializer::SER_WRITE) &&
                ser.u32(u32, nk_serializer::SER_WRITE) && ser.string(str, nk_serializer::SER_WRITE) &&
                ser.blob(blob, nk_serializer::SER_WRITE));
    c.add("serializer.fields", hex(ser));
    unsigned long long u64Back = 0;
    ASSERT_TRUE(ser.u64(u64Back, nk_serializer::SER_READ));
    EXPECT_EQ(u64Back, kBigId);

    c.addText("checksum.u64_values", M::vectorU64Checksum({kBigId, 23, 1, kTopBit, 23}));
}

nk_messageSetConfigReq* makeConfig(M::teVersion v)
{
    auto* cfg = new nk_messageSetConfigReq(v);
    cfg->updateTime = 86399;
    cfg->minUpdateTemp = -40;
    cfg->balanceTime = 255;
    cfg->updateTemp = -1;
    cfg->opMode = 3;
    cfg->heatMode = 0;
    cfg->setDisplaySwConfiguration(0x8001);
    cfg->setDefaultLogicalDisplay(7);
    cfg->setSlideShowInterval_s(65535);
    cfg->device_setName("Platform 3 \xE2\x86\x92 north");
    cfg->sleep_setUserEnabled(true);
    cfg->timeSlot_add_ts("night", 79200, 86399, true, false);
    cfg->timeSlot_add_ts("flags", 3600, 7200, 0xFFFFFFF2u);
    cfg->frm_change_ts("ticker", 0, 1000, 1920, 80, 10, 1, 65535);
    cfg->frm_change_ts("clock", 1800, 0, 120, 60, 65535, 2, 0);
    return cfg;
}

nk_messageSetSchedulesReq* makeSchedules(M::teVersion v)
{
    auto* set = new nk_messageSetSchedulesReq(v);
    nk_messageSchedule* s = set->addSchedule_(kBigId, "morning", kBefore1900, kYear2100, 0xA500000Fu, 0xFFFF);
    s->addScheduleEntry(0xFFFFFFFFFFFFFFFFull, "first", 4000000000u, kBigId, false);
    s->addScheduleEntry(kTopBit, "", 0, 0, true);
    nk_messageSchedule* t = set->addSchedule_(2, "evening", -1, static_cast<long long>(kTopBit), 6, 1);
    t->addScheduleEntry(3, "only", 60, kTopBit | 42, false);
    return set;
}

void messageVectors(Collector& c)
{
    for (unsigned short vi = 0; vi <= 3; ++vi) {
        const M::teVersion v = static_cast<M::teVersion>(vi);
        const std::string sfx = ".v" + std::to_string(vi);
        const bool json = vi == 3;

        nk_messageTime time(v);
        time.currentTime = 0xFEDCBA98u;
        c.addMessage("TIME" + sfx, time, json);

        nk_messageShutdown shutdown(v);
        c.addMessage("SHUTDOWN" + sfx, shutdown, json);

        nk_messageGenericReq greq(v, tString("key\0with nul", 12), "Gr\xC3\xBC\xC3\x9F" "e");
        c.addMessage("GENERIC_REQ" + sfx, greq, json);
        nk_messageGenericRsp grsp(v, "", tString(std::string(40, 'x').c_str()));
        c.addMessage("GENERIC_RSP" + sfx, grsp, json);

        nk_messageStateReq sreq(v);
        sreq.setTaskNewName("Lobby S\xC3\xBC" "d");
        c.addMessage("STATE_REQ" + sfx, sreq, json);

        nk_messageStateRsp srsp(v);
        srsp.set(0xFFFFFFFFu, "ci-1", "a9993e364706816aba3e25717850c26c9cd0d89d", "", 4000000000u, 59, "vc 1.2",
                 "va 3.4", 0x80000000u, "legacy", "Dev \xC3\xA9", "customer", {kBigId, 1, kTopBit});
        srsp.setFlags(0x80000001u);
        srsp.setExtState(kBigId);
        srsp.setMobileState(NK_MOBILE_RAN_LTE_M, true);
        c.addMessage("STATE_RSP" + sfx, srsp, json);

        nk_messageStatisticsReq streq(v);
        c.addMessage("STATISTICS_REQ" + sfx, streq, json);
        nk_messageStatisticsRsp strsp(v);
        strsp.set(4000000000u, 1234.5, -40, 4000000001u, 85, 0xFFFFFFFFu);
        c.addMessage("STATISTICS_RSP" + sfx, strsp, json);

        nk_messageGetDisplayConfigurationReq dreq(v);
        c.addMessage("GET_DISPLAY_CONFIGURATION_REQ" + sfx, dreq, json);
        nk_messageGetDisplayConfigurationRsp drsp(v);
        drsp.set("Main", -90);
        auto* dc = drsp.addDisplayConfiguration("split", 1, true);
        dc->addLogicalDisplay("left", 1, 960, 1080, true, 0, 0);
        dc->addLogicalDisplay("right", 0x8002, 960, 1080, false, 960, 65535);
        drsp.addDisplayConfiguration("full", 0x7FFF, false)->addLogicalDisplay("all", 3, 1920, 1080, false, 0, 0);
        c.addMessage("GET_DISPLAY_CONFIGURATION_RSP" + sfx, drsp, json);

        std::unique_ptr<nk_messageSetConfigReq> cfg(makeConfig(v));
        c.addMessage("SET_CONFIG_REQ" + sfx, *cfg, json);
        c.addText("SET_CONFIG_REQ.checksum" + sfx, cfg->checksum(v));
        nk_messageSetConfigRsp crsp(v);
        crsp.setChecksum(cfg->checksum(v));
        c.addMessage("SET_CONFIG_RSP" + sfx, crsp, json);

        std::unique_ptr<nk_messageSetSchedulesReq> sched(makeSchedules(v));
        c.addMessage("SET_SCHEDULES_REQ" + sfx, *sched, json);
        c.addText("SET_SCHEDULES_REQ.checksum" + sfx, sched->checksum(v));
        nk_messageSetSchedulesRsp schrsp(v);
        schrsp.setChecksum(sched->checksum(v));
        c.addMessage("SET_SCHEDULES_RSP" + sfx, schrsp, json);

        nk_messageEventsReq ereq(v);
        ereq.task = 7;
        c.addMessage("EVENTS_REQ" + sfx, ereq, json);
        nk_messageEventsRsp ersp(v, nullptr, nullptr);
        ersp.task = 7;
        tStringList subs;
        subs.add("sensor 2");
        subs.add("");
        ersp.addEvent(4000000000u, 4000000001u, 0xFFFFFFFFu, 0xFFFF, "\xC3\x9C" "berhitzung", 1, &subs, 3,
                      "image_id18364758544493064720.png");
        ersp.addEvent(0, 0, 0, 0, "", 255, nullptr, 0, "");
        c.addMessage("EVENTS_RSP" + sfx, ersp, json);

        nk_messageImage image(v);
        image.taskRemove = 1;
        image.taskFbc = 2;
        tBlob png = blobOf(std::string("\x89PNG\r\n\x1a\n\0\0\0\rIHDR", 16));
        ASSERT_TRUE(image.add(kBigId, "logo", "image/png", &png));
        tBlob xml = blobOf("<a/>");
        ASSERT_TRUE(image.add(1, "x", "text/xml", &xml));
        c.addMessage("IMAGE" + sfx, image, json);
    }

    c.add("schedules.start_from_text",
          hex(tString::fromUInt64(nk_messageSetSchedulesReq::getStartTimeFromString("2100-01-01 12:00:00.000")) + " " +
              tString::fromUInt64(nk_messageSetSchedulesReq::getStartTimeFromString("1969-12-31 23:59:59.000"))));
    c.addText("image.name", nk_msgFile::imageNameByMimeType_e(kBigId, nk_msgFile::MIME_7Z));
}

// Parts read back from a stream must carry what was written, payload included.
void expectFramesReadBack(tBlob stream, std::vector<nk_telegramPart*> const& written, std::string const& name)
{
    for (nk_telegramPart* w : written) {
        nk_telegramPart r;
        ASSERT_TRUE(r.streamContainsTelegram(&stream)) << name;
        EXPECT_EQ(r.telegramId(), w->telegramId()) << name;
        EXPECT_EQ(r.sourceAddress(), w->sourceAddress()) << name;
        EXPECT_EQ(r.destinationAddress(), w->destinationAddress()) << name;
        EXPECT_EQ(r.timestamp(), w->timestamp()) << name;
        EXPECT_EQ(r.partId(), w->partId()) << name;
        EXPECT_EQ(r.isLastPart(), w->isLastPart()) << name;
        EXPECT_EQ(r.compression(), w->compression()) << name;
        EXPECT_EQ(hex(*r.payload()), hex(*w->payload())) << name;
    }
    EXPECT_EQ(stream.size(), 0u) << name;
}

void frameVectors(Collector& c)
{
    typedef nk_basicTelegram B;
    nk_messageTime time(M::VERSION_0);
    time.currentTime = 1700000000u;
    nk_serializer content;
    ASSERT_TRUE(time.serializeMsg(&content));

    nk_telegramPart single(0xFEDCBA98u, 0x12345678u, B::ADDRESS_BROADCAST, 1, kStamp, true, &content,
                           B::TYPE_REQUEST_FORCE_RESPONSE, B::COMPRESSION_NONE);
    tBlob frame;
    ASSERT_TRUE(single.serialize(&frame));
    c.add("frame.time_request", hex(frame));
    expectFramesReadBack(frame, {&single}, "frame.time_request");

    // A schedule set cut into small parts after the compression choice; the parts are rebuilt
    // with a fixed time stamp, since an outgoing telegram takes the clock's.
    std::unique_ptr<nk_messageSetSchedulesReq> sched(makeSchedules(M::VERSION_2));
    nk_serializer big;
    ASSERT_TRUE(sched->serializeMsg(&big));
    for (int i = 0; i < 3; ++i) ASSERT_TRUE(sched->serialize(&big, nk_serializer::SER_WRITE));
    tBlob original(&big);

    const unsigned int savedMax = nk_telegram::s_u32MaxPayloadSize;
    nk_telegram::setMaxPayloadSize(64);
    nk_telegram out(0xFFFFFFFFu - 2, 0xA0B0C0D0u, 7, &big, nullptr, nullptr, true, nullptr, true);
    nk_telegram::setMaxPayloadSize(savedMax);
    ASSERT_GT(out.partCount(), 1u);
    EXPECT_NE(out.compression(), B::COMPRESSION_NONE);

    std::vector<std::unique_ptr<nk_telegramPart>> parts;
    std::vector<nk_telegramPart*> raw;
    tBlob stream;
    for (unsigned int i = 0; i < out.partCount(); ++i) {
        nk_telegramPart* p = out.part(i);
        parts.emplace_back(new nk_telegramPart(p->telegramId(), p->sourceAddress(), p->destinationAddress(),
                                               p->partId(), kStamp, p->isLastPart(), p->payload(), p->type(),
                                               p->compression()));
        raw.push_back(parts.back().get());
        ASSERT_TRUE(parts.back()->serialize(&stream));
    }
    c.add("frames.schedules_multipart", hex(stream));
    expectFramesReadBack(stream, raw, "frames.schedules_multipart");

    // The receiving side joins and decodes the parts to the original content.
    nk_telegram in(parts[0].get());
    for (size_t i = 1; i < parts.size(); ++i) ASSERT_TRUE(in.addTelegramPart(parts[i].get()));
    ASSERT_TRUE(in.lastPartPresent());
    tBlob* joined = in.getCompleteContent();
    ASSERT_NE(joined, nullptr);
    EXPECT_EQ(hex(*joined), hex(original));
}

Vectors computeVectors()
{
    Collector c;
    supportVectors(c);
    messageVectors(c);
    frameVectors(c);
    return c.vectors();
}

bool writeGolden(Vectors const& vectors)
{
    std::ofstream f(golden_path(), std::ios::trunc);
    f << "# Golden vectors: name, then the bytes in hexadecimal. Written by a 64-bit build with\n"
         "# NK_GOLDEN_WRITE=1 ./test_golden_vectors; every build, the 32-bit ARM one included,\n"
         "# must reproduce them exactly.\n";
    for (auto const& v : vectors) f << v.first << ' ' << v.second << '\n';
    return static_cast<bool>(f);
}

std::map<std::string, std::string> readGolden()
{
    std::map<std::string, std::string> golden;
    std::ifstream f(golden_path());
    std::string line;
    while (std::getline(f, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream words(line);
        std::string name, bytes;
        words >> name >> bytes;
        golden[name] = bytes;
    }
    return golden;
}
}

TEST(GoldenVectors, EveryBuildWritesTheSameBytes)
{
    const Vectors vectors = computeVectors();
    ASSERT_FALSE(HasFatalFailure());
    const char* write = std::getenv("NK_GOLDEN_WRITE");
    if (write && std::string(write) == "1") {
        ASSERT_EQ(sizeof(long), 8u) << "golden vectors are written by a 64-bit build";
        ASSERT_TRUE(writeGolden(vectors)) << golden_path();
        std::printf("wrote %zu vectors to %s\n", vectors.size(), golden_path().c_str());
        return;
    }

    std::map<std::string, std::string> golden = readGolden();
    ASSERT_FALSE(golden.empty()) << "cannot read " << golden_path();
    for (auto const& v : vectors) {
        auto it = golden.find(v.first);
        if (it == golden.end()) {
            ADD_FAILURE() << v.first << " is missing from " << golden_path();
            continue;
        }
        EXPECT_EQ(v.second, it->second) << v.first;
        golden.erase(it);
    }
    for (auto const& stale : golden) ADD_FAILURE() << stale.first << " is in the file but no longer produced";
    RecordProperty("vectors", static_cast<int>(vectors.size()));
    RecordProperty("long_bits", static_cast<int>(8 * sizeof(long)));
}
