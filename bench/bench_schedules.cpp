// A device's schedule set of 1,000 schedules with 20 entries each, added in random id order:
// writing it, parsing it through the factory, its revision-2 checksum and a merge of a set
// that differs in 10 schedules. memcpy of the same body bytes runs beside them.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "nk_messageSetConfig.h"
#include "nk_messageSetSchedules.h"

namespace
{
const unsigned s_schedules = 1000;
const unsigned s_entries = 20;

void fillSet(nk_messageSetSchedulesReq& set, unsigned changedName)
{
    std::vector<unsigned long long> ids(s_schedules);
    std::iota(ids.begin(), ids.end(), 1000);
    std::shuffle(ids.begin(), ids.end(), std::mt19937_64(7));
    for (unsigned long long id : ids) {
        bool changed = id - 1000 < changedName;
        nk_messageSchedule* s = set.addSchedule_(id, changed ? "changed" : "schedule", 1700000000, 1700086400, 0x02, 1);
        for (unsigned k = 0; k < s_entries; ++k)
            s->addScheduleEntry(id * 100 + (k * 7) % s_entries, "entry", 10, id * 1000 + k, false);
    }
}

nk_serializer const& message()
{
    static nk_serializer msg = [] {
        nk_messageSetSchedulesReq set(nk_message::VERSION_2);
        fillSet(set, 0);
        nk_serializer m;
        set.serializeMsg(&m);
        return m;
    }();
    return msg;
}

void BM_Memcpy(benchmark::State& state)
{
    nk_serializer const& src = message();
    std::vector<unsigned char> dst(src.size());
    for (auto _ : state) {
        std::memcpy(dst.data(), src.getBuffer(), src.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * src.size());
}

void BM_SchedulesSerialize(benchmark::State& state)
{
    nk_messageSetSchedulesReq set(nk_message::VERSION_2);
    fillSet(set, 0);
    for (auto _ : state) {
        nk_serializer out;
        set.serializeMsg(&out);
        benchmark::DoNotOptimize(out.getBuffer());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * message().size());
}

void BM_SchedulesParseFactory(benchmark::State& state)
{
    nk_serializer msg;
    msg.append(message());
    for (auto _ : state) {
        std::unique_ptr<nk_message> m(nk_message::getMessage(&msg));
        benchmark::DoNotOptimize(m.get());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * msg.size());
}

void BM_SchedulesChecksum(benchmark::State& state)
{
    nk_messageSetSchedulesReq set(nk_message::VERSION_2);
    fillSet(set, 0);
    for (auto _ : state) benchmark::DoNotOptimize(set.checksum(static_cast<nk_message::teVersion>(state.range(0))));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * message().size());
}

void BM_SchedulesMerge10Changed(benchmark::State& state)
{
    nk_messageSetSchedulesReq incoming(nk_message::VERSION_2);
    fillSet(incoming, 10);
    nk_messageSetSchedulesReq original(nk_message::VERSION_2);
    fillSet(original, 0);
    for (auto _ : state) {
        state.PauseTiming();
        auto held = std::make_unique<nk_messageSetSchedulesReq>(nk_message::VERSION_2);
        held->setSchedulesFrom(&original);
        state.ResumeTiming();
        benchmark::DoNotOptimize(held->setSchedulesFromWithoutClear(&incoming));
        state.PauseTiming();  // the held set's destruction is not part of the merge
        held.reset();
        state.ResumeTiming();
    }
}

void BM_ConfigChecksum(benchmark::State& state)
{
    nk_messageSetConfigReq config(nk_message::VERSION_3);
    for (unsigned i = 0; i < 24; ++i) config.timeSlot_add_ts("slot", i * 3600, i * 3600 + 1800, true, false);
    for (unsigned i = 0; i < 16; ++i) config.frm_change_ts("frame", 0, 0, 64, 64, 0, 1, 120);
    for (auto _ : state) benchmark::DoNotOptimize(config.checksum(nk_message::VERSION_3));
}
}

BENCHMARK(BM_Memcpy);
BENCHMARK(BM_SchedulesSerialize)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SchedulesParseFactory)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SchedulesChecksum)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SchedulesMerge10Changed)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ConfigChecksum)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
