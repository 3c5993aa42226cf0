// Which samples of an image or tile the filter has written: one bit per
// sample, runs set and tested a word at a time (a row of one plane is a run
// when the bits are ordered plane by plane).
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Curvana::Host {

class SampleMask {
public:
    void assign(size_t words, uint64_t value) { bits_.assign(words, value); }
    // Frees the words (a tile moved out of memory).
    void release() { std::vector<uint64_t>().swap(bits_); }
    // Sets bits [first, first + count); returns how many were clear.
    size_t mark(size_t first, size_t count) {
        size_t added = 0;
        forRuns(bits_, first, count, [&](uint64_t& word, uint64_t bits) {
            added += static_cast<size_t>(std::popcount(bits & ~word));
            word |= bits;
            return true;
        });
        return added;
    }
    // True when every bit of [first, first + count) is set.
    bool all(size_t first, size_t count) const {
        return forRuns(bits_, first, count,
                       [](uint64_t word, uint64_t bits) { return (word & bits) == bits; });
    }
    bool test(size_t i) const { return (bits_[i / 64] >> (i % 64)) & 1u; }
    // The words themselves, for a tile spilled to a file and read back.
    uint64_t* data() { return bits_.data(); }

private:
    // Calls f(word, bits of the run in that word) word by word; stops at the
    // first false.
    template <class Words, class F>
    static bool forRuns(Words& words, size_t first, size_t count, F&& f) {
        while (count > 0) {
            const size_t bit = first % 64;
            const size_t n = std::min<size_t>(64 - bit, count);
            const uint64_t bits = (n == 64 ? ~uint64_t{0} : ((uint64_t{1} << n) - 1)) << bit;
            if (!f(words[first / 64], bits))
                return false;
            first += n;
            count -= n;
        }
        return true;
    }

    std::vector<uint64_t> bits_;
};

}  // namespace Curvana::Host
