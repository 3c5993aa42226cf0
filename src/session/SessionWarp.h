#pragma once

#include <memory>
#include <string>
#include <utility>

#include "constraints/ConstraintFile.h"
#include "constraints/ConstraintSet.h"
#include "constraints/GeodesicLines.h"
#include "render/RenderMesh.h"
#include "session/PFilterComponents.h"
#include "solver/Solver.h"
#include "warp/MeshLocator.h"

namespace Project {

// The constraint set of a plug-in instance as the scripting "cnsD" value: the
// bytes of a constraint file. Parsing checks them against the invocation's
// image (size, camera, lens) and applies the settings they carry to the
// record being read; the constraints are fitted later, when the warp is
// rebuilt under the projection that the session then decides.
class SessionConstraintData final : public PConstraintData {
public:
    SessionConstraintData(PFilter& filter, std::shared_ptr<ConstraintSet> set);

    bool Parse(const uint8_t* data, size_t size, PSettings& settings) override;
    std::string TakeFailureMessage() override { return std::exchange(failure_, {}); }
    uint32_t TakeUnreadRecords() override { return std::exchange(unread_, 0u); }
    size_t SerializedSize() const override;
    void Serialize(uint8_t* out) const override;
    ConstraintSet* LiveSet() override { return set_.get(); }

private:
    PFilter& filter_;
    std::shared_ptr<ConstraintSet> set_;
    std::string failure_;
    uint32_t unread_ = 0;
};

// The warp of a plug-in instance: the projection built from the live
// settings, the sphere mesh, the constraints fitted on the sphere and the
// mesh solver. RebuildSolver builds them afresh (the mesh and its quad
// finder are kept while the level and layout stay the same); Solve runs the
// Gauss-Newton solve and keeps a failure as a flag.
class MeshWarpPipeline final : public PWarpPipeline {
public:
    explicit MeshWarpPipeline(std::shared_ptr<ConstraintSet> set);

    void RebuildSolver(PFilter& filter) override;
    void Solve(PFilter& filter) override;
    ConstraintFitReport LastFit() const override { return lastFit_; }

    std::shared_ptr<const SphereWarp> SolvedWarp() const override;
    std::shared_ptr<const PhotoToSphere> Photo() const override { return photo_; }
    std::shared_ptr<const OctaMap> Mesh() const override { return mesh_; }
    // The projection under the live settings, the mesh and a copy of the
    // constraints (their identifiers kept).
    std::shared_ptr<const PreviewScene> CapturePreviewScene(PFilter& filter) override;

    // The fitted constraints (null before the first rebuild).
    const GeodesicLines* Lines() const { return lines_.get(); }
    const Solver* CurrentSolver() const { return solver_.get(); }

private:
    // The mesh and its quad finder for the settings' level and layout.
    void EnsureMesh(const PSettings& settings);

    std::shared_ptr<ConstraintSet> set_;
    std::shared_ptr<const OctaMap> mesh_;
    std::shared_ptr<const MeshLocator> locator_;
    std::shared_ptr<const PhotoToSphere> photo_;
    std::shared_ptr<GeodesicLines> lines_;
    std::unique_ptr<Solver> solver_;
    ConstraintFitReport lastFit_;
    bool solved_ = false;
    // The projection of the last captured scene, with what it was made from:
    // scenes that differ only in their constraints share it, which lets the
    // preview go on from its last warp instead of solving afresh.
    struct ScenePhoto {
        std::shared_ptr<const PhotoToSphere> photo;
        ProjectionModel model = ProjectionModel::Fisheye;
        float focalLength = 0.0f;
        float focalScaleRatio = 0.0f;
    };
    ScenePhoto scenePhoto_;
};

// The solver's settings from the session's record.
SolverSettings solverSettingsFrom(const PSettings& settings);

// The part of the source that a warp's picture shows (RenderMesh::content):
// the whole photograph, except for a two-pass mesh warp on a cylindrical or
// spherical photo (a full spherical one), whose latitude and longitude ranges
// are rows and columns of the source: then the rectangle they bound.
TextureBox ContentBoxOf(const SphereWarp& warp, const PhotoToSphere& photo);

}  // namespace Project
