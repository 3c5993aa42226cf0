#pragma once

#include <cstdint>
#include <optional>
#include <variant>
#include <vector>

#include "curvana/CurvanaPlugin.h"

namespace Project {

// An action descriptor in memory: keys (four-character codes) in insertion
// order, each with one typed value. Putting a key that is present replaces
// its value in place, so every key occurs once.
class ActionDescriptor {
public:
    struct Enumerated {
        uint32_t type = 0;
        uint32_t value = 0;
        friend bool operator==(const Enumerated&, const Enumerated&) = default;
    };
    using Data = std::vector<uint8_t>;
    using Value = std::variant<int32_t, double, bool, Enumerated, Data>;
    struct Entry {
        uint32_t key = 0;
        Value value;
    };

    size_t Count() const { return entries_.size(); }
    const std::vector<Entry>& Entries() const { return entries_; }
    const Entry* Find(uint32_t key) const;
    // The cvType code of a value.
    static uint32_t TypeOf(const Value& value);

    void Put(uint32_t key, Value value);

    // The value of a key when present with that type.
    std::optional<int32_t> GetInteger(uint32_t key) const;
    std::optional<double> GetFloat(uint32_t key) const;
    std::optional<bool> GetBoolean(uint32_t key) const;
    std::optional<Enumerated> GetEnumerated(uint32_t key) const;
    const Data* GetData(uint32_t key) const;

private:
    std::vector<Entry> entries_;
};

// The action-descriptor suite (CV_DESCRIPTOR_SUITE_NAME, version 5) over
// ActionDescriptor, as a host offers it. make returns a new descriptor that
// its caller owns until release (or until a host takes it over); every other
// handle it accepts must come from make. The functions never throw: failures
// are CvError values (cvErrParam for a null argument, an absent key or a
// value of another type; cvErrMemory when an allocation fails).
const CvDescriptorSuite5& DescriptorSuite();

// The ActionDescriptor behind a handle that the suite made, and back.
inline ActionDescriptor* FromHandle(CvDescriptor handle) {
    return reinterpret_cast<ActionDescriptor*>(handle);
}
inline CvDescriptor ToHandle(ActionDescriptor* descriptor) {
    return reinterpret_cast<CvDescriptor>(descriptor);
}

}  // namespace Project
