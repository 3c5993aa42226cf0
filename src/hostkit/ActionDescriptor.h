// An action descriptor as a host keeps it: an ordered list of keyed values,
// served to the filter module through the descriptor suite. Both hosts (the
// curvana program and the GIMP plug-in) use this one; each adds its own
// stored form (JSON, GIMP's byte form).
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "curvana/CurvanaPlugin.h"

namespace Curvana::HostKit {

struct DescriptorEntry {
    uint32_t key = 0;
    uint32_t type =
        0;  // cvTypeInteger, cvTypeFloat, cvTypeBoolean, cvTypeEnumerated, cvTypeRawData
    int32_t integer = 0;
    double number = 0;
    bool boolean = false;
    uint32_t enumType = 0;
    uint32_t enumValue = 0;
    std::vector<uint8_t> data;
};

class Descriptor {
public:
    Descriptor();
    ~Descriptor();
    Descriptor(const Descriptor& other);
    Descriptor& operator=(const Descriptor&) = delete;

    const std::vector<DescriptorEntry>& entries() const { return entries_; }
    const DescriptorEntry* find(uint32_t key) const;
    // Replaces an entry of the same key in place, else appends.
    void put(DescriptorEntry entry);
    void putInteger(uint32_t key, int32_t value);
    void putFloat(uint32_t key, double value);
    void putEnumerated(uint32_t key, uint32_t type, uint32_t value);
    void putBoolean(uint32_t key, bool value);
    void putData(uint32_t key, std::vector<uint8_t> bytes);
    void erase(uint32_t key);
    std::optional<double> getFloat(uint32_t key) const;

    // A descriptor the module made with the suite's make: the module owns it
    // until it hands it back as its result.
    bool madeByModule = false;

    CvDescriptor handle() { return reinterpret_cast<CvDescriptor>(this); }
    // The live descriptor behind a handle; nullptr for a stale or foreign one.
    static Descriptor* fromHandle(CvDescriptor handle);

private:
    std::vector<DescriptorEntry> entries_;
};

// The suite over Descriptor. Every function checks its handle first and
// turns anything thrown into an error code: nothing may be thrown back into
// the module.
const CvDescriptorSuite5* descriptorSuite();

}  // namespace Curvana::HostKit
