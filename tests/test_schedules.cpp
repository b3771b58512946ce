#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "nk_messageSetSchedules.h"

namespace
{
using Bytes = std::vector<unsigned char>;
using Req = nk_messageSetSchedulesReq;

Bytes bytesOf(tBlob const& b) { return Bytes(b.getBuffer(), b.getBuffer() + b.size()); }

Bytes body(nk_message& m)
{
    nk_serializer s;
    EXPECT_TRUE(m.serialize(&s, nk_serializer::SER_WRITE));
    return bytesOf(s);
}

std::unique_ptr<Req> read(Bytes const& b, nk_message::teVersion v)
{
    nk_serializer s;
    s.append(b.data(), static_cast<unsigned int>(b.size()));
    return std::make_unique<Req>(&s, v);
}

std::string sha1sumOf(Bytes const& bytes)
{
    std::string path = testing::TempDir() + "nk_schedules_checksum.bin";
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<char const*>(bytes.data()), bytes.size());
    FILE* p = popen(("sha1sum " + path).c_str(), "r");
    char out[41] = {};
    if (p == nullptr || std::fread(out, 1, 40, p) != 40) out[0] = 0;
    if (p) pclose(p);
    return out;
}

// Schedule id with two entries; name and first duration let callers make variants.
nk_messageSchedule* addTwoEntrySchedule(Req& r, unsigned long long id, char const* name = "s", unsigned int d = 10)
{
    nk_messageSchedule* s = r.addSchedule_(id, name, 1000 + id, 5000 + id, 0x10, 1);
    s->addScheduleEntry(id * 10 + 1, "a", d, 100 + id, false);
    s->addScheduleEntry(id * 10 + 2, "b", 20, 200 + id, false);
    return s;
}

std::vector<unsigned long long> ids(Req const& r)
{
    std::vector<unsigned long long> out;
    for (unsigned int i = 0; r.getSchedule(i) != nullptr; ++i) out.push_back(r.getSchedule(i)->id());
    return out;
}
}

TEST(Schedule, OrderLengthExpiryAndEquality)
{
    nk_messageSchedule s(1, "s", 1000, 5000, 0x10, 0);  // 0x10 carries no type: type 0
    EXPECT_EQ(s.getScheduleEntry(0), nullptr);
    EXPECT_EQ(s.lastEntryImageId(), 0u);
    s.addScheduleEntry(3, "c", 10, 33, false);
    s.addScheduleEntry(1ULL << 63, "big", 20, 44, false);
    nk_messageScheduleEntry* first5 = s.addScheduleEntry(5, "x", 0, 1, false);
    nk_messageScheduleEntry* second5 = s.addScheduleEntry(5, "y", 0, 2, false);
    s.addScheduleEntry(1, "a", 0, 11, false);
    s.sort();
    EXPECT_EQ(s.getScheduleEntry(0)->id(), 1u);
    EXPECT_EQ(s.getScheduleEntry(1)->id(), 3u);
    EXPECT_EQ(s.getScheduleEntry(2), first5);  // equal ids keep their order
    EXPECT_EQ(s.getScheduleEntry(3), second5);
    EXPECT_EQ(s.getScheduleEntry(4)->id(), 1ULL << 63);
    EXPECT_EQ(s.lastEntryImageId(), 44u);
    EXPECT_TRUE(s.scheduleEntryIsLastEntry(s.getScheduleEntry(4)));
    nk_messageScheduleEntry copy(1ULL << 63, "big", 20, 44, true);
    EXPECT_FALSE(s.scheduleEntryIsLastEntry(&copy));  // identity, not equality
    EXPECT_TRUE(copy.compare(s.getScheduleEntry(4)));  // handled is not compared
    EXPECT_FALSE(s.scheduleExpired(1030));
    EXPECT_TRUE(s.scheduleExpired(1031));

    nk_messageSchedule looping(2, "l", 0, 0, 0x01, 0);
    nk_messageScheduleEntry* only = looping.addScheduleEntry(1, "", 0xFFFFFFFF, 0, false);
    looping.addScheduleEntry(2, "", 0xFFFFFFFF, 0, false);
    nk_messageScheduleEntry* last = looping.addScheduleEntry(3, "", 0xFFFFFFFF, 0, false);
    EXPECT_EQ(looping.overallDuration(), 12884901885ULL);
    EXPECT_FALSE(looping.scheduleEntryIsLastEntry(last));
    EXPECT_TRUE(looping.scheduleExpired(12884901886LL));  // one pass, loop or not
    EXPECT_FALSE(looping.scheduleExpired(12884901885LL));
    (void)only;

    nk_messageSchedule byStop(3, "t", 0, 5000, 0x06, 0);
    EXPECT_FALSE(byStop.scheduleExpired(5000));
    EXPECT_TRUE(byStop.scheduleExpired(5001));
    nk_messageSchedule type8(4, "f", 1LL << 40, 0, 0x08, 0);
    EXPECT_TRUE(type8.scheduleExpired(0));

    nk_messageSchedule a(9, "n", 1, 2, 3, 4), b(9, "n", 1, 2, 3, 4);
    a.addScheduleEntry(1, "p", 1, 1, false);
    a.addScheduleEntry(2, "q", 1, 1, false);
    b.addScheduleEntry(2, "q", 1, 1, false);
    b.addScheduleEntry(1, "p", 1, 1, false);
    EXPECT_FALSE(a.compare(&b));  // position by position
    b.sort();
    a.markAllEntriesHandled();
    EXPECT_TRUE(a.compare(&b));
    EXPECT_FALSE(a.compare(nullptr));
}

TEST(SchedulesWire, RevisionsAndFactory)
{
    Req empty(nk_message::VERSION_2);
    EXPECT_EQ(body(empty), Bytes({0, 0, 0, 0}));

    Bytes v1 = {0x01, 0, 0, 0,                                  // one schedule
                0x07, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0, 0, 's',  // id, name
                0xE8, 0x03, 0, 0, 0, 0, 0, 0,                   // start 1000
                0x11, 0, 0, 0, 0x03, 0, 0x01, 0, 0, 0,          // flags, display, one entry
                0x02, 0, 0, 0, 0, 0, 0, 0, 0x01, 0, 0, 0, 'e', 0x0A, 0, 0, 0, 0x63, 0, 0, 0, 0, 0, 0, 0};
    Bytes v2 = v1;
    Bytes stop = {0xD0, 0x07, 0, 0, 0, 0, 0, 0};
    v2.insert(v2.begin() + 25, stop.begin(), stop.end());
    for (unsigned v = 0; v <= 3; ++v) {
        Req r(static_cast<nk_message::teVersion>(v));
        r.addSchedule_(7, "s", 1000, 2000, 0x11, 3)->addScheduleEntry(2, "e", 10, 99, false);
        EXPECT_EQ(body(r), v < 2 ? v1 : v2) << "version " << v;
        nk_serializer msg;
        ASSERT_TRUE(r.serializeMsg(&msg));
        std::unique_ptr<nk_message> back(nk_message::getMessage(&msg));
        ASSERT_NE(back, nullptr);
        EXPECT_EQ(back->type(), nk_message::SET_SCHEDULES_REQ);
        EXPECT_EQ(back->version(), v);
        EXPECT_EQ(body(*back), v < 2 ? v1 : v2);
        nk_messageSchedule* s = static_cast<Req*>(back.get())->getSchedule(0);
        ASSERT_NE(s, nullptr);
        EXPECT_EQ(s->stopTime(), v < 2 ? 0 : 2000);
        EXPECT_EQ(s->showOnLogicalDisplay(), 3);
        EXPECT_FALSE(s->getScheduleEntry(0)->handled());
    }

    // A body read in the other revision shifts every field behind the start time: both
    // peers must agree on the version in the header.
    auto v1AsV2 = read(v1, nk_message::VERSION_2);
    ASSERT_EQ(v1AsV2->count(), 1u);
    EXPECT_EQ(v1AsV2->getSchedule(0)->stopTime(), 0x0001000300000011LL);
    EXPECT_EQ(v1AsV2->getSchedule(0)->flags(), 0x00020000u);
    EXPECT_EQ(v1AsV2->getSchedule(0)->count(), 0u);
    auto v2AsV1 = read(v2, nk_message::VERSION_1);
    ASSERT_EQ(v2AsV1->count(), 1u);
    EXPECT_EQ(v2AsV1->getSchedule(0)->flags(), 2000u);
    EXPECT_EQ(v2AsV1->getSchedule(0)->stopTime(), 0);
    // Its entry count reads as 0x110000; entries are only made from bytes that are there.
    ASSERT_EQ(v2AsV1->getSchedule(0)->count(), 1u);
    EXPECT_EQ(v2AsV1->getSchedule(0)->getScheduleEntry(0)->id(), 0x0000000100030000ULL);
    EXPECT_EQ(v2AsV1->getSchedule(0)->getScheduleEntry(0)->duration(), 0x10000u);

    // Cut inside the entry: the schedule stays, the entry does not; cut before the entry
    // count: nothing is added. A forged count allocates nothing beyond the bytes.
    EXPECT_EQ(read(Bytes(v1.begin(), v1.end() - 1), nk_message::VERSION_1)->getSchedule(0)->count(), 0u);
    EXPECT_EQ(read(Bytes(v1.begin(), v1.begin() + 33), nk_message::VERSION_1)->count(), 0u);
    EXPECT_EQ(read(Bytes({0xFF, 0xFF, 0xFF, 0xFF}), nk_message::VERSION_2)->count(), 0u);
}

TEST(SchedulesChecksum, SortedBodyIndependentOfOrderAndMarks)
{
    Req sorted(nk_message::VERSION_2), reversed(nk_message::VERSION_2);
    for (unsigned long long id = 1; id <= 3; ++id) addTwoEntrySchedule(sorted, id);
    for (unsigned long long id = 3; id >= 1; --id) {
        nk_messageSchedule* s = reversed.addSchedule_(id, "s", 1000 + id, 5000 + id, 0x10, 1);
        s->addScheduleEntry(id * 10 + 2, "b", 20, 200 + id, false);
        s->addScheduleEntry(id * 10 + 1, "a", 10, 100 + id, false);
        s->markAllEntriesHandled();
    }
    tString cs2 = reversed.checksum(nk_message::VERSION_2);
    EXPECT_EQ(cs2.str(), sha1sumOf(body(sorted)));
    EXPECT_EQ(sorted.checksum(nk_message::VERSION_2), cs2);
    EXPECT_EQ(ids(reversed), (std::vector<unsigned long long>{3, 2, 1}));  // the caller's list is untouched

    tString cs1 = sorted.checksum(nk_message::VERSION_1);
    EXPECT_NE(cs1, cs2);
    Req sortedV1(nk_message::VERSION_1);
    for (unsigned long long id = 1; id <= 3; ++id) addTwoEntrySchedule(sortedV1, id);
    EXPECT_EQ(cs1.str(), sha1sumOf(body(sortedV1)));
    // Version 1 sorts the schedules only, so the entry order counts there.
    EXPECT_NE(reversed.checksum(nk_message::VERSION_1), cs1);

    nk_messageSetSchedulesRsp rsp(nk_message::VERSION_2);
    EXPECT_EQ(body(rsp), Bytes(4, 0x00));
    rsp.setChecksum(cs2);
    EXPECT_EQ(rsp.getJson(), "{\"action\":\"schedules\",\"type\":\"response\",\"tv\":1,\"cs\":\"" + cs2.str() + "\"}");
    tJson json;
    ASSERT_TRUE(json.parse("{\"action\":\"schedules\",\"type\":\"request\",\"tv\":1,\"cs\":\"x\"}"));
    EXPECT_FALSE(rsp.serializeFromJson(&json));
    ASSERT_TRUE(json.parse("{\"action\":\"schedules\",\"type\":\"response\",\"cs\":\"x\"}"));
    EXPECT_FALSE(rsp.serializeFromJson(&json));
    EXPECT_EQ(rsp.getChecksum(), cs2);
}

TEST(SchedulesStore, MergeCopyAndLookups)
{
    Req held(nk_message::VERSION_2), incoming(nk_message::VERSION_2);
    for (unsigned long long id = 1; id <= 5; ++id) addTwoEntrySchedule(held, id)->markAllEntriesHandled();
    addTwoEntrySchedule(incoming, 1);
    addTwoEntrySchedule(incoming, 3, "s", 11);  // changed
    addTwoEntrySchedule(incoming, 5);

    // 3 is replaced at the end; 2 is dropped, 4 moves into its slot unexamined and stays.
    EXPECT_TRUE(held.setSchedulesFromWithoutClear(&incoming));
    EXPECT_EQ(ids(held), (std::vector<unsigned long long>{1, 4, 5, 3}));
    EXPECT_TRUE(held.getSchedule(0)->getScheduleEntry(1)->handled());
    EXPECT_FALSE(held.getSchedule(3)->getScheduleEntry(0)->handled());
    EXPECT_EQ(held.getSchedule(3)->getScheduleEntry(0)->duration(), 11u);
    EXPECT_TRUE(held.setSchedulesFromWithoutClear(&incoming));
    EXPECT_EQ(ids(held), (std::vector<unsigned long long>{1, 5, 3}));
    EXPECT_FALSE(held.setSchedulesFromWithoutClear(&incoming));
    EXPECT_EQ(held.checksum(nk_message::VERSION_2), incoming.checksum(nk_message::VERSION_2));
    EXPECT_FALSE(held.setSchedulesFromWithoutClear(nullptr));

    Req copy(nk_message::VERSION_1);
    copy.setSchedulesFrom(&held);
    EXPECT_EQ(ids(copy), ids(held));
    EXPECT_FALSE(copy.getSchedule(0)->getScheduleEntry(1)->handled());
    EXPECT_NE(copy.getSchedule(0), held.getSchedule(0));
    copy.setSchedulesFrom(nullptr);
    EXPECT_EQ(copy.count(), 3u);

    nk_messageScheduleEntry* e = held.getSchedule(2)->getScheduleEntry(1);
    EXPECT_EQ(held.getScheduleForEntry(e), held.getSchedule(2));
    EXPECT_EQ(copy.getScheduleForEntry(e), nullptr);
    copy.removeSchedule(held.getSchedule(0));  // not in copy: both stay
    EXPECT_EQ(copy.count(), 3u);
    EXPECT_EQ(held.count(), 3u);

    Req images(nk_message::VERSION_2);
    images.addSchedule_(1, "x", 0, 0, 0, 0)->addScheduleEntry(1, "", 1, 7, false);
    images.addSchedule_(2, "y", 0, 0, 0, 0)->addScheduleEntry(2, "", 1, 7, false);
    tUidList uids = {42};
    images.getRequiredImageUidList(uids);
    EXPECT_EQ(uids, (tUidList{7, 7}));

    EXPECT_EQ(Req::getStartTimeFromString("2024-03-01 08:30:00.000"), 1709281800u);
    EXPECT_EQ(Req::getStartTimeFromString("2024-03-257 08:30:00.5"), 1709281800u);  // day wraps at 8 bits
    EXPECT_EQ(Req::getStartTimeFromString("2024-03-01"), 1709251200u);
    EXPECT_EQ(Req::getStartTimeFromString(""), 0u);
    nk_messageSchedule* s = images.addSchedule_(3, "t", "2024-03-01 08:30:00.000", "", 0, 0);
    EXPECT_EQ(s->startTime(), 1709281800LL);
    EXPECT_EQ(s->stopTime(), 0);
}

namespace
{
// The merge as the device always did it, by searching and shifting the list itself, on a
// model of the list: each element is a held schedule (by its position before the merge) or
// a copy of an incoming one (by its position in the incoming set).
struct tMergeModel
{
    unsigned long long id;
    int version;
    int held;      // position in the held set, or -1 for a copy
    int incoming;  // position in the incoming set, or -1
};

bool referenceMerge(std::vector<tMergeModel>& list, std::vector<tMergeModel> const& other)
{
    auto firstWithId = [](std::vector<tMergeModel> const& l, unsigned long long id) {
        for (std::size_t i = 0; i < l.size(); ++i)
            if (l[i].id == id) return static_cast<int>(i);
        return -1;
    };
    for (tMergeModel const& in : other) {
        int present = firstWithId(list, in.id);
        if (present >= 0 && list[present].version == in.version) continue;
        if (present >= 0) list.erase(list.begin() + present);
        list.push_back({in.id, in.version, -1, in.incoming});
    }
    bool dropped = false;
    for (std::size_t i = 0; i < list.size(); ++i)
        if (firstWithId(other, list[i].id) < 0) {
            list.erase(list.begin() + static_cast<long>(i));
            dropped = true;
        }
    return dropped;
}
}

TEST(SchedulesStore, MergeMatchesTheListWalkOnRandomSetsWithRepeatedIds)
{
    std::mt19937 rng(5);
    for (int round = 0; round < 300; ++round) {
        const unsigned ids = 1 + rng() % 12;  // few ids: repeats, changes and drops
        Req held(nk_message::VERSION_2), incoming(nk_message::VERSION_2);
        std::vector<tMergeModel> model, other;
        std::vector<nk_messageSchedule*> heldBefore;
        for (unsigned i = 0, n = rng() % 16; i < n; ++i) {
            tMergeModel m{rng() % ids, static_cast<int>(rng() % 2), static_cast<int>(i), -1};
            model.push_back(m);
            heldBefore.push_back(addTwoEntrySchedule(held, m.id, "s", 10 + m.version));
        }
        for (unsigned i = 0, n = rng() % 16; i < n; ++i) {
            tMergeModel m{rng() % ids, static_cast<int>(rng() % 2), -1, static_cast<int>(i)};
            other.push_back(m);
            addTwoEntrySchedule(incoming, m.id, "s", 10 + m.version);
        }

        const bool expectedDrop = referenceMerge(model, other);
        ASSERT_EQ(held.setSchedulesFromWithoutClear(&incoming), expectedDrop) << "round " << round;
        ASSERT_EQ(held.count(), model.size()) << "round " << round;
        for (std::size_t i = 0; i < model.size(); ++i) {
            nk_messageSchedule* s = held.getSchedule(static_cast<unsigned>(i));
            ASSERT_EQ(s->id(), model[i].id) << "round " << round << " position " << i;
            ASSERT_EQ(s->getScheduleEntry(0)->duration(), 10u + model[i].version);
            if (model[i].held >= 0)
                EXPECT_EQ(s, heldBefore[model[i].held]) << "a kept schedule stays the same object";
            else
                EXPECT_NE(s, incoming.getSchedule(model[i].incoming)) << "a changed one is a copy";
        }
    }

    // A set merged into itself changes nothing when its ids are distinct.
    Req self(nk_message::VERSION_2);
    for (unsigned long long id = 1; id <= 4; ++id) addTwoEntrySchedule(self, id);
    EXPECT_FALSE(self.setSchedulesFromWithoutClear(&self));
    EXPECT_EQ(ids(self), (std::vector<unsigned long long>{1, 2, 3, 4}));
}

TEST(SchedulesJson, WriterAndTheReadersAsymmetries)
{
    Req r(nk_message::VERSION_2);
    r.addSchedule_(18446744073709551615ULL, "n", -5, 9, 0x12345, 77)->addScheduleEntry(4, "e", 30, 1ULL << 63, false);
    r.addSchedule_(2, "m", 0, 0, 6, 0);
    tString text = r.getJson();
    EXPECT_EQ(text, "{\"action\":\"schedules\",\"type\":\"request\",\"tv\":1,\"schedules\":["
                    "{\"uid\":18446744073709551615,\"name\":\"n\",\"startTime\":-5,\"stopTime\":9,\"flags\":74565,"
                    "\"frame\":74565,\"entries\":[{\"name\":\"e\",\"uid\":4,\"duration\":30,\"imageUid\":9223372036854775808}]},"
                    "{\"uid\":2,\"name\":\"m\",\"startTime\":0,\"stopTime\":0,\"flags\":6,\"frame\":6}]}");

    // "frame" reads as the display (the writer put the flags there) and entries come from the
    // root, so the writer's own nested entries are not read back.
    tJson json;
    ASSERT_TRUE(json.parse(text));
    Req back(nk_message::VERSION_2);
    ASSERT_TRUE(back.serializeFromJson(&json));
    ASSERT_EQ(back.count(), 2u);
    EXPECT_EQ(back.getSchedule(0)->id(), 18446744073709551615ULL);
    EXPECT_EQ(back.getSchedule(0)->startTime(), -5);
    EXPECT_EQ(back.getSchedule(0)->showOnLogicalDisplay(), 0x2345);
    EXPECT_EQ(back.getSchedule(0)->count(), 0u);

    ASSERT_TRUE(json.parse("{\"action\":\"schedules\",\"type\":\"request\",\"tv\":1,"
                           "\"schedules\":[{\"uid\":1},{\"uid\":2}],"
                           "\"entries\":[{\"uid\":8,\"imageUid\":9,\"duration\":4294967297}]}"));
    ASSERT_TRUE(back.serializeFromJson(&json));
    ASSERT_EQ(back.count(), 2u);
    for (unsigned i = 0; i < 2; ++i) {
        ASSERT_EQ(back.getSchedule(i)->count(), 1u);
        EXPECT_EQ(back.getSchedule(i)->getScheduleEntry(0)->imageId(), 9u);
        EXPECT_EQ(back.getSchedule(i)->getScheduleEntry(0)->duration(), 1u);  // cut to 32 bits
    }
    ASSERT_TRUE(json.parse("{\"action\":\"schedules\",\"type\":\"request\",\"tv\":0,\"schedules\":[]}"));
    EXPECT_FALSE(back.serializeFromJson(&json));
    EXPECT_EQ(back.count(), 2u);
}

TEST(SchedulesJson, OneReadCreatesNoMoreEntriesThanTheLimit)
{
    // Every schedule gets the whole root "entries" array: 1,001 schedules and 1,000 entries
    // in 6 KB of text would be over a million entries.
    auto document = [](unsigned schedules, unsigned entries) {
        std::string text = "{\"action\":\"schedules\",\"type\":\"request\",\"tv\":2,\"schedules\":[";
        for (unsigned i = 0; i < schedules; ++i) text += (i ? ",{\"uid\":" : "{\"uid\":") + std::to_string(i + 1) + "}";
        text += "],\"entries\":[";
        for (unsigned i = 0; i < entries; ++i) text += i ? ",{}" : "{}";
        return text + "]}";
    };
    EXPECT_EQ(Req::maxJsonEntries(), 1000000u);
    Req held(nk_message::VERSION_2);
    addTwoEntrySchedule(held, 77);
    tJson json;
    ASSERT_TRUE(json.parse(document(1001, 1000).c_str()));
    EXPECT_FALSE(held.serializeFromJson(&json));
    EXPECT_EQ(ids(held), (std::vector<unsigned long long>{77}));  // nothing half-built, nothing lost
    ASSERT_TRUE(json.parse(document(1000, 1000).c_str()));
    EXPECT_TRUE(held.serializeFromJson(&json));
    EXPECT_EQ(held.count(), 1000u);
    EXPECT_EQ(held.getSchedule(999)->count(), 1000u);

    Req::setMaxJsonEntries(12);
    ASSERT_TRUE(json.parse(document(3, 4).c_str()));
    EXPECT_TRUE(held.serializeFromJson(&json));
    EXPECT_EQ(held.count(), 3u);
    ASSERT_TRUE(json.parse(document(13, 1).c_str()));
    EXPECT_FALSE(held.serializeFromJson(&json));
    EXPECT_EQ(held.count(), 3u);
    ASSERT_TRUE(json.parse(document(50, 0).c_str()));  // schedules without entries create none
    EXPECT_TRUE(held.serializeFromJson(&json));
    Req::setMaxJsonEntries(Req::DEFAULT_MAX_JSON_ENTRIES);
}
