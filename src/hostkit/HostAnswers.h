// What a host answers the module the same way whoever it is: its
// properties, strings copied into the module's buffers, the result
// descriptor taken over, and the module's texts made readable.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "ActionDescriptor.h"
#include "curvana/CurvanaPlugin.h"

namespace Curvana::HostKit {

struct HostProperties {
    int32_t majorVersion = 27;
    bool gpuAvailable = false;  // "GPUF" bit 7
    bool freshDefaults = false;
};

// The getProperty callback's answer for one key.
CvError answerProperty(const HostProperties& properties, uint32_t signature, uint32_t key,
                       int32_t* value);

// A string into the module's buffer: its length always, and as much as fits
// with a terminating NUL. An empty text is unsupported (the host has none).
CvError copyString(std::string_view text, char* buffer, size_t capacity, size_t* length);

// The module's result descriptor, made by it through the suite, becomes the
// host's; anything else (the host's own, a stale handle) is refused.
CvError takeResultDescriptor(CvDescriptor result, std::unique_ptr<Descriptor>& into);

// The plane of a pixel request for every plane at once, interleaved.
inline constexpr int32_t kAllPlanes = -1;
// Whether a pixel request of the module fits: rect non-empty inside the
// filtered area, buffer given, plane one of planes (its values side by
// side) or kAllPlanes (pixels columnBytes apart, at least a pixel), and
// rows rowBytes apart holding the rect's width.
bool pixelRequestFits(const CvRect* rect, const CvRect& filterRect, const void* buffer,
                      int32_t plane, int32_t planes, int32_t sampleBytes, int32_t columnBytes,
                      int32_t rowBytes);

// Strips a localisation key ("$$$/Curvana/Warning/X=Text" -> "Text").
std::string displayText(const char* text);

}  // namespace Curvana::HostKit
