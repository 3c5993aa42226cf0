#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "constraints/GeodesicLines.h"
#include "solver/IterativeWarpSolver.h"

namespace Project {

// The mesh warp with the user's constraints: the shape term (four similarity
// triangles per valid quad), the smoothness term (a row and a column triangle
// per valid vertex), and, linearised in every Gauss-Newton iteration, the line
// terms (every active line's samples on one straight line with normal
// (cos alpha, sin alpha)) and the plane terms (a polygon's mesh vertices on a
// projective image of its plane coordinates).
//
// Extra unknowns, after the mesh ones: one normal angle alpha per active line
// of GeodesicLines::Lines(), then per active line of EdgeLines(), then
// h0 ... h7 per active plane (the projective map with h8 = 1). A line with a
// fixed normal (Horizontal, Vertical, Arbitrary) keeps its unknown but never
// uses it.
//
// PrepareSolve (start of every Solve):
//   - locates every sample of the active lines in the mesh (QuadFinder);
//     a line uses the samples whose quad is valid in this warp, the first of
//     them as p0; with fewer than two it adds nothing;
//   - gives every free line's alpha and every plane's map a starting point
//     when the system was just reset: alpha is the normal of the chord from
//     the first to the last usable sample under the closed form, the plane map
//     the affine fit of its samples' closed-form positions (h6 = h7 = 0). The
//     mesh itself starts at zero, so the first iteration solves the problem
//     linearised around the zero warp with those angles and maps held;
//   - declares the unknowns each residual row couples, and a tiny damping on
//     alpha and h: at the zero warp the rows do not depend on them at all,
//     and the damping keeps the system definite there.
//
// Linearisation of a line row r = w ((p - p0) . n(alpha)), p = the bilinear
// combination of the sample's quad corners (weights from the locator):
//   dr/du (corners of p) = w q n, dr/du (corners of p0) = -w q n (q the
//   bilinear weight), and dr/dalpha = w (p - p0) . (-sin alpha, cos alpha).
// Plane rows r = w (u_k - H(u, v)) with the derivatives of the projective
// quotient in h.
//
// ConvergenceMeasure: the largest displacement of a constraint sample in the
// last update, relative to the constraint's extent in the output (the largest
// distance of a sample from p0, or between a plane's samples). Below 0.005 the
// lines cannot move by more than a small fraction of their length any more;
// -1 when no constraint takes part (then every iteration runs).
class LineSolve : public IterativeWarpSolver {
public:
    LineSolve(std::shared_ptr<const OctaMap> mesh, std::shared_ptr<const PhotoToSphere> photo,
              std::shared_ptr<const GeodesicLines> lines, float regulariserWeight,
              int32_t iterationCount, bool pinCentre, RegularizerModel regulariserCode,
              int32_t modeValue, bool boundaryOnly, bool twoPass, AngleRange latitudeLimits,
              AngleRange longitudeLimits, double lineWeight, double shapeWeight,
              double smoothnessWeight);

    void ResetSystem() override;
    double Energy() const override;
    // Energy of one line with its own samples located in this mesh (the
    // sample quads stored in the line), alpha taken from full unknown
    // `unknown` when the line is free. 0 without samples.
    double LineEnergy(const GeodesicLine& line, int32_t unknown) const;

    // The constraints, or null once their owner has let them go.
    std::shared_ptr<const GeodesicLines> LinesRef() const { return lines_.lock(); }
    // The unknown index of the k-th active line of the first list, of the
    // second list, and of the first entry of the k-th active plane.
    int32_t LineUnknown(int32_t k) const { return MeshUnknownCount() + k; }
    int32_t EdgeUnknown(int32_t k) const { return MeshUnknownCount() + activeLines_ + k; }
    int32_t PlaneUnknown(int32_t k) const {
        return MeshUnknownCount() + activeLines_ + activeEdges_ + 8 * k;
    }
    // The output position of a located sample under the current solution.
    bool SamplePosition(const QuadLocation& quad, double& x, double& y) const;

protected:
    void AddQuadTerms(int32_t i, int32_t j) override;
    void AddVertexTerms(int32_t i, int32_t j) override;
    void PrepareSolve() override;
    void AddIterationTerms(int32_t iteration) override;
    float ConvergenceMeasure() const override;

private:
    // A quad corner as its canonical vertex and bilinear weight.
    struct Corners {
        std::array<int32_t, 4> vertex{};
        std::array<double, 4> weight{};
    };
    struct LineTerm {
        int32_t alpha = -1;        // full unknown of a free line, -1 when fixed
        double fixedNormal = 0.0;  // used when alpha < 0
        std::vector<Corners> samples;
        // Per sample after the first: its group, and for each of the 8
        // corners (the sample's four, then p0's four) the position of its
        // x unknown in the group (y follows); the ninth entry is where alpha
        // sits.
        std::vector<int32_t> groups;
        std::vector<std::array<int32_t, 9>> slots;  // [8]: alpha's position
    };
    struct PlaneTerm {
        int32_t h = 0;  // full unknown of h0
        std::vector<int32_t> vertex;
        std::vector<std::array<double, 2>> uv;
        std::vector<int32_t> groups;  // one per sample: x, y, h0 ... h7
    };

    bool CornersOf(const QuadLocation& quad, Corners& out) const;
    void PrepareLine(const GeodesicLine& line, int32_t unknown, std::span<const QuadLocation> quads);
    void PreparePlane(const GeodesicPlane& plane, int32_t unknown);
    void InitialiseExtras();
    double Interpolate(const Eigen::VectorXd& v, const Corners& c, int32_t component) const;

    // Held weakly: the session owns the constraints, and they hold the
    // finished warp (GeodesicLines::SetWarp), so a strong reference here would
    // make a cycle that keeps both alive for ever.
    std::weak_ptr<const GeodesicLines> lines_;
    double lineWeight_;
    double shapeWeight_;
    double smoothnessWeight_;
    int32_t activeLines_ = 0;
    int32_t activeEdges_ = 0;
    int32_t activePlanes_ = 0;
    bool extrasInitialised_ = false;
    std::unique_ptr<MeshLocator> ownLocator_;  // when the lines use another mesh
    std::vector<LineTerm> lineTerms_;
    std::vector<PlaneTerm> planeTerms_;
};

}  // namespace Project
