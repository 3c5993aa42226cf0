// Decodes arbitrary bytes into an action descriptor and reads it as the
// filter's scripting parameters. What the reader takes in, the writer must
// hand back so that a second read and write changes nothing.
//
// Byte format of an entry (repeated to the end of the input): a four-byte key
// (big-endian, as four-character codes are spelled), a type letter and the
// value: 'i' int32, 'd' double, 'b' one byte, 'e' two uint32 (type, value),
// 'r' a uint16 length and that many bytes (all little-endian). Any other
// letter ends the descriptor.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <vector>
#include "session/ActionDescriptor.h"
#include "session/ScriptParameters.h"

namespace {

using Project::ActionDescriptor;

// Keeps the constraint data as the bytes it was given, so that what was read
// is written back unchanged (the real set's parser has its own fuzz target).
class RawConstraintData final : public Project::PConstraintData {
public:
    bool Parse(const uint8_t* data, size_t size, Project::PSettings&) override {
        bytes_.assign(data, data + size);
        return true;
    }
    size_t SerializedSize() const override { return bytes_.size(); }
    void Serialize(uint8_t* out) const override {
        if (!bytes_.empty())
            std::memcpy(out, bytes_.data(), bytes_.size());
    }

private:
    std::vector<uint8_t> bytes_;
};

class Input {
public:
    Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool Take(void* out, size_t n) {
        if (size_ - pos_ < n)
            return false;
        std::memcpy(out, data_ + pos_, n);
        pos_ += n;
        return true;
    }
    bool Done() const { return pos_ >= size_; }

private:
    const uint8_t* data_;
    size_t size_;
    size_t pos_ = 0;
};

ActionDescriptor Decode(const uint8_t* data, size_t size) {
    ActionDescriptor d;
    Input in(data, size);
    while (!in.Done()) {
        uint8_t key[4];
        char type = 0;
        if (!in.Take(key, 4) || !in.Take(&type, 1))
            break;
        const uint32_t k =
            (uint32_t{key[0]} << 24) | (uint32_t{key[1]} << 16) | (uint32_t{key[2]} << 8) | key[3];
        if (type == 'i') {
            int32_t v;
            if (!in.Take(&v, 4))
                break;
            d.Put(k, v);
        } else if (type == 'd') {
            double v;
            if (!in.Take(&v, 8))
                break;
            d.Put(k, v);
        } else if (type == 'b') {
            uint8_t v;
            if (!in.Take(&v, 1))
                break;
            d.Put(k, v != 0);
        } else if (type == 'e') {
            uint32_t t, v;
            if (!in.Take(&t, 4) || !in.Take(&v, 4))
                break;
            d.Put(k, ActionDescriptor::Enumerated{t, v});
        } else if (type == 'r') {
            uint16_t n;
            if (!in.Take(&n, 2))
                break;
            ActionDescriptor::Data bytes(n);
            if (n > 0 && !in.Take(bytes.data(), n))
                break;
            d.Put(k, std::move(bytes));
        } else {
            break;
        }
    }
    return d;
}

// Reads a descriptor into default settings and writes them back.
ActionDescriptor ReadAndWrite(const ActionDescriptor& in) {
    const CvDescriptorSuite5& suite = Project::DescriptorSuite();
    Project::PSettings settings(1000);
    RawConstraintData constraints;
    Project::ReadScriptDescriptor(suite, Project::ToHandle(const_cast<ActionDescriptor*>(&in)),
                                  settings, &constraints);
    ActionDescriptor out;
    if (!Project::WriteScriptDescriptor(suite, Project::ToHandle(&out), settings, &constraints))
        __builtin_trap();
    return out;
}

bool Same(const ActionDescriptor& a, const ActionDescriptor& b) {
    if (a.Count() != b.Count())
        return false;
    for (size_t i = 0; i < a.Count(); ++i) {
        const auto& x = a.Entries()[i];
        const auto& y = b.Entries()[i];
        if (x.key != y.key || x.value.index() != y.value.index())
            return false;
        // Doubles compare by bits: a NaN read in is a NaN written out.
        if (const auto* p = std::get_if<double>(&x.value)) {
            if (std::memcmp(p, &std::get<double>(y.value), sizeof(double)) != 0)
                return false;
        } else if (x.value != y.value) {
            return false;
        }
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const ActionDescriptor first = ReadAndWrite(Decode(data, size));
    if (!Same(first, ReadAndWrite(first)))
        __builtin_trap();
    return 0;
}
