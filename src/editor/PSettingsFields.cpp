#include "editor/PSettingsFields.h"

#include "session/PSettings.h"

namespace Project {

std::optional<uint32_t> SettingsFieldFor(std::string_view viewId) {
    for (const PSettingsControl& control : kSettingsControls)
        if (control.viewId == viewId)
            return control.fieldCode;
    return std::nullopt;
}

void CopySettingsFields(PSettings& to, const PSettings& from, uint32_t code) {
    using namespace settings_field;
    const auto focal = [&] {
        to.focalLength = from.focalLength;
        to.physicalFocalLength = from.physicalFocalLength;
        to.cropFactor = from.cropFactor;
    };
    switch (code) {
        case kColors:
            to.colors = from.colors;
            return;
        case kFocalLength:
        case kPhysicalFocalLength:
        case kCropFactor:
            focal();
            return;
        case kProjectionModel:
            to.projectionModel = from.projectionModel;
            focal();
            return;
        case kRegularizerModel:
            to.regularizerModel = from.regularizerModel;
            return;
        case kScale:
            to.scale = from.scale;
            return;
        case kOffsets:
            to.offsetX = from.offsetX;
            to.offsetY = from.offsetY;
            return;
        default:
            to = from;
            return;
    }
}

}  // namespace Project
