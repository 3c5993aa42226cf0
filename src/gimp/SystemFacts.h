// Facts about the machine and GIMP that the plug-in reports to the module.
#pragma once

#include <cstdint>

namespace Curvana::Gimp {

// True when a Vulkan instance, a physical device with a graphics queue and a
// logical device on it can be created (a software driver counts).
bool vulkanDeviceAvailable();

// Memory the machine can give without swapping (MemAvailable); 0 if unknown.
uint64_t availableMemory();

// GIMP's tile cache size (its "tile-cache-size" setting) in bytes; 0 when
// GIMP does not say.
uint64_t tileCacheBytes();

}  // namespace Curvana::Gimp
