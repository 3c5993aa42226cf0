// The action reader behind `curvana apply --params`: any bytes must give a
// descriptor or a HostError, and a descriptor must survive its JSON form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include <nlohmann/json.hpp>

#include "host/Descriptor.h"
#include "host/ImageTypes.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const nlohmann::json json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded())
        return 0;
    try {
        const auto descriptor = Curvana::Host::descriptorFromJson(json, "fuzz");
        const auto again = Curvana::Host::descriptorFromJson(
            Curvana::Host::descriptorToJson(*descriptor), "again");
        if (again->entries().size() != descriptor->entries().size())
            std::abort();
    } catch (const Curvana::Host::HostError&) {
    }
    return 0;
}
