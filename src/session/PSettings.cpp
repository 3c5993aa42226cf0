#include "session/PSettings.h"

namespace Project {

PSettings::PSettings(int32_t imageWidth)
    : focalLength(static_cast<float>(imageWidth) * 15.0f / 36.0f) {}

}  // namespace Project
