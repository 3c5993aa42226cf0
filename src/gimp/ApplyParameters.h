// The procedure's scripting parameters (projection, regulariser, focal
// length, crop factor, constraint file) as the descriptor the filter reads
// when it applies without a dialog.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "ScriptDescriptor.h"

namespace Curvana::Gimp {

struct ApplyParameters {
    std::string
        projection;  // "fisheye", "perspective", "auto", "full-spherical"; "" keeps the last
    std::string regularizer;     // "stereographic", "mercator", "panini", "auto"; "" keeps the last
    double focalMm = 0;          // 0: from the photograph
    double crop = 0;             // 0: from the photograph
    std::string constraintFile;  // "" for none
};

// The enumerators for the names above; nothing for an unknown name.
std::optional<uint32_t> projectionCode(const std::string& name);
std::optional<uint32_t> regularizerCode(const std::string& name);

// Builds the descriptor: the constraint file's bytes first (so that every
// other key overrides the settings the file carries), then the models, then
// the focal length: physical focal length, crop factor, and the focal length
// in pixels crop x focal mm x max(width, height) / 36. Without a focal length
// or crop factor given, and without a constraint file (which carries the
// focal length it was drawn with), the photograph's EXIF focal length is used,
// with the crop factor its 35 mm equivalent implies. Throws
// std::invalid_argument with a one-line message for an unknown name, a
// negative or non-finite number, or a constraint file that cannot be read.
std::unique_ptr<Descriptor> applyDescriptor(const ApplyParameters& parameters, int32_t width,
                                            int32_t height, double exifFocalMm,
                                            double exifFocal35mm);

}  // namespace Curvana::Gimp
