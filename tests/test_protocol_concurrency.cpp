// Several threads enqueue while one thread polls the two requesting engines and another
// polls the answering peer: every request gets exactly one callback.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "leBytes.h"
#include "nk_protocol.h"

namespace
{
const unsigned int kThreads = 4;
const unsigned int kPerThread = 150;
const unsigned int kRequests = kThreads * kPerThread;

// A byte link that two threads share.
struct SharedPipe
{
    std::mutex lock;
    tBlob bytes;
};

struct Link
{
    std::vector<SharedPipe*> out;
    SharedPipe* in;
};

unsigned int linkSend(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
{
    for (SharedPipe* p : static_cast<Link*>(ctx)->out) {
        std::lock_guard<std::mutex> guard(p->lock);
        p->bytes.append(data, length);
    }
    return length;
}

unsigned int linkRecv(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
{
    SharedPipe* p = static_cast<Link*>(ctx)->in;
    std::lock_guard<std::mutex> guard(p->lock);
    unsigned int n = length < p->bytes.size() ? length : p->bytes.size();
    memcpy(data, p->bytes.getBuffer(), n);
    p->bytes.slice(n);
    return n;
}

// Each request carries its tag; the peer leaves every seventh unanswered.
bool answered(unsigned int tag) { return tag % 7 != 0; }

void answerUnlessSkipped(unsigned int, tBlob* content, void*)
{
    if (content->size() < 4) return;
    unsigned int tag = nk::readLE<uint32_t>(content->getBuffer());
    if (!answered(tag)) {
        content->clear();
        return;
    }
    content->append(static_cast<unsigned char>(0xA5));  // the answer: the request plus one byte
}

struct Tally
{
    std::atomic<int> calls[kRequests];
    std::atomic<int> wrong{0};
    std::atomic<int> total{0};
};
Tally* g_tally = nullptr;

void onResponse(unsigned int address, tBlob* content, void* context, bool timedOut, void* userData)
{
    unsigned int tag = static_cast<unsigned int>(reinterpret_cast<uintptr_t>(userData));
    Tally& t = *g_tally;
    t.calls[tag]++;
    bool ok = timedOut ? (!answered(tag) && content == nullptr && address == 0xFFFFFFFFu)
                       : (answered(tag) && address == 2 && content && content->size() == 5 &&
                          nk::readLE<uint32_t>(content->getBuffer()) == tag);
    if (!ok) t.wrong++;
    // Callbacks run under the engine's outgoing lock; queuing from inside must work.
    if (tag % 50 == 1) {
        tBlob note(reinterpret_cast<unsigned char const*>("note"), 4);
        static_cast<nk_protocol*>(context)->enqueue_TS(&note, 2, nullptr, 0, nullptr);
    }
    t.total++;
}
}

TEST(ProtocolConcurrency, EveryRequestGetsExactlyOneCallback)
{
    Tally tally;
    for (auto& c : tally.calls) c = 0;
    g_tally = &tally;

    // The requesters are their own context, so their callbacks can queue more.
    // a and c both hear every answer of b and drop those addressed to the other.
    SharedPipe toPeer, toA, toC;
    Link aLink{{&toPeer}, &toA};
    Link cLink{{&toPeer}, &toC};
    Link peerLink{{&toA, &toC}, &toPeer};
    nk_protocol a(1, nullptr, &a, 30, nullptr, nullptr, nullptr);
    nk_protocol c(3, nullptr, &c, 30, nullptr, nullptr, nullptr);
    nk_protocol b(2, answerUnlessSkipped, nullptr, 30, nullptr, nullptr, nullptr);
    nk_protocol* requesters[2] = {&a, &c};

    std::atomic<bool> stop{false};
    std::thread peer([&] {
        while (!stop) {
            b.poll(nullptr, &peerLink, linkSend, linkRecv);
            std::this_thread::yield();
        }
    });
    std::thread poller([&] {
        while (!stop) {
            a.poll(nullptr, &aLink, linkSend, linkRecv);
            c.poll(nullptr, &cLink, linkSend, linkRecv);
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> producers;
    for (unsigned int t = 0; t < kThreads; ++t) {
        producers.emplace_back([&, t] {
            for (unsigned int i = 0; i < kPerThread; ++i) {
                unsigned int tag = t * kPerThread + i;
                unsigned char bytes[4];
                nk::writeLE<uint32_t>(bytes, tag);
                tBlob content(bytes, 4);
                // Unanswered requests time out after a second; the rest may not.
                requesters[tag % 2]->enqueue_TS(&content, 2, onResponse, answered(tag) ? 60 : 1,
                                               reinterpret_cast<void*>(static_cast<uintptr_t>(tag)));
            }
        });
    }
    for (std::thread& p : producers) p.join();
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (tally.total < static_cast<int>(kRequests) && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    // A little longer: a second callback for any request would show up here.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    stop = true;
    peer.join();
    poller.join();

    EXPECT_EQ(tally.total.load(), static_cast<int>(kRequests));
    EXPECT_EQ(tally.wrong.load(), 0);
    unsigned int notOnce = 0;
    for (auto& calls : tally.calls)
        if (calls != 1) ++notOnce;
    EXPECT_EQ(notOnce, 0u);
    EXPECT_EQ(a.queuedTelegrams_TS(), 0u);
    EXPECT_EQ(c.queuedTelegrams_TS(), 0u);
    g_tally = nullptr;
}
