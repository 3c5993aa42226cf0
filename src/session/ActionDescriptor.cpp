#include "session/ActionDescriptor.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace Project {

const ActionDescriptor::Entry* ActionDescriptor::Find(uint32_t key) const {
    const auto it = std::find_if(entries_.begin(), entries_.end(),
                                 [key](const Entry& e) { return e.key == key; });
    return it == entries_.end() ? nullptr : &*it;
}

uint32_t ActionDescriptor::TypeOf(const Value& value) {
    static constexpr uint32_t kTypes[] = {cvTypeInteger, cvTypeFloat, cvTypeBoolean,
                                          cvTypeEnumerated, cvTypeRawData};
    return kTypes[value.index()];
}

void ActionDescriptor::Put(uint32_t key, Value value) {
    for (Entry& e : entries_) {
        if (e.key == key) {
            e.value = std::move(value);
            return;
        }
    }
    entries_.push_back({key, std::move(value)});
}

namespace {

template <class T>
const T* Typed(const ActionDescriptor& d, uint32_t key) {
    const ActionDescriptor::Entry* e = d.Find(key);
    return e ? std::get_if<T>(&e->value) : nullptr;
}

}  // namespace

std::optional<int32_t> ActionDescriptor::GetInteger(uint32_t key) const {
    const auto* v = Typed<int32_t>(*this, key);
    return v ? std::optional(*v) : std::nullopt;
}

std::optional<double> ActionDescriptor::GetFloat(uint32_t key) const {
    const auto* v = Typed<double>(*this, key);
    return v ? std::optional(*v) : std::nullopt;
}

std::optional<bool> ActionDescriptor::GetBoolean(uint32_t key) const {
    const auto* v = Typed<bool>(*this, key);
    return v ? std::optional(*v) : std::nullopt;
}

std::optional<ActionDescriptor::Enumerated> ActionDescriptor::GetEnumerated(uint32_t key) const {
    const auto* v = Typed<Enumerated>(*this, key);
    return v ? std::optional(*v) : std::nullopt;
}

const ActionDescriptor::Data* ActionDescriptor::GetData(uint32_t key) const {
    return Typed<Data>(*this, key);
}

namespace {

// Runs a put, turning an allocation failure into an error code.
template <class F>
CvError Guarded(F&& f) noexcept {
    try {
        return f();
    } catch (const std::bad_alloc&) {
        return cvErrMemory;
    } catch (...) {
        return cvErrParam;
    }
}

CvError Make(CvDescriptor* out) {
    if (!out)
        return cvErrParam;
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): owned by a C handle
    auto* d = new (std::nothrow) ActionDescriptor;
    if (!d)
        return cvErrMemory;
    *out = ToHandle(d);
    return cvNoErr;
}

CvError Release(CvDescriptor descriptor) {
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): owned by a C handle
    delete FromHandle(descriptor);
    return cvNoErr;
}

CvError Count(CvDescriptor descriptor, uint32_t* count) {
    if (!descriptor || !count)
        return cvErrParam;
    *count = static_cast<uint32_t>(FromHandle(descriptor)->Count());
    return cvNoErr;
}

CvError KeyAt(CvDescriptor descriptor, uint32_t index, uint32_t* key, uint32_t* type) {
    if (!descriptor || !key || !type)
        return cvErrParam;
    const auto& entries = FromHandle(descriptor)->Entries();
    if (index >= entries.size())
        return cvErrParam;
    *key = entries[index].key;
    *type = ActionDescriptor::TypeOf(entries[index].value);
    return cvNoErr;
}

template <class T, class Out>
CvError GetValue(CvDescriptor descriptor, uint32_t key, Out* value) {
    if (!descriptor || !value)
        return cvErrParam;
    const T* v = Typed<T>(*FromHandle(descriptor), key);
    if (!v)
        return cvErrParam;
    *value = static_cast<Out>(*v);
    return cvNoErr;
}

CvError GetInteger(CvDescriptor d, uint32_t key, int32_t* value) {
    return GetValue<int32_t>(d, key, value);
}
CvError GetFloat(CvDescriptor d, uint32_t key, double* value) {
    return GetValue<double>(d, key, value);
}
CvError GetBoolean(CvDescriptor d, uint32_t key, uint8_t* value) {
    return GetValue<bool>(d, key, value);
}

CvError GetEnumerated(CvDescriptor d, uint32_t key, uint32_t* type, uint32_t* value) {
    if (!d || !type || !value)
        return cvErrParam;
    const auto* v = Typed<ActionDescriptor::Enumerated>(*FromHandle(d), key);
    if (!v)
        return cvErrParam;
    *type = v->type;
    *value = v->value;
    return cvNoErr;
}

CvError GetDataLength(CvDescriptor d, uint32_t key, int32_t* length) {
    if (!d || !length)
        return cvErrParam;
    const auto* v = Typed<ActionDescriptor::Data>(*FromHandle(d), key);
    if (!v)
        return cvErrParam;
    *length = static_cast<int32_t>(v->size());
    return cvNoErr;
}

// Copies min(length, stored length) bytes.
CvError GetData(CvDescriptor d, uint32_t key, void* buffer, int32_t length) {
    if (!d || length < 0 || (!buffer && length > 0))
        return cvErrParam;
    const auto* v = Typed<ActionDescriptor::Data>(*FromHandle(d), key);
    if (!v)
        return cvErrParam;
    const size_t n = std::min(v->size(), static_cast<size_t>(length));
    if (n > 0)
        std::memcpy(buffer, v->data(), n);
    return cvNoErr;
}

CvError PutInteger(CvDescriptor d, uint32_t key, int32_t value) {
    if (!d)
        return cvErrParam;
    return Guarded([&] {
        FromHandle(d)->Put(key, value);
        return cvNoErr;
    });
}

CvError PutFloat(CvDescriptor d, uint32_t key, double value) {
    if (!d)
        return cvErrParam;
    return Guarded([&] {
        FromHandle(d)->Put(key, value);
        return cvNoErr;
    });
}

CvError PutBoolean(CvDescriptor d, uint32_t key, uint8_t value) {
    if (!d)
        return cvErrParam;
    return Guarded([&] {
        FromHandle(d)->Put(key, value != 0);
        return cvNoErr;
    });
}

CvError PutEnumerated(CvDescriptor d, uint32_t key, uint32_t type, uint32_t value) {
    if (!d)
        return cvErrParam;
    return Guarded([&] {
        FromHandle(d)->Put(key, ActionDescriptor::Enumerated{type, value});
        return cvNoErr;
    });
}

CvError PutData(CvDescriptor d, uint32_t key, const void* data, int32_t length) {
    if (!d || length < 0 || (!data && length > 0))
        return cvErrParam;
    return Guarded([&] {
        const auto* bytes = static_cast<const uint8_t*>(data);
        FromHandle(d)->Put(key, ActionDescriptor::Data(bytes, bytes + length));
        return cvNoErr;
    });
}

}  // namespace

const CvDescriptorSuite5& DescriptorSuite() {
    static const CvDescriptorSuite5 suite = {
        Make,       Release,    Count,         KeyAt,         GetInteger,
        GetFloat,   GetBoolean, GetEnumerated, GetDataLength, GetData,
        PutInteger, PutFloat,   PutBoolean,    PutEnumerated, PutData,
    };
    return suite;
}

}  // namespace Project
