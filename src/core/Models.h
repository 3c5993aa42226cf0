#pragma once

#include <cstdint>

namespace Project {

// How the photograph's pixels map onto the view sphere. The values are the
// codes the settings record keeps and the files store. A field that holds one
// may carry any 32-bit value (an old preferences file, a script); readers and
// writers map unknown values as documented where they do.
enum class ProjectionModel : uint32_t {
    None = 0,  // no projection built
    Fisheye = 1,
    Perspective = 2,
    Auto = 3,  // the lens profile, or "Panorama" when the photo has panorama metadata
    FullSpherical = 4,
};

// The closed form the mesh is regularised towards. The first four are the
// user's choices; Equirectangular is only ever chosen by the program.
enum class RegularizerModel : uint32_t {
    Stereographic = 1,
    Mercator = 2,
    Panini = 3,
    Auto = 4,
    Equirectangular = 1000,
};

}  // namespace Project
