#include <gtest/gtest.h>

#include "test_helpers.h"

#include <memory>
#include <string>
#include <vector>

#include "nk_messageEvents.h"

namespace
{

std::unique_ptr<nk_message> roundTrip(nk_message& m, std::vector<unsigned char>* wire = nullptr)
{
    nk_serializer ser;
    EXPECT_TRUE(m.serializeMsg(&ser));
    if (wire) *wire = bytes(ser);
    return std::unique_ptr<nk_message>(nk_message::getMessage(&ser));
}

tStringList listOf(std::vector<std::string> const& texts)
{
    tStringList l;
    for (auto const& t : texts) l.add(t.c_str());
    return l;
}

// Records the ids the release callback saw, in order.
void recordRelease(void* context, nk_messageEvent* event)
{
    static_cast<std::vector<unsigned int>*>(context)->push_back(event->id());
}

void addIds(nk_messageEventsRsp& rsp, std::vector<unsigned int> const& ids)
{
    for (unsigned int id : ids) rsp.addEvent(0, 0, id, 0, "", 0, nullptr, 0, "");
}

std::vector<unsigned int> idsOf(nk_messageEventsRsp const& rsp)
{
    std::vector<unsigned int> ids;
    for (unsigned int i = 0; nk_messageEvent* e = rsp.getEvent(i); ++i) ids.push_back(e->id());
    return ids;
}
}

TEST(EventRecord, ConstructionCopyAndSet)
{
    nk_messageEvent plain(1, 2, 3, 4, "m", 5, nullptr, 6, "r");
    EXPECT_EQ(plain.subEventCount(), 0u);
    EXPECT_EQ(plain.subEventList().count(), 0u);

    tStringList three = listOf({"x", "y", "z"});
    nk_messageEvent withSubs(10, 20, 30, 40, "msg", 1, &three, 7, "img.png");
    three.add("later");  // the record keeps its own copy
    ASSERT_EQ(withSubs.subEventCount(), 3u);
    EXPECT_EQ(withSubs.subEvent(0), "x");
    EXPECT_EQ(withSubs.subEvent(2), "z");
    EXPECT_EQ(withSubs.subEvent(3), "");  // past the end: the empty text

    nk_messageEvent copy(withSubs);
    EXPECT_EQ(copy.timeFirst(), 10u);
    EXPECT_EQ(copy.timeLast(), 20u);
    EXPECT_EQ(copy.id(), 30u);
    EXPECT_EQ(copy.type(), 40);
    EXPECT_EQ(copy.eventMessage(), "msg");
    EXPECT_EQ(copy.category(), 1);
    EXPECT_EQ(copy.subEventList(), withSubs.subEventList());
    EXPECT_EQ(copy.occurence(), 7u);
    EXPECT_EQ(copy.refImage(), "img.png");

    tStringList five = listOf({"1", "2", "3", "4", "5"}), two = listOf({"a", "b"});
    nk_messageEvent many(0, 0, 0, 0, "", 0, &five, 0, "");
    many.set(nk_messageEvent(0, 0, 9, 0, "", 0, &two, 0, ""));
    EXPECT_EQ(many.subEventList(), two);
    many.set(many);
    EXPECT_EQ(many.id(), 9u);
    EXPECT_EQ(many.subEventCount(), 2u);
}

TEST(EventsReq, WireAndJson)
{
    for (unsigned short v = 0; v <= 3; ++v) {
        nk_messageEventsReq req(static_cast<nk_message::teVersion>(v));
        EXPECT_EQ(req.task, 0);
        req.task = 0xA5;
        std::vector<unsigned char> wire;
        auto back = roundTrip(req, &wire);
        EXPECT_EQ(wire, (std::vector<unsigned char>{0x03, 0x00, static_cast<unsigned char>(v), 0x00, 0xA5}));
        auto* r = dynamic_cast<nk_messageEventsReq*>(back.get());
        ASSERT_NE(r, nullptr);
        EXPECT_EQ(r->version(), v);
        EXPECT_EQ(r->task, 0xA5);
    }

    nk_messageEventsReq req(nk_message::VERSION_0);
    req.task = 7;
    EXPECT_EQ(req.getJson(), R"({"action":"events","type":"request","tv":1,"task":7})");
    EXPECT_FALSE(req.serializeToJson(nullptr));
    EXPECT_FALSE(req.serializeFromJson(nullptr));

    tJson j;
    for (char const* refused : {R"({"action":"events","type":"response","tv":1,"task":1})",
                                R"({"action":"state","type":"request","tv":1,"task":1})",
                                R"({"action":"events","type":"request","task":1})",
                                R"({"action":"events","type":"request","tv":0,"task":1})"}) {
        ASSERT_TRUE(j.parse(refused));
        EXPECT_FALSE(req.serializeFromJson(&j)) << refused;
        EXPECT_EQ(req.task, 7);
    }
    ASSERT_TRUE(j.parse(R"({"action":"events","type":"request","tv":1})"));
    EXPECT_TRUE(req.serializeFromJson(&j));
    EXPECT_EQ(req.task, 7);  // a missing member keeps the current value
    ASSERT_TRUE(j.parse(R"({"action":"events","type":"request","tv":2,"task":200})"));
    EXPECT_TRUE(req.serializeFromJson(&j));
    EXPECT_EQ(req.task, 200);
}

TEST(EventsRsp, WireBytesAndSubEventIndex)
{
    const std::vector<unsigned char> body = {
        0x07,                    // task
        0x01, 0x00, 0x00, 0x00,  // one record
        0x01, 0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,  // times, id
        0x04, 0x00,                                                              // type
        0x03, 0x00, 0x00, 0x00, 'm', 's', 'g',                                   // event text
        0x01,                                                                    // category
        0x02, 0x00, 0x00, 0x00,                                                  // M = 2
        0x05, 0x00, 0x00, 0x00,                                                  // occurrence
        0x03, 0x00, 0x00, 0x00, 'r', 'e', 'f',                                   // ref image
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // two copies of subEvent(2): empty
    };
    for (unsigned short v = 0; v <= 3; ++v) {
        nk_messageEventsRsp rsp(static_cast<nk_message::teVersion>(v), nullptr, nullptr);
        rsp.task = 7;
        tStringList subs = listOf({"a", "b"});
        rsp.addEvent(1, 2, 3, 4, "msg", 1, &subs, 5, "ref");
        std::vector<unsigned char> wire;
        auto back = roundTrip(rsp, &wire);
        std::vector<unsigned char> expected = {0x04, 0x00, static_cast<unsigned char>(v), 0x00};
        expected.insert(expected.end(), body.begin(), body.end());
        EXPECT_EQ(wire, expected);

        auto* r = dynamic_cast<nk_messageEventsRsp*>(back.get());
        ASSERT_NE(r, nullptr);
        ASSERT_EQ(r->eventCount(), 1u);
        nk_messageEvent* e = r->getEvent(0);
        EXPECT_EQ(r->task, 7);
        EXPECT_EQ(e->eventMessage(), "msg");
        EXPECT_EQ(e->refImage(), "ref");
        EXPECT_EQ(e->subEventList(), listOf({"", ""}));
        // The JSON form carries the real texts.
        EXPECT_EQ(rsp.getJson(), R"({"action":"events","type":"response","tv":1,"task":7,"events":[{"timeFirst":1,)"
                                 R"("timeLast":2,"id":3,"type":4,"event":"msg","cat":1,"occ":5,"refImage":"ref",)"
                                 R"("subEvents":["a","b"]}]})");
    }

    // A reader takes real sub-event strings as they come.
    std::vector<unsigned char> withTexts = {0x04, 0x00, 0x00, 0x00};
    withTexts.insert(withTexts.end(), body.begin(), body.end() - 8);
    for (char c : {'p', 'q'}) withTexts.insert(withTexts.end(), {0x01, 0x00, 0x00, 0x00, static_cast<unsigned char>(c)});
    tBlob in(withTexts.data(), static_cast<unsigned int>(withTexts.size()));
    std::unique_ptr<nk_message> m(nk_message::getMessage(&in));
    auto* r = dynamic_cast<nk_messageEventsRsp*>(m.get());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->getEvent(0)->subEventList(), listOf({"p", "q"}));
}

TEST(EventsRsp, LimitCallbackOrderAndOwnership)
{
    std::vector<unsigned int> released;
    {
        nk_messageEventsRsp rsp(nk_message::VERSION_0, &released, recordRelease);
        for (unsigned int id = 1; id <= 2001; ++id) rsp.addEvent(0, 0, id, 0, "", 0, nullptr, 0, "");
        EXPECT_EQ(rsp.eventCount(), 2000u);
        EXPECT_EQ(rsp.getEvent(0)->id(), 2u);
        EXPECT_EQ(rsp.getEvent(1999)->id(), 2001u);
        EXPECT_EQ(released, std::vector<unsigned int>{1});

        // The copying overload is not limited; the next field-wise add trims back to 2000
        // from the front, whatever order a sort left.
        nk_messageEvent extra(0, 0, 5000, 0, "", 0, nullptr, 0, "");
        rsp.addEvent(&extra);
        EXPECT_EQ(rsp.eventCount(), 2001u);
        EXPECT_EQ(rsp.addEvent(nullptr), nullptr);
        rsp.sort(nk_messageEventsRsp::SORT_ID_DESC);
        EXPECT_EQ(rsp.getEvent(0)->id(), 5000u);
        released.clear();
        rsp.addEvent(0, 0, 6000, 0, "", 0, nullptr, 0, "");
        EXPECT_EQ(released, (std::vector<unsigned int>{5000, 2001}));
        EXPECT_EQ(rsp.eventCount(), 2000u);
        EXPECT_EQ(rsp.getEvent(1999)->id(), 6000u);

        nk_messageEvent out(1, 1, 77, 1, "keep", 1, nullptr, 1, "");
        EXPECT_EQ(rsp.getEvent(2000), nullptr);
        EXPECT_FALSE(rsp.getEvent(out, 2000));
        EXPECT_EQ(out.id(), 77u);
        EXPECT_TRUE(rsp.getEvent(out, 0));
        EXPECT_EQ(out.id(), rsp.getEvent(0)->id());

        nk_messageEventsRsp source(nk_message::VERSION_0, nullptr, nullptr);
        addIds(source, {7, 8, 9});
        source.task = 3;
        released.clear();
        rsp.setFrom(source);
        EXPECT_EQ(released.size(), 2000u);
        EXPECT_EQ(idsOf(rsp), (std::vector<unsigned int>{7, 8, 9}));
        EXPECT_NE(rsp.getEvent(0), source.getEvent(0));  // copies, not shared
        EXPECT_EQ(rsp.task, 0);
        rsp.setFrom(rsp);
        EXPECT_EQ(rsp.eventCount(), 3u);
        released.clear();
    }
    EXPECT_EQ(released, (std::vector<unsigned int>{7, 8, 9}));  // destruction, in list order
}

TEST(EventsRsp, SortEveryCriterionStable)
{
    nk_messageEventsRsp rsp(nk_message::VERSION_0, nullptr, nullptr);
    // id, timeFirst, timeLast; ids 2 and 4 share both time keys.
    struct { unsigned int id, first, last; } rows[] = {{3, 5, 50}, {1, 9, 10}, {2, 1, 30}, {4, 1, 30}, {5, 7, 20}};
    for (auto const& r : rows) rsp.addEvent(r.first, r.last, r.id, 0, "", 0, nullptr, 0, "");

    using S = nk_messageEventsRsp;
    const std::pair<S::teSortCriteria, std::vector<unsigned int>> cases[] = {
        {S::SORT_TIME_FIRST_DESC, {1, 5, 3, 2, 4}}, {S::SORT_TIME_FIRST_ASC, {2, 4, 3, 5, 1}},
        {S::SORT_TIME_LAST_DESC, {3, 2, 4, 5, 1}},  {S::SORT_TIME_LAST_ASC, {1, 5, 2, 4, 3}},
        {S::SORT_ID_DESC, {5, 4, 3, 2, 1}},         {S::SORT_ID_ASC, {1, 2, 3, 4, 5}},
    };
    for (auto const& c : cases) {
        // Start each from the same order so that the equal keys' order is the insertion one.
        nk_messageEventsRsp fresh(nk_message::VERSION_0, nullptr, nullptr);
        fresh.setFrom(rsp);
        fresh.sort(c.first);
        EXPECT_EQ(idsOf(fresh), c.second) << c.first;
        EXPECT_EQ(nk_messageEventsRsp::l_eSortCriteria, c.first);
    }
    // Criteria beyond the defined ones (a plain number from a caller) sort nothing.
    for (unsigned int other : {6u, 200u, 0xFFFFFFFFu}) {
        rsp.sort(static_cast<S::teSortCriteria>(other));
        EXPECT_EQ(idsOf(rsp), (std::vector<unsigned int>{3, 1, 2, 4, 5})) << other;
    }

    EXPECT_EQ(S::categoryColor(0), "#FF6600");
    EXPECT_EQ(S::categoryColor(1), "#FFFF66");
    EXPECT_EQ(S::categoryColor(2), "");
    EXPECT_EQ(S::categoryColor(255), "");
}

TEST(EventsRsp, ParsingKeepsCompleteRecordsAndTheLimit)
{
    nk_messageEventsRsp full(nk_message::VERSION_1, nullptr, nullptr);
    addIds(full, {10, 20, 30});
    nk_serializer ser;
    ASSERT_TRUE(full.serializeMsg(&ser));
    // Cut the third record in the middle of its event text.
    tBlob cut(ser.getBuffer(), ser.size() - 20);
    nk_serializer body(&cut);
    unsigned short skip = 0;
    body.u16(skip, nk_serializer::SER_READ);
    body.u16(skip, nk_serializer::SER_READ);

    std::vector<unsigned int> released;
    nk_messageEventsRsp target(nk_message::VERSION_1, &released, recordRelease);
    addIds(target, {99});
    EXPECT_FALSE(target.serialize(&body, nk_serializer::SER_READ));
    EXPECT_EQ(released, std::vector<unsigned int>{99});  // the old record went through the callback
    EXPECT_EQ(idsOf(target), (std::vector<unsigned int>{10, 20}));

    // A count beyond what the bytes hold fails at the first missing field.
    std::vector<unsigned char> lying = {0x04, 0x00, 0x00, 0x00, 0x01, 0xFF, 0xFF, 0xFF, 0xFF};
    tBlob lie(lying.data(), static_cast<unsigned int>(lying.size()));
    std::unique_ptr<nk_message> m(nk_message::getMessage(&lie));
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(static_cast<nk_messageEventsRsp*>(m.get())->eventCount(), 0u);

    // 2500 records on the wire (built with the unlimited overload): the parse keeps the last 2000.
    nk_messageEventsRsp big(nk_message::VERSION_0, nullptr, nullptr);
    for (unsigned int id = 1; id <= 2500; ++id) {
        nk_messageEvent e(0, 0, id, 0, "", 0, nullptr, 0, "");
        big.addEvent(&e);
    }
    std::unique_ptr<nk_message> parsed(roundTrip(big));
    auto* p = dynamic_cast<nk_messageEventsRsp*>(parsed.get());
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->eventCount(), 2000u);
    EXPECT_EQ(p->getEvent(0)->id(), 501u);
    EXPECT_EQ(p->getEvent(1999)->id(), 2500u);
}

TEST(EventsRsp, JsonReaderRules)
{
    std::vector<unsigned int> released;
    nk_messageEventsRsp rsp(nk_message::VERSION_0, &released, recordRelease);
    addIds(rsp, {1, 2});
    tJson j;
    ASSERT_TRUE(j.parse(R"({"action":"events","type":"request","tv":1})"));
    EXPECT_FALSE(rsp.serializeFromJson(&j));
    EXPECT_EQ(rsp.eventCount(), 2u);  // wrong type: untouched
    ASSERT_TRUE(j.parse(R"({"action":"events","type":"response","tv":0,"events":[{"id":5}]})"));
    EXPECT_FALSE(rsp.serializeFromJson(&j));
    EXPECT_EQ(rsp.eventCount(), 0u);  // cleared before the version test
    EXPECT_EQ(released, (std::vector<unsigned int>{1, 2}));

    rsp.task = 4;
    ASSERT_TRUE(j.parse(R"({"action":"events","type":"response","tv":1,"events":[)"
                        R"({"id":5,"timeFirst":11,"event":"e","subEvents":["s1","s2"],"cat":2},{"refImage":"r","occ":9}]})"));
    ASSERT_TRUE(rsp.serializeFromJson(&j));
    EXPECT_EQ(rsp.task, 4);
    ASSERT_EQ(rsp.eventCount(), 2u);
    nk_messageEvent* first = rsp.getEvent(0);
    EXPECT_EQ(first->id(), 5u);
    EXPECT_EQ(first->timeFirst(), 11u);
    EXPECT_EQ(first->timeLast(), 0u);
    EXPECT_EQ(first->eventMessage(), "e");
    EXPECT_EQ(first->category(), 2);
    EXPECT_EQ(first->subEventList(), listOf({"s1", "s2"}));
    EXPECT_EQ(rsp.getEvent(1)->refImage(), "r");
    EXPECT_EQ(rsp.getEvent(1)->occurence(), 9u);

    // Written and read back, the JSON form is the same text.
    nk_messageEventsRsp again(nk_message::VERSION_0, nullptr, nullptr);
    tJson written;
    ASSERT_TRUE(rsp.serializeToJson(&written));
    ASSERT_TRUE(again.serializeFromJson(&written));
    EXPECT_EQ(again.getJson(), rsp.getJson());
    EXPECT_EQ(nk_messageEventsRsp(nk_message::VERSION_0, nullptr, nullptr).getJson(),
              R"({"action":"events","type":"response","tv":1,"task":0})");
}
