#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
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
// h0 ... h7 per active plane (the projective map with h8 = 1), then one
// offset d per active line of both lists, in the same order as the angles. A
// line with a fixed normal (Horizontal, Vertical, Arbitrary) keeps its angle
// unknown but never uses it.
//
// The line rows. Every sample p of a line gives the residual
//   r = w ((p - c) . n(alpha) - d),
// the distance of the sample from the line {x : (x - c) . n = d}. c is the
// samples' mean where the rows are linearised (d moves with it, so the line
// stays put); it only keeps the alpha and d columns apart. A row couples the
// four corners of its own sample's quad with the line's own alpha and d,
// nothing else, so the mesh part of the system keeps exactly the pattern of
// the shape term (whose quads couple their corners already) and the line
// unknowns, numbered last, only add rows below the mesh's factor. The rows of
// one line in one quad are summed into one block before they enter the
// system (the samples lie a twelfth of a mesh step apart, a dozen to a quad):
// the moments sum q q' and sum q of the samples' bilinear weights q give J'J
// and J'r exactly.
//   Why (bench/solver_bench, level 6, 20 lines): with the residual
// (p - p0) . n, measured from the line's first sample p0, every row also
// coupled p0's quad, whose corners then linked the whole line; even ordered
// last those hubs made the factor 3.0 M nonzeros (1.69 M here, about what the
// mesh alone has), and the changing hubs needed a fresh factorisation in each
// of three iterations. The line fitted through all samples is a little
// softer against a bow than one pinned at its first sample: the room test's
// worst edge is 1.17 pixels from straight (1.16 pinned), its edges spread the
// deviation along their length instead of leaving it at their far end.
// LineEnergy keeps the first-sample measure as the line's reported energy.
//
// Linearisation in alpha: dr/dalpha = w (p - c) . (-sin alpha, cos alpha).
// At the zero warp, where a fresh solve starts, that derivative vanishes and
// the first iteration could not turn any line; there it is taken at the
// closed form's positions of the samples instead (the Gauss-Newton step from
// the closed-form warp: the rows are linear in the mesh, so only this
// derivative depends on where they are linearised). The first iteration
// then turns the free lines already, and later iterations change the system
// little enough for conjugate gradients preconditioned with the first
// iteration's factor (see IterativeWarpSolver). Every line's alpha and d are
// declared changed (DeclareChanged: their columns move with the warp), and so
// are the corners of a line, with one ring of vertices round them, once it
// has turned by more than kMaxTurn (0.02 radians) from its angle in the
// factorised matrix, or, on a warm solve, once its sample blocks differ from
// those there (an edit moved it; then the corners it had there too): all of
// these are solved exactly inside those gradients. When the declared unknowns
// pass an eighth of the mesh unknowns the iteration factorises afresh.
//
// PrepareSolve (start of every Solve):
//   - takes every active line's samples with the quads GeodesicLines located
//     them in; when the lines were fitted on another mesh (a coarse warp for
//     dragging, say) it locates them in this one (QuadFinder) and keeps the
//     result for the next warp, which locates only the lines that changed;
//     a line uses the samples whose quad is valid in this warp; with fewer
//     than two it adds nothing;
//   - starts the extra unknowns: on a fresh solve alpha is the normal of the
//     chord from the first to the last usable sample under the closed form
//     and a plane's map the affine fit of its samples' closed-form positions
//     (h6 = h7 = 0); on a warm solve every constraint keeps its previous
//     values and only new ones start, as above, from the current warp
//     instead of the closed form; d always starts as the samples' mean
//     distance at the current warp;
//   - declares the unknowns each block couples, and a tiny damping on alpha
//     and h, which keeps the system definite should a line have no extent.
//
// ConvergenceMeasure: the largest displacement of a constraint sample in the
// last update, relative to the size of the mesh cells the constraint lies in
// (its extent in the output over the cells it spans). Below 0.005 no sample
// moves by more than a two-hundredth of a cell (about 0.15 pixels near the
// centre of a 3000-pixel-wide 15 mm fisheye at level 6). Relative to the whole extent, as first
// written, a last step of a few pixels counted as converged and left a re-solve 0.2 pixels from a
// fresh solve. -1 when no constraint takes part (then every iteration runs).
class LineSolve : public IterativeWarpSolver {
public:
    LineSolve(std::shared_ptr<const OctaMap> mesh, std::shared_ptr<const PhotoToSphere> photo,
              std::shared_ptr<const GeodesicLines> lines, float regulariserWeight,
              int32_t iterationCount, bool pinCentre, RegularizerModel regulariserCode,
              int32_t modeValue, bool boundaryOnly, bool twoPass, AngleRange latitudeLimits,
              AngleRange longitudeLimits, double lineWeight, double shapeWeight,
              double smoothnessWeight);
    // A warp with the settings and constraints of `previous` that goes on
    // from it (see Continuation): for a re-solve after the constraints changed.
    LineSolve(LineSolve& previous, Continuation how);
    // The same, on another set of constraints: a re-solve that must leave the
    // previous warp's constraints as they were (another thread draws them).
    // What carries over is matched by constraint id and content, never by
    // object.
    LineSolve(LineSolve& previous, Continuation how, std::shared_ptr<const GeodesicLines> lines);

    double Energy() const override;
    // Energy of one line with its own samples located in this mesh (the
    // sample quads stored in the line), alpha taken from full unknown
    // `unknown` when the line is free: sum over the samples after the first
    // of (w (p - p0) . n)^2 / 2. 0 without samples.
    double LineEnergy(const GeodesicLine& line, int32_t unknown) const;

    // The constraints, or null once their owner has let them go.
    std::shared_ptr<const GeodesicLines> LinesRef() const { return lines_.lock(); }
    // The unknown index of the k-th active line of the first list, of the
    // second list, of the first entry of the k-th active plane, and of the
    // offset of the k-th active line of both lists together.
    int32_t LineUnknown(int32_t k) const { return MeshUnknownCount() + k; }
    int32_t EdgeUnknown(int32_t k) const { return MeshUnknownCount() + activeLines_ + k; }
    int32_t PlaneUnknown(int32_t k) const {
        return MeshUnknownCount() + activeLines_ + activeEdges_ + 8 * k;
    }
    int32_t OffsetUnknown(int32_t k) const { return PlaneUnknown(activePlanes_) + k; }
    // The output position of a located sample under the current solution.
    bool SamplePosition(const QuadLocation& quad, double& x, double& y) const;

protected:
    void AddQuadTerms(int32_t i, int32_t j) override;
    void AddVertexTerms(int32_t i, int32_t j) override;
    void PrepareSolve() override;
    void AddIterationTerms(int32_t iteration) override;
    float ConvergenceMeasure() const override;
    void Factorized() override;

private:
    // A quad corner as its canonical vertex and bilinear weight.
    struct Corners {
        std::array<int32_t, 4> vertex{};
        std::array<double, 4> weight{};
    };
    // The samples of one line inside one quad.
    struct LineBlock {
        std::array<int32_t, 4> vertex{};   // distinct canonical vertices
        int32_t count = 0;                 // how many
        std::array<double, 16> moments{};  // sum of q q' (count x count, row stride 4)
        std::array<double, 4> sums{};      // sum of q
        int32_t samples = 0;
        int32_t group = -1;
    };
    struct LineSample {
        int32_t block = 0;
        std::array<double, 4> weight{};  // per distinct vertex of the block
    };
    // Which constraint an extra unknown belongs to, to carry values over.
    struct ExtraKey {
        int32_t id = -1;
        int32_t edge = -1;  // polygon edge index; -1 for a line, -2 for a plane
        bool free = false;  // a line with an angle of its own
        bool operator==(const ExtraKey&) const = default;
    };
    struct LineTerm {
        int32_t alpha = -1;         // full unknown of a free line, -1 when fixed
        int32_t offset = -1;        // full unknown of d
        double fixedNormal = 0.0;   // used when alpha < 0
        double cx = 0.0, cy = 0.0;  // c
        int32_t index = 0;          // place among the active lines
        ExtraKey key;
        double factorAlpha = 0.0;  // alpha in the factorised matrix (NaN: none)
        bool changed = false;      // moved since the factorised matrix (DeclareChangedLines)
        std::vector<LineBlock> blocks;
        std::vector<LineSample> samples;
    };
    struct PlaneTerm {
        int32_t h = 0;  // full unknown of h0
        std::vector<int32_t> vertex;
        std::vector<std::array<double, 2>> uv;
        std::vector<int32_t> groups;  // one per sample: x, y, h0 ... h7
        int32_t index = 0;            // place in the extras layout
    };
    // Samples located in this warp's mesh when the lines use another one.
    struct LocatedLine {
        ExtraKey key;
        std::vector<SphereDirection> directions;
        std::vector<QuadLocation> quads;
    };

    bool CornersOf(const QuadLocation& quad, Corners& out) const;
    void PrepareLine(const GeodesicLine& line, int32_t alpha, int32_t offset,
                     std::span<const QuadLocation> quads);
    void PreparePlane(const GeodesicPlane& plane, int32_t unknown);
    std::vector<uint8_t> LayOutExtras(const GeodesicLines& lines);
    void StartLine(LineTerm& term, bool keepAngle);
    void StartPlane(const PlaneTerm& term);
    double Interpolate(const Eigen::VectorXd& v, const Corners& c, int32_t component) const;
    double SampleAt(const Eigen::VectorXd& v, const LineTerm& term, const LineSample& s,
                    int32_t component) const;
    void ClosedFormAt(const LineTerm& term, const LineSample& s, double& x, double& y) const;
    void DeclareChangedLines();
    void AddChangedUnknowns(const LineTerm& term, std::vector<int32_t>& out) const;
    void DeclareChangedUnknowns(std::vector<int32_t>& unknowns);
    std::vector<QuadLocation> LocateInThisMesh(const std::vector<const GeodesicLine*>& active);

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
    std::vector<ExtraKey> extras_;      // per angle, then per plane (the layout of the last Solve)
    std::vector<double> factorAlphas_;  // per line of extras_: alpha in the factorised matrix
    std::shared_ptr<const MeshLocator> ownLocator_;  // when the lines use another mesh
    std::shared_ptr<const std::vector<LocatedLine>> located_;
    std::vector<LineTerm> lineTerms_;
    size_t changedCount_ = 0;  // unknowns handed to DeclareChanged in this Solve
    // The lines as they were in the factorised matrix.
    std::shared_ptr<const std::vector<LineTerm>> factorTerms_;
    std::vector<PlaneTerm> planeTerms_;
};

}  // namespace Project
