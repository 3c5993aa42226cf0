#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace Project {

struct PSettings;

// Field codes of a settings undo step (PSettingsTask). A code is the place
// of the edited field in the PSettings record, counted from 1 in storage
// order (settingsVersion 1, s1 2, ... colors 9, ... focalLength 12,
// projectionModel 13, ...). A code selects that field together with the
// fields the editor derives from it, since undoing one without the others
// would leave the record inconsistent: focal length in pixels = crop factor x
// physical focal length x max(width, height) / 36, so any of the three moves
// all three.
namespace settings_field {

inline constexpr uint32_t kAll = 0;                // the whole record
inline constexpr uint32_t kColors = 9;             // the six display colours
inline constexpr uint32_t kFocalLength = 12;       // focal length (pixels) + physical focal + crop
inline constexpr uint32_t kProjectionModel = 13;   // projection model + the three focal fields
inline constexpr uint32_t kRegularizerModel = 14;  // regulariser model
inline constexpr uint32_t kPhysicalFocalLength = 15;  // the three focal fields
inline constexpr uint32_t kCropFactor = 16;           // the three focal fields
inline constexpr uint32_t kScale = 17;                // scale
inline constexpr uint32_t kOffsets = 18;              // offset x and offset y

}  // namespace settings_field

// Which control pushes which code. The dialog's check boxes (Preview, Show
// Constraints, Show Mesh) are view options, not edits of the picture, and
// push nothing; zooming and scrolling push nothing either.
struct PSettingsControl {
    std::string_view viewId;
    uint32_t fieldCode;
};

inline constexpr PSettingsControl kSettingsControls[] = {
    {"Project/Dialog/ProjectionModelPopup", settings_field::kProjectionModel},
    {"Project/Dialog/ImageScaleSlider", settings_field::kScale},
    {"Project/Dialog/FocalLengthSlider", settings_field::kPhysicalFocalLength},
    {"Project/Dialog/CropFactorSlider", settings_field::kCropFactor},
    {"Project/Dialog/AsShotCheck", settings_field::kPhysicalFocalLength},
    // Focal calibration from a line's middle handle.
    {"Project/Dialog/FocalLengthInPixel", settings_field::kFocalLength},
    // Alt-click on Cancel resets every setting.
    {"Project/Dialog/CancelButton", settings_field::kAll},
    // The preferences dialog (colours, regulariser, loupe, solver).
    {"Project/Dialog/Preferences", settings_field::kAll},
    // The Move tool drags the content: the offsets.
    {"Project/Tool/MoveImage", settings_field::kOffsets},
};

// The code a control pushes; nothing for a control that pushes none.
std::optional<uint32_t> SettingsFieldFor(std::string_view viewId);

// Copies the fields that `code` selects from `from` into `to`. An unknown
// code selects the whole record (a safe undo, if a coarse one).
void CopySettingsFields(PSettings& to, const PSettings& from, uint32_t code);

}  // namespace Project
