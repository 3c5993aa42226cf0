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

// Finds the first Vulkan device on which a logical device can be made
// (lavapipe counts: the renderer runs on it). The probe starts at
// construction, in a child process, and runs beside the caller's own work:
// loading drivers takes a tenth of a second or more. deviceName() waits for
// it; nothing when there is none.
class VulkanProbe {
public:
    VulkanProbe();
    ~VulkanProbe();
    VulkanProbe(const VulkanProbe&) = delete;
    VulkanProbe& operator=(const VulkanProbe&) = delete;

    const std::optional<std::string>& deviceName();

private:
    void finishInProcess();
    void collect();

    int pid_ = -1;
    int pipe_ = -1;
    std::optional<std::string> name_;
};

// The probe above, waited for at once.
std::optional<std::string> vulkanDeviceName();
inline bool vulkanDeviceAvailable() {
    return vulkanDeviceName().has_value();
}

}  // namespace Curvana::HostKit
