// Facts about the machine that a host reports to the module.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Curvana::HostKit {

struct MemoryFigures {
    uint64_t total = 0;      // MemTotal
    uint64_t available = 0;  // MemAvailable (what the machine can give without swapping)
};
// From /proc/meminfo; zeros when it cannot be read.
MemoryFigures memoryFigures();

// The name of the first Vulkan device on which a logical device can be made
// (lavapipe counts: the renderer runs on it); nothing when there is none.
// Probed in a child process.
std::optional<std::string> vulkanDeviceName();
inline bool vulkanDeviceAvailable() {
    return vulkanDeviceName().has_value();
}

}  // namespace Curvana::HostKit
