// IMAGE with one 32 MiB file through the factory beside memcpy of the same bytes; EVENTS_RSP
// with 2000 records (write, parse, every sort criterion); the limited addEvent up to 100,000
// adds, beside the naive front erase of a pointer vector that the limit avoids.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "nk_messageEvents.h"
#include "nk_messageImage.h"

namespace
{
const unsigned int kImageBytes = 32u << 20;

tBlob imageContent()
{
    std::mt19937 rng(7);
    tBlob b;
    unsigned int* p = reinterpret_cast<unsigned int*>(b.resize(kImageBytes));
    for (unsigned int i = 0; i < kImageBytes / 4; ++i) p[i] = rng();
    return b;
}

nk_messageImage* makeImage()
{
    static tBlob content = imageContent();
    nk_messageImage* img = new nk_messageImage(nk_message::VERSION_3);
    img->add(1, "big.png", "image/png", &content);
    return img;
}

void BM_Memcpy32MiB(benchmark::State& state)
{
    std::vector<unsigned char> src(kImageBytes, 1);
    for (auto _ : state) {
        // A fresh destination each time, as the message paths allocate theirs.
        std::unique_ptr<unsigned char[]> dst(new unsigned char[kImageBytes]);
        std::memcpy(dst.get(), src.data(), kImageBytes);
        benchmark::DoNotOptimize(dst.get());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kImageBytes);
}
BENCHMARK(BM_Memcpy32MiB)->Unit(benchmark::kMillisecond);

// The same into a destination that is already mapped: the bandwidth without page faults.
void BM_Memcpy32MiBWarm(benchmark::State& state)
{
    std::vector<unsigned char> src(kImageBytes, 1), dst(kImageBytes, 0);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kImageBytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kImageBytes);
}
BENCHMARK(BM_Memcpy32MiBWarm)->Unit(benchmark::kMillisecond);

void BM_ImageSerialize32MiB(benchmark::State& state)
{
    std::unique_ptr<nk_messageImage> img(makeImage());
    for (auto _ : state) {
        nk_serializer ser;
        img->serializeMsg(&ser);
        benchmark::DoNotOptimize(ser.getBuffer());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kImageBytes);
}
BENCHMARK(BM_ImageSerialize32MiB)->Unit(benchmark::kMillisecond);

void BM_ImageParse32MiB(benchmark::State& state)
{
    std::unique_ptr<nk_messageImage> img(makeImage());
    nk_serializer wire;
    img->serializeMsg(&wire);
    for (auto _ : state) {
        std::unique_ptr<nk_message> m(nk_message::getMessage(&wire));
        benchmark::DoNotOptimize(m.get());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kImageBytes);
}
BENCHMARK(BM_ImageParse32MiB)->Unit(benchmark::kMillisecond);

// The body alone from a serializer that already holds the bytes: the factory's copy of its
// input into the serializer is left out, the one copy into the file's content remains.
void BM_ImageParseBody32MiB(benchmark::State& state)
{
    std::unique_ptr<nk_messageImage> img(makeImage());
    nk_serializer wire;
    img->serializeMsg(&wire);
    for (auto _ : state) {
        state.PauseTiming();
        std::unique_ptr<nk_serializer> ser(new nk_serializer(&wire));
        unsigned short header = 0;
        ser->u16(header, nk_serializer::SER_READ);
        ser->u16(header, nk_serializer::SER_READ);
        state.ResumeTiming();
        nk_messageImage parsed(ser.get(), nk_message::VERSION_3);
        benchmark::DoNotOptimize(parsed.get(0));
        state.PauseTiming();
        ser.reset();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kImageBytes);
}
BENCHMARK(BM_ImageParseBody32MiB)->Unit(benchmark::kMillisecond);

void fillEvents(nk_messageEventsRsp& rsp, unsigned int n)
{
    std::mt19937 rng(3);
    tStringList subs;
    subs.add("sensor 2");
    subs.add("retry 3");
    for (unsigned int i = 0; i < n; ++i)
        rsp.addEvent(rng(), rng(), rng(), 17, "temperature above limit", 1, &subs, 4, "image_id42.png");
}

void BM_EventsSerialize2000(benchmark::State& state)
{
    nk_messageEventsRsp rsp(nk_message::VERSION_0, nullptr, nullptr);
    fillEvents(rsp, 2000);
    std::size_t bytes = 0;
    for (auto _ : state) {
        nk_serializer ser;
        rsp.serializeMsg(&ser);
        bytes = ser.size();
        benchmark::DoNotOptimize(ser.getBuffer());
    }
    state.SetBytesProcessed(int64_t(state.iterations() * bytes));
    state.SetItemsProcessed(int64_t(state.iterations()) * 2000);
}
BENCHMARK(BM_EventsSerialize2000)->Unit(benchmark::kMicrosecond);

void BM_EventsParse2000(benchmark::State& state)
{
    nk_messageEventsRsp rsp(nk_message::VERSION_0, nullptr, nullptr);
    fillEvents(rsp, 2000);
    nk_serializer wire;
    rsp.serializeMsg(&wire);
    for (auto _ : state) {
        std::unique_ptr<nk_message> m(nk_message::getMessage(&wire));
        benchmark::DoNotOptimize(m.get());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * wire.size());
    state.SetItemsProcessed(int64_t(state.iterations()) * 2000);
}
BENCHMARK(BM_EventsParse2000)->Unit(benchmark::kMicrosecond);

// Each sort starts from the same random order (restored outside the timing).
void BM_EventsSort2000(benchmark::State& state)
{
    nk_messageEventsRsp source(nk_message::VERSION_0, nullptr, nullptr);
    fillEvents(source, 2000);
    nk_messageEventsRsp rsp(nk_message::VERSION_0, nullptr, nullptr);
    const auto criterion = static_cast<nk_messageEventsRsp::teSortCriteria>(state.range(0));
    for (auto _ : state) {
        state.PauseTiming();
        rsp.setFrom(source);
        state.ResumeTiming();
        rsp.sort(criterion);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * 2000);
}
BENCHMARK(BM_EventsSort2000)->DenseRange(0, 5)->Unit(benchmark::kMillisecond);

void BM_EventsLimitedAdd(benchmark::State& state)
{
    const unsigned int n = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        nk_messageEventsRsp rsp(nk_message::VERSION_0, nullptr, nullptr);
        for (unsigned int i = 0; i < n; ++i) rsp.addEvent(i, i, i, 1, "event", 0, nullptr, 1, "");
        benchmark::DoNotOptimize(rsp.getEvent(0));
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * n);
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_EventsLimitedAdd)->RangeMultiplier(5)->Range(800, 100000)->Complexity(benchmark::oN)->Unit(benchmark::kMillisecond);

// The representation the limit avoids: removing index 0 of a 2000-pointer vector per add.
void BM_NaiveFrontEraseAdd(benchmark::State& state)
{
    const unsigned int n = static_cast<unsigned int>(state.range(0));
    for (auto _ : state) {
        std::vector<nk_messageEvent*> list;
        for (unsigned int i = 0; i < n; ++i) {
            list.push_back(new nk_messageEvent(i, i, i, 1, "event", 0, nullptr, 1, ""));
            while (list.size() > nk_messageEventsRsp::MAX_EVENTS) {
                delete list.front();
                list.erase(list.begin());
            }
        }
        for (nk_messageEvent* e : list) delete e;
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * n);
    state.SetComplexityN(state.range(0));
}
BENCHMARK(BM_NaiveFrontEraseAdd)->RangeMultiplier(5)->Range(800, 100000)->Complexity(benchmark::oN)->Unit(benchmark::kMillisecond);
}

BENCHMARK_MAIN();
