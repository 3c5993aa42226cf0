#include "samplegen/SampleConstraints.h"

#include <cmath>
#include <memory>
#include <stdexcept>

#include "constraints/ConstraintFile.h"

namespace Curvana::SampleGen {

namespace {

bool same(double a, double b) {
    return std::abs(a - b) < 1e-9;
}

}  // namespace

void writeSampleConstraints(const std::filesystem::path& file, const SceneOptions& scene,
                            const SampleCameraStrings& camera, int minPoints) {
    Project::SimpleConstraintFileContext context;
    context.width = scene.width;
    context.height = scene.height;
    context.make = camera.make;
    context.model = camera.model;
    context.lens = camera.lens;
    context.settings.physicalFocal = static_cast<float>(scene.focalMm);
    context.settings.cropFactor = static_cast<float>(scene.cropFactor);
    context.settings.focalLength = static_cast<float>(focalPixels(scene));
    context.settings.projectionModel = scene.lens == Lens::Equisolid
                                           ? Project::ProjectionModel::Fisheye
                                           : Project::ProjectionModel::Perspective;

    Project::ConstraintSet set;
    for (const SceneEdge& e : roomEdges(scene)) {
        if (static_cast<int>(e.points.size()) < minPoints)
            continue;
        // Camera frame: x right, y down, z forward.
        const bool upright = same(e.a[0], e.b[0]) && same(e.a[2], e.b[2]);
        const bool level = same(e.a[1], e.b[1]) && same(e.a[2], e.b[2]);
        auto line = std::make_unique<Project::LineConstraint>();
        line->SetEndpoints(
            {static_cast<float>(e.points.front().x), static_cast<float>(e.points.front().y)},
            {static_cast<float>(e.points.back().x), static_cast<float>(e.points.back().y)});
        line->SetOrientation(upright ? Project::Orientation::Vertical
                             : level ? Project::Orientation::Horizontal
                                     : Project::Orientation::Unfixed);
        set.Add(std::move(line));
    }
    const auto folder = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
    if (!Project::saveConstraintFile(set, context, folder, file.filename().string()))
        throw std::runtime_error(file.string() + ": cannot write the constraint file");
}

}  // namespace Curvana::SampleGen
