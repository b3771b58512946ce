// nkctl building the IMAGE request of a 50 MiB file that is in the page cache: reading it into
// fresh memory (whose pages the kernel zeroes first) and hashing it, beside the two on their
// own and memcpy of the same bytes, all in the same run. Reading and hashing run on two
// threads, so the build takes about the longer of the two when a second core is free, and
// their sum when it is not.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <string>
#include <unistd.h>
#include <vector>

#include "SHA1.h"
#include "image_request.h"

namespace
{
const std::size_t kBytes = 50u << 20;

// A file of kBytes pseudo-random bytes (in the page cache, just written), removed at exit.
char g_contentPath[] = "/tmp/nk-bench-image-XXXXXX";

char const* contentFile()
{
    static bool written = [] {
        const int fd = ::mkstemp(g_contentPath);
        std::vector<unsigned char> piece(1u << 20);
        unsigned int x = 12345;
        for (std::size_t done = 0; done < kBytes; done += piece.size()) {
            for (unsigned char& b : piece) b = static_cast<unsigned char>((x = x * 1103515245u + 12345u) >> 16);
            if (::write(fd, piece.data(), piece.size()) != static_cast<ssize_t>(piece.size())) std::abort();
        }
        ::close(fd);
        std::atexit([] { ::unlink(g_contentPath); });
        return true;
    }();
    return written ? g_contentPath : nullptr;
}

void BM_ImageRequestFromFile50MiB(benchmark::State& state)
{
    for (auto _ : state) {
        ImageRequest request = imageRequestFromFile(contentFile(), 1, "content.png", "image/png", kBytes);
        benchmark::DoNotOptimize(request.bytes.getBuffer());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBytes);
}
BENCHMARK(BM_ImageRequestFromFile50MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

// Reading alone, into fresh memory as the request does.
void BM_ReadIntoFreshMemory50MiB(benchmark::State& state)
{
    for (auto _ : state) {
        std::unique_ptr<unsigned char[]> into(new unsigned char[kBytes]);
        const int fd = ::open(contentFile(), O_RDONLY);
        for (std::size_t done = 0; done < kBytes;) {
            const ssize_t n = ::read(fd, into.get() + done, std::min<std::size_t>(1u << 20, kBytes - done));
            if (n <= 0) break;
            done += static_cast<std::size_t>(n);
        }
        ::close(fd);
        benchmark::DoNotOptimize(into.get());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBytes);
}
BENCHMARK(BM_ReadIntoFreshMemory50MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

// Hashing alone, of bytes already in memory.
void BM_Sha1Of50MiB(benchmark::State& state)
{
    std::vector<unsigned char> bytes(kBytes, 0x5a);
    for (auto _ : state) {
        SHA1 sha;
        sha.Input(bytes.data(), static_cast<unsigned int>(bytes.size()));
        benchmark::DoNotOptimize(sha.Result());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBytes);
}
BENCHMARK(BM_Sha1Of50MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Memcpy50MiB(benchmark::State& state)
{
    std::vector<unsigned char> from(kBytes, 1), to(kBytes, 2);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), kBytes);
        benchmark::DoNotOptimize(to.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kBytes);
}
BENCHMARK(BM_Memcpy50MiB)->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK_MAIN();
