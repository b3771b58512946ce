// Compression choice and both codecs, each beside memcpy of the same number of bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "tCompression.h"

namespace
{
constexpr std::size_t kRandomBytes = 64u << 20;
constexpr std::size_t kCodecBytes = 4u << 20;

tBlob const& randomData()
{
    static const tBlob data = [] {
        std::mt19937_64 rng(1);
        tBlob b;
        unsigned char* p = b.resize(kRandomBytes);
        for (std::size_t i = 0; i < kRandomBytes; i += 8) {
            const uint64_t v = rng();
            std::memcpy(p + i, &v, 8);
        }
        return b;
    }();
    return data;
}

// English-like text: Zipf-weighted words, sentences and lines.
tBlob const& textData()
{
    static const tBlob data = [] {
        static char const* const words[] = {
            "the", "of", "and", "to", "a", "in", "is", "it", "that", "for", "was", "on", "are", "with",
            "as", "be", "at", "by", "this", "from", "or", "have", "an", "they", "which", "one", "you",
            "were", "all", "we", "when", "there", "can", "station", "display", "schedule", "message",
            "time", "frame", "sends", "receives", "every", "minute", "platform", "train", "delayed",
            "arrives", "departure", "configuration", "brightness", "image", "event", "device"};
        constexpr unsigned kWords = sizeof(words) / sizeof(words[0]);
        std::vector<double> weights;
        for (unsigned i = 0; i < kWords; ++i) weights.push_back(1.0 / (i + 1));
        std::mt19937 rng(2);
        std::discrete_distribution<unsigned> pick(weights.begin(), weights.end());
        std::string text;
        unsigned inSentence = 0;
        while (text.size() < kCodecBytes) {
            std::string w = words[pick(rng)];
            if (inSentence == 0) w[0] = static_cast<char>(w[0] - 'a' + 'A');
            text += w;
            if (++inSentence > 6 + rng() % 10) {
                text += rng() % 4 ? ". " : ".\n";
                inSentence = 0;
            } else {
                text += rng() % 12 ? " " : ", ";
            }
        }
        text.resize(kCodecBytes);
        return tBlob(reinterpret_cast<unsigned char const*>(text.data()), static_cast<unsigned int>(text.size()));
    }();
    return data;
}

// Literal stretches of 1..40 bytes between runs of 3..200 equal bytes, like bitmap rows.
tBlob const& runData()
{
    static const tBlob data = [] {
        std::mt19937 rng(3);
        tBlob b;
        unsigned char* p = b.resize(kCodecBytes);
        std::size_t i = 0;
        while (i < kCodecBytes) {
            for (std::size_t n = 1 + rng() % 40; n && i < kCodecBytes; --n) p[i++] = static_cast<unsigned char>(rng());
            const unsigned char v = static_cast<unsigned char>(rng());
            for (std::size_t n = 3 + rng() % 198; n && i < kCodecBytes; --n) p[i++] = v;
        }
        return b;
    }();
    return data;
}

void memcpyOf(benchmark::State& state, std::size_t bytes)
{
    std::vector<unsigned char> src(bytes, 1), dst(bytes);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), bytes);
        benchmark::DoNotOptimize(dst.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
void BM_Memcpy64MiB(benchmark::State& state) { memcpyOf(state, kRandomBytes); }
void BM_Memcpy4MiB(benchmark::State& state) { memcpyOf(state, kCodecBytes); }

void BM_EncodedSizesRandom64MiB(benchmark::State& state)
{
    tBlob const& in = randomData();
    for (auto _ : state) {
        unsigned int rle = 0, huffman = 0;
        tCompression::encodedSizes(in.getBuffer(), in.size(), rle, huffman);
        benchmark::DoNotOptimize(rle);
        benchmark::DoNotOptimize(huffman);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

template <tBlob (*Encode)(tBlob const&)>
void encodeBench(benchmark::State& state, tBlob const& in)
{
    std::size_t encoded = 0;
    for (auto _ : state) {
        tBlob out = Encode(in);
        encoded = out.size();
        benchmark::DoNotOptimize(out.getBuffer());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
    state.counters["ratio"] = static_cast<double>(encoded) / in.size();
}

template <tBlob (*Encode)(tBlob const&), bool (*Decode)(tBlob const&, tBlob&)>
void decodeBench(benchmark::State& state, tBlob const& in)
{
    const tBlob encoded = Encode(in);
    tBlob out;
    for (auto _ : state) {
        if (!Decode(encoded, out)) state.SkipWithError("decode failed");
        benchmark::DoNotOptimize(out.getBuffer());
    }
    if (out != in) state.SkipWithError("round trip differs");
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * in.size()));
}

void BM_HuffmanEncodeText(benchmark::State& state) { encodeBench<tCompression::encodeHuffman>(state, textData()); }
void BM_HuffmanDecodeText(benchmark::State& state)
{
    decodeBench<tCompression::encodeHuffman, tCompression::decodeHuffman>(state, textData());
}
void BM_RleEncodeRuns(benchmark::State& state) { encodeBench<tCompression::encodeRLE>(state, runData()); }
void BM_RleDecodeRuns(benchmark::State& state)
{
    decodeBench<tCompression::encodeRLE, tCompression::decodeRLE>(state, runData());
}
}

BENCHMARK(BM_Memcpy64MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EncodedSizesRandom64MiB)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Memcpy4MiB)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HuffmanEncodeText)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_HuffmanDecodeText)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RleEncodeRuns)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RleDecodeRuns)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
