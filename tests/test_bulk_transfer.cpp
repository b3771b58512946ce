// Large telegrams back to back between the same two engines, which keep their large
// buffers between busy polls, and CRC-8 over inputs long enough for the folding path.
#include <gtest/gtest.h>

#include "test_helpers.h"

#include <cstring>
#include <random>
#include <vector>

#include "crc8.h"
#include "nk_protocol.h"

namespace
{

tBlob runsBlob(unsigned int n, unsigned int seed)
{
    std::mt19937 rng(seed);
    tBlob b;
    unsigned char* p = b.resize(n);
    for (unsigned int i = 0; i < n; i += 16) std::memset(p + i, static_cast<int>(rng() % 5), n - i < 16 ? n - i : 16);
    return b;
}

struct Peer
{
    Peer(unsigned int address) : engine(address, received, this, 60, nullptr, nullptr, nullptr) {}
    static void received(unsigned int, tBlob* content, void* ctx)
    {
        static_cast<Peer*>(ctx)->contents.push_back(*content);
        content->clear();
    }
    static unsigned int push(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
    {
        static_cast<Peer*>(ctx)->to->engine.pushData(data, length);
        return length;
    }
    nk_protocol engine;
    Peer* to = nullptr;
    std::vector<tBlob> contents;
};

unsigned char bitwiseCrc8(unsigned char crc, unsigned char const* p, std::size_t n)
{
    unsigned c = crc;
    for (std::size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k) c = (c & 0x80) ? ((c << 1) ^ 0x07) & 0xFF : (c << 1) & 0xFF;
    }
    return static_cast<unsigned char>(c);
}
}

TEST(BulkTransfer, LargeTelegramsBackToBackArriveIntactAcrossKeptBuffers)
{
    const unsigned int saved = nk_telegram::s_u32MaxPayloadSize;
    nk_protocol::setMaxPayloadSize(50000);
    Peer a(1), b(2);
    a.to = &b;
    b.to = &a;
    // Shrinking, growing, compressed and plain, single- and multi-part, with idle polls
    // between some of them (which give the kept buffers back).
    std::vector<tBlob> sent = {randomBlob(700000, 1), randomBlob(300001, 2), runsBlob(900000, 3),
                               randomBlob(40000, 4),  randomBlob(1200000, 5), runsBlob(100000, 6)};
    for (std::size_t i = 0; i < sent.size(); ++i) {
        tBlob copy(sent[i]);
        a.engine.enqueue_TS(&copy, 2, nullptr, 0, nullptr);
        a.engine.poll(nullptr, &a, Peer::push, nullptr);
        b.engine.poll(nullptr, &b, nullptr, nullptr);
        if (i % 3 == 2) {
            a.engine.poll(nullptr, &a, Peer::push, nullptr);
            b.engine.poll(nullptr, &b, nullptr, nullptr);
        }
    }
    nk_telegram::s_u32MaxPayloadSize = saved;
    ASSERT_EQ(sent.size(), b.contents.size());
    for (std::size_t i = 0; i < sent.size(); ++i) EXPECT_TRUE(sent[i] == b.contents[i]) << i;
    EXPECT_EQ(0u, b.engine.pendingStreamBytes());
    EXPECT_EQ(0u, b.engine.incomingTelegrams_TS());
}

TEST(BulkTransfer, Crc8OfLongInputsMatchesBitwiseAtEveryAlignmentAndStart)
{
    tBlob data = randomBlob(5000, 9);
    std::mt19937 rng(11);
    for (unsigned int offset = 0; offset < 4; ++offset) {
        for (unsigned int n = 200; n < 1400; n += 7) {
            const unsigned char start = static_cast<unsigned char>(rng());
            unsigned char const* p = data.getBuffer() + offset;
            ASSERT_EQ(bitwiseCrc8(start, p, n), crc_crc8update(start, p, n)) << offset << " " << n;
        }
    }
}
