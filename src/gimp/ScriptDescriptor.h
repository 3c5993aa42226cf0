// The plug-in's action descriptors in their byte form, which GIMP keeps
// between runs (gimp_set_data) so that "Repeat" replays the last action.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "curvana/CurvanaPlugin.h"
#include "hostkit/ActionDescriptor.h"

namespace Curvana::Gimp {

using HostKit::Descriptor;
using HostKit::DescriptorEntry;
using HostKit::descriptorSuite;

// The byte form: "CVD1", the entry count, then each entry as key, type and
// value (little-endian). decode returns nothing for bytes that are not a
// whole, well-formed descriptor.
std::vector<uint8_t> encodeDescriptor(const Descriptor& descriptor);
std::unique_ptr<Descriptor> decodeDescriptor(std::span<const uint8_t> bytes);

}  // namespace Curvana::Gimp
