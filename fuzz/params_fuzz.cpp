// The action reader behind `curvana apply --params`, with exceptions as the
// program runs it: any bytes must give a descriptor or a HostError, and a
// descriptor must survive its JSON form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include <nlohmann/json.hpp>

#include "host/Descriptor.h"
#include "host/HostError.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Curvana::Host;
    try {
        const auto descriptor =
            actionFromText(std::string_view(reinterpret_cast<const char*>(data), size), "fuzz");
        const auto again = actionFromText(descriptorToJson(*descriptor).dump(), "again");
        if (again->entries().size() != descriptor->entries().size())
            std::abort();
    } catch (const HostError&) {
    }
    return 0;
}
