#include "geometry/LensProfile.h"

#include <cmath>

namespace Project {

float focalScaleRatio(float cameraCropFactor, const LensProfile& profile) {
    const float a = cameraCropFactor;
    const float b = profile.sensorFormatFactor;
    if ((profile.matchedOtherCamera || profile.matchedOtherSensorFormat) &&
        std::fabs(a - b) > 0.01f && a > 0.0f && b > 0.0f)
        return a / b;
    return 1.0f;
}

}  // namespace Project
