#include "session/SettingsCheck.h"

#include <cmath>
#include <cstdio>

#include "core/LocalizedString.h"

namespace Project {

namespace {

constexpr std::string_view kOutOfRange =
    "$$$/Curvana/Warning/SettingOutOfRange=The ^0 (^1) must lie between ^2 and ^3; it is ^4.";

std::string Number(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", v);
    return text;
}

}  // namespace

std::string CheckSetting(const SettingRange& range, double value) {
    if (std::isfinite(value) && value >= range.min && value <= range.max)
        return {};
    return Localize(kOutOfRange,
                    {range.name, range.key, Number(range.min), Number(range.max), Number(value)});
}

std::string CheckSettings(const PSettings& s) {
    namespace R = SettingRanges;
    const std::pair<const SettingRange&, double> checks[] = {
        {R::kScale, s.scale},
        {R::kOffsetX, s.offsetX},
        {R::kOffsetY, s.offsetY},
        {R::kFocalLength, s.focalLength},
        {R::kPhysicalFocalLength, s.physicalFocalLength},
        {R::kCropFactor, s.cropFactor},
        {R::kIterationCount, s.iterationCount},
        {R::kMeshLevel, s.meshLevel},
    };
    for (const auto& [range, value] : checks)
        if (std::string why = CheckSetting(range, value); !why.empty())
            return why;
    return {};
}

}  // namespace Project
