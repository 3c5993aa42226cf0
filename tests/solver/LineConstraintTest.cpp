#include "solver/LineSolve.h"

#include "WarpTestSupport.h"
#include "constraints/Constraint.h"

#include <gtest/gtest.h>

#include <cmath>

namespace Project {
namespace {

using test::DegreesFromVertical;
using test::DirectionOf;
using test::Fisheye;
using test::FitLine;
using test::MapSegment;
using test::NominalScale;
using test::OutputOf;
using test::SolveLines;
using test::SourcePixelOf;

TEST(LineSolveConstraintTest, AVerticalLineThroughAFisheyeComesOutVerticalAndStraight) {
    auto photo = Fisheye(1200, 800, 380.0f);
    auto mesh = std::make_shared<const OctaMap>(6, false);  // the default level
    auto lines = std::make_shared<GeodesicLines>(photo, mesh);
    // A vertical edge well off the axis: strongly bent in the fisheye.
    const Eigen::Vector3d top(1.6, -1.0, 1.6), bottom(1.6, 1.0, 1.6);
    LineConstraint line;
    line.SetEndpoints(SourcePixelOf(*photo, top), SourcePixelOf(*photo, bottom));
    line.SetOrientation(Orientation::Vertical, 0.0f);
    line.SetId(7);
    ASSERT_TRUE(lines->FitLine(line));
    ASSERT_EQ(lines->ActiveLineCount(), 1);

    // Without the constraint the warp bends it (a coarse mesh shows that).
    {
        auto coarse =
            std::make_shared<GeodesicLines>(photo, std::make_shared<const OctaMap>(4, false));
        auto unconstrained = SolveLines(photo, coarse);
        const auto bent = MapSegment(*unconstrained, coarse->Locator(), top, bottom);
        EXPECT_GT(FitLine(bent).maxDeviation *
                      NominalScale(*unconstrained, coarse->Locator(), *photo, 3000, 2000),
                  10.0);
    }

    auto solver = SolveLines(photo, lines);
    ASSERT_TRUE(solver->IsSolved());
    EXPECT_LT(solver->Timings().iterations,
              8);  // a fixed normal makes the problem linear: stops early
    const auto straight = MapSegment(*solver, lines->Locator(), top, bottom);
    ASSERT_GT(straight.size(), 150u);
    const double scale = NominalScale(*solver, lines->Locator(), *photo, 3000, 2000);
    const test::LineFit fit = FitLine(straight);
    EXPECT_LT(fit.maxDeviation * scale, 1.5);
    EXPECT_LT(DegreesFromVertical(fit.direction), 0.2);
    // A soft term: never exactly zero, but a small fraction of the energy the
    // same line has in the warp without it.
    const double bent = SolveLines(photo, std::make_shared<GeodesicLines>(photo, mesh))
                            ->LineEnergy(lines->Lines().front(), -1);
    EXPECT_GT(solver->Energy(), 0.0);
    EXPECT_LT(solver->Energy(), 1e-2 * bent);
}

// A receding edge, neither horizontal nor vertical in the output: free, it
// comes out straight at an angle of its own (about -29 degrees), which the
// angle unknown holds; fixed at -20 degrees, it comes out straight at -20.
TEST(LineSolveConstraintTest, AFreeLineTakesAnAngleOfItsOwnAndAnArbitraryOneItsFixedAngle) {
    auto photo = Fisheye(1200, 800, 380.0f);
    auto mesh = std::make_shared<const OctaMap>(5, false);
    const Eigen::Vector3d a(-1.8, 1.0, 0.8), b(-1.8, 1.0, 4.0);
    for (const bool fixed : {false, true}) {
        SCOPED_TRACE(fixed ? "fixed at -20 degrees" : "free");
        auto lines = std::make_shared<GeodesicLines>(photo, mesh);
        LineConstraint line;
        line.SetEndpoints(SourcePixelOf(*photo, a), SourcePixelOf(*photo, b));
        if (fixed)
            line.SetOrientation(Orientation::Arbitrary, -20.0f);
        line.SetId(3);
        ASSERT_TRUE(lines->FitLine(line));
        auto solver = SolveLines(photo, lines);
        ASSERT_TRUE(solver->IsSolved());
        const test::LineFit fit = FitLine(MapSegment(*solver, lines->Locator(), a, b));
        EXPECT_LT(fit.maxDeviation * NominalScale(*solver, lines->Locator(), *photo, 3000, 2000),
                  1.5);
        // Degrees from the x axis, either way along the line.
        const double degrees = std::atan2(fit.direction.y(), fit.direction.x()) * 180.0 / M_PI;
        if (fixed) {
            EXPECT_NEAR(std::remainder(degrees + 20.0, 180.0), 0.0, 0.2);
            continue;
        }
        EXPECT_GT(DegreesFromVertical(fit.direction), 10.0);
        EXPECT_LT(DegreesFromVertical(fit.direction), 80.0);
        EXPECT_GT(std::abs(std::remainder(degrees + 20.0, 180.0)), 3.0) << "not already at -20";
        const double alpha = solver->Solution()[solver->LineUnknown(0)];
        EXPECT_LT(
            std::abs(std::cos(alpha) * fit.direction.x() + std::sin(alpha) * fit.direction.y()),
            1e-3);
    }
}

// A square on a flat wall, drawn as a polygon: the mesh over it must come out
// as a projective image of the wall (here checked as: a homography from the
// wall's own coordinates fits every mapped point, and the wall's straight
// lines stay straight).
TEST(LineSolveConstraintTest, APolygonComesOutProjective) {
    auto photo = Fisheye(1200, 800, 380.0f);
    auto mesh = std::make_shared<const OctaMap>(5, false);
    auto lines = std::make_shared<GeodesicLines>(photo, mesh);
    // A square on the wall z = 2 - x (turned 45 degrees), to the right.
    auto wall = [](double s, double t) {
        return Eigen::Vector3d(0.4 + 1.2 * s, -0.6 + 1.2 * t, 1.6 - 1.2 * s);
    };
    PlaneConstraint plane;
    for (const auto& [s, t] :
         {std::pair{0.0, 0.0}, std::pair{1.0, 0.0}, std::pair{1.0, 1.0}, std::pair{0.0, 1.0}}) {
        plane.AddVertex(SourcePixelOf(*photo, wall(s, t)));
    }
    plane.SetId(11);
    ASSERT_TRUE(lines->SetUpPlane(plane));
    ASSERT_EQ(lines->ActivePlaneCount(), 1);

    auto solver = SolveLines(photo, lines);
    ASSERT_TRUE(solver->IsSolved());
    const double scale = NominalScale(*solver, lines->Locator(), *photo, 3000, 2000);

    // Fit a homography (s, t) -> output over a grid inside the square (DLT).
    std::vector<std::pair<Eigen::Vector2d, Eigen::Vector2d>> pairs;
    for (int a = 1; a < 10; ++a) {
        for (int b = 1; b < 10; ++b) {
            const double s = a / 10.0, t = b / 10.0;
            if (const auto o = OutputOf(*solver, lines->Locator(), DirectionOf(wall(s, t))))
                pairs.push_back({Eigen::Vector2d(s, t), *o});
        }
    }
    ASSERT_GT(pairs.size(), 70u);
    Eigen::MatrixXd m(2 * pairs.size(), 9);
    for (size_t k = 0; k < pairs.size(); ++k) {
        const auto& [st, o] = pairs[k];
        m.row(2 * k) << st.x(), st.y(), 1, 0, 0, 0, -o.x() * st.x(), -o.x() * st.y(), -o.x();
        m.row(2 * k + 1) << 0, 0, 0, st.x(), st.y(), 1, -o.y() * st.x(), -o.y() * st.y(), -o.y();
    }
    const Eigen::JacobiSVD<Eigen::MatrixXd> svd(m, Eigen::ComputeFullV);
    const Eigen::VectorXd h = svd.matrixV().col(8);
    double worst = 0.0;
    for (const auto& [st, o] : pairs) {
        const double w = h[6] * st.x() + h[7] * st.y() + h[8];
        const Eigen::Vector2d mapped((h[0] * st.x() + h[1] * st.y() + h[2]) / w,
                                     (h[3] * st.x() + h[4] * st.y() + h[5]) / w);
        worst = std::max(worst, (mapped - o).norm() * scale);
    }
    EXPECT_LT(worst, 2.0);  // pixels at the nominal output size
    // The square's diagonal is a straight line of the wall.
    const auto diagonal = MapSegment(*solver, lines->Locator(), wall(0.05, 0.05), wall(0.95, 0.95));
    EXPECT_LT(FitLine(diagonal).maxDeviation * scale, 2.0);
}

}  // namespace
}  // namespace Project
