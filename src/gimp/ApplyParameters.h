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
// the physical focal length and crop factor the script gives (0 leaves each
// to the filter, which takes what its editor would open the photo with: the
// camera's crop factor, the EXIF focal length; a run with parameters asks
// for that). Throws std::invalid_argument with a one-line message for an
// unknown name, a negative or non-finite number, or a constraint file that
// cannot be read.
std::unique_ptr<Descriptor> applyDescriptor(const ApplyParameters& parameters);

}  // namespace Curvana::Gimp
