// CRC-8 against memcpy of the same bytes, in the same run.
#include "bench_common.h"

#include "crc8.h"

namespace
{
std::vector<unsigned char> input(std::size_t n) { return randomBytes(n, 2); }

void BM_Crc8(benchmark::State& state)
{
    auto src = input(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) benchmark::DoNotOptimize(crc_crc8init(src.data(), static_cast<unsigned>(src.size())));
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
}

BENCHMARK(BM_Memcpy)->Arg(64)->Arg(1 << 20)->Arg(64 << 20);
BENCHMARK(BM_Crc8)->Arg(64)->Arg(1 << 20)->Arg(64 << 20);
BENCHMARK_MAIN();
