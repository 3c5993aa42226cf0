// Runs a libFuzzer entry point without libFuzzer: every file of the given
// folders (seeds and regressions), then seeded mutations of them (bit flips,
// truncation, splices, random bytes). Deterministic, so a failure reproduces
// with the same arguments.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using Bytes = std::vector<uint8_t>;

void readSeeds(const std::filesystem::path& dir, std::vector<Bytes>& seeds) {
    std::error_code ec;
    if (!std::filesystem::is_directory(dir, ec))
        return;
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const auto& f : files) {
        std::ifstream in(f, std::ios::binary);
        seeds.emplace_back(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
}

Bytes mutate(const Bytes& seed, std::mt19937& rng) {
    Bytes out = seed;
    std::uniform_int_distribution<int> op(0, 5);
    const int rounds = 1 + static_cast<int>(rng() % 4);
    for (int r = 0; r < rounds; ++r) {
        switch (op(rng)) {
            case 0:  // flip a bit
                if (!out.empty())
                    out[rng() % out.size()] ^= static_cast<uint8_t>(1u << (rng() % 8));
                break;
            case 1:  // truncate
                if (!out.empty())
                    out.resize(rng() % out.size());
                break;
            case 2:  // overwrite a byte with an interesting value
                if (!out.empty()) {
                    static const uint8_t interesting[] = {0,    1,   0x7f, 0x80, 0xff,
                                                          0xfe, '<', '>',  '/'};
                    out[rng() % out.size()] = interesting[rng() % sizeof interesting];
                }
                break;
            case 3: {  // insert random bytes
                const size_t at = out.empty() ? 0 : rng() % (out.size() + 1);
                const size_t n = 1 + rng() % 16;
                Bytes ins(n);
                for (auto& b : ins)
                    b = static_cast<uint8_t>(rng());
                out.insert(out.begin() + static_cast<std::ptrdiff_t>(at), ins.begin(), ins.end());
                break;
            }
            case 4:  // duplicate a slice
                if (out.size() > 2) {
                    const size_t a = rng() % out.size();
                    const size_t n = 1 + rng() % (out.size() - a);
                    Bytes slice(out.begin() + static_cast<std::ptrdiff_t>(a),
                                out.begin() + static_cast<std::ptrdiff_t>(a + n));
                    out.insert(out.begin() + static_cast<std::ptrdiff_t>(rng() % out.size()),
                               slice.begin(), slice.end());
                }
                break;
            default:  // set a 32-bit word to an extreme
                if (out.size() >= 4) {
                    const size_t at = rng() % (out.size() - 3);
                    const uint32_t values[] = {0u, 0xffffffffu, 0x7fffffffu, 0x80000000u, 65536u};
                    const uint32_t v = values[rng() % 5];
                    for (int k = 0; k < 4; ++k)
                        out[at + k] = static_cast<uint8_t>(v >> (8 * k));
                }
                break;
        }
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s ITERATIONS [DIR...]\n", argv[0]);
        return 2;
    }
    const long iterations = std::strtol(argv[1], nullptr, 10);
    std::vector<Bytes> seeds;
    for (int i = 2; i < argc; ++i)
        readSeeds(argv[i], seeds);
    if (seeds.empty())
        seeds.push_back({});

    long ran = 0;
    for (const auto& s : seeds) {
        LLVMFuzzerTestOneInput(s.data(), s.size());
        ++ran;
    }
    std::mt19937 rng(12345);
    for (long i = 0; i < iterations; ++i) {
        const Bytes input = mutate(seeds[rng() % seeds.size()], rng);
        LLVMFuzzerTestOneInput(input.data(), input.size());
        ++ran;
    }
    std::printf("%ld inputs ran without a fault\n", ran);
    return 0;
}
