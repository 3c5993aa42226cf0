#include "session/PSettings.h"

#include "constraints/ConstraintFile.h"

namespace Project {

PSettings::PSettings(int32_t imageWidth)
    : focalLength(static_cast<float>(imageWidth) * 15.0f / 36.0f) {}

ConstraintFileSettings ConstraintFileSettingsOf(const PSettings& settings) {
    ConstraintFileSettings out;
    out.physicalFocal = settings.physicalFocalLength;
    out.cropFactor = settings.cropFactor;
    out.focalLength = settings.focalLength;
    out.projectionModel = settings.projectionModel;
    out.regularizerModel = settings.regularizerModel;
    out.scale = settings.scale;
    out.offsetX = settings.offsetX;
    out.offsetY = settings.offsetY;
    return out;
}

}  // namespace Project
