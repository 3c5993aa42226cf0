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

// Time spent in the last Solve(), seconds, summed over its iterations.
struct SolveTimings {
    int32_t iterations = 0;       // Gauss-Newton iterations run
    double fixedAssembly = 0.0;  // the last ResetSystem
    double prepare = 0.0;         // PrepareSolve, pattern and symbolic analysis
    double assembly = 0.0;    // refilling values and the right-hand side
    double factorize = 0.0;   // numeric factorisation
    double substitute = 0.0;  // forward and back substitution
};

// A mesh warp found by Gauss-Newton least squares: every vertex of the sphere
// mesh gets an output position (two unknowns, x at 2k and y at 2k + 1 for
// vertex k = i + j * N), pulled towards a closed-form projection (the
// regulariser). Derived classes add terms through the hooks below.
//
// Unknowns. Vertices that the border fold makes identical share the unknowns
// of their canonical vertex (OctaMap::Fold); every term writes through it. A
// derived class may append unknowns after the 2 N^2 mesh ones
// (SetExtraUnknownCount, before ResetSystem). Only the unknowns that some term
// touches enter the linear system; the others keep their value (zero).
//
// Fixed system. ResetSystem assembles the quadratic terms that do not change
// between iterations (the regulariser, AddQuadTerms for every valid quad,
// AddVertexTerms for every valid canonical vertex) as a normal matrix and
// right-hand side: a residual row c.u - d with weight folded into c adds c c'
// to the matrix and c d to the right-hand side.
//
// Solve. PrepareSolve() lets the derived class declare the groups of unknowns
// its iteration terms couple (DeclareRowGroup); the union of that pattern and
// the fixed one is analysed once per Solve (nested-dissection order of the mesh
// graph, MeshOrdering). Each iteration copies the fixed values into the
// system through a slot map, lets AddIterationTerms add the linearised rows
// (AddGroupRow), solves for the update with the right-hand side
// b - A u - J' r, adds it, and stops early when 0 <= ConvergenceMeasure() <
// 0.005. A failed factorisation clears the solved flag and ends Solve; the
// positions must not be read then.
//
// Cost (bench/solver_bench, a 3000 x 2000 fisheye, 2 shared cores; real time,
// level 6 = 16k unknowns): assembling the fixed system 26 ms; the pattern,
// slot maps and symbolic analysis once per Solve 24 ms with 20 lines; per
// iteration, refilling values through the slot map 1 ms (under 1 % of it),
// factorisation 85 ms, substitution 3 ms. A whole solve with 20 lines (three
// iterations) 320 ms; without constraints 200 ms (the matrix never changes,
// so it is factorised once). Level 7 with 20 lines: 1.5 s. (Measured with
// line samples a third of a mesh step apart; at the twelfth that holds
// edges straight to their far end, the factorisation takes about 40 % more
// at level 6: 130 -> 175 ms per iteration, 450 -> 640 ms per solve on a
// quieter run of the same benchmark.)
//
// Validity. A vertex is valid when the photo sees its unrotated direction;
// with two-pass on it must in addition lie inside the latitude and longitude
// ranges (inclusive). That gives a full sphere, which has no edge of its own, a
// border where the regulariser holds it.
class IterativeWarpSolver : public SphereWarp {
public:
    static constexpr float kConvergenceThreshold = 0.005f;

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
    void Solve() override;
    bool IsSolved() const override { return solved_; }
    // Clears the fixed system and assembles it again.
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
    // Unknowns in the linear system of the last ResetSystem (mesh and extras).
    int32_t SystemSize() const { return static_cast<int32_t>(systemToFull_.size()); }
    // The normal matrix of the last iteration and the fill-reducing ordering
    // it was analysed with (new to old), for diagnostics and benchmarks.
    const SymmetricUpperMatrix& SystemMatrix() const { return system_; }
    const std::vector<int>& SystemOrdering() const { return ordering_; }

protected:
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

    // --- For the fixed terms (inside AddQuadTerms / AddVertexTerms).
    // Adds the normal-equation contribution of one residual row over mesh
    // unknowns (full indices below MeshUnknownCount(); repeated indices allowed:
    // their coefficients add up). The pattern follows the indices, not the
    // values: a zero coefficient still enters the unknown into the system.
    void AddFixedRow(std::span<const int32_t> unknowns, std::span<const double> coefficients, double rhs);
    // The similarity term of vertices p, q, r (see the implementation).
    void AddTriangleTerm(double weight, MeshVertex p, MeshVertex q, MeshVertex r);

    // --- For the iteration terms.
    // Declares, inside PrepareSolve, a group of distinct full unknown indices
    // whose rows AddGroupRow will add; returns its handle. Unknowns outside
    // the system make the group unusable (-1 is returned).
    int32_t DeclareRowGroup(std::span<const int32_t> unknowns);
    // Declares a damping weight added to the diagonal of one unknown in every
    // iteration (keeps an unknown whose rows vanish at the current point, such
    // as a line's angle at the zero warp, from making the system singular).
    void DeclareDamping(int32_t unknown, double weight);
    // Adds a linearised row to the current iteration: coefficients parallel to
    // the group's unknowns (the Jacobian row), and the residual value.
    void AddGroupRow(int32_t group, std::span<const double> coefficients, double residual);

    void SetExtraUnknownCount(int32_t count);
    int32_t MeshUnknownCount() const { return 2 * n_ * n_; }
    int32_t CanonicalIndex(int32_t i, int32_t j) const { return mesh_->CanonicalIndex(i, j); }
    // Whether a full unknown takes part in the linear system.
    bool InSystem(int32_t unknown) const { return fullToSystem_[static_cast<size_t>(unknown)] >= 0; }
    Eigen::VectorXd& MutableSolution() { return solution_; }
    // The update added by the last iteration (full layout).
    const Eigen::VectorXd& LastUpdate() const { return lastUpdate_; }

private:
    struct Block {
        int32_t column;               // canonical vertex index
        std::array<double, 4> value;  // [2 * ca + cb]
    };
    struct RowGroup {
        std::vector<int32_t> system;  // system indices of the group's unknowns
        std::vector<int32_t> slots;   // value slot of each pair (a <= b), row-major upper
    };

    void AddRegulariserTerms();
    bool IsVertexInRanges(int32_t i, int32_t j) const;
    void BuildFixedMatrix();
    bool AnalyseSystem();
    bool RunIteration(int32_t iteration);

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
    std::vector<uint8_t> valid_;  // per vertex, cached at construction

    // Fixed terms, accumulated per canonical vertex as 2 x 2 blocks against
    // the vertices of higher or equal index.
    std::vector<std::vector<Block>> vertexBlocks_;
    Eigen::VectorXd fixedRhsFull_;
    void AddBlock(int32_t a, int32_t b, int32_t ca, int32_t cb, double value);
    void ResetExtrasInSystem();
    int32_t meshSystemSize_ = 0;  // 2 x the system vertices

    // The linear system: unknowns that some term touches.
    std::vector<int32_t> fullToSystem_;
    std::vector<int32_t> systemToFull_;
    SymmetricUpperMatrix fixed_;
    Eigen::VectorXd fixedRhs_;

    // Per Solve.
    std::vector<RowGroup> groups_;
    std::vector<std::pair<int32_t, double>> damping_;  // system index, weight
    std::vector<int32_t> dampingSlots_;
    SymmetricUpperMatrix system_;
    std::vector<int32_t> fixedSlots_;  // fixed_ value k -> system_ value slot
    Eigen::VectorXd rhs_;
    std::unique_ptr<SparseCholesky> cholesky_;
    std::vector<int> ordering_;

    Eigen::VectorXd solution_;
    Eigen::VectorXd lastUpdate_;
    bool solved_ = true;
    bool assembled_ = false;
    SolveTimings timings_;
};

}  // namespace Project
