#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <utility>
#include <vector>

#include <Eigen/Core>

#include "geometry/PhotoToSphere.h"
#include "solver/SparseCholesky.h"
#include "warp/ClosedFormWarp.h"
#include "warp/OctaMap.h"
#include "warp/SphereWarp.h"

namespace Project {

// (minimum, maximum) of an angle, radians.
using AngleRange = std::pair<float, float>;

// What the last Solve() did and how long it took (seconds, summed over its
// iterations).
struct SolveTimings {
    int32_t iterations = 0;      // Gauss-Newton iterations run
    int32_t factorizations = 0;  // numeric factorisations
    int32_t cgIterations = 0;    // conjugate-gradient steps, all iterations together
    int32_t fallbacks = 0;       // iterative solves that stalled and were factorised afresh
    double fixedAssembly = 0.0;  // the last ResetSystem
    double prepare = 0.0;        // PrepareSolve, pattern, ordering and symbolic analysis
    double assembly = 0.0;       // refilling values and the right-hand side
    double factorize = 0.0;      // numeric factorisation
    double substitute = 0.0;     // substitutions and conjugate-gradient steps
};

// Tuning of the iterative solves (see IterativeWarpSolver).
struct IterativeSolveOptions {
    // Conjugate-gradient steps before an iterative solve counts as stalled.
    int32_t maxCgIterations = 24;
    // The iterative solve has converged when its preconditioned residual
    // (the error in the matrix's own norm) has fallen to this fraction of
    // where it started. Loose on purpose: the next Gauss-Newton iteration
    // corrects what a step leaves, and it stops only when a step moves no
    // constraint sample by more than 0.005 of a mesh cell; at 1e-4 the steps
    // took twice the conjugate-gradient steps for the same result.
    double cgTolerance = 1e-2;
};

// A mesh warp found by Gauss-Newton least squares: every vertex of the sphere
// mesh gets an output position (two unknowns, x at 2k and y at 2k + 1 for
// vertex k = i + j * N), pulled towards a closed-form projection (the
// regulariser). Derived classes add terms through the hooks below.
//
// Unknowns. Vertices that the border fold makes identical share the unknowns
// of their canonical vertex (OctaMap::Fold); every term writes through it. A
// derived class may append unknowns after the 2 N^2 mesh ones
// (SetExtraUnknownCount). Only the unknowns that some term touches enter the
// linear system; the others keep their value.
//
// Fixed system. ResetSystem assembles the quadratic terms that do not change
// between iterations (the regulariser, AddQuadTerms for every valid quad,
// AddVertexTerms for every valid canonical vertex) as a normal matrix and
// right-hand side over the mesh unknowns: a residual row c.u - d with weight
// folded into c adds c c' to the matrix and c d to the right-hand side. It is
// immutable once built, so warps that continue from one another share it.
//
// Solve, in phases:
//   1. PrepareSolve(): the derived class declares the groups of unknowns its
//      iteration terms couple (DeclareRowGroup).
//   2. Pattern: the union of the fixed pattern and the groups', with slot maps
//      from the fixed values and the groups' pairs into it. Kept when the
//      groups are those of the previous Solve.
//   3. Ordering: the mesh's cached nested dissection (MeshOrdering) with the
//      extra unknowns last.
//   4. Symbolic analysis, only when a factorisation is needed and the pattern
//      is not the one already analysed.
//   5. Gauss-Newton iterations: copy the fixed values in through the slot map,
//      AddIterationTerms adds the linearised terms (AddGroupBlock,
//      AddGroupRow), solve for the update with the right-hand side
//      b - A u - J' r, add it, stop early when 0 <= ConvergenceMeasure() <
//      0.005. A failed solve clears the solved flag and ends Solve; the
//      positions must not be read then.
//
// How each update is solved:
//   - Without iteration terms the matrix is the fixed one in every iteration:
//     it is factorised once and every iteration is a substitution (this is
//     the solve without constraints, unchanged).
//   - Otherwise the first iteration of a fresh solve factorises its matrix;
//     later iterations solve by conjugate gradients preconditioned with that
//     factor (one substitution and one product per step; a factorisation
//     costs as much as 40 steps at level 6). Where the matrix has moved far
//     from the factorised one the derived class says so (DeclareChanged, in
//     PrepareSolve or, as it finds out, in AddIterationTerms: for LineSolve
//     every line's own unknowns, and the corners of a line that an edit
//     moved or that turned by more than about a degree); those unknowns are
//     deflated, that is solved exactly through the small sparse system W'AW
//     beside the conjugate gradients, which then see only the part of the
//     matrix the factor still knows. Without that a moved line's stiff rows,
//     which now hold other corners, left the gradients creeping for more than
//     24 steps. Where too much has changed for W'AW to stay small, the
//     derived class discards the preconditioner (DiscardPreconditioner) and
//     the iteration factorises afresh.
//   - A warm solve (Solve() again on a solved warp, or a warp constructed to
//     continue from another one) starts from the previous solution and uses
//     the previous factor, with the deflation above, from the first
//     iteration on, as long as the system has the same unknowns.
//   - An iterative solve that does not reach the tolerance within
//     IterativeSolveOptions::maxCgIterations steps has stalled: the matrix of
//     that iteration is factorised and solved directly, and its factor
//     preconditions the iterations after it.
//
// Cost (bench/solver_bench, a 3000 x 2000 fisheye, one run on 2 loaded
// cores; ratios within the run): at level 6 a fresh solve with 20 lines
// takes 0.7 times the solve without lines (one factorisation, two
// iterations), a re-solve after a 5 % endpoint move 0.3 times (no
// factorisation; about nine conjugate-gradient steps in 60 ms, of which their
// substitutions and products take some 25 and the deflation most of the
// rest); level 5 re-solves in about 13 ms. At level 7 the single
// factorisation (0.8 to 0.9 s) rules every solve.
//
// Validity. A vertex is valid when the photo sees its unrotated direction;
// with two-pass on it must in addition lie inside the latitude and longitude
// ranges (inclusive), or be one of the eight neighbours of a vertex that does
// and lie off the back seam and the poles.
// That gives a full sphere, which has no edge of its own, a border where the
// regulariser holds it; the ring just outside the ranges keeps the quads
// across their edges whole, for the renderer to clip at the ranges exactly.
class IterativeWarpSolver : public SphereWarp {
public:
    static constexpr float kConvergenceThreshold = 0.005f;

    // How a warp built from a solved one goes on from it. Either way it has
    // the previous warp's mesh, photo and settings, shares its fixed system
    // (so nothing is assembled again) and reuses what its preparation found
    // for constraints that did not change.
    enum class Continuation {
        // Solves as a freshly built warp would, to the same result.
        Fresh,
        // Starts from the previous solution, with the previous factorisation
        // as the preconditioner: tens of milliseconds after a small edit.
        WarmStart,
    };

    IterativeWarpSolver(std::shared_ptr<const OctaMap> mesh,
                        std::shared_ptr<const PhotoToSphere> photo, float regulariserWeight,
                        int32_t iterationCount, bool pinCentre, RegularizerModel regulariserCode,
                        int32_t modeValue, bool boundaryOnly, bool twoPass,
                        AngleRange latitudeLimits, AngleRange longitudeLimits);
    ~IterativeWarpSolver() override;

    // SphereWarp.
    bool IsVertexValid(int32_t i, int32_t j) const override;
    bool IsQuadValid(int32_t i, int32_t j) const override;
    // The solution of the vertex's canonical unknowns, rounded to float.
    void GetVertexPosition(int32_t i, int32_t j, float& x, float& y) const override;
    // Solves; called again on a solved warp (after its constraints changed)
    // it continues warm from the current solution.
    void Solve() override;
    bool IsSolved() const override { return solved_; }
    // Assembles the fixed system afresh.
    void ResetSystem() override;
    int32_t MeshSize() const override { return n_; }

    // Line and plane energy at the current solution (0 here).
    virtual double Energy() const { return 0.0; }

    const OctaMap& Mesh() const { return *mesh_; }
    const std::shared_ptr<const OctaMap>& MeshRef() const { return mesh_; }
    const std::shared_ptr<const PhotoToSphere>& PhotoRef() const { return photo_; }
    const ClosedFormWarp& Regulariser() const { return *regulariser_; }
    RegularizerModel RegulariserCode() const { return regulariserCode_; }
    int32_t IterationCount() const { return iterationCount_; }
    int32_t ModeValue() const { return modeValue_; }
    bool TwoPass() const { return twoPass_; }
    AngleRange LatitudeRange() const { return latitudeRange_; }
    AngleRange LongitudeRange() const { return longitudeRange_; }
    const Eigen::VectorXd& Solution() const { return solution_; }
    const SolveTimings& Timings() const { return timings_; }
    void SetIterativeSolveOptions(const IterativeSolveOptions& options) { options_ = options; }
    const IterativeSolveOptions& IterativeOptions() const { return options_; }
    // Unknowns in the linear system of the last Solve (mesh and extras).
    int32_t SystemSize() const { return static_cast<int32_t>(systemToFull_.size()); }
    // The normal matrix of the last iteration and the fill-reducing ordering
    // it was analysed with (new to old), for diagnostics and benchmarks.
    const SymmetricUpperMatrix& SystemMatrix() const { return system_; }
    const std::vector<int>& SystemOrdering() const { return ordering_; }

protected:
    // Takes over from `previous` (see Continuation); `previous` stays solved
    // and readable, but gives up its factorisation.
    IterativeWarpSolver(IterativeWarpSolver& previous, Continuation how);

    // Hooks, in the order Solve and ResetSystem call them.
    virtual void AddQuadTerms(int32_t i, int32_t j) {
        (void)i;
        (void)j;
    }
    virtual void AddVertexTerms(int32_t i, int32_t j) {
        (void)i;
        (void)j;
    }
    virtual void PrepareSolve() {}
    virtual void AddIterationTerms(int32_t iteration) { (void)iteration; }
    // Negative: no measure, every iteration runs.
    virtual float ConvergenceMeasure() const { return -1.0f; }
    // Called after each numeric factorisation, of the matrix of the current
    // iteration (the derived class may note what it was linearised at).
    virtual void Factorized() {}

    // --- For the fixed terms (inside AddQuadTerms / AddVertexTerms).
    // Adds the normal-equation contribution of one residual row over mesh
    // unknowns (full indices below MeshUnknownCount(); repeated indices allowed:
    // their coefficients add up). The pattern follows the indices, not the
    // values: a zero coefficient still enters the unknown into the system.
    void AddFixedRow(std::span<const int32_t> unknowns, std::span<const double> coefficients,
                     double rhs);
    // The similarity term of vertices p, q, r: the output edges p->q and p->r
    // keep the ratio and angle of the closed form's own triangle where it
    // gives a fair one, else of the sphere's edges in p's tangent frame (see
    // the implementation). So without constraints the warp is the closed form.
    void AddTriangleTerm(double weight, MeshVertex p, MeshVertex q, MeshVertex r);

    // --- For the iteration terms.
    // Declares, inside PrepareSolve, a group of distinct full unknown indices
    // whose terms AddGroupBlock / AddGroupRow will add; returns its handle.
    // Unknowns outside the system make the group unusable (-1 is returned).
    int32_t DeclareRowGroup(std::span<const int32_t> unknowns);
    // Declares a damping weight added to the diagonal of one unknown in every
    // iteration (keeps an unknown whose rows vanish at the current point from
    // making the system singular).
    void DeclareDamping(int32_t unknown, double weight);
    // Declares unknowns whose terms changed much since the factorised matrix
    // (a line moved: its stiff rows now hold other corners). Inside
    // PrepareSolve, or inside AddIterationTerms for the iteration being
    // assembled and those after it. The iterative solves treat them exactly,
    // by deflation; declared unknowns stay declared until the Solve ends.
    void DeclareChanged(std::span<const int32_t> unknowns);
    // Adds a linearised row to the current iteration: coefficients parallel to
    // the group's unknowns (the Jacobian row), and the residual value.
    void AddGroupRow(int32_t group, std::span<const double> coefficients, double residual);
    // Adds the sum of many rows over one group at once: `normal` is J'J over
    // the group's unknowns (m x m, column-major; only the upper triangle is
    // read) and `gradient` J'r.
    void AddGroupBlock(int32_t group, std::span<const double> normal,
                       std::span<const double> gradient);

    void SetExtraUnknownCount(int32_t count);
    int32_t MeshUnknownCount() const { return 2 * n_ * n_; }
    int32_t CanonicalIndex(int32_t i, int32_t j) const { return mesh_->CanonicalIndex(i, j); }
    // Whether a mesh unknown takes part in the linear system.
    bool InSystem(int32_t unknown) const;
    Eigen::VectorXd& MutableSolution() { return solution_; }
    // The update added by the last iteration (full layout).
    const Eigen::VectorXd& LastUpdate() const { return lastUpdate_; }
    // The current Solve started from a previous solution (a warm start).
    bool WarmStart() const { return warmStart_; }
    // A factorisation of an earlier matrix over the same unknowns is at hand:
    // unless discarded, this iteration is solved iteratively with it.
    bool HasPreconditioner() const { return factorUsable_ && factorUnknowns_ == systemToFull_; }
    // Drops that factorisation as a preconditioner: the derived class knows
    // the matrix has moved too far from it (or its extra unknowns mean other
    // things than before), and the iteration factorises afresh.
    void DiscardPreconditioner() { factorUsable_ = false; }

private:
    struct FixedSystem;
    struct Deflation;
    struct RowGroup {
        std::vector<int32_t> system;  // system indices of the group's unknowns
        std::vector<int32_t> slots;   // value slot of pair (a, b), a <= b local, row-major upper
    };

    void AddRegulariserTerms();
    bool IsVertexInRanges(int32_t i, int32_t j) const;
    void BuildFixedMatrix();
    void BuildPattern();
    void BuildOrdering();
    bool EnsureAnalysed();
    bool FactorizeSystem(bool constantMatrix);
    void AssembleIteration(int32_t iteration);
    bool SolveUpdate(int32_t iteration, bool constantMatrix, Eigen::VectorXd& update);
    bool ConjugateGradients(Eigen::VectorXd& update);
    std::unique_ptr<Deflation> BuildDeflation() const;
    bool RunIteration(int32_t iteration);
    void ResetPerSolve();

    // Settings.
    float regulariserWeight_;
    int32_t iterationCount_;
    bool pinCentre_;
    int32_t modeValue_;
    bool boundaryOnly_;
    std::shared_ptr<const OctaMap> mesh_;
    std::shared_ptr<const PhotoToSphere> photo_;
    std::shared_ptr<const ClosedFormWarp> regulariser_;
    RegularizerModel regulariserCode_;
    int32_t n_;
    int32_t vertexCount_;
    int32_t extraCount_ = 0;
    bool twoPass_;
    AngleRange latitudeRange_;
    AngleRange longitudeRange_;
    std::shared_ptr<const std::vector<uint8_t>> valid_;  // per vertex, cached at construction
    IterativeSolveOptions options_;

    // The fixed terms (shared by warps that continue from one another) and,
    // while ResetSystem runs, their accumulation.
    std::shared_ptr<const FixedSystem> fixed_;
    std::unique_ptr<FixedSystem> building_;
    void AddBlock(int32_t a, int32_t b, int32_t ca, int32_t cb, double value);
    int32_t meshSystemSize_ = 0;

    // The linear system of the current Solve: unknowns that some term touches.
    std::vector<int32_t> fullToSystem_;
    std::vector<int32_t> systemToFull_;
    std::vector<RowGroup> groups_;
    std::vector<std::pair<int32_t, double>> damping_;  // system index, weight
    std::vector<int32_t> changed_;                     // full indices (DeclareChanged)
    std::unique_ptr<Deflation> deflation_;             // built from changed_
    std::vector<int32_t> dampingSlots_;
    // The groups (with their slots), damped unknowns and fixed system that
    // system_'s pattern was built for.
    std::vector<RowGroup> patternGroups_;
    std::vector<int32_t> patternDamping_;
    std::shared_ptr<const FixedSystem> patternFixed_;
    SymmetricUpperMatrix system_;
    std::vector<int32_t> fixedSlots_;  // fixed value k -> system_ value slot
    Eigen::VectorXd rhs_;
    std::vector<int> ordering_;

    // The factorisation: its symbolic analysis follows the pattern; its values
    // may be those of an earlier matrix (then it serves as a preconditioner).
    std::unique_ptr<SparseCholesky> cholesky_;
    bool analysed_ = false;                           // cholesky_ holds an analysis...
    std::vector<int> analysedOrdering_;               // ... made with this ordering
    bool factorUsable_ = false;                       // a numeric factor of a matrix over...
    std::vector<int32_t> factorUnknowns_;             // ... these full unknowns (system order)
    std::shared_ptr<const FixedSystem> factorFixed_;  // set when it is of this fixed matrix alone

    Eigen::VectorXd solution_;
    Eigen::VectorXd lastUpdate_;
    bool solved_ = true;
    bool solvedOnce_ = false;  // solution_ holds a finished solve
    bool warmStart_ = false;
    SolveTimings timings_;
};

}  // namespace Project
