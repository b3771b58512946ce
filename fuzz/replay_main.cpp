// Replays every file below the given directories (or the given files) through the fuzz
// target once, without libFuzzer: the regression run of the committed inputs.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

static void runFile(std::filesystem::path const& p, unsigned& count)
{
    std::ifstream in(p, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    ++count;
}

int main(int argc, char** argv)
{
    unsigned count = 0;
    // The empty input first: every target must take it.
    LLVMFuzzerTestOneInput(nullptr, 0);
    for (int i = 1; i < argc; ++i) {
        std::filesystem::path p(argv[i]);
        std::error_code ec;
        if (std::filesystem::is_directory(p, ec)) {
            for (auto const& e : std::filesystem::recursive_directory_iterator(p, ec))
                if (e.is_regular_file()) runFile(e.path(), count);
        } else if (std::filesystem::is_regular_file(p, ec)) {
            runFile(p, count);
        }
    }
    std::fprintf(stderr, "replayed %u inputs\n", count);  // stderr: targets may silence stdout
    return 0;
}
