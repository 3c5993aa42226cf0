// A constraint file for the sample room: the scene's straight edges as line
// constraints, as a user would draw them on the photograph (upright edges
// Vertical, level edges across the view Horizontal, the others free).
#pragma once

#include <filesystem>
#include <string>

#include "samplegen/SampleScene.h"

namespace Curvana::SampleGen {

struct SampleCameraStrings {
    std::string make, model, lens;  // as the photo's metadata names them
};

// Writes the constraint file; throws std::runtime_error when it cannot.
// Edges with fewer than minPoints of their 64 samples inside the image are
// left out (too short to draw).
void writeSampleConstraints(const std::filesystem::path& file, const SceneOptions& scene,
                            const SampleCameraStrings& camera, int minPoints = 8);

}  // namespace Curvana::SampleGen
