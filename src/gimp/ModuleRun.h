// Plays the host for the filter module inside GIMP: fills the parameter
// block with GIMP's facts and callbacks and drives the selectors of one
// invocation over one drawable.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "DrawablePixels.h"
#include "ScriptDescriptor.h"
#include "hostkit/HostAnswers.h"
#include "hostkit/ModuleLibrary.h"

namespace Curvana::Gimp {

// What the module learns of its host besides the image.
struct HostFacts {
    bool gpuAvailable = false;    // "GPUF" bit 7: a Vulkan device could be created
    uint64_t maxSpace = 0;        // GIMP's tile cache, in bytes
    std::string preferencesBase;  // GIMP's profile folder
};

struct Invocation {
    DrawablePixels* pixels = nullptr;
    std::string documentName;
    std::string xmpPacket;
    const Descriptor* descriptor = nullptr;  // scripting parameters passed in; null for none
    bool parameters = false;                 // send the Parameters selector: the editor
    // Start from what the editor would open the photo with (a scripted run);
    // the descriptor's keys apply over that.
    bool freshDefaults = false;
};

struct InvocationOutcome {
    int16_t error = 0;  // the first non-zero selector result
    int16_t failedSelector = -1;
    std::string pixelError;  // the first failure met while serving pixels
    std::unique_ptr<Descriptor> result;
    std::vector<std::string> alerts;  // as shown, "title: message"
};

// The major host version the module is told.
inline constexpr int32_t kHostMajorVersion = 27;

InvocationOutcome runModule(HostKit::ModuleLibrary& module, const HostFacts& facts,
                            const Invocation& invocation);

using HostKit::displayText;

}  // namespace Curvana::Gimp
