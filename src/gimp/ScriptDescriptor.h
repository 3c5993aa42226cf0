// The plug-in's action descriptors: ordered keyed values served to the
// filter module through the descriptor suite, and their byte form, which
// GIMP keeps between runs (gimp_set_data) so that "Repeat" replays the last
// action.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "curvana/CurvanaPlugin.h"

namespace Curvana::Gimp {

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
    void putFloat(uint32_t key, double value);
    void putEnumerated(uint32_t key, uint32_t type, uint32_t value);
    void putData(uint32_t key, std::vector<uint8_t> bytes);
    std::optional<double> getFloat(uint32_t key) const;

    // Made by the module through the suite: the module owns it until it
    // hands it back as its result.
    bool madeByModule = false;

    CvDescriptor handle() { return reinterpret_cast<CvDescriptor>(this); }
    // The live descriptor behind a handle; nullptr for a stale or foreign one.
    static Descriptor* fromHandle(CvDescriptor handle);

private:
    std::vector<DescriptorEntry> entries_;
};

// The suite over Descriptor; every function checks its handle first.
const CvDescriptorSuite5* descriptorSuite();

// The byte form: "CVD1", the entry count, then each entry as key, type and
// value (little-endian). decode returns nothing for bytes that are not a
// whole, well-formed descriptor.
std::vector<uint8_t> encodeDescriptor(const Descriptor& descriptor);
std::unique_ptr<Descriptor> decodeDescriptor(std::span<const uint8_t> bytes);

}  // namespace Curvana::Gimp
