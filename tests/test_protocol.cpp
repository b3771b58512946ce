// Two engines joined by a real byte link: an in-memory pipe and a non-blocking socketpair.
#include <gtest/gtest.h>

#include "test_helpers.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "nk_protocol.h"
#include "tTime.h"

namespace
{
typedef std::vector<std::string> Lines;


tBlob textBlob(char const* s) { return tBlob(reinterpret_cast<unsigned char const*>(s), static_cast<unsigned int>(strlen(s))); }

tBlob reversed(tBlob const& b)
{
    tBlob r(b);
    std::reverse(r.getBuffer(), r.getBuffer() + r.size());
    return r;
}

bool contains(Lines const& lines, std::string const& line)
{
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

struct MaxPayload
{
    explicit MaxPayload(unsigned int n) : saved(nk_telegram::s_u32MaxPayloadSize) { nk_protocol::setMaxPayloadSize(n); }
    ~MaxPayload() { nk_telegram::s_u32MaxPayloadSize = saved; }
    unsigned int saved;
};

struct Response
{
    unsigned int address;
    tBlob content;
    bool timedOut;
    long long tag;
};

// One engine with its log, what its application received and how it answers. Bytes it
// sends are appended to the inbound buffers of its peers.
struct Endpoint
{
    enum Answer { REVERSE, NOTHING };

    Endpoint(unsigned int address, unsigned int defaultTimeout_s = 10, nk_protocol::tRecvCallback recvCb = onRequest)
        : engine(address, recvCb, this, defaultTimeout_s, nullptr, &log, onLog)
    {
    }

    static void onLog(void* ctx, char const* text) { static_cast<Lines*>(ctx)->push_back(text); }
    static void onRequest(unsigned int src, tBlob* content, void* ctx)
    {
        Endpoint* self = static_cast<Endpoint*>(ctx);
        self->requests.push_back(Response{src, *content, false, 0});
        if (self->answer == NOTHING)
            content->clear();
        else
            *content = reversed(*content);
    }
    static void onResponse(unsigned int address, tBlob* content, void* context, bool timedOut, void* userData)
    {
        Endpoint* self = static_cast<Endpoint*>(context);
        self->responses.push_back(
            Response{address, content ? *content : tBlob(), timedOut, reinterpret_cast<long long>(userData)});
    }
    static unsigned int send(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
    {
        Endpoint* self = static_cast<Endpoint*>(ctx);
        for (tBlob* out : self->peers) out->append(data, length);
        self->wire += length;
        return length;
    }
    static unsigned int recv(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
    {
        tBlob& in = static_cast<Endpoint*>(ctx)->inbound;
        unsigned int n = std::min(length, in.size());
        memcpy(data, in.getBuffer(), n);
        in.slice(n);
        return n;
    }
    void poll() { engine.poll(nullptr, this, send, recv); }
    void request(tBlob content, unsigned int dest, long long tag, unsigned int timeout_s = 0)
    {
        engine.enqueue_TS(&content, dest, onResponse, timeout_s, reinterpret_cast<void*>(tag));
    }

    Lines log;
    nk_protocol engine;
    tBlob inbound;
    std::vector<tBlob*> peers;
    std::vector<Response> requests;
    std::vector<Response> responses;
    Answer answer = REVERSE;
    unsigned long long wire = 0;
};

void join(Endpoint& a, Endpoint& b)
{
    a.peers.push_back(&b.inbound);
    b.peers.push_back(&a.inbound);
}

void pollBoth(Endpoint& a, Endpoint& b, int rounds = 3)
{
    for (int i = 0; i < rounds; ++i) {
        a.poll();
        b.poll();
    }
}
}

TEST(Protocol, RequestAndResponseThroughAPipe)
{
    Endpoint a(1), b(2);
    join(a, b);
    a.request(textBlob("ping"), 2, 77);
    const unsigned int id = nk_protocol::u32TlgNumber;
    a.poll();
    b.poll();  // takes the request and queues the answer
    b.poll();  // sends the answer
    a.poll();
    ASSERT_EQ(b.requests.size(), 1u);
    EXPECT_EQ(b.requests[0].address, 1u);
    EXPECT_EQ(b.requests[0].content, textBlob("ping"));
    ASSERT_EQ(a.responses.size(), 1u);
    EXPECT_EQ(a.responses[0].address, 2u);
    EXPECT_EQ(a.responses[0].content, textBlob("gnip"));
    EXPECT_FALSE(a.responses[0].timedOut);
    EXPECT_EQ(a.responses[0].tag, 77);
    EXPECT_EQ(a.engine.queuedTelegrams_TS(), 0u);

    std::string t = std::to_string(id);
    EXPECT_EQ(a.log, (Lines{"send request with response required, don't remove' (tid: " + t + "; src: 1; dest: 2)",
                            "stream contains data", "received telegram for me (tlg-id: " + t + ")",
                            "received single part telegram (tlg-id: " + t + ")", "handle response (size 4)",
                            "remove request"}));
    EXPECT_EQ(b.log, (Lines{"stream contains data", "received telegram for me (tlg-id: " + t + ")",
                            "received single part telegram (tlg-id: " + t + ")",
                            "prot: send response (id: " + t + "; src: 2; dest: 1)",
                            "send response telegram, remove it (tid: " + t + "; src: 2; dest: 1)"}));

    // Without a response callback the request is removed once sent, yet a receive callback
    // that leaves content answers it all the same; the answer finds no request.
    a.log.clear();
    tBlob note = textBlob("note");
    a.engine.enqueue_TS(&note, 2, nullptr, 0, nullptr);
    pollBoth(a, b);
    EXPECT_EQ(b.requests.size(), 2u);
    EXPECT_TRUE(contains(a.log, "did not find request for response"));
    b.answer = Endpoint::NOTHING;
    b.log.clear();
    a.request(textBlob("quiet"), 2, 78);
    pollBoth(a, b);
    EXPECT_TRUE(contains(b.log, "no response to request required"));
    EXPECT_EQ(a.responses.size(), 1u);
    EXPECT_EQ(a.engine.queuedTelegrams_TS(), 1u);  // still waiting for its answer
}

TEST(Protocol, BroadcastOtherAddressesAndTwoResponses)
{
    Endpoint a(1), b(2), c(3);
    join(a, b);
    join(a, c);
    a.request(textBlob("all"), nk_basicTelegram::ADDRESS_BROADCAST, 5);
    const std::string id = std::to_string(nk_protocol::u32TlgNumber);
    a.poll();
    for (int i = 0; i < 2; ++i) {
        b.poll();
        c.poll();
    }
    a.poll();
    // Both answer to the sender's address; the first answer is delivered, the second one
    // finds no request any more.
    ASSERT_EQ(b.requests.size(), 1u);
    ASSERT_EQ(c.requests.size(), 1u);
    EXPECT_TRUE(contains(b.log, "received broadcast telegram (tlg-id: " + id + ")"));
    EXPECT_TRUE(contains(c.log, "prot: send response (id: " + id + "; src: 3; dest: 1)"));
    ASSERT_EQ(a.responses.size(), 1u);
    EXPECT_EQ(a.responses[0].address, 2u);
    EXPECT_EQ(a.responses[0].content, textBlob("lla"));
    EXPECT_TRUE(contains(a.log, "did not find request for response"));

    // A frame for another address reaches c's link too and is dropped there.
    c.log.clear();
    a.request(textBlob("only b"), 2, 6);
    a.poll();
    c.poll();
    EXPECT_EQ(c.requests.size(), 1u);
    EXPECT_EQ(c.log, (Lines{"stream contains data", "received telegram is addressed to another instance (1 -> 2; own address: 3)"}));
    b.poll();
    b.poll();
    a.poll();
    EXPECT_EQ(a.responses.size(), 2u);

    // The answer is matched by id alone: c answers a request that a sent to b.
    a.request(textBlob("for b"), 2, 7);
    const unsigned int forB = nk_protocol::u32TlgNumber;
    a.poll();
    tBlob fake = textBlob("from c");
    c.engine.respond_TS(&fake, 1, forB);
    c.inbound.clear();
    c.poll();
    a.poll();
    ASSERT_EQ(a.responses.size(), 3u);
    EXPECT_EQ(a.responses[2].address, 3u);
    EXPECT_EQ(a.responses[2].tag, 7);

    // Ids wrap from 0xFFFFFFFF to 0, which is used like any other.
    nk_protocol::u32TlgNumber = 0xFFFFFFFFu;
    a.request(textBlob("zero"), 2, 8);
    EXPECT_EQ(nk_protocol::u32TlgNumber, 0u);
    pollBoth(a, b);  // b's late answer to "for b" finds no request; "zero" is answered
    ASSERT_EQ(a.responses.size(), 4u);
    EXPECT_EQ(a.responses[3].tag, 8);
    EXPECT_EQ(a.responses[3].content, textBlob("orez"));
}

// The engines keep the objects and storage that small telegrams pass through from one
// telegram to the next: whatever came before, each content arrives exactly as it was sent,
// with no byte of an earlier one, both ways, whole or in parts, compressed or not.
TEST(Protocol, StorageKeptBetweenTelegramsCarriesNothingOver)
{
    Endpoint a(1), b(2);
    join(a, b);
    std::vector<tBlob> contents;
    contents.push_back(randomBlob(900, 1));
    contents.push_back(textBlob("x"));
    tBlob runs(randomBlob(5, 2));
    runs.append(tBlob(std::vector<unsigned char>(300, 0).data(), 300));  // RLE pays
    contents.push_back(runs);
    contents.push_back(randomBlob(3, 3));
    contents.push_back(randomBlob(6000, 4));  // a frame too large for the kept storage
    contents.push_back(textBlob("after the large one"));
    tBlob text;
    for (int i = 0; i < 3000; ++i) text.append(static_cast<unsigned char>("abcab  "[i % 7]));
    contents.push_back(text);  // Huffman pays
    contents.push_back(randomBlob(2, 5));
    long long tag = 0;
    for (unsigned int maxPayload : {0u, 64u}) {
        MaxPayload limit(maxPayload ? maxPayload : nk_telegram::s_u32MaxPayloadSize);
        for (tBlob const& content : contents) {
            a.request(content, 2, ++tag);
            pollBoth(a, b);
        }
    }
    ASSERT_EQ(b.requests.size(), 2 * contents.size());
    ASSERT_EQ(a.responses.size(), 2 * contents.size());
    for (std::size_t i = 0; i < 2 * contents.size(); ++i) {
        tBlob const& sent = contents[i % contents.size()];
        EXPECT_EQ(b.requests[i].content, sent) << i;
        EXPECT_EQ(a.responses[i].tag, static_cast<long long>(i + 1));
        EXPECT_EQ(a.responses[i].content, reversed(sent)) << i;
    }
    // Built in a kept telegram too, content sent plain is consumed and content sent
    // compressed is left as it was.
    tBlob plain = randomBlob(50, 6), compressible(runs);
    a.engine.enqueue_TS(&plain, 2, nullptr, 0, nullptr);
    EXPECT_EQ(plain.size(), 0u);
    pollBoth(a, b);
    a.engine.enqueue_TS(&compressible, 2, nullptr, 0, nullptr);
    EXPECT_EQ(compressible, runs);
    pollBoth(a, b);
    ASSERT_EQ(b.requests.size(), 2 * contents.size() + 2);
    EXPECT_EQ(b.requests.back().content, runs);
}

// A receive callback that polls its own engine: the inner poll reads the next frame while
// the outer one still holds the content of the first, which must stay the first's.
TEST(Protocol, ReceiveCallbackThatPollsAgainKeepsItsContent)
{
    struct Nested : Endpoint
    {
        Nested() : Endpoint(2, 10, onNestedRequest) {}
        static void onNestedRequest(unsigned int src, tBlob* content, void* ctx)
        {
            Nested* self = static_cast<Nested*>(ctx);
            tBlob before(*content);
            if (self->depth++ == 0) {
                self->inbound.append(self->held);  // the next frame arrives meanwhile
                self->poll();
            }
            self->depth--;
            self->requests.push_back(Response{src, before, false, 0});
            EXPECT_EQ(*content, before);
            *content = reversed(*content);
        }
        int depth = 0;
        tBlob held;
    };
    Endpoint a(1);
    Nested b;
    join(a, b);
    a.request(textBlob("first request"), 2, 1);
    a.request(textBlob("second"), 2, 2);
    a.poll();
    const unsigned int firstEnd = b.inbound.getIndexOf(0x02) + 1;
    b.held = tBlob(b.inbound.getBuffer() + firstEnd, b.inbound.size() - firstEnd);
    b.inbound.resize(firstEnd);
    pollBoth(a, b);
    ASSERT_EQ(b.requests.size(), 2u);
    EXPECT_EQ(b.requests[0].content, textBlob("second"));  // the inner poll's, finished first
    EXPECT_EQ(b.requests[1].content, textBlob("first request"));
    ASSERT_EQ(a.responses.size(), 2u);
    for (Response const& r : a.responses)
        EXPECT_EQ(r.content, reversed(r.tag == 1 ? textBlob("first request") : textBlob("second")));
}

TEST(Protocol, MultiPartContentBothWaysCompressedOrNot)
{
    MaxPayload limit(100);
    Endpoint a(1), b(2);
    join(a, b);
    tBlob random = randomBlob(5000, 11);
    tBlob text;
    for (int i = 0; i < 20000; ++i) text.append(static_cast<unsigned char>('a' + i / 50 % 26));
    a.request(random, 2, 1);
    pollBoth(a, b);
    const unsigned long long plainWire = a.wire;
    EXPECT_GT(plainWire, 5000u);  // incompressible: more on the wire than the content
    a.request(text, 2, 2);
    pollBoth(a, b);
    EXPECT_LT(a.wire - plainWire, 20000u / 10);  // compressed before it was cut into parts
    ASSERT_EQ(a.responses.size(), 2u);
    EXPECT_EQ(a.responses[0].content, reversed(random));
    EXPECT_EQ(a.responses[1].content, reversed(text));
    ASSERT_EQ(b.requests.size(), 2u);
    EXPECT_EQ(b.requests[1].content, text);
    EXPECT_TRUE(contains(b.log, "received telegram is now complete (tlg.-id: " +
                                    std::to_string(nk_protocol::u32TlgNumber - 1) + ", content: 5000 bytes)"));
    EXPECT_TRUE(contains(b.log, "telegram handled, remove it (tlg-id: " +
                                    std::to_string(nk_protocol::u32TlgNumber) + ")"));
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), 0u);

    // Parts out of order never complete: the context stays open.
    nk_protocol::u32TlgNumber += 1;
    tBlob frames;
    for (unsigned int id : {2u, 1u}) {
        tBlob payload = randomBlob(10, id);
        nk_telegramPart part(nk_protocol::u32TlgNumber, 1, 2, id, 0, id == 2, &payload,
                             nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE, nk_basicTelegram::COMPRESSION_NONE);
        part.serialize(&frames);
    }
    b.engine.pushData(frames.getBuffer(), frames.size());
    b.poll();
    EXPECT_EQ(b.requests.size(), 2u);
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), 1u);

    // 1, 3 (last), 2: corrupt on part 3 and removed; part 2 opens a new context. Then many
    // open contexts complete in reverse, half in one poll and half in the next.
    b.answer = Endpoint::NOTHING;
    auto frame = [](tBlob& out, unsigned int id, unsigned int partId, bool last) {
        tBlob payload = randomBlob(3, id * 10 + partId);
        nk_telegramPart part(id, 1, 2, partId, 0, last, &payload, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                             nk_basicTelegram::COMPRESSION_NONE);
        part.serialize(&out);
    };
    frames.clear();
    for (unsigned int partId : {1u, 3u, 2u}) frame(frames, 900, partId, partId == 3);
    for (unsigned int id = 1000; id < 1100; ++id) frame(frames, id, 1, false);
    b.engine.pushData(frames.getBuffer(), frames.size());
    b.poll();
    EXPECT_TRUE(contains(b.log, "received complete telegram is corrupt, remove it (tlg.-id: 900)"));
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), 102u);
    for (unsigned int round = 0; round < 2; ++round) {
        frames.clear();
        for (unsigned int id = 1099 - 50 * round; id >= 1050 - 50 * round; --id) frame(frames, id, 2, true);
        b.engine.pushData(frames.getBuffer(), frames.size());
        b.poll();
        EXPECT_EQ(b.engine.incomingTelegrams_TS(), 52u - 50 * round);
    }
    ASSERT_EQ(b.requests.size(), 102u);
    for (unsigned int i = 0; i < 100; ++i) {
        const unsigned int id = 1099 - i;
        tBlob joined = randomBlob(3, id * 10 + 1);
        joined.append(randomBlob(3, id * 10 + 2));
        ASSERT_EQ(b.requests[2 + i].content, joined) << id;
    }
    frames.clear();
    frame(frames, 900, 3, true);  // completes the context that part 2 opened: 2, 3 is corrupt
    b.engine.pushData(frames.getBuffer(), frames.size());
    b.poll();
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), 1u);
}

// Parts that arrive in order are decoded straight into their context's content; anything
// else (a damaged frame, parts out of order, contexts interleaved, storage kept from an
// earlier large telegram) must give exactly the bytes that were sent.
TEST(Protocol, PartsJoinedAsTheyArriveWhateverComesBetween)
{
    Endpoint b(2);
    b.answer = Endpoint::NOTHING;
    auto frame = [](tBlob& out, unsigned int id, unsigned int partId, bool last, unsigned int size) {
        tBlob payload = randomBlob(size, id * 100 + partId);
        nk_telegramPart part(id, 1, 2, partId, 0, last, &payload, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                             nk_basicTelegram::COMPRESSION_NONE);
        part.serialize(&out);
    };
    auto expected = [](unsigned int id, std::vector<unsigned int> const& parts, unsigned int size) {
        tBlob joined;
        for (unsigned int partId : parts) joined.append(randomBlob(size, id * 100 + partId));
        return joined;
    };
    auto push = [&b](tBlob const& frames) {
        b.engine.pushData(const_cast<unsigned char*>(frames.getBuffer()), frames.size());
        b.poll();
    };

    // 1, 2 damaged, 3: the damaged frame ends the round and takes nothing into the content;
    // the good 2 and 3 (last) then complete it.
    tBlob frames, damaged;
    frame(frames, 1, 1, false, 500);
    frame(damaged, 1, 2, false, 500);
    damaged.getBuffer()[300] ^= 0x01;
    frames.append(damaged);
    push(frames);
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), 1u);
    frames.clear();
    frame(frames, 1, 2, false, 500);
    frame(frames, 1, 3, true, 500);
    push(frames);
    ASSERT_EQ(b.requests.size(), 1u);
    EXPECT_EQ(b.requests[0].content, expected(1, {1, 2, 3}, 500));

    // Out of order after an in-order start: 1, 2, 4, 3, 5 (last). Two contexts interleaved,
    // with tiny parts (one and two bytes) among them, and a frame for another address.
    frames.clear();
    for (unsigned int partId : {1u, 2u, 4u, 3u, 5u}) {
        frame(frames, 2, partId, partId == 5, 700);
        frame(frames, 3, partId == 5 ? 3 : (partId < 3 ? partId : 10), partId == 5, partId);
    }
    tBlob stranger = randomBlob(50, 9);
    nk_telegramPart other(2, 1, 7, 3, 0, false, &stranger, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                          nk_basicTelegram::COMPRESSION_NONE);
    other.serialize(&frames);
    push(frames);
    // Context 3 got 1, 2, then 10 twice (the repeat is dropped) and 3 last: the
    // parts 1, 2, 3 and 10 are there, 4 to 9 missing, so it is corrupt and removed.
    ASSERT_EQ(b.requests.size(), 2u);
    EXPECT_EQ(b.requests[1].content, expected(2, {1, 2, 3, 4, 5}, 700));
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), 0u);

    // Large telegrams one after another: the second is decoded into the storage the first
    // left, with a single-frame telegram between them.
    MaxPayload limit(64 * 1024);
    Endpoint a(1);
    join(a, b);
    for (unsigned int round = 0; round < 3; ++round) {
        tBlob content = randomBlob(300000 + round, 40 + round);
        const tBlob sent(content);
        a.engine.enqueue_TS(&content, 2, nullptr, 0, nullptr);
        tBlob small = randomBlob(20, round);
        a.engine.enqueue_TS(&small, 2, nullptr, 0, nullptr);
        a.poll();
        b.poll();
        ASSERT_EQ(b.requests.size(), 4u + 2 * round);
        EXPECT_EQ(b.requests[2 + 2 * round].content, sent);
        EXPECT_EQ(b.requests[3 + 2 * round].content, randomBlob(20, round));
    }
}

TEST(Protocol, ContextsCompletedInOpeningOrderOnePollEachStayWhereTheyAre)
{
    // Dropped contexts leave holes that are compacted only from time to time: every part
    // must still find its own context before and after each compaction.
    Endpoint b(2);
    b.answer = Endpoint::NOTHING;
    auto frame = [](tBlob& out, unsigned int id, unsigned int partId, bool last) {
        tBlob payload = randomBlob(4, id * 10 + partId);
        nk_telegramPart part(id, 1, 2, partId, 0, last, &payload, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                             nk_basicTelegram::COMPRESSION_NONE);
        part.serialize(&out);
    };
    const unsigned int n = 300;
    tBlob frames;
    for (unsigned int id = 5000; id < 5000 + n; ++id) frame(frames, id, 1, false);
    b.engine.pushData(frames.getBuffer(), frames.size());
    b.poll();
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), n);
    std::vector<bool> fed(n, false);
    for (unsigned int i = 0; i < n; ++i) {
        frames.clear();
        frame(frames, 5000 + i, fed[i] ? 3 : 2, true);  // completes the oldest open one
        const unsigned int later = n - 1 - i / 2;
        if (later > i && !fed[later]) {  // and feeds one opened later
            frame(frames, 5000 + later, 2, false);
            fed[later] = true;
        }
        b.engine.pushData(frames.getBuffer(), frames.size());
        b.poll();
        ASSERT_EQ(b.requests.size(), i + 1);
        ASSERT_EQ(b.engine.incomingTelegrams_TS(), n - 1 - i);
    }
    for (unsigned int i = 0; i < n; ++i) {
        const unsigned int id = 5000 + i;
        tBlob joined = randomBlob(4, id * 10 + 1);
        joined.append(randomBlob(4, id * 10 + 2));
        if (fed[i]) joined.append(randomBlob(4, id * 10 + 3));
        ASSERT_EQ(b.requests[i].content, joined) << id;
    }
}

TEST(Protocol, IncomingLimitsDropTheOldestOpenContexts)
{
    Endpoint b(2);
    b.answer = Endpoint::NOTHING;
    auto send = [&b](unsigned int id, unsigned int partId, bool last) {
        tBlob payload = randomBlob(4, id * 10 + partId), frames;
        nk_telegramPart part(id, 1, 2, partId, 0, last, &payload, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                             nk_basicTelegram::COMPRESSION_NONE);
        part.serialize(&frames);
        b.engine.pushData(frames.getBuffer(), frames.size());
        b.poll();
    };
    for (unsigned int id = 1; id <= 5; ++id) send(id, 1, false);
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), 5u);  // no bound by default
    b.engine.setIncomingLimits_TS(3, 0);
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), 3u);
    EXPECT_TRUE(contains(b.log, "open incoming telegrams over the limit, drop the oldest (tlg.-id: 2)"));
    send(6, 1, false);  // drops 3
    send(3, 2, true);   // 3 is gone: its last part opens a new context, which drops 4
    EXPECT_TRUE(b.requests.empty());
    send(5, 2, true);   // completes 5 (the engine holds 6, 3 and 5 then)
    ASSERT_EQ(b.requests.size(), 1u);
    EXPECT_EQ(b.engine.incomingTelegrams_TS(), 2u);

    // Bytes: three parts of 4 bytes fit 12; a fourth drops the oldest context, even the one fed.
    Endpoint c(2);
    c.answer = Endpoint::NOTHING;
    c.engine.setIncomingLimits_TS(0, 12);
    auto sendC = [&c](unsigned int id, unsigned int partId, bool last) {
        tBlob payload = randomBlob(4, id), frames;
        nk_telegramPart part(id, 1, 2, partId, 0, last, &payload, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                             nk_basicTelegram::COMPRESSION_NONE);
        part.serialize(&frames);
        c.engine.pushData(frames.getBuffer(), frames.size());
        c.poll();
    };
    sendC(10, 1, false);
    sendC(11, 1, false);
    sendC(10, 2, false);
    EXPECT_EQ(c.engine.incomingTelegrams_TS(), 2u);
    sendC(10, 3, false);  // 16 bytes: 10 is the oldest and goes with its three parts
    EXPECT_EQ(c.engine.incomingTelegrams_TS(), 1u);
    sendC(11, 2, true);
    ASSERT_EQ(c.requests.size(), 1u);
    EXPECT_EQ(c.requests[0].content.size(), 8u);
    EXPECT_EQ(c.engine.incomingTelegrams_TS(), 0u);
    for (unsigned int id = 20; id < 40; ++id) sendC(id, 1, false);  // 4 bytes each: three stay
    EXPECT_EQ(c.engine.incomingTelegrams_TS(), 3u);
}

TEST(Protocol, CorruptAndTruncatedFramesBetweenGoodOnes)
{
    Endpoint b(2);
    b.answer = Endpoint::NOTHING;
    auto frame = [](unsigned int id) {
        tBlob payload = randomBlob(40, id), out;
        nk_telegramPart part(id, 1, 2, 1, 0, true, &payload, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                             nk_basicTelegram::COMPRESSION_NONE);
        part.serialize(&out);
        return out;
    };
    tBlob stream = frame(101);
    tBlob corrupt = frame(102);
    corrupt.getBuffer()[20] ^= 0x10;
    stream.append(corrupt);
    stream.append(frame(103));
    tBlob truncated = frame(104);
    stream.append(truncated.getBuffer(), truncated.size() / 2);  // its end byte never comes
    stream.append(frame(105));                                   // swallowed with it
    stream.append(frame(106));

    // Each round stops at the first invalid frame; the frames behind it wait for new bytes.
    unsigned char junk = 0x80;
    b.engine.pushData(stream.getBuffer(), stream.size());
    b.poll();
    ASSERT_EQ(b.requests.size(), 1u);
    b.poll();
    EXPECT_EQ(b.requests.size(), 1u);
    b.engine.pushData(&junk, 1);
    b.poll();
    EXPECT_EQ(b.requests.size(), 2u);
    b.engine.pushData(&junk, 1);
    b.poll();
    ASSERT_EQ(b.requests.size(), 3u);
    EXPECT_EQ(b.requests[0].content, randomBlob(40, 101));
    EXPECT_EQ(b.requests[1].content, randomBlob(40, 103));
    EXPECT_EQ(b.requests[2].content, randomBlob(40, 106));
    EXPECT_EQ(b.engine.pendingStreamBytes(), 2u);  // junk waits for a frame

    // A stray end byte ahead of the next start byte holds the stream for good.
    unsigned char stray[] = {0x02};
    b.engine.pushData(stray, 1);
    tBlob good = frame(107);
    b.engine.pushData(good.getBuffer(), good.size());
    b.poll();
    b.engine.pushData(good.getBuffer(), good.size());
    b.poll();
    EXPECT_EQ(b.requests.size(), 3u);
    EXPECT_EQ(b.engine.pendingStreamBytes(), 3 + 2 * good.size());
}

// The engine takes a frame's end from its length field and checks while decoding that no
// start or end byte lies before it. Whatever bytes were damaged (a marker inside a frame, a
// byte below 0x80 that decodes the same), the frames are those that cutting at the first end
// byte gives, arriving in pieces of any size.
TEST(Protocol, FramesAreCutAtTheFirstEndByteWhateverTheLengthFieldSays)
{
    std::mt19937 rng(31);
    for (int round = 0; round < 40; ++round) {
        SCOPED_TRACE(round);
        tBlob stream;
        for (unsigned int i = 0; i < 12; ++i) {
            static const unsigned int sizes[] = {0, 3, 40, 300, 5000};
            tBlob payload = randomBlob(sizes[rng() % 5], rng()), frame;
            nk_telegramPart part(1000 + i, 1, rng() % 4 ? 2 : 3, 1, 0, true, &payload,
                                 nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE, nk_basicTelegram::COMPRESSION_NONE);
            part.serialize(&frame);
            if (rng() % 3 == 0) {
                static const unsigned char damage[] = {0x01, 0x02, 0x55, 0x00, 0x7F};
                frame.getBuffer()[1 + rng() % (frame.size() - 2)] = damage[rng() % 5];
            }
            stream.append(frame);
        }
        std::vector<unsigned int> pieces;
        for (unsigned int at = 0; at < stream.size();) {
            const unsigned int n = std::min<unsigned int>(stream.size() - at, 1 + rng() % (round % 2 ? 40 : 9000));
            pieces.push_back(n);
            at += n;
        }

        // The frames as the format defines them: each round of reading ends at the first
        // invalid one.
        std::vector<tBlob> expected;
        tBlob reference;
        unsigned int at = 0;
        for (unsigned int n : pieces) {
            reference.append(stream.getBuffer() + at, n);
            at += n;
            nk_telegramPart part;
            while (part.streamContainsTelegram(&reference))
                if (part.destinationAddress() == 2) expected.push_back(*part.isSinglePartTelegram());
        }

        Endpoint b(2);
        b.answer = Endpoint::NOTHING;
        at = 0;
        for (unsigned int n : pieces) {
            b.engine.pushData(stream.getBuffer() + at, n);
            at += n;
            b.poll();
        }
        ASSERT_EQ(b.requests.size(), expected.size());
        for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(b.requests[i].content, expected[i]) << i;
        EXPECT_EQ(b.engine.pendingStreamBytes(), reference.size());
    }

    // A part joined in place whose bytes need a second look: its content is whole all the same.
    MaxPayload small(1000);
    Endpoint a(1), b(2);
    join(a, b);
    b.answer = Endpoint::NOTHING;
    const tBlob content = randomBlob(5000, 32);
    a.request(content, 2, 0);
    a.poll();
    tBlob& wire = b.inbound;
    unsigned int frameStart = 0, frames = 0;
    for (unsigned int i = 0; i < wire.size(); ++i)
        if (wire.getBuffer()[i] == 0x01 && ++frames == 3) frameStart = i;
    ASSERT_EQ(frames, 5u);
    wire.getBuffer()[frameStart + 500] &= 0x7F;
    b.poll();
    ASSERT_EQ(b.requests.size(), 1u);
    EXPECT_EQ(b.requests[0].content, content);
}

TEST(Protocol, TimeOutsLateResponsesAndSendFailures)
{
    Endpoint a(1, 1), b(2);
    join(a, b);
    a.request(textBlob("late"), 2, 9);  // time-out 0: a's default of 1 s
    const std::string id = std::to_string(nk_protocol::u32TlgNumber);
    const long long start = tTime::now();
    while (a.responses.empty() && tTime::now() - start < 5) {
        a.poll();
        tTime::sleep(50);
    }
    ASSERT_EQ(a.responses.size(), 1u);
    EXPECT_TRUE(a.responses[0].timedOut);
    EXPECT_EQ(a.responses[0].address, 0xFFFFFFFFu);
    EXPECT_EQ(a.responses[0].tag, 9);
    EXPECT_TRUE(contains(a.log, "outgoing request timed out, notify timeout and remove (tid: " + id + ")"));
    pollBoth(a, b);  // the answer comes after the time-out: nobody waits for it
    EXPECT_EQ(b.requests.size(), 1u);
    EXPECT_EQ(a.responses.size(), 1u);
    EXPECT_TRUE(contains(a.log, "did not find request for response"));

    // No send function: every unsent telegram is dropped without its callback.
    a.log.clear();
    a.request(textBlob("nowhere"), 2, 10);
    a.engine.poll(nullptr, &a, nullptr, nullptr);
    EXPECT_EQ(a.log, Lines{"can't send telegram, no send method, remove telegram"});
    EXPECT_EQ(a.engine.queuedTelegrams_TS(), 0u);

    // A link that keeps asking to try again: five waits of 500 ms, then the telegram goes.
    a.log.clear();
    a.request(textBlob("stuck"), 2, 11);
    const std::string stuck = std::to_string(nk_protocol::u32TlgNumber);
    unsigned int calls = 0;
    auto busy = [](nk_server*, void* ctx, unsigned char*, unsigned int, int* error) -> unsigned int {
        ++*static_cast<unsigned int*>(ctx);
        *error = EAGAIN;
        return 0;
    };
    a.engine.poll(nullptr, &calls, busy, nullptr);
    EXPECT_EQ(calls, 5u);
    EXPECT_EQ(a.log, Lines{"sending telegram failed, remove it (tid: " + stuck + ")"});
    EXPECT_EQ(a.responses.size(), 1u);
}

namespace
{
// One end of a non-blocking socketpair whose send function takes random slices and now and
// then claims the link is busy.
struct SocketEnd
{
    int fd;
    std::mt19937 rng;
    unsigned int sendCalls = 0;
    unsigned int busyAnswers = 0;

    static unsigned int send(nk_server*, void* ctx, unsigned char* data, unsigned int length, int* error)
    {
        SocketEnd* self = static_cast<SocketEnd*>(ctx);
        if (++self->sendCalls == 25) {  // once: each costs the engine a 500 ms wait
            ++self->busyAnswers;
            *error = EAGAIN;
            return 0;
        }
        unsigned int slice = 1 + self->rng() % length;
        ssize_t n = ::send(self->fd, data, slice, MSG_NOSIGNAL);
        if (n > 0) return static_cast<unsigned int>(n);
        *error = errno;
        return 0;
    }
    static unsigned int recv(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
    {
        ssize_t n = ::recv(static_cast<SocketEnd*>(ctx)->fd, data, length, 0);
        return n > 0 ? static_cast<unsigned int>(n) : 0;
    }
};

std::vector<Response> g_socketResponses;
void onSocketResponse(unsigned int address, tBlob* content, void*, bool timedOut, void* userData)
{
    g_socketResponses.push_back(
        Response{address, content ? *content : tBlob(), timedOut, reinterpret_cast<long long>(userData)});
}
void reverseRequest(unsigned int, tBlob* content, void*) { *content = reversed(*content); }
}

TEST(Protocol, SocketpairWithPartialAndBusySends)
{
    MaxPayload limit(512);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    for (int fd : fds) ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
    SocketEnd ea{fds[0], std::mt19937(1)}, eb{fds[1], std::mt19937(2)};
    nk_protocol a(1, nullptr, nullptr, 30, nullptr, nullptr, nullptr);
    nk_protocol b(2, reverseRequest, nullptr, 30, nullptr, nullptr, nullptr);

    std::vector<tBlob> sent;
    g_socketResponses.clear();
    for (unsigned int i = 0; i < 40; ++i) {
        tBlob content = randomBlob(1 + (i * 397) % 6000, i);
        if (i % 3 == 0) std::fill(content.getBuffer(), content.getBuffer() + content.size() / 2, 'z');
        sent.push_back(content);
        a.enqueue_TS(&content, 2, onSocketResponse, 0, reinterpret_cast<void*>(static_cast<long long>(i)));
        a.poll(nullptr, &ea, SocketEnd::send, SocketEnd::recv);
        b.poll(nullptr, &eb, SocketEnd::send, SocketEnd::recv);
    }
    const long long start = tTime::now();
    while (g_socketResponses.size() < sent.size() && tTime::now() - start < 20) {
        a.poll(nullptr, &ea, SocketEnd::send, SocketEnd::recv);
        b.poll(nullptr, &eb, SocketEnd::send, SocketEnd::recv);
    }
    ASSERT_EQ(g_socketResponses.size(), sent.size());
    for (Response const& r : g_socketResponses) {
        EXPECT_FALSE(r.timedOut);
        EXPECT_EQ(r.address, 2u);
        EXPECT_EQ(r.content, reversed(sent[r.tag])) << r.tag;
    }
    EXPECT_EQ(ea.busyAnswers + eb.busyAnswers, 2u);
    close(fds[0]);
    close(fds[1]);
}
