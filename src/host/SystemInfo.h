// Facts about the machine that the host reports to the module.
#pragma once

#include <string>

#include "hostkit/SystemFacts.h"

namespace Curvana::Host {

using HostKit::MemoryFigures;
using HostKit::memoryFigures;
using HostKit::vulkanDeviceAvailable;
using HostKit::vulkanDeviceName;

// $XDG_CONFIG_HOME, else $HOME/.config; no trailing separator. Empty when neither is set.
std::string preferencesBase();

}  // namespace Curvana::Host
