// CRC-8 against memcpy of the same bytes, in the same run.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "crc8.h"

namespace
{
std::vector<unsigned char> input(std::size_t n)
{
    std::mt19937 rng(2);
    std::vector<unsigned char> v(n);
    for (auto& b : v) b = static_cast<unsigned char>(rng());
    return v;
}

void BM_Memcpy(benchmark::State& state)
{
    auto src = input(static_cast<std::size_t>(state.range(0)));
    std::vector<unsigned char> dst(src.size());
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), src.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

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
