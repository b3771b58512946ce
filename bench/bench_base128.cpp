// base128 encode and decode against memcpy of the same input bytes, in the same run.
#include "bench_common.h"

#include "base128.h"

namespace
{
std::vector<unsigned char> input(std::size_t n) { return randomBytes(n, 1); }

void BM_Base128Encode(benchmark::State& state)
{
    auto src = input(static_cast<std::size_t>(state.range(0)));
    std::vector<unsigned char> dst(base128::encodedSize(static_cast<unsigned>(src.size())));
    for (auto _ : state) {
        benchmark::DoNotOptimize(base128::encode(dst.data(), src.data(), static_cast<unsigned>(src.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

// Bytes processed counts the decoded bytes, so the figure compares with encoding.
void BM_Base128Decode(benchmark::State& state)
{
    auto plain = input(static_cast<std::size_t>(state.range(0)));
    std::vector<unsigned char> src(base128::encodedSize(static_cast<unsigned>(plain.size())));
    base128::encode(src.data(), plain.data(), static_cast<unsigned>(plain.size()));
    std::vector<unsigned char> dst(plain.size());
    for (auto _ : state) {
        benchmark::DoNotOptimize(base128::decode(dst.data(), src.data(), static_cast<unsigned>(src.size())));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
}

BENCHMARK(BM_Memcpy)->Arg(1 << 20)->Arg(64 << 20);
BENCHMARK(BM_Base128Encode)->Arg(1 << 20)->Arg(64 << 20);
BENCHMARK(BM_Base128Decode)->Arg(1 << 20)->Arg(64 << 20);
BENCHMARK_MAIN();
