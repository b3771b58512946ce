// Whole telegrams: splitting, the compression choice, sending through a link function,
// reassembly of parts, time-outs and callbacks.
#include <gtest/gtest.h>

#include "test_helpers.h"

#include <memory>
#include <random>
#include <vector>

#include "nk_telegram.h"
#include "tCompression.h"
#include "tTime.h"

namespace
{
typedef nk_basicTelegram B;
typedef nk_telegramPart P;


// Restores the process-wide part size when a test ends.
struct MaxPayload
{
    explicit MaxPayload(unsigned int n) : saved(nk_telegram::s_u32MaxPayloadSize) { nk_telegram::setMaxPayloadSize(n); }
    ~MaxPayload() { nk_telegram::s_u32MaxPayloadSize = saved; }
    unsigned int saved;
};

struct Link
{
    tBlob sent;
    unsigned int calls = 0;
    unsigned int maxChunk = 0xFFFFFFFFu;  // accepts at most this much per call
    int failOnCall = -1;                  // returns 0 with a hard error on this call
};

unsigned int linkSend(nk_server*, void* ctx, unsigned char* data, unsigned int length, int* error)
{
    Link* l = static_cast<Link*>(ctx);
    if (static_cast<int>(l->calls++) == l->failOnCall) {
        *error = 32;  // EPIPE
        return 0;
    }
    unsigned int n = length < l->maxChunk ? length : l->maxChunk;
    l->sent.append(data, n);
    return n;
}

void noteCall(unsigned int address, tBlob* content, void* context, bool timedOut, void* userData)
{
    std::vector<long long>* seen = static_cast<std::vector<long long>*>(userData);
    seen->push_back(address);
    seen->push_back(content ? static_cast<long long>(content->size()) : -1);
    seen->push_back(reinterpret_cast<long long>(context));
    seen->push_back(timedOut);
}

// The whole content a receiver gets from the frames in wire.
tBlob reassemble(tBlob wire)
{
    P part;
    nk_telegram* t = nullptr;
    while (part.streamContainsTelegram(&wire)) {
        if (!t)
            t = new nk_telegram(&part);
        else
            t->addTelegramPart(&part);
    }
    EXPECT_NE(t, nullptr);
    if (!t) return tBlob();
    EXPECT_TRUE(t->lastPartPresent());
    EXPECT_FALSE(t->isCorrupt());
    tBlob content(*t->getCompleteContent());
    delete t;
    return content;
}
}

TEST(Telegram, SplitsAtTheMaximumPayloadSize)
{
    MaxPayload limit(1000);
    tBlob exact = randomBlob(1000, 1);
    nk_telegram one(7, 1, 2, &exact, nullptr, nullptr, false, nullptr, true);
    EXPECT_EQ(one.compression(), B::COMPRESSION_NONE);
    EXPECT_EQ(exact.size(), 0u);  // uncompressed content is consumed
    ASSERT_EQ(one.partCount(), 1u);
    EXPECT_EQ(one.part(0)->partId(), 1u);
    EXPECT_TRUE(one.part(0)->isLastPart());
    EXPECT_EQ(*one.part(0)->payload(), randomBlob(1000, 1));

    tBlob more = randomBlob(2501, 2);
    nk_telegram three(8, 1, 2, &more, nullptr, nullptr, true, nullptr, true);
    ASSERT_EQ(three.partCount(), 3u);
    const unsigned int sizes[] = {1000, 1000, 501};
    for (unsigned int i = 0; i < 3; ++i) {
        nk_telegramPart* p = three.part(i);
        EXPECT_EQ(p->partId(), i + 1);
        EXPECT_EQ(p->isLastPart(), i == 2);
        EXPECT_EQ(p->payload()->size(), sizes[i]);
        EXPECT_EQ(p->telegramId(), 8u);
        EXPECT_EQ(p->sourceAddress(), 1u);
        EXPECT_EQ(p->destinationAddress(), 2u);
        EXPECT_EQ(p->type(), B::TYPE_RESPONSE);
        EXPECT_EQ(p->timestamp(), three.timestamp());
    }
    EXPECT_EQ(three.part(3), nullptr);

    tBlob oneMore = randomBlob(1001, 3);
    nk_telegram two(9, 1, 2, &oneMore, nullptr, nullptr, false, nullptr, true);
    ASSERT_EQ(two.partCount(), 2u);
    EXPECT_EQ(two.part(1)->payload()->size(), 1u);

    // Empty and missing content make no part, and sending them moves no byte.
    tBlob empty;
    nk_telegram none(10, 1, 2, &empty, nullptr, nullptr, false, nullptr, true);
    nk_telegram null(11, 1, 2, nullptr, nullptr, nullptr, false, nullptr, true);
    EXPECT_EQ(none.partCount(), 0u);
    EXPECT_EQ(null.partCount(), 0u);
    Link link;
    EXPECT_TRUE(none.send(nullptr, &link, linkSend));
    EXPECT_TRUE(none.hasBeenSend());
    EXPECT_EQ(link.calls, 0u);
}

TEST(Telegram, PartsOfLargeContentAreRangesOfItAndOwnTheirBytesWhenTakenAway)
{
    MaxPayload limit(1000);
    const tBlob original = randomBlob(2501, 6);
    tBlob content(original);
    std::unique_ptr<nk_telegram> t(new nk_telegram(8, 1, 2, &content, nullptr, nullptr, false, nullptr, true));
    ASSERT_EQ(t->partCount(), 3u);
    // Cutting copied nothing: the parts' bytes lie back to back in one buffer.
    for (unsigned int i = 1; i < 3; ++i)
        EXPECT_EQ(t->part(i)->payloadBytes(), t->part(0)->payloadBytes() + 1000 * i);

    // The frames are those of parts that own the same bytes.
    tBlob frames, expected;
    for (unsigned int i = 0; i < 3; ++i) {
        nk_telegramPart* p = t->part(i);
        tBlob bytes(original.getBuffer() + 1000 * i, i == 2 ? 501 : 1000);
        P own(8, 1, 2, i + 1, p->timestamp(), i == 2, &bytes, p->type(), p->compression());
        own.serialize(&expected);
        EXPECT_EQ(p->serializedSize(), own.serializedSize());
        ASSERT_TRUE(p->serialize(&frames));
    }
    EXPECT_EQ(frames, expected);

    // A part taken out of the telegram keeps its bytes after the telegram is gone; a part
    // changed through its payload sends the change, and only in its own frame.
    std::unique_ptr<P> copy(new P(t->part(0)));
    std::unique_ptr<P> detached(t->part(1)->detach());
    EXPECT_EQ(t->part(1)->payloadLength(), 0u);
    t->part(2)->payload()->getBuffer()[0] ^= 0xFF;
    tBlob changed;
    t->part(2)->serialize(&changed);
    P read;
    ASSERT_TRUE(read.streamContainsTelegram(&changed));
    EXPECT_EQ(read.payload()->getBuffer()[0], original.getBuffer()[2000] ^ 0xFF);
    EXPECT_EQ(tBlob(read.payload()->getBuffer() + 1, 500), tBlob(original.getBuffer() + 2001, 500));
    t.reset();
    EXPECT_EQ(*copy->payload(), tBlob(original.getBuffer(), 1000));
    EXPECT_EQ(*detached->payload(), tBlob(original.getBuffer() + 1000, 1000));
}

// A telegram whose frames pass 1 MiB goes to the link in batches that end on frame
// boundaries: the bytes are those of all frames in order, and a failing call stops it.
TEST(Telegram, LargeTelegramsGoToTheLinkInBatchesOfWholeFrames)
{
    MaxPayload limit(300000);
    const tBlob original = randomBlob(3000000, 8);
    tBlob content(original);
    nk_telegram t(12, 1, 2, &content, nullptr, nullptr, false, nullptr, true);
    ASSERT_EQ(t.compression(), B::COMPRESSION_NONE);
    ASSERT_EQ(t.partCount(), 10u);
    tBlob frames;
    for (unsigned int i = 0; i < t.partCount(); ++i) t.part(i)->serialize(&frames);
    Link link;
    ASSERT_TRUE(t.send(nullptr, &link, linkSend));
    EXPECT_EQ(link.calls, 3u);  // four frames of 300,000 bytes pass 1 MiB: 4, 4 and 2
    EXPECT_EQ(link.sent, frames);
    EXPECT_EQ(reassemble(link.sent), original);

    tBlob again(original);
    nk_telegram broken(13, 1, 2, &again, nullptr, nullptr, false, nullptr, true);
    Link failing;
    failing.failOnCall = 1;
    EXPECT_FALSE(broken.send(nullptr, &failing, linkSend));
    EXPECT_FALSE(broken.hasBeenSend());
    EXPECT_EQ(failing.calls, 2u);
}

TEST(Telegram, CompressionIsChosenByTheSmallerStrictlyShorterForm)
{
    auto expected = [](tBlob const& c) {
        unsigned int r = tCompression::encodeRLE(c).size(), h = tCompression::encodeHuffman(c).size();
        if (r < c.size()) return h < r ? B::COMPRESSION_HUFF : B::COMPRESSION_RLE;
        return h < c.size() ? B::COMPRESSION_HUFF : B::COMPRESSION_NONE;
    };
    std::vector<tBlob> contents;
    contents.push_back(randomBlob(5000, 4));
    contents.push_back(tBlob(std::vector<unsigned char>(4000, 0).data(), 4000));
    tBlob text;
    for (int i = 0; i < 3000; ++i) text.append(static_cast<unsigned char>("the quick brown fox "[i % 20]));
    contents.push_back(text);
    tBlob tie;  // RLE and Huffman come out at the same length, both shorter
    for (int rep = 0; rep < 5; ++rep) {
        for (int i = 0; i < 8; ++i) tie.append(static_cast<unsigned char>('a'));
        for (int i = 0; i < 38; ++i) tie.append(static_cast<unsigned char>('b' + i % 5));
    }
    ASSERT_EQ(tCompression::encodeRLE(tie).size(), tCompression::encodeHuffman(tie).size());
    ASSERT_LT(tCompression::encodeRLE(tie).size(), tie.size());
    contents.push_back(tie);
    contents.push_back(tBlob(reinterpret_cast<unsigned char const*>("short"), 5));

    bool sawRle = false, sawHuff = false;
    for (tBlob const& original : contents) {
        tBlob content(original);
        nk_telegram t(1, 1, 2, &content, nullptr, nullptr, false, nullptr, true);
        EXPECT_EQ(t.compression(), expected(original)) << original.size();
        sawRle |= t.compression() == B::COMPRESSION_RLE;
        sawHuff |= t.compression() == B::COMPRESSION_HUFF;
        // Compressed content is left to the caller; plain content is moved into the parts.
        EXPECT_EQ(content.size(), t.compression() == B::COMPRESSION_NONE ? 0u : original.size());
        Link link;
        ASSERT_TRUE(t.send(nullptr, &link, linkSend));
        EXPECT_EQ(reassemble(link.sent), original);
    }
    EXPECT_TRUE(sawRle && sawHuff);

    tBlob zeros(std::vector<unsigned char>(4000, 0).data(), 4000);
    nk_telegram plain(1, 1, 2, &zeros, nullptr, nullptr, false, nullptr, false);
    EXPECT_EQ(plain.compression(), B::COMPRESSION_NONE);
    tBlob out;
    EXPECT_FALSE(plain.checkCompression(nullptr, &out));
}

TEST(Telegram, SendsThroughPartialWritesAndStopsOnHardErrors)
{
    MaxPayload limit(300);
    tBlob content = randomBlob(1000, 5);
    nk_telegram t(3, 4, 5, &content, noteCall, nullptr, false, nullptr, true);
    EXPECT_EQ(t.type(), B::TYPE_REQUEST_FORCE_RESPONSE);
    tBlob frames;
    for (unsigned int i = 0; i < t.partCount(); ++i) t.part(i)->serialize(&frames);

    Link trickle;
    trickle.maxChunk = 7;
    ASSERT_TRUE(t.send(nullptr, &trickle, linkSend));
    EXPECT_TRUE(t.hasBeenSend());
    EXPECT_EQ(trickle.sent, frames);
    EXPECT_EQ(reassemble(trickle.sent), randomBlob(1000, 5));

    content = randomBlob(1000, 6);
    nk_telegram u(4, 4, 5, &content, nullptr, nullptr, false, nullptr, true);
    EXPECT_EQ(u.type(), B::TYPE_REQUEST_NO_RESPONSE);
    Link failing;
    failing.maxChunk = 100;
    failing.failOnCall = 3;
    EXPECT_FALSE(u.send(nullptr, &failing, linkSend));
    EXPECT_FALSE(u.hasBeenSend());
    EXPECT_EQ(failing.sent.size(), 300u);
    EXPECT_EQ(u.sendRetries(), 1);
    EXPECT_FALSE(u.send(nullptr, &failing, nullptr));
}

TEST(Telegram, ReassemblyKeepsArrivalOrderAndFindsGaps)
{
    auto part = [](unsigned int id, bool last) {
        tBlob payload(reinterpret_cast<unsigned char const*>("abc") + (id - 1) % 3, 1);
        return new P(50, 1, 2, id, 0, last, &payload, B::TYPE_REQUEST_NO_RESPONSE, B::COMPRESSION_NONE);
    };
    std::vector<P*> made;
    auto p = [&](unsigned int id, bool last) {
        made.push_back(part(id, last));
        return made.back();
    };

    // Duplicates count once; parts in order complete.
    nk_telegram inOrder(p(1, false));
    EXPECT_FALSE(inOrder.addTelegramPart(p(1, false)));
    EXPECT_TRUE(inOrder.addTelegramPart(p(2, false)));
    EXPECT_FALSE(inOrder.addTelegramPart(p(2, false)));
    EXPECT_FALSE(inOrder.lastPartPresent());
    EXPECT_TRUE(inOrder.addTelegramPart(p(3, true)));
    EXPECT_EQ(inOrder.partCount(), 3u);
    EXPECT_TRUE(inOrder.lastPartPresent());
    EXPECT_FALSE(inOrder.isCorrupt());
    EXPECT_EQ(*inOrder.getCompleteContent(), tBlob(reinterpret_cast<unsigned char const*>("abc"), 3));
    EXPECT_FALSE(inOrder.addTelegramPart(nullptr));

    // 1, 3 (last): a gap, corrupt. 1, 2, 4 (last): corrupt as well.
    nk_telegram gap(p(1, false));
    gap.addTelegramPart(p(3, true));
    EXPECT_TRUE(gap.lastPartPresent());
    EXPECT_TRUE(gap.isCorrupt());
    nk_telegram gap4(p(1, false));
    gap4.addTelegramPart(p(2, false));
    gap4.addTelegramPart(p(4, true));
    EXPECT_TRUE(gap4.isCorrupt());

    // 2 (last), 1: the end of the list is part 1, so it never looks complete.
    nk_telegram reversed(p(2, true));
    reversed.addTelegramPart(p(1, false));
    EXPECT_FALSE(reversed.lastPartPresent());
    // Sorting puts 1 before 2; a late duplicate of the first part is still refused.
    EXPECT_FALSE(reversed.isCorrupt());
    EXPECT_EQ(reversed.part(0)->partId(), 1u);
    EXPECT_FALSE(reversed.addTelegramPart(p(2, true)));

    // Many parts arriving downwards, each twice: stored once, joined in ascending order.
    nk_telegram downwards(p(300, false));
    for (unsigned int id = 300; id >= 2; --id) {
        EXPECT_EQ(downwards.addTelegramPart(p(id, false)), id != 300) << id;
        EXPECT_FALSE(downwards.addTelegramPart(p(id, false))) << id;
    }
    EXPECT_TRUE(downwards.addTelegramPart(p(1, true)));
    EXPECT_FALSE(downwards.addTelegramPart(p(150, false)));
    ASSERT_EQ(downwards.partCount(), 300u);
    EXPECT_TRUE(downwards.lastPartPresent());
    EXPECT_FALSE(downwards.isCorrupt());
    for (unsigned int i = 0; i < 300; ++i) ASSERT_EQ(downwards.part(i)->partId(), i + 1);
    EXPECT_EQ(downwards.getCompleteContent()->size(), 300u);

    P* null = nullptr;
    P* one = made[0];
    EXPECT_FALSE(nk_telegram::sortTelegrams(null, one));
    for (P* x : made) delete x;
}

TEST(Telegram, TimeOutsAndCallbacks)
{
    std::vector<long long> seen;
    tBlob content = randomBlob(10, 7);
    void* context = reinterpret_cast<void*>(0x1234);
    nk_telegram t(1, 1, 2, &content, noteCall, context, false, &seen, true);
    EXPECT_TRUE(t.waitForResponse());
    EXPECT_TRUE(t.isOutgoingRequest(1));
    EXPECT_FALSE(t.isOutgoingRequest(2));
    EXPECT_EQ(t.timeout_s(), 10);
    EXPECT_LE(tTime::now() - static_cast<long long>(t.timestamp()), 1);
    EXPECT_FALSE(t.timeout());
    t.setTimeout_s(-2);  // counted from creation: already past
    EXPECT_TRUE(t.timeout());

    tBlob answer = randomBlob(3, 8);
    t.notifyResponse(9, &answer);
    t.notifyTimeout();
    EXPECT_EQ(seen, (std::vector<long long>{9, 3, 0x1234, 0, 0xFFFFFFFFll, -1, 0x1234, 1}));

    nk_telegram quiet(2, 1, 2, &content, nullptr, nullptr, false, nullptr, true);
    quiet.notifyTimeout();  // no callback: nothing happens
    EXPECT_FALSE(quiet.waitForResponse());
}
