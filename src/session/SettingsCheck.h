#pragma once

#include <string>

#include "session/PSettings.h"

namespace Project {

// The ranges of the settings that reach the filter from outside: preferences
// files, scripting descriptors (recorded actions), constraint files and the
// editor. Values outside them (or not finite) draw black pictures, run the
// solver for ever or are saved and break every later run, so every entry
// path checks them here, and nothing outside them is ever saved.
//
//   scale "imgS"                  50 ... 150 percent (the editor's slider)
//   offsets "imgX", "imgY"        0 ... 1 (the view's place in the mesh's extent)
//   focal length "focL"           1 ... 1e8 pixels
//   physical focal length "PhyF"  1 ... 1000 mm
//   crop factor "CrpF"            0.1 ... 10 (the editor's slider stops at 10)
//   iteration count               1 ... 100 Gauss-Newton iterations
//   mesh level                    2 ... 8 (N = 2^(level + 1) + 1, 9 ... 513)
struct SettingRange {
    const char* name;  // English, for the message
    const char* key;   // the scripting key, or the preferences' field name
    double min, max;
};

namespace SettingRanges {
inline constexpr SettingRange kScale{"scale", "imgS", 50, 150};
inline constexpr SettingRange kOffsetX{"horizontal offset", "imgX", 0, 1};
inline constexpr SettingRange kOffsetY{"vertical offset", "imgY", 0, 1};
inline constexpr SettingRange kFocalLength{"focal length in pixels", "focL", 1, 1e8};
inline constexpr SettingRange kPhysicalFocalLength{"focal length in mm", "PhyF", 1, 1000};
inline constexpr SettingRange kCropFactor{"crop factor", "CrpF", 0.1, 10};
inline constexpr SettingRange kIterationCount{"iteration count", "iterations", 1, 100};
inline constexpr SettingRange kMeshLevel{"mesh level", "mesh level", 2, 8};
}  // namespace SettingRanges

// The first setting that is not finite or lies outside its range, as a
// localisable message naming the setting, its key, its range and the value
// ("$$$/Curvana/Warning/SettingOutOfRange=..." with the placeholders
// filled); empty when every setting is valid.
std::string CheckSettings(const PSettings& settings);

// The same for one value (for readers that see values one at a time).
std::string CheckSetting(const SettingRange& range, double value);

}  // namespace Project
