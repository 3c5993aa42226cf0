// Facts about the machine that a host reports to the module.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <thread>

namespace Curvana::HostKit {

struct MemoryFigures {
    uint64_t total = 0;      // MemTotal
    uint64_t available = 0;  // MemAvailable (what the machine can give without swapping)
};
// From /proc/meminfo; zeros when it cannot be read.
MemoryFigures memoryFigures();

// Finds the first Vulkan device on which a logical device can be made
// (lavapipe counts: the renderer runs on it). The probe starts at
// construction, on a thread of its own, and runs beside the caller's own
// work: loading drivers takes a tenth of a second or more. It keeps its
// Vulkan instance until it is destroyed, so the drivers it loaded stay
// loaded for the module, which makes its own device on them next.
// deviceName() waits for it; nothing when there is none.
class VulkanProbe {
public:
    VulkanProbe();
    ~VulkanProbe();
    VulkanProbe(const VulkanProbe&) = delete;
    VulkanProbe& operator=(const VulkanProbe&) = delete;

    const std::optional<std::string>& deviceName();

private:
    struct Instance;
    std::unique_ptr<Instance> instance_;
    std::optional<std::string> name_;
    std::thread thread_;  // last: starts once the rest is made
};

// The probe above, waited for at once.
std::optional<std::string> vulkanDeviceName();
inline bool vulkanDeviceAvailable() {
    return vulkanDeviceName().has_value();
}

}  // namespace Curvana::HostKit
