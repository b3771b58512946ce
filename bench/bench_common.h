#ifndef NK_BENCH_COMMON_H
#define NK_BENCH_COMMON_H

// The memcpy baseline every throughput figure is set beside, and its input.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

inline std::vector<unsigned char> randomBytes(std::size_t n, unsigned int seed)
{
    std::mt19937 rng(seed);
    std::vector<unsigned char> v(n);
    for (auto& b : v) b = static_cast<unsigned char>(rng());
    return v;
}

// memcpy of state.range(0) random bytes into memory already mapped.
inline void BM_Memcpy(benchmark::State& state)
{
    auto src = randomBytes(static_cast<std::size_t>(state.range(0)), 0);
    std::vector<unsigned char> dst(src.size());
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), src.size());
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

#endif
