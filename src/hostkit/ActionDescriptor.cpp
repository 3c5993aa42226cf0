#include "ActionDescriptor.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <new>
#include <set>

namespace Curvana::HostKit {
namespace {

// Every live descriptor, so that a handle the module passes can be checked
// before it is dereferenced.
std::mutex registryMutex;
std::set<const Descriptor*>& registry() {
    static std::set<const Descriptor*> live;
    return live;
}

// Runs f on the descriptor behind handle: false from f, a stale handle or a
// throw become error codes.
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

// A getter of one value of one type: a missing key, another type or no
// place to put it is a parameter error.
template <class T, class Read>
CvError getTyped(CvDescriptor h, uint32_t key, uint32_t type, T* out, Read read) {
    return guarded(h, [&](Descriptor& d) {
        const DescriptorEntry* e = typed(d, key, type);
        if (!e || !out)
            return false;
        *out = read(*e);
        return true;
    });
}

CvError suiteGetInteger(CvDescriptor h, uint32_t key, int32_t* value) {
    return getTyped(h, key, cvTypeInteger, value,
                    [](const DescriptorEntry& e) { return e.integer; });
}

CvError suiteGetFloat(CvDescriptor h, uint32_t key, double* value) {
    return getTyped(h, key, cvTypeFloat, value, [](const DescriptorEntry& e) { return e.number; });
}

CvError suiteGetBoolean(CvDescriptor h, uint32_t key, uint8_t* value) {
    return getTyped(h, key, cvTypeBoolean, value, [](const DescriptorEntry& e) {
        return static_cast<uint8_t>(e.boolean ? 1 : 0);
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
    return getTyped(h, key, cvTypeRawData, length,
                    [](const DescriptorEntry& e) { return static_cast<int32_t>(e.data.size()); });
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
        d.putInteger(key, value);
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
        d.putBoolean(key, value != 0);
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

DescriptorEntry entry(uint32_t key, uint32_t type) {
    DescriptorEntry e;
    e.key = key;
    e.type = type;
    return e;
}

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

void Descriptor::erase(uint32_t key) {
    std::erase_if(entries_, [key](const DescriptorEntry& e) { return e.key == key; });
}

void Descriptor::putInteger(uint32_t key, int32_t value) {
    DescriptorEntry e = entry(key, cvTypeInteger);
    e.integer = value;
    put(std::move(e));
}

void Descriptor::putFloat(uint32_t key, double value) {
    DescriptorEntry e = entry(key, cvTypeFloat);
    e.number = value;
    put(std::move(e));
}

void Descriptor::putEnumerated(uint32_t key, uint32_t type, uint32_t value) {
    DescriptorEntry e = entry(key, cvTypeEnumerated);
    e.enumType = type;
    e.enumValue = value;
    put(std::move(e));
}

void Descriptor::putBoolean(uint32_t key, bool value) {
    DescriptorEntry e = entry(key, cvTypeBoolean);
    e.boolean = value;
    put(std::move(e));
}

void Descriptor::putData(uint32_t key, std::vector<uint8_t> bytes) {
    DescriptorEntry e = entry(key, cvTypeRawData);
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

}  // namespace Curvana::HostKit
