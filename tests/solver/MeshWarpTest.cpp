#include "solver/LineSolve.h"

#include "WarpTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>

namespace Project {
namespace {

using test::Fisheye;

constexpr AngleRange kAnyLatitude{-1.6f, 1.6f};
constexpr AngleRange kAnyLongitude{-3.2f, 3.2f};

TEST(IterativeWarpSolverTest, RegulariserEverywhereGivesTheClosedFormAndRunsEveryIteration) {
    auto mesh = std::make_shared<const OctaMap>(3, false);
    auto photo = Fisheye(800, 600, 300.0f);
    IterativeWarpSolver solver(mesh, photo, 0.001f, 5, false, RegularizerModel::Mercator, 1,
                               /*boundaryOnly=*/false, false, kAnyLatitude, kAnyLongitude);
    solver.Solve();
    ASSERT_TRUE(solver.IsSolved());
    EXPECT_EQ(solver.Timings().iterations, 5);  // no convergence measure: every iteration runs
    const int32_t n = mesh->Size();
    for (int32_t j = 1; j + 1 < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            float x, y, gx, gy;
            solver.GetVertexPosition(i, j, x, y);
            solver.Regulariser().GetVertexPosition(i, j, gx, gy);
            EXPECT_NEAR(x, gx, 1e-4f) << i << "," << j;
            EXPECT_NEAR(y, gy, 1e-4f) << i << "," << j;
        }
    }
}

TEST(IterativeWarpSolverTest, SingularSystemClearsTheSolvedFlag) {
    // No regulariser weight and no other term: every diagonal entry is zero.
    auto mesh = std::make_shared<const OctaMap>(2, false);
    IterativeWarpSolver solver(mesh, Fisheye(400, 300, 150.0f), 0.0f, 8, false,
                               RegularizerModel::Stereographic, 1, false, false, kAnyLatitude,
                               kAnyLongitude);
    solver.Solve();
    EXPECT_FALSE(solver.IsSolved());
    // The positions were never written.
    float x = 1.0f, y = 1.0f;
    solver.GetVertexPosition(mesh->Centre(), mesh->Centre(), x, y);
    EXPECT_EQ(x, 0.0f);
    EXPECT_EQ(y, 0.0f);
}

TEST(IterativeWarpSolverTest, ValidityFollowsThePhotoAndTheTwoPassRanges) {
    auto mesh = std::make_shared<const OctaMap>(3, false);
    auto photo = Fisheye(800, 600, 300.0f);
    IterativeWarpSolver onePass(mesh, photo, 0.001f, 8, false, RegularizerModel::Stereographic, 1,
                                true, false, {-0.3f, 0.3f}, {-0.3f, 0.3f});
    IterativeWarpSolver twoPass(mesh, photo, 0.001f, 8, false, RegularizerModel::Stereographic, 1,
                                true, true, {-0.3f, 0.3f}, {-0.3f, 0.3f});
    // With two passes: the vertices inside the ranges and the ring around
    // them (the quads across the ranges' edges stay whole for the renderer
    // to clip).
    const int32_t n = mesh->Size();
    auto inRanges = [&](int32_t i, int32_t j) {
        const SphereDirection a = mesh->UnrotatedAngles(i, j);
        return std::abs(a.phi) <= 0.3f && std::abs(a.lambda) <= 0.3f;
    };
    int32_t validOne = 0, validTwo = 0, ring = 0;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            const SphereDirection a = mesh->UnrotatedAngles(i, j);
            EXPECT_EQ(onePass.IsVertexValid(i, j), photo->IsVisible(a.lambda, a.phi));
            bool nearRanges = false;
            for (int32_t dj = -1; dj <= 1; ++dj) {
                for (int32_t di = -1; di <= 1; ++di) {
                    nearRanges = nearRanges || (i + di >= 0 && i + di < n && j + dj >= 0 &&
                                                j + dj < n && inRanges(i + di, j + dj));
                }
            }
            EXPECT_EQ(twoPass.IsVertexValid(i, j), onePass.IsVertexValid(i, j) && nearRanges);
            validTwo += twoPass.IsVertexValid(i, j) ? 1 : 0;
            ring += twoPass.IsVertexValid(i, j) && !inRanges(i, j) ? 1 : 0;
            validOne += onePass.IsVertexValid(i, j) ? 1 : 0;
        }
    }
    EXPECT_GT(ring, 0);
    EXPECT_GT(validTwo, 0);
    EXPECT_LT(validTwo, validOne);
    EXPECT_FALSE(onePass.IsVertexValid(-1, 0));
    EXPECT_FALSE(onePass.IsQuadValid(mesh->Size() - 1, 0));
}

// Without constraints the shape and smoothness terms keep the sphere's local
// shape up to a similarity, and the weak regulariser on the boundary holds the
// warp to the closed form up to a similarity of the whole (the boundary-only
// pull lets the mesh shrink a little, which the renderer's fit to the output
// undoes). The stereographic projection is conformal, so the warp must stay
// at it: after removing the best similarity the two agree closely, on the
// boundary as everywhere.
TEST(LineSolveTest, WithoutConstraintsTheWarpKeepsTheConformalClosedForm) {
    auto photo = Fisheye(1200, 800, 400.0f);
    auto solver = test::SolveLines(photo, nullptr, 5);
    ASSERT_TRUE(solver->IsSolved());
    EXPECT_EQ(solver->Timings().iterations, 8);
    EXPECT_EQ(solver->Energy(), 0.0);

    const OctaMap& mesh = solver->Mesh();
    const int32_t n = mesh.Size();
    using C = std::complex<double>;
    std::vector<C> out, closed;
    std::vector<bool> boundary;
    double worstShape = 0.0;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            if (!solver->IsVertexValid(i, j) || OctaMap::Fold(n, i, j) != MeshVertex{i, j})
                continue;
            float x, y, gx, gy;
            solver->GetVertexPosition(i, j, x, y);
            solver->Regulariser().GetVertexPosition(i, j, gx, gy);
            out.emplace_back(x, y);
            closed.emplace_back(gx, gy);
            boundary.push_back(!solver->IsQuadValid(i, j) || !solver->IsQuadValid(i - 1, j - 1));
            // Local similarity: the output edges of the quad at (i, j) keep the
            // ratio and angle of the sphere's edges in the tangent frame.
            if (i + 1 < n && j + 1 < n && solver->IsQuadValid(i, j)) {
                const MeshFrame f = mesh.LocalFrame(i, j);
                auto tangent = [&](int32_t qi, int32_t qj) {
                    const MeshVector a = mesh.Direction(i, j), b = mesh.Direction(qi, qj);
                    const double d[3] = {double(b[0]) - a[0], double(b[1]) - a[1],
                                         double(b[2]) - a[2]};
                    return C(d[0] * f.east[0] + d[1] * f.east[1] + d[2] * f.east[2],
                             d[0] * f.north[0] + d[1] * f.north[1] + d[2] * f.north[2]);
                };
                auto output = [&](int32_t qi, int32_t qj) {
                    float ax, ay, bx, by;
                    solver->GetVertexPosition(i, j, ax, ay);
                    solver->GetVertexPosition(qi, qj, bx, by);
                    return C(bx - ax, by - ay);
                };
                const C sphereRatio = tangent(i + 1, j) / tangent(i, j + 1);
                const C outputRatio = output(i + 1, j) / output(i, j + 1);
                worstShape = std::max(worstShape, std::abs(outputRatio / sphereRatio - 1.0));
            }
        }
    }
    // Best similarity out = a closed + b (least squares in complex numbers).
    C meanOut = 0.0, meanClosed = 0.0;
    for (size_t k = 0; k < out.size(); ++k)
        meanOut += out[k], meanClosed += closed[k];
    meanOut /= double(out.size()), meanClosed /= double(out.size());
    C num = 0.0;
    double den = 0.0;
    for (size_t k = 0; k < out.size(); ++k) {
        num += (out[k] - meanOut) * std::conj(closed[k] - meanClosed);
        den += std::norm(closed[k] - meanClosed);
    }
    const C a = num / den;
    EXPECT_GT(std::abs(a), 0.5);             // shrunk a little at most
    EXPECT_LT(std::abs(std::arg(a)), 1e-6);  // not turned
    double worst = 0.0, worstBoundary = 0.0;
    for (size_t k = 0; k < out.size(); ++k) {
        const double e = std::abs(out[k] - (a * (closed[k] - meanClosed) + meanOut)) / std::abs(a);
        worst = std::max(worst, e);
        if (boundary[k])
            worstBoundary = std::max(worstBoundary, e);
    }
    EXPECT_GT(worstBoundary, 0.0);
    EXPECT_LT(worst, 0.05);      // radians of the closed form's plane; the disc has radius 2
    EXPECT_LT(worstShape, 0.1);  // every quad similar to its sphere shape (rim quads are the worst)
}

TEST(LineSolveTest, ALineWithoutSamplesAddsNoEnergy) {
    auto photo = Fisheye(800, 600, 300.0f);
    auto solver = test::SolveLines(photo, nullptr, 3);
    GeodesicLine empty;
    empty.active = true;
    empty.fitted = true;
    EXPECT_EQ(solver->LineEnergy(empty, -1), 0.0);
    empty.orientation = Orientation::Vertical;
    EXPECT_EQ(solver->LineEnergy(empty, -1), 0.0);
}

}  // namespace
}  // namespace Project
