#include "solver/Solver.h"

#include <algorithm>
#include <limits>

namespace Project {

Solver::Solver(std::shared_ptr<const OctaMap> mesh, std::shared_ptr<const PhotoToSphere> photo,
               std::shared_ptr<GeodesicLines> lines, const SolverSettings& settings)
    : mesh_(std::move(mesh)),
      photo_(std::move(photo)),
      lines_(std::move(lines)),
      settings_(settings) {
    if (!mesh_ || mesh_->Level() != settings_.meshLevel ||
        mesh_->LayoutFlag() != settings_.meshLayoutFlag) {
        mesh_ = std::make_shared<const OctaMap>(settings_.meshLevel, settings_.meshLayoutFlag);
    }
}

bool Solver::Continues(const LineSolve& previous) const {
    return previous.MeshRef() == mesh_ && previous.PhotoRef() == photo_ &&
           previous.LinesRef() == lines_ && previous.RegulariserCode() == regulariserCode_ &&
           previous.TwoPass() == twoPass_ &&
           (!twoPass_ || (previous.LatitudeRange() == latitudeRange_ &&
                          previous.LongitudeRange() == longitudeRange_));
}

std::shared_ptr<LineSolve> Solver::BuildOnce(const std::shared_ptr<LineSolve>& previous) {
    ++passes_;
    if (previous && Continues(*previous)) {
        return std::make_shared<LineSolve>(*previous, IterativeWarpSolver::Continuation::Fresh);
    }
    return std::make_shared<LineSolve>(
        mesh_, photo_, lines_, settings_.regulariserWeight, settings_.iterationCount,
        settings_.pinCentre, regulariserCode_, settings_.modeValue, settings_.boundaryOnly,
        twoPass_, latitudeRange_, longitudeRange_, settings_.lineWeight, settings_.shapeWeight,
        settings_.smoothnessWeight);
}

Solver::FieldCheck Solver::CheckField(const LineSolve& warp) {
    float minPhi = std::numeric_limits<float>::max(), maxPhi = std::numeric_limits<float>::lowest();
    float minLambda = minPhi, maxLambda = maxPhi;
    const int32_t n = mesh_->Size();
    bool any = false;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            if (!warp.IsVertexValid(i, j)) {
                continue;
            }
            const SphereDirection a = mesh_->UnrotatedAngles(i, j);
            minPhi = std::min(minPhi, a.phi), maxPhi = std::max(maxPhi, a.phi);
            minLambda = std::min(minLambda, a.lambda), maxLambda = std::max(maxLambda, a.lambda);
            any = true;
        }
    }
    FieldCheck check;
    if (!any) {
        return check;
    }
    const float spanPhi = maxPhi - minPhi;
    const float spanLambda = maxLambda - minLambda;
    latitudeRange_ = {minPhi, maxPhi};
    longitudeRange_ = {minLambda, maxLambda};
    const bool fullSpherical = settings_.projectionModel == ProjectionModel::FullSpherical;
    check.wide = (spanPhi > kWideField || spanLambda > kWideField) && !fullSpherical &&
                 !settings_.suppressWideFieldFallback;
    if (fullSpherical) {
        check.twoPass = true;
        latitudeRange_ = {-kFixedLatitude, kFixedLatitude};
        longitudeRange_ = {-kFixedLongitude, kFixedLongitude};
        return check;
    }
    check.twoPass = spanPhi > kTwoPassField || spanLambda > kTwoPassField;
    if (spanPhi >= kFullTurnField) {
        check.twoPass = true;
        latitudeRange_ = {-kFixedLongitude, kFixedLongitude};
    }
    if (spanLambda >= kFullTurnField) {
        check.twoPass = true;
        longitudeRange_ = {-kFixedLongitude, kFixedLongitude};
    }
    return check;
}

bool Solver::RequestFallback() {
    if (regulariserCode_ == RegularizerModel::Stereographic) {
        return false;
    }
    if (!settings_.explicitRegulariserChoice) {
        if (settings_.storedRegulariserChoice != RegularizerModel::Auto) {
            settings_.storedRegulariserChoice = RegularizerModel::Stereographic;
        }
        return true;
    }
    return settings_.storedRegulariserChoice == RegularizerModel::Auto;
}

std::shared_ptr<LineSolve> Solver::Build() {
    regulariserCode_ = settings_.regulariserCode;
    fellBack_ = false;
    twoPass_ = false;
    passes_ = 0;
    bool rebuilt = false;
    for (;;) {
        warp_ = BuildOnce(warp_);
        const FieldCheck check = CheckField(*warp_);
        if (check.wide && !fellBack_ && RequestFallback()) {
            fellBack_ = true;
            rebuilt = true;
            regulariserCode_ = RegularizerModel::Stereographic;
            twoPass_ = twoPass_ || check.twoPass;
            continue;
        }
        if (check.twoPass && !rebuilt) {
            rebuilt = true;
            twoPass_ = true;
            continue;
        }
        break;
    }
    return warp_;
}

bool Solver::HandOver() {
    if (lines_) {
        lines_->SetWarp(warp_);
    }
    return warp_->IsSolved();
}

bool Solver::Run() {
    Build();
    warp_->Solve();
    return HandOver();
}

bool Solver::Resolve() {
    // Only the constraints change between edits: the new warp keeps the
    // last one's regulariser, two-pass flag and ranges.
    if (!warp_ || !warp_->IsSolved() || warp_->LinesRef() != lines_) {
        return Run();
    }
    warp_ = std::make_shared<LineSolve>(*warp_, IterativeWarpSolver::Continuation::WarmStart);
    warp_->Solve();
    return HandOver();
}

bool Solver::Resolve(std::shared_ptr<GeodesicLines> lines) {
    const bool warm = warp_ && warp_->IsSolved() && warp_->LinesRef() == lines_;
    lines_ = std::move(lines);
    if (!warm) {
        return Run();
    }
    warp_ =
        std::make_shared<LineSolve>(*warp_, IterativeWarpSolver::Continuation::WarmStart, lines_);
    warp_->Solve();
    return HandOver();
}

}  // namespace Project
