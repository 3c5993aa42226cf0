// Facts about the machine that the host reports to the module.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace Curvana::Host {

struct MemoryFigures {
    uint64_t total = 0;      // MemTotal
    uint64_t available = 0;  // MemAvailable (free memory the machine can give without swapping)
};
// From /proc/meminfo; zeros when it cannot be read.
MemoryFigures memoryFigures();

// True when a Vulkan instance, a physical device and a logical device on it
// can be created (lavapipe counts: the renderer runs on it). Probed in a
// child process.
bool vulkanDeviceAvailable();
// The name of that device; empty when there is none.
std::optional<std::string> vulkanDeviceName();

// $XDG_CONFIG_HOME, else $HOME/.config; no trailing separator. Empty when neither is set.
std::string preferencesBase();

}  // namespace Curvana::Host
