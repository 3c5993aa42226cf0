#pragma once

#include <cstdint>
#include <memory>

#include "constraints/GeodesicLines.h"
#include "core/Models.h"
#include "solver/LineSolve.h"

namespace Project {

// The solver settings, as plain values (the session's settings record maps
// onto them).
struct SolverSettings {
    int32_t meshLevel = 6;        // N = 2^(L+1) + 1
    bool meshLayoutFlag = false;  // OctaMap sign pattern
    float regulariserWeight = 0.001f;
    int32_t iterationCount = 8;
    bool pinCentre = false;
    bool boundaryOnly = true;  // regulariser only where the valid area ends
    int32_t modeValue = 1;     // passed through to the warp
    double lineWeight = 10.0;
    double shapeWeight = 1.0;
    double smoothnessWeight = 3.0;
    ProjectionModel projectionModel = ProjectionModel::Fisheye;
    // The closed form to pull towards (see MakeClosedForm).
    RegularizerModel regulariserCode = RegularizerModel::Stereographic;
    // The user's stored regulariser choice. The wide-field fallback may
    // change it (see Solver).
    RegularizerModel storedRegulariserChoice = RegularizerModel::Auto;
    // The regulariser was picked explicitly (not by the automatic choice):
    // then only an Auto choice falls back.
    bool explicitRegulariserChoice = false;
    // The host state forbids the fallback (e.g. a replay that must keep its
    // recorded regulariser): no field counts as wide.
    bool suppressWideFieldFallback = false;

    bool operator==(const SolverSettings&) const = default;
};

// Builds the mesh warp for the session and checks its field of view.
//
// Build(): a LineSolve on the mesh (a fresh one when the settings ask for
// another level or layout than the given mesh has), the photo and the fitted
// constraints; then the field-of-view check over the valid vertices'
// unrotated angles:
//   - the extremes become the latitude and longitude ranges handed to the next
//     warp built (kept in this object, so also to the next Build());
//   - the field is wide beyond 120 degrees in either angle, except for the
//     full spherical model or when the host state suppresses it;
//   - the full spherical model runs two passes with the ranges fixed at
//     +-74 degrees of latitude and +-176 degrees of longitude; otherwise two
//     passes when a span passes 300 degrees, and a span of 352 degrees or more
//     replaces that range by +-176 degrees;
//   - a wide field falls back to the stereographic regulariser once (see
//     SolverSettings for when), rebuilding the warp; two-pass rebuilds once
//     if nothing else did.
// With two-pass on, the warp treats vertices outside the ranges as invalid,
// except those next to a vertex inside them: the quads across a range's edge
// stay, and the renderer clips them at the range (ContentBoxOf in the
// session), so the picture ends smoothly there.
// Run(): Build(), Solve(), then hands the warp to the constraints' GeodesicLines
// (which maps samples through it only when it is solved). A warp built again
// with the regulariser, two-pass flag and ranges of the last one shares that
// warp's fixed system instead of assembling it (Continuation::Fresh): the
// same result, without the assembly.
//
// Editing. A caller that keeps one Solver across edits calls Resolve() after
// each: the new warp goes on from the last one (Continuation::WarmStart), so
// a small edit costs tens of milliseconds where a fresh solve costs
// hundreds; the warp finds out itself which constraints changed. For a drag,
// a second Solver at min(level, kDragMeshLevel), on constraints fitted on
// that coarser mesh (its own GeodesicLines, so that they are drawn through
// the warp they were solved with), re-solves while the mouse is down, and the
// full-level one on release; the renderer reads either warp alike. The
// preview engine, PPreview, keeps one Solver per mesh level and re-solves
// with new constraints each time (Resolve(lines)).
class Solver {
public:
    static constexpr float kWideField = 2.0943952f;       // 120 degrees
    static constexpr float kTwoPassField = 5.235988f;     // 300 degrees
    static constexpr float kFullTurnField = 6.1435595f;   // 352 degrees
    static constexpr float kFixedLatitude = 1.2915437f;   // 74 degrees
    static constexpr float kFixedLongitude = 3.0717797f;  // 176 degrees
    // The mesh level of the re-solves while a constraint is dragged.
    static constexpr int32_t kDragMeshLevel = 5;

    Solver(std::shared_ptr<const OctaMap> mesh, std::shared_ptr<const PhotoToSphere> photo,
           std::shared_ptr<GeodesicLines> lines, const SolverSettings& settings);

    // Builds and checks the warp (not solved yet).
    std::shared_ptr<LineSolve> Build();
    // Build, solve, hand over. True when the solve succeeded; on failure the
    // editor shows "$$$/Curvana/Warning/SolveFailed=Solve failed".
    bool Run();
    // Solve again after the constraints changed, going on from the last warp
    // when there is a solved one; otherwise Run(). True when it succeeded.
    bool Resolve();
    // The same on a new set of constraints, fitted for this solver's mesh and
    // photo: the last warp and its constraints stay as they were, so a
    // reader on another thread may go on using them. The solver keeps
    // `lines` from now on.
    bool Resolve(std::shared_ptr<GeodesicLines> lines);

    const std::shared_ptr<LineSolve>& Warp() const { return warp_; }
    const SolverSettings& Settings() const { return settings_; }
    // After Build: the regulariser code used, the stored choice (possibly
    // changed by the fallback, for the session to keep), and what happened.
    RegularizerModel RegulariserCode() const { return regulariserCode_; }
    RegularizerModel StoredRegulariserChoice() const { return settings_.storedRegulariserChoice; }
    bool FellBack() const { return fellBack_; }
    int32_t Passes() const { return passes_; }
    bool TwoPass() const { return twoPass_; }
    AngleRange LatitudeRange() const { return latitudeRange_; }
    AngleRange LongitudeRange() const { return longitudeRange_; }

    static constexpr const char* kSolveFailedMessage =
        "$$$/Curvana/Warning/SolveFailed=Solve failed";

private:
    struct FieldCheck {
        bool wide = false;
        bool twoPass = false;
    };
    std::shared_ptr<LineSolve> BuildOnce(const std::shared_ptr<LineSolve>& previous);
    bool Continues(const LineSolve& previous) const;
    bool HandOver();
    FieldCheck CheckField(const LineSolve& warp);
    bool RequestFallback();

    std::shared_ptr<const OctaMap> mesh_;
    std::shared_ptr<const PhotoToSphere> photo_;
    std::shared_ptr<GeodesicLines> lines_;
    SolverSettings settings_;
    std::shared_ptr<LineSolve> warp_;
    RegularizerModel regulariserCode_ = RegularizerModel::Stereographic;
    bool fellBack_ = false;
    bool twoPass_ = false;
    int32_t passes_ = 0;
    AngleRange latitudeRange_{-1.5707964f, 1.5707964f};
    AngleRange longitudeRange_{-3.1415927f, 3.1415927f};
};

}  // namespace Project
