#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace Project {

// Fixed-width numbers in a given byte order (little-endian unless said), the
// way the project's binary files store them. Floats are their IEEE 754 bits.
//
// Strings, in every file: a u32 byte count n; when n > 0, a u32 encoding word
// and the n bytes of text without terminator (nothing follows n == 0). The
// encoding word is the file format's to choose; readers skip it.

// Appends to a byte vector it does not own.
class ByteWriter {
public:
    explicit ByteWriter(std::vector<uint8_t>& out, std::endian order = std::endian::little)
        : out_(out), order_(order) {}

    void U8(uint8_t v) { out_.push_back(v); }
    void U16(uint16_t v) { Put(v, 2); }
    void U32(uint32_t v) { Put(v, 4); }
    void I32(int32_t v) { U32(static_cast<uint32_t>(v)); }
    void F32(float v) { U32(std::bit_cast<uint32_t>(v)); }
    void String(std::string_view s, uint32_t encoding);

    // Bytes in the vector so far (positions for PatchU32).
    size_t Size() const { return out_.size(); }
    // Overwrites the word written earlier at byte position `at`.
    void PatchU32(size_t at, uint32_t v);

private:
    uint8_t ByteOf(uint32_t v, size_t i, size_t width) const;
    void Put(uint32_t v, size_t width);

    std::vector<uint8_t>& out_;
    std::endian order_;
};

// Reads from a bounded range and never past it: a read that would sets the
// failed state and yields zero (an empty string), as does every read after
// it, so callers check Ok() once after a group of reads.
class ByteReader {
public:
    explicit ByteReader(std::span<const uint8_t> data, std::endian order = std::endian::little)
        : data_(data), order_(order) {}

    uint8_t U8() { return static_cast<uint8_t>(Get(1)); }
    uint16_t U16() { return static_cast<uint16_t>(Get(2)); }
    uint32_t U32() { return Get(4); }
    int32_t I32() { return static_cast<int32_t>(U32()); }
    float F32() { return std::bit_cast<float>(U32()); }
    std::string String();

    bool Ok() const { return ok_; }
    size_t Remaining() const { return data_.size() - pos_; }
    // Marks the data as bad (a count that cannot be right, say).
    void Fail() { ok_ = false; }

private:
    uint32_t Get(size_t width);

    std::span<const uint8_t> data_;
    std::endian order_;
    size_t pos_ = 0;
    bool ok_ = true;
};

}  // namespace Project
