#include "ScriptDescriptor.h"

#include <cstring>

namespace Curvana::Gimp {
namespace {

// Little-endian writer and bounds-checked reader of the byte form.
class ByteWriter {
public:
    void u32(uint32_t v) {
        for (int i = 0; i < 4; ++i)
            bytes.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
    void u64(uint64_t v) {
        for (int i = 0; i < 8; ++i)
            bytes.push_back(static_cast<uint8_t>(v >> (8 * i)));
    }
    std::vector<uint8_t> bytes;
};

class ByteReader {
public:
    explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    bool u32(uint32_t& v) {
        uint64_t w = 0;
        if (!take(4, w))
            return false;
        v = static_cast<uint32_t>(w);
        return true;
    }
    bool u64(uint64_t& v) { return take(8, v); }
    bool data(size_t n, std::vector<uint8_t>& out) {
        if (n > bytes_.size() - at_)
            return false;
        out.assign(bytes_.begin() + static_cast<ptrdiff_t>(at_),
                   bytes_.begin() + static_cast<ptrdiff_t>(at_ + n));
        at_ += n;
        return true;
    }
    bool done() const { return at_ == bytes_.size(); }

private:
    bool take(size_t n, uint64_t& v) {
        if (n > bytes_.size() - at_)
            return false;
        v = 0;
        for (size_t i = 0; i < n; ++i)
            v |= static_cast<uint64_t>(bytes_[at_ + i]) << (8 * i);
        at_ += n;
        return true;
    }
    std::span<const uint8_t> bytes_;
    size_t at_ = 0;
};

constexpr uint32_t kMagic = CV_FOURCC('C', 'V', 'D', '1');

}  // namespace

std::vector<uint8_t> encodeDescriptor(const Descriptor& descriptor) {
    ByteWriter w;
    w.u32(kMagic);
    w.u32(static_cast<uint32_t>(descriptor.entries().size()));
    for (const DescriptorEntry& e : descriptor.entries()) {
        w.u32(e.key);
        w.u32(e.type);
        switch (e.type) {
            case cvTypeInteger:
                w.u32(static_cast<uint32_t>(e.integer));
                break;
            case cvTypeFloat: {
                uint64_t bits = 0;
                std::memcpy(&bits, &e.number, sizeof bits);
                w.u64(bits);
                break;
            }
            case cvTypeBoolean:
                w.u32(e.boolean ? 1 : 0);
                break;
            case cvTypeEnumerated:
                w.u32(e.enumType);
                w.u32(e.enumValue);
                break;
            default:  // raw data
                w.u64(e.data.size());
                w.bytes.insert(w.bytes.end(), e.data.begin(), e.data.end());
                break;
        }
    }
    return std::move(w.bytes);
}

std::unique_ptr<Descriptor> decodeDescriptor(std::span<const uint8_t> bytes) {
    ByteReader r(bytes);
    uint32_t magic = 0;
    uint32_t count = 0;
    if (!r.u32(magic) || magic != kMagic || !r.u32(count))
        return nullptr;
    auto d = std::make_unique<Descriptor>();
    for (uint32_t i = 0; i < count; ++i) {
        DescriptorEntry e;
        uint32_t word = 0;
        if (!r.u32(e.key) || !r.u32(e.type))
            return nullptr;
        switch (e.type) {
            case cvTypeInteger:
                if (!r.u32(word))
                    return nullptr;
                e.integer = static_cast<int32_t>(word);
                break;
            case cvTypeFloat: {
                uint64_t bits = 0;
                if (!r.u64(bits))
                    return nullptr;
                std::memcpy(&e.number, &bits, sizeof bits);
                break;
            }
            case cvTypeBoolean:
                if (!r.u32(word) || word > 1)
                    return nullptr;
                e.boolean = word != 0;
                break;
            case cvTypeEnumerated:
                if (!r.u32(e.enumType) || !r.u32(e.enumValue))
                    return nullptr;
                break;
            case cvTypeRawData: {
                uint64_t size = 0;
                if (!r.u64(size) || !r.data(static_cast<size_t>(size), e.data))
                    return nullptr;
                break;
            }
            default:
                return nullptr;
        }
        d->put(std::move(e));
    }
    return r.done() ? std::move(d) : nullptr;
}

}  // namespace Curvana::Gimp
