#include "ScriptDescriptor.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <set>
#include <string_view>

namespace Curvana::Gimp {
namespace {

std::mutex registryMutex;
std::set<const Descriptor*>& registry() {
    static std::set<const Descriptor*> live;
    return live;
}

// Runs f on the descriptor behind handle; a stale handle or a throw becomes
// an error code (nothing may be thrown back into the module).
template <class F>
CvError guarded(CvDescriptor handle, F&& f) {
    Descriptor* d = Descriptor::fromHandle(handle);
    if (!d)
        return cvErrParam;
    try {
        return f(*d) ? static_cast<CvError>(cvNoErr) : static_cast<CvError>(cvErrParam);
    } catch (const std::bad_alloc&) {
        return cvErrMemory;
    } catch (...) {
        return cvErrParam;
    }
}

const DescriptorEntry* typed(const Descriptor& d, uint32_t key, uint32_t type) {
    const DescriptorEntry* e = d.find(key);
    return e && e->type == type ? e : nullptr;
}

CvError suiteMake(CvDescriptor* out) {
    if (!out)
        return cvErrParam;
    try {
        // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): owned through a C handle
        auto* d = new Descriptor();
        d->madeByModule = true;
        *out = d->handle();
        return cvNoErr;
    } catch (...) {
        return cvErrMemory;
    }
}

CvError suiteRelease(CvDescriptor handle) {
    Descriptor* d = Descriptor::fromHandle(handle);
    // The descriptor passed in is the host's: only the module's own go.
    if (!d || !d->madeByModule)
        return cvErrParam;
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): owned through a C handle
    delete d;
    return cvNoErr;
}

CvError suiteCount(CvDescriptor h, uint32_t* count) {
    return guarded(h, [&](Descriptor& d) {
        if (!count)
            return false;
        *count = static_cast<uint32_t>(d.entries().size());
        return true;
    });
}

CvError suiteKeyAt(CvDescriptor h, uint32_t index, uint32_t* key, uint32_t* type) {
    return guarded(h, [&](Descriptor& d) {
        if (index >= d.entries().size() || !key || !type)
            return false;
        *key = d.entries()[index].key;
        *type = d.entries()[index].type;
        return true;
    });
}

CvError suiteGetInteger(CvDescriptor h, uint32_t key, int32_t* value) {
    return guarded(h, [&](Descriptor& d) {
        const DescriptorEntry* e = typed(d, key, cvTypeInteger);
        if (!e || !value)
            return false;
        *value = e->integer;
        return true;
    });
}

CvError suiteGetFloat(CvDescriptor h, uint32_t key, double* value) {
    return guarded(h, [&](Descriptor& d) {
        const DescriptorEntry* e = typed(d, key, cvTypeFloat);
        if (!e || !value)
            return false;
        *value = e->number;
        return true;
    });
}

CvError suiteGetBoolean(CvDescriptor h, uint32_t key, uint8_t* value) {
    return guarded(h, [&](Descriptor& d) {
        const DescriptorEntry* e = typed(d, key, cvTypeBoolean);
        if (!e || !value)
            return false;
        *value = e->boolean ? 1 : 0;
        return true;
    });
}

CvError suiteGetEnumerated(CvDescriptor h, uint32_t key, uint32_t* type, uint32_t* value) {
    return guarded(h, [&](Descriptor& d) {
        const DescriptorEntry* e = typed(d, key, cvTypeEnumerated);
        if (!e || !value)
            return false;
        if (type)
            *type = e->enumType;
        *value = e->enumValue;
        return true;
    });
}

CvError suiteGetDataLength(CvDescriptor h, uint32_t key, int32_t* length) {
    return guarded(h, [&](Descriptor& d) {
        const DescriptorEntry* e = typed(d, key, cvTypeRawData);
        if (!e || !length)
            return false;
        *length = static_cast<int32_t>(e->data.size());
        return true;
    });
}

CvError suiteGetData(CvDescriptor h, uint32_t key, void* buffer, int32_t length) {
    return guarded(h, [&](Descriptor& d) {
        const DescriptorEntry* e = typed(d, key, cvTypeRawData);
        if (!e || length < 0 || (!buffer && length > 0))
            return false;
        const size_t n = std::min(e->data.size(), static_cast<size_t>(length));
        if (n > 0)
            std::memcpy(buffer, e->data.data(), n);
        return true;
    });
}

CvError suitePutInteger(CvDescriptor h, uint32_t key, int32_t value) {
    return guarded(h, [&](Descriptor& d) {
        DescriptorEntry e;
        e.key = key;
        e.type = cvTypeInteger;
        e.integer = value;
        d.put(std::move(e));
        return true;
    });
}

CvError suitePutFloat(CvDescriptor h, uint32_t key, double value) {
    return guarded(h, [&](Descriptor& d) {
        d.putFloat(key, value);
        return true;
    });
}

CvError suitePutBoolean(CvDescriptor h, uint32_t key, uint8_t value) {
    return guarded(h, [&](Descriptor& d) {
        DescriptorEntry e;
        e.key = key;
        e.type = cvTypeBoolean;
        e.boolean = value != 0;
        d.put(std::move(e));
        return true;
    });
}

CvError suitePutEnumerated(CvDescriptor h, uint32_t key, uint32_t type, uint32_t value) {
    return guarded(h, [&](Descriptor& d) {
        d.putEnumerated(key, type, value);
        return true;
    });
}

CvError suitePutData(CvDescriptor h, uint32_t key, const void* data, int32_t length) {
    return guarded(h, [&](Descriptor& d) {
        if (length < 0 || (!data && length > 0))
            return false;
        const auto* bytes = static_cast<const uint8_t*>(data);
        d.putData(key, std::vector<uint8_t>(bytes, bytes + length));
        return true;
    });
}

const CvDescriptorSuite5 kSuite = {
    suiteMake,       suiteRelease,    suiteCount,         suiteKeyAt,         suiteGetInteger,
    suiteGetFloat,   suiteGetBoolean, suiteGetEnumerated, suiteGetDataLength, suiteGetData,
    suitePutInteger, suitePutFloat,   suitePutBoolean,    suitePutEnumerated, suitePutData};

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

Descriptor::Descriptor() {
    const std::lock_guard lock(registryMutex);
    registry().insert(this);
}

Descriptor::Descriptor(const Descriptor& other) : entries_(other.entries_) {
    const std::lock_guard lock(registryMutex);
    registry().insert(this);
}

Descriptor::~Descriptor() {
    const std::lock_guard lock(registryMutex);
    registry().erase(this);
}

Descriptor* Descriptor::fromHandle(CvDescriptor handle) {
    auto* d = reinterpret_cast<Descriptor*>(handle);
    const std::lock_guard lock(registryMutex);
    return registry().count(d) ? d : nullptr;
}

const DescriptorEntry* Descriptor::find(uint32_t key) const {
    for (const DescriptorEntry& e : entries_)
        if (e.key == key)
            return &e;
    return nullptr;
}

void Descriptor::put(DescriptorEntry entry) {
    for (DescriptorEntry& e : entries_) {
        if (e.key == entry.key) {
            e = std::move(entry);
            return;
        }
    }
    entries_.push_back(std::move(entry));
}

void Descriptor::putFloat(uint32_t key, double value) {
    DescriptorEntry e;
    e.key = key;
    e.type = cvTypeFloat;
    e.number = value;
    put(std::move(e));
}

void Descriptor::putEnumerated(uint32_t key, uint32_t type, uint32_t value) {
    DescriptorEntry e;
    e.key = key;
    e.type = cvTypeEnumerated;
    e.enumType = type;
    e.enumValue = value;
    put(std::move(e));
}

void Descriptor::putData(uint32_t key, std::vector<uint8_t> bytes) {
    DescriptorEntry e;
    e.key = key;
    e.type = cvTypeRawData;
    e.data = std::move(bytes);
    put(std::move(e));
}

std::optional<double> Descriptor::getFloat(uint32_t key) const {
    const DescriptorEntry* e = typed(*this, key, cvTypeFloat);
    return e ? std::optional<double>(e->number) : std::nullopt;
}

const CvDescriptorSuite5* descriptorSuite() {
    return &kSuite;
}

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
