// How the work that a peer's input controls grows with its size, from 1,000 to 100,000
// elements: the schedule checksum (ids in descending order, and entries of one schedule),
// the device's schedule merge, reading a configuration's frames (distinct ids, and all id 0),
// reading a JSON object of many keys, and an engine completing open multi-part contexts in
// opening order with one poll per frame. Each reports Google Benchmark's fitted complexity.
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "nk_messageSetConfig.h"
#include "nk_messageSetSchedules.h"
#include "nk_protocol.h"
#include "tJson.h"

namespace
{
const long long kFrom = 1000, kTo = 100000;

void BM_ChecksumDescendingScheduleIds(benchmark::State& state)
{
    nk_messageSetSchedulesReq set(nk_message::VERSION_2);
    for (long long i = state.range(0); i > 0; --i) set.addSchedule_(i, "s", 0, 0, 0, 0);
    for (auto _ : state) benchmark::DoNotOptimize(set.checksum(nk_message::VERSION_2));
    state.SetComplexityN(state.range(0));
}

void BM_ChecksumDescendingEntriesOfOneSchedule(benchmark::State& state)
{
    nk_messageSetSchedulesReq set(nk_message::VERSION_2);
    nk_messageSchedule* s = set.addSchedule_(1, "s", 0, 0, 0, 0);
    for (long long i = state.range(0); i > 0; --i) s->addScheduleEntry(i, "e", 10, i, false);
    for (auto _ : state) benchmark::DoNotOptimize(set.checksum(nk_message::VERSION_2));
    state.SetComplexityN(state.range(0));
}

// Two sets that differ in every tenth schedule, merged into the held set in turn: each merge
// replaces a tenth of the schedules and keeps the rest.
void BM_ScheduleMerge(benchmark::State& state)
{
    const long long n = state.range(0);
    nk_messageSetSchedulesReq a(nk_message::VERSION_2), b(nk_message::VERSION_2), held(nk_message::VERSION_2);
    for (long long i = 0; i < n; ++i) {
        a.addSchedule_(i, "s", 0, 0, 0, 0)->addScheduleEntry(i, "e", 10, i, false);
        b.addSchedule_(i, i % 10 ? "s" : "changed", 0, 0, 0, 0)->addScheduleEntry(i, "e", 10, i, false);
    }
    held.setSchedulesFrom(&a);
    for (auto _ : state) {
        held.setSchedulesFromWithoutClear(&b);
        held.setSchedulesFromWithoutClear(&a);
    }
    state.SetComplexityN(n);
}

// A version 3 configuration body with n frames, ids from 10 up or all 0 (range(1)).
nk_serializer framesBody(long long n, bool idZero)
{
    nk_messageSetConfigReq empty(nk_message::VERSION_3);
    nk_serializer body;
    empty.serialize(&body, nk_serializer::SER_WRITE);
    nk_serializer frames;
    unsigned int count = static_cast<unsigned int>(n);
    frames.u32(count, nk_serializer::SER_WRITE);
    for (long long i = 0; i < n; ++i) {
        tString name("frame");
        unsigned short v[7] = {0, 0, 64, 64, static_cast<unsigned short>(idZero ? 0 : 10 + i), 1, 120};
        frames.string(name, nk_serializer::SER_WRITE);
        for (unsigned short& x : v) frames.u16(x, nk_serializer::SER_WRITE);
    }
    nk_serializer out;
    out.append(body.getBuffer(), body.size() - 4);  // without the empty frame count
    out.append(frames.getBuffer(), frames.size());
    return out;
}

void configFramesRead(benchmark::State& state, bool idZero)
{
    const nk_serializer body = framesBody(state.range(0), idZero);
    for (auto _ : state) {
        nk_serializer in;
        in.append(body.getBuffer(), body.size());
        nk_messageSetConfigReq config(&in, nk_message::VERSION_3);
        if (config.frm_count() != state.range(0)) state.SkipWithError("frames lost");
    }
    state.SetComplexityN(state.range(0));
}

void BM_ConfigFramesReadDistinctIds(benchmark::State& state) { configFramesRead(state, false); }
void BM_ConfigFramesReadAllIdZero(benchmark::State& state) { configFramesRead(state, true); }

void BM_JsonParseDistinctKeys(benchmark::State& state)
{
    std::string text = "{";
    for (long long i = 0; i < state.range(0); ++i) text += (i ? ",\"key" : "\"key") + std::to_string(i) + "\":1";
    text += "}";
    const tString input(text.c_str(), static_cast<unsigned int>(text.size()));
    tJson json;
    for (auto _ : state)
        if (!json.parse(input)) state.SkipWithError("not read");
    state.SetComplexityN(state.range(0));
}

unsigned int noLink(nk_server*, void*, unsigned char*, unsigned int length, int*) { return length; }
unsigned int nothingToRead(nk_server*, void*, unsigned char*, unsigned int, int*) { return 0; }
void ignoreRequest(unsigned int, tBlob* content, void*) { content->clear(); }

void part(tBlob& out, unsigned int id, unsigned int partId, bool last)
{
    tBlob payload(reinterpret_cast<unsigned char const*>("abcd"), 4);
    nk_telegramPart p(id, 1, 2, partId, 0, last, &payload, nk_basicTelegram::TYPE_REQUEST_NO_RESPONSE,
                      nk_basicTelegram::COMPRESSION_NONE);
    p.serialize(&out);
}

// n first parts in one poll, then the second (last) part of each in opening order, one poll each.
void BM_EngineCompletesContextsInOpeningOrder(benchmark::State& state)
{
    const unsigned int n = static_cast<unsigned int>(state.range(0));
    tBlob opening;
    for (unsigned int id = 1; id <= n; ++id) part(opening, id, 1, false);
    std::vector<tBlob> last(n);
    for (unsigned int id = 1; id <= n; ++id) part(last[id - 1], id, 2, true);
    for (auto _ : state) {
        nk_protocol engine(2, ignoreRequest, nullptr, 10, nullptr, nullptr, nullptr);
        engine.pushData(opening.getBuffer(), opening.size());
        engine.poll(nullptr, nullptr, noLink, nothingToRead);
        for (tBlob& frame : last) {
            engine.pushData(frame.getBuffer(), frame.size());
            engine.poll(nullptr, nullptr, noLink, nothingToRead);
        }
        if (engine.incomingTelegrams_TS() != 0) state.SkipWithError("contexts left open");
    }
    state.SetComplexityN(n);
}
}

BENCHMARK(BM_ChecksumDescendingScheduleIds)->RangeMultiplier(10)->Range(kFrom, kTo)->Unit(benchmark::kMillisecond)->Complexity();
BENCHMARK(BM_ChecksumDescendingEntriesOfOneSchedule)->RangeMultiplier(10)->Range(kFrom, kTo)->Unit(benchmark::kMillisecond)->Complexity();
BENCHMARK(BM_ScheduleMerge)->RangeMultiplier(10)->Range(kFrom, kTo)->Unit(benchmark::kMillisecond)->Complexity();
// At most 65,526 frames fit the ids from 10 up.
BENCHMARK(BM_ConfigFramesReadDistinctIds)->Arg(1000)->Arg(10000)->Arg(65526)->Unit(benchmark::kMillisecond)->Complexity();
BENCHMARK(BM_ConfigFramesReadAllIdZero)->Arg(1000)->Arg(10000)->Arg(65526)->Unit(benchmark::kMillisecond)->Complexity();
BENCHMARK(BM_JsonParseDistinctKeys)->RangeMultiplier(10)->Range(kFrom, kTo)->Unit(benchmark::kMillisecond)->Complexity();
BENCHMARK(BM_EngineCompletesContextsInOpeningOrder)->RangeMultiplier(10)->Range(kFrom, kTo)->Unit(benchmark::kMillisecond)->Complexity();

BENCHMARK_MAIN();
