// Focal calibration from one line and a fit point, against the sample
// room's own geometry: the endpoints and the fit point are samples of a
// straight scene edge as the generator's lens projects it.
#include "solver/FocalSolver.h"

#include <gtest/gtest.h>

#include <cmath>

#include "samplegen/SampleScene.h"

namespace Project {
namespace {

namespace gen = Curvana::SampleGen;

struct LensCase {
    double focalMm;
    int32_t width, height;
};

class FisheyeCalibration : public ::testing::TestWithParam<LensCase> {};

// Every edge that bows visibly gives back the generator's focal length.
TEST_P(FisheyeCalibration, RecoversTheFocalLengthFromEveryBowedEdge) {
    gen::SceneOptions scene;
    scene.focalMm = GetParam().focalMm;
    scene.width = GetParam().width;
    scene.height = GetParam().height;
    scene.lens = gen::Lens::Equisolid;
    const double truth = gen::focalPixels(scene);
    const CalibrationPoint centre{scene.width / 2.0, scene.height / 2.0};
    const FisheyeFocalSolver solver;
    int calibrated = 0;
    for (const gen::SceneEdge& edge : gen::roomEdges(scene)) {
        if (edge.points.size() < 16)
            continue;
        const gen::Point a = edge.points.front(), b = edge.points.back();
        const gen::Point m = edge.points[edge.points.size() / 2];
        // Only what the Fisheye model shows (the front hemisphere).
        const auto seen = [&](gen::Point p) {
            return std::hypot(p.x - centre.x, p.y - centre.y) < truth * std::sqrt(2.0);
        };
        if (!seen(a) || !seen(b) || !seen(m))
            continue;
        // The fit point's distance from the chord: an edge drawn through the
        // centre stays straight and says nothing.
        const double chord = std::hypot(b.x - a.x, b.y - a.y);
        const double bow = std::abs((b.x - a.x) * (m.y - a.y) - (b.y - a.y) * (m.x - a.x)) / chord;
        if (bow < 8.0)
            continue;
        const double f =
            solver.Solve(centre, {a.x, a.y}, {b.x, b.y}, {m.x, m.y}, truth / 8, truth * 8);
        EXPECT_NEAR(f, truth, 0.02 * truth) << "edge from (" << a.x << ", " << a.y << ")";
        ++calibrated;

        // The fit point on the chord itself: no focal length fits.
        const CalibrationPoint onChord{(a.x + b.x) / 2, (a.y + b.y) / 2};
        EXPECT_EQ(solver.Solve(centre, {a.x, a.y}, {b.x, b.y}, onChord, truth / 8, truth * 8),
                  -1.0);
    }
    EXPECT_GE(calibrated, 4);
}

INSTANTIATE_TEST_SUITE_P(SampleRoom, FisheyeCalibration,
                         ::testing::Values(LensCase{15.0, 3000, 2000}, LensCase{10.0, 3000, 2000},
                                           LensCase{24.0, 1800, 1200}));

// A rectilinear lens keeps every straight edge straight, whatever its focal
// length: three points of one edge are collinear and the solver says so.
TEST(PerspectiveCalibration, ReportsFailureForTheEdgesOfARectilinearPhotograph) {
    gen::SceneOptions scene;
    scene.focalMm = 14.0;
    scene.lens = gen::Lens::Rectilinear;
    const double truth = gen::focalPixels(scene);
    const CalibrationPoint centre{scene.width / 2.0, scene.height / 2.0};
    const PerspectiveFocalSolver solver;
    int tried = 0;
    for (const gen::SceneEdge& edge : gen::roomEdges(scene)) {
        if (edge.points.size() < 16)
            continue;
        const gen::Point a = edge.points.front(), b = edge.points.back();
        const gen::Point m = edge.points[edge.points.size() / 3];
        EXPECT_EQ(solver.Solve(centre, {a.x, a.y}, {b.x, b.y}, {m.x, m.y}, truth / 8, truth * 8),
                  -1.0);
        // A point off the edge does not make a focal length either.
        EXPECT_EQ(solver.Solve(centre, {a.x, a.y}, {b.x, b.y}, {m.x + 40, m.y - 40}, truth / 8,
                               truth * 8),
                  -1.0);
        ++tried;
    }
    EXPECT_GE(tried, 4);
}

}  // namespace
}  // namespace Project
