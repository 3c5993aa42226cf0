#include "core/ByteIO.h"

namespace Project {

uint8_t ByteWriter::ByteOf(uint32_t v, size_t i, size_t width) const {
    const size_t shift = order_ == std::endian::big ? 8 * (width - 1 - i) : 8 * i;
    return static_cast<uint8_t>(v >> shift);
}

void ByteWriter::Put(uint32_t v, size_t width) {
    for (size_t i = 0; i < width; ++i)
        out_.push_back(ByteOf(v, i, width));
}

void ByteWriter::String(std::string_view s, uint32_t encoding) {
    U32(static_cast<uint32_t>(s.size()));
    if (s.empty())
        return;
    U32(encoding);
    out_.insert(out_.end(), s.begin(), s.end());
}

void ByteWriter::PatchU32(size_t at, uint32_t v) {
    for (size_t i = 0; i < 4; ++i)
        out_[at + i] = ByteOf(v, i, 4);
}

uint32_t ByteReader::Get(size_t width) {
    if (!ok_ || Remaining() < width) {
        ok_ = false;
        return 0;
    }
    uint32_t v = 0;
    for (size_t i = 0; i < width; ++i) {
        const size_t shift = order_ == std::endian::big ? 8 * (width - 1 - i) : 8 * i;
        v |= static_cast<uint32_t>(data_[pos_ + i]) << shift;
    }
    pos_ += width;
    return v;
}

std::string ByteReader::String() {
    const uint32_t n = U32();
    if (n == 0)
        return {};
    (void)U32();  // the encoding word
    if (!ok_ || n > Remaining()) {
        ok_ = false;
        return {};
    }
    std::string s(reinterpret_cast<const char*>(data_.data() + pos_), n);
    pos_ += n;
    return s;
}

}  // namespace Project
