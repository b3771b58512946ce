// The telegram layer end to end: two engines in one process joined by an in-memory link,
// small round trips, an idle poll, cutting many frames out of one buffer, and the memory
// held by idle engines. memcpy of the same bytes runs in the same program for scale.
#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/resource.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "base128.h"
#include "crc8.h"
#include "nk_protocol.h"
#include "tCompression.h"

#include <dlfcn.h>

// Bytes moved by memcpy and memmove calls of 4 KiB or more anywhere in the process (the
// library's calls reach these through the dynamic linker): how often the content is
// copied on its way, counted rather than claimed. Small copies (headers, carries) are left
// out; so are copies a compiler writes inline, which are small by nature.
namespace
{
unsigned long long g_copiedBytes = 0;
const size_t kCountedCopy = 4096;
typedef void* (*tCopyFcn)(void*, void const*, size_t);

void* plainCopy(void* dst, void const* src, size_t n)
{
    // Used only while the real functions are looked up; volatile keeps it a loop.
    volatile unsigned char* d = static_cast<unsigned char*>(dst);
    unsigned char const* s = static_cast<unsigned char const*>(src);
    if (d < s)
        for (size_t i = 0; i < n; ++i) d[i] = s[i];
    else
        for (size_t i = n; i-- > 0;) d[i] = s[i];
    return dst;
}

tCopyFcn realCopy(char const* name, tCopyFcn& cached)
{
    static bool resolving = false;
    if (cached) return cached;
    if (resolving) return plainCopy;
    resolving = true;
    tCopyFcn f = reinterpret_cast<tCopyFcn>(dlsym(RTLD_NEXT, name));
    resolving = false;
    cached = f ? f : plainCopy;
    return cached;
}
}

extern "C" void* memcpy(void* __restrict dst, void const* __restrict src, size_t n) noexcept
{
    static tCopyFcn real = nullptr;
    if (n >= kCountedCopy) __atomic_add_fetch(&g_copiedBytes, n, __ATOMIC_RELAXED);
    return realCopy("memcpy", real)(dst, src, n);
}

extern "C" void* memmove(void* dst, void const* src, size_t n) noexcept
{
    static tCopyFcn real = nullptr;
    if (n >= kCountedCopy) __atomic_add_fetch(&g_copiedBytes, n, __ATOMIC_RELAXED);
    return realCopy("memmove", real)(dst, src, n);
}

namespace
{
const unsigned int kBig = 64u << 20;

tBlob randomContent(unsigned int n)
{
    std::mt19937_64 rng(42);
    tBlob b;
    unsigned char* p = b.resize(n);
    for (unsigned int i = 0; i + 8 <= n; i += 8) {
        uint64_t v = rng();
        std::memcpy(p + i, &v, 8);
    }
    return b;
}

// Text-like content: words from a small vocabulary with runs of spaces.
tBlob compressibleContent(unsigned int n)
{
    static char const* words[] = {"display ", "schedule ", "image ", "frame ", "slot ", "        ", "state "};
    std::mt19937 rng(7);
    tBlob b;
    b.reserve(n + 16);
    while (b.size() < n) {
        char const* w = words[rng() % 7];
        b.append(reinterpret_cast<unsigned char const*>(w), static_cast<unsigned int>(std::strlen(w)));
    }
    b.resize(n);
    return b;
}

long minorFaults()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_minflt;
}

// Page faults of the timed part alone (the engines' work, not the benchmark's copy of the
// content): a transfer whose buffers come from fresh mappings pays for every 4 KiB page each
// time, whatever the copying costs.
struct FaultCounter
{
    explicit FaultCounter(benchmark::State& s) : state(s) {}
    ~FaultCounter() { state.counters["faults"] = benchmark::Counter(static_cast<double>(total), benchmark::Counter::kAvgIterations); }
    void begin() { start = minorFaults(); }
    void end() { total += minorFaults() - start; }
    benchmark::State& state;
    long start = 0, total = 0;
};

// One engine and the buffer its peer writes into.
struct Endpoint
{
    Endpoint(unsigned int address, nk_protocol::tRecvCallback cb)
        : engine(address, cb, this, 60, nullptr, nullptr, nullptr)
    {
    }
    static unsigned int send(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
    {
        static_cast<Endpoint*>(ctx)->peer->inbound.append(data, length);
        return length;
    }
    static unsigned int recv(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
    {
        tBlob& in = static_cast<Endpoint*>(ctx)->inbound;
        unsigned int n = length < in.size() ? length : in.size();
        std::memcpy(data, in.getBuffer(), n);
        in.slice(n);
        return n;
    }
    // A push link: bytes go straight into the peer engine's stream.
    static unsigned int push(nk_server*, void* ctx, unsigned char* data, unsigned int length, int*)
    {
        static_cast<Endpoint*>(ctx)->peer->engine.pushData(data, length);
        return length;
    }
    void poll() { engine.poll(nullptr, this, send, recv); }

    nk_protocol engine;
    tBlob inbound;
    Endpoint* peer = nullptr;
    unsigned long long received = 0;
};

void takeSilently(unsigned int, tBlob* content, void* ctx)
{
    static_cast<Endpoint*>(ctx)->received += content->size();
    content->clear();
}

void answer64(unsigned int, tBlob* content, void* ctx)
{
    static unsigned char const reply[64] = {1, 2, 3};
    static_cast<Endpoint*>(ctx)->received += content->size();
    content->clear();
    content->append(reply, 64);
}

void countResponse(unsigned int, tBlob* content, void*, bool, void* userData)
{
    if (content) *static_cast<unsigned long long*>(userData) += content->size();
}

// One telegram from a to b through push links.
void sendOnce(Endpoint& a, Endpoint& b, tBlob& content)
{
    a.engine.enqueue_TS(&content, 2, nullptr, 0, nullptr);
    a.engine.poll(nullptr, &a, Endpoint::push, nullptr);
    b.engine.poll(nullptr, &b, nullptr, nullptr);
}

// Sustained: the same two engines carry one telegram after another, after one untimed
// round, so large buffers the engines keep between busy polls are in use.
void transfer(benchmark::State& state, tBlob const& content)
{
    const unsigned int saved = nk_telegram::s_u32MaxPayloadSize;
    nk_protocol::setMaxPayloadSize(static_cast<unsigned int>(state.range(0)));
    Endpoint a(1, nullptr), b(2, takeSilently);
    a.peer = &b;
    b.peer = &a;
    tBlob warmUp(content);
    sendOnce(a, b, warmUp);
    b.received = 0;
    FaultCounter faults(state);
    unsigned long long copied = 0;
    for (auto _ : state) {
        state.PauseTiming();
        tBlob copy(content);
        state.ResumeTiming();
        faults.begin();
        const unsigned long long before = g_copiedBytes;
        sendOnce(a, b, copy);
        copied += g_copiedBytes - before;
        faults.end();
    }
    // Bytes copied by memcpy/memmove per content byte, both engines and the link together.
    state.counters["copies"] = double(copied) / (double(content.size()) * double(state.iterations()));
    if (b.received != static_cast<unsigned long long>(content.size()) * static_cast<unsigned long long>(state.iterations())) state.SkipWithError("content lost");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * content.size());
    nk_telegram::s_u32MaxPayloadSize = saved;
}

// One telegram between two new engines each time: every large buffer is allocated afresh.
void transferFresh(benchmark::State& state, tBlob const& content)
{
    const unsigned int saved = nk_telegram::s_u32MaxPayloadSize;
    nk_protocol::setMaxPayloadSize(static_cast<unsigned int>(state.range(0)));
    unsigned long long received = 0, copied = 0;
    FaultCounter faults(state);
    for (auto _ : state) {
        state.PauseTiming();
        tBlob copy(content);
        state.ResumeTiming();
        faults.begin();
        const unsigned long long before = g_copiedBytes;
        Endpoint a(1, nullptr), b(2, takeSilently);
        a.peer = &b;
        b.peer = &a;
        sendOnce(a, b, copy);
        received += b.received;
        copied += g_copiedBytes - before;
        faults.end();
    }
    state.counters["copies"] = double(copied) / (double(content.size()) * double(state.iterations()));
    if (received != static_cast<unsigned long long>(content.size()) * static_cast<unsigned long long>(state.iterations())) state.SkipWithError("content lost");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * content.size());
    nk_telegram::s_u32MaxPayloadSize = saved;
}

void BM_Memcpy64MiB(benchmark::State& state)
{
    tBlob src = randomContent(kBig);
    std::vector<unsigned char> dst(kBig);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.getBuffer(), kBig);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBig);
}

// The work no engine can avoid for 64 MiB on the wire: base-128 encoding and decoding and
// one CRC-8 over the same bytes (the frame's CRC covers the body, once per side).
void BM_PureCodec64MiB(benchmark::State& state)
{
    tBlob src = randomContent(kBig);
    std::vector<unsigned char> encoded(base128::encodedSize(kBig)), decoded(kBig);
    for (auto _ : state) {
        base128::encode(encoded.data(), src.getBuffer(), kBig);
        base128::decode(decoded.data(), encoded.data(), static_cast<unsigned int>(encoded.size()));
        benchmark::DoNotOptimize(crc_crc8init(decoded.data(), kBig));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBig);
}

// The compression choice alone over the content of the transfers above, which ends up
// plain: what a sender pays before its first frame, as a share of the whole transfer.
void BM_CompressionChoiceRandom64MiB(benchmark::State& state)
{
    tBlob content = randomContent(kBig);
    for (auto _ : state) {
        unsigned int rle = 0, huffman = 0;
        tCompression::encodedSizes(content.getBuffer(), content.size(), rle, huffman);
        if (rle < kBig || huffman < kBig) state.SkipWithError("random content compressed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBig);
}

void BM_EngineToEngineRandom64MiB(benchmark::State& state)
{
    static tBlob content = randomContent(kBig);
    transfer(state, content);
}

void BM_EngineToEngineCompressible64MiB(benchmark::State& state)
{
    static tBlob content = compressibleContent(kBig);
    transfer(state, content);
}

void BM_FirstTransferRandom64MiB(benchmark::State& state)
{
    static tBlob content = randomContent(kBig);
    transferFresh(state, content);
}

void BM_SmallRoundTrip(benchmark::State& state)
{
    Endpoint a(1, nullptr), b(2, answer64);
    a.peer = &b;
    b.peer = &a;
    unsigned char request[16] = {9, 8, 7};
    unsigned long long answered = 0;
    for (auto _ : state) {
        tBlob content(request, 16);
        a.engine.enqueue_TS(&content, 2, countResponse, 0, &answered);
        a.poll();  // sends the request
        b.poll();  // takes it, queues the answer
        b.poll();  // sends the answer
        a.poll();  // delivers it
    }
    if (answered != 64ull * static_cast<unsigned long long>(state.iterations())) state.SkipWithError("responses lost");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

void BM_IdlePoll(benchmark::State& state)
{
    Endpoint a(1, nullptr), b(2, nullptr);
    a.peer = &b;
    for (auto _ : state) a.poll();
}

// Frames of 16-byte payloads back to back in one buffer, all cut out by one part.
tBlob manyFrames(unsigned int count)
{
    tBlob stream;
    unsigned char payload[16] = {0};
    for (unsigned int i = 0; i < count; ++i) {
        std::memcpy(payload, &i, 4);
        tBlob p(payload, 16);
        nk_telegramPart part(i, 1, 2, 1, 0, true, &p, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                             nk_basicTelegram::COMPRESSION_NONE);
        part.serialize(&stream);
    }
    return stream;
}

void BM_CutFrames(benchmark::State& state)
{
    const unsigned int count = static_cast<unsigned int>(state.range(0));
    tBlob frames = manyFrames(count);
    for (auto _ : state) {
        state.PauseTiming();
        tBlob stream(frames);
        state.ResumeTiming();
        nk_telegramPart part;
        unsigned int found = 0;
        while (part.streamContainsTelegram(&stream)) ++found;
        if (found != count) state.SkipWithError("frames lost");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * frames.size());
}

void BM_EngineCutFrames(benchmark::State& state)
{
    const unsigned int count = static_cast<unsigned int>(state.range(0));
    tBlob frames = manyFrames(count);
    for (auto _ : state) {
        Endpoint b(2, takeSilently);
        b.engine.pushData(frames.getBuffer(), frames.size());
        b.engine.poll(nullptr, &b, nullptr, nullptr);
        if (b.received != 16ull * count) state.SkipWithError("frames lost");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * count);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * frames.size());
}

// Heap bytes held per engine: built, and after one small request and answer each.
void BM_IdleEngineMemory(benchmark::State& state)
{
    const unsigned int engines = 10000;
    double built = 0, used = 0;
    for (auto _ : state) {
        size_t before = mallinfo2().uordblks;
        std::vector<std::unique_ptr<Endpoint>> pool;
        pool.reserve(engines);
        size_t vectorBytes = mallinfo2().uordblks - before;
        for (unsigned int i = 0; i < engines; ++i) pool.emplace_back(new Endpoint(2, answer64));
        built = double(mallinfo2().uordblks - before - vectorBytes) / engines;
        Endpoint a(1, nullptr);
        unsigned long long answered = 0;
        unsigned char request[16] = {0};
        for (auto& e : pool) {
            a.peer = e.get();
            e->peer = &a;
            tBlob content(request, 16);
            a.engine.enqueue_TS(&content, 2, countResponse, 0, &answered);
            a.poll();
            e->poll();
            e->poll();
            a.poll();
        }
        used = double(mallinfo2().uordblks - before - vectorBytes) / engines;
        if (answered != 64ull * engines) state.SkipWithError("responses lost");
    }
    state.counters["bytes_per_engine_built"] = built;
    state.counters["bytes_per_engine_used"] = used;
}

// Heap bytes held per open incoming multi-part context: 100,000 contexts, each opened by a
// first part of one payload byte that is never followed (what a peer can make an engine
// keep), against the bytes those frames took on the wire.
void BM_OpenContextMemory(benchmark::State& state)
{
    const unsigned int contexts = 100000;
    tBlob frames;
    unsigned char byte = 0x5A;
    for (unsigned int i = 0; i < contexts; ++i) {
        tBlob payload(&byte, 1);
        nk_telegramPart part(100000 + i, 1, 2, 1, 0, false, &payload, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                             nk_basicTelegram::COMPRESSION_NONE);
        part.serialize(&frames);
    }
    double perContext = 0;
    for (auto _ : state) {
        const size_t before = mallinfo2().uordblks;
        {
            Endpoint b(2, takeSilently);
            b.engine.pushData(frames.getBuffer(), frames.size());
            b.engine.poll(nullptr, &b, nullptr, nullptr);
            b.engine.poll(nullptr, &b, nullptr, nullptr);  // an idle poll gives the stream buffer back
            if (b.engine.incomingTelegrams_TS() != contexts) state.SkipWithError("contexts lost");
            perContext = double(mallinfo2().uordblks - before) / contexts;
        }
    }
    state.counters["bytes_per_context"] = perContext;
    state.counters["wire_bytes_per_context"] = double(frames.size()) / contexts;
}
}

BENCHMARK(BM_Memcpy64MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_PureCodec64MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompressionChoiceRandom64MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EngineToEngineRandom64MiB)->Arg(1 << 20)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EngineToEngineCompressible64MiB)->Arg(1 << 20)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FirstTransferRandom64MiB)->Arg(1 << 20)->Arg(4096)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SmallRoundTrip);
BENCHMARK(BM_IdlePoll);
BENCHMARK(BM_CutFrames)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_EngineCutFrames)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_IdleEngineMemory)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenContextMemory)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
