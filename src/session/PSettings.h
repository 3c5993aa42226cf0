#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "core/Models.h"
#include "geometry/CameraMetadata.h"

namespace Project {

// The filter's settings: a plain record copied by value. The live copy belongs
// to the filter session; a saved copy lives in PPreferences. The fields are in
// their storage order; which of them the preferences file keeps is stated in
// PreferencesFile.h, which of them scripting carries in ScriptParameters.h.
// S1 ... S13 and the path string belong to the editor and the preferences
// dialog: the session only keeps and stores them.
struct PSettings {
    // Default settings for an image whose filtered area is imageWidth wide
    // (the focal length default is a 15 mm lens on a 36 mm-wide frame).
    explicit PSettings(int32_t imageWidth = 0);

    uint32_t settingsVersion = 0;  // version of the stored block it was loaded from
    uint8_t s1 = 0;  // the preferences dialog's crop to content: the frame holds no empty pixel
    uint16_t s2 = 64;
    uint8_t s3 = 0, s4 = 0, s5 = 0;
    uint32_t s6 = 0, s7 = 0;
    // Display colours (32-bit ARGB): lines with unfixed orientation,
    // horizontal, vertical, fixed orientation, invalid constraints, the mesh.
    std::array<uint32_t, 6> colors = {0xFF4AFFFFu, 0xFFFFFF4Au, 0xFFFF4AFFu,
                                      0xFF4AFF4Au, 0xFFFF4A4Au, 0xFF4AFF4Au};
    uint8_t s8 = 0, s9 = 0;
    float focalLength = 0.0f;  // pixels
    ProjectionModel projectionModel = ProjectionModel::Fisheye;
    RegularizerModel regularizerModel = RegularizerModel::Auto;
    float physicalFocalLength = 15.0f;  // millimetres
    float cropFactor = 1.0f;
    int32_t scale = 120;  // percent
    float offsetX = 0.5f, offsetY = 0.5f;
    uint8_t s10 = 1, s11 = 1;

    // The camera metadata that goes with these settings, and four words kept
    // beside it (always zero; the pointer is never dereferenced by the session).
    CameraMetadata cameraMetadata;
    const void* metadataLink = nullptr;
    uint32_t metadataWord1 = 0;
    uint8_t metadataByte = 0;
    uint32_t metadataWord2 = 0;

    std::string path;  // UTF-8
    uint8_t s12 = 1, s13 = 0;
    uint8_t showLoupeWhenDragging = 1;
    int32_t loupeSize = 140;      // pixels; the preferences dialog keeps it in 100 ... 300
    uint16_t iterationCount = 8;  // Gauss-Newton iterations of the mesh warp

    // Solver settings: neither stored nor scripted.
    std::array<uint8_t, 2> solverFlags = {0, 1};  // mesh layout, regulariser
    uint16_t meshLevel = 6;                       // N = 2^(level + 1) + 1
    float regularizerWeight = 0.001f;
    uint16_t modeValue = 1, secondModeWord = 1;
    float lineWeight = 10.0f, shapeWeight = 1.0f, smoothnessWeight = 3.0f;
    std::array<uint8_t, 2> finalFlags = {1, 1};
};

// The correction settings (focal lengths, models, scale, offsets) as a
// constraint file carries them.
struct ConstraintFileSettings;
ConstraintFileSettings ConstraintFileSettingsOf(const PSettings& settings);

// Where the editor's dialog goes on screen: the framework's placement record.
// Two points as given by the editor; the defaults are those the dialog is
// constructed with. The session only stores them (see PreferencesFile.h for
// their self-describing encoding).
struct DialogPlacement {
    int32_t x1 = -50, y1 = -33;
    int32_t x2 = -100, y2 = -100;

    friend bool operator==(const DialogPlacement&, const DialogPlacement&) = default;
};

// The preferences: a flags word, the dialog placement and the saved settings.
struct PPreferences {
    explicit PPreferences(int32_t imageWidth = 0) : settings(imageWidth) {}

    uint32_t flags = 3;
    DialogPlacement dialogPlacement;
    PSettings settings;
};

}  // namespace Project
