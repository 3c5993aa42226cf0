// A fisheye view of a room with line constraints along its straight edges:
// every constrained edge must come out straight, and the vertical ones
// vertical, at a nominal output size of 3000 x 2000.
//
// Measured at the default weights and level: the most bent edges stay within
// 0.85 pixels of straight over 95 % of their length and 1.2 pixels over the
// whole (the far end, away from the first sample that every line residual is
// measured from, is held least).

#include "solver/Solver.h"

#include "WarpTestSupport.h"
#include "constraints/Constraint.h"

#ifdef CURVANA_HAVE_SAMPLEGEN
#include "samplegen/SampleScene.h"
#endif

#include <gtest/gtest.h>

#include <cmath>

namespace Project {
namespace {

using test::DegreesFromVertical;
using test::DirectionOf;
using test::FitLine;
using test::NominalScale;
using test::OutputOf;
using test::SourcePixelOf;

struct Segment {
    Eigen::Vector3d a, b;
};

constexpr int32_t kWidth = 3000, kHeight = 2000;

// The room's straight edges in the camera frame (x right, y down, z forward).
std::vector<Segment> RoomSegments() {
    std::vector<Segment> segments;
#ifdef CURVANA_HAVE_SAMPLEGEN
    Curvana::SampleGen::SceneOptions options;
    options.width = kWidth;
    options.height = kHeight;
    for (const auto& e : Curvana::SampleGen::roomEdges(options, 8)) {
        segments.push_back({{e.a[0], e.a[1], e.a[2]}, {e.b[0], e.b[1], e.b[2]}});
    }
#else
    // A 6 m wide room, the camera 1.3 m above the floor and 4 m from the front wall.
    const double left = -3.0, right = 3.0, ceiling = -1.2, floor = 1.3, front = 4.0, back = -1.0;
    for (double x : {left, right}) {
        segments.push_back({{x, ceiling, front}, {x, floor, front}});
        segments.push_back({{x, ceiling, 1.0}, {x, floor, 1.0}});
        for (double y : {ceiling, floor}) {
            segments.push_back({{x, y, back}, {x, y, front}});
        }
    }
    for (double y : {ceiling, floor}) {
        segments.push_back({{left, y, front}, {right, y, front}});
    }
    segments.push_back({{-0.8, -0.5, front}, {0.8, -0.5, front}});
    segments.push_back({{-0.8, 0.3, front}, {0.8, 0.3, front}});
    segments.push_back({{-0.8, -0.5, front}, {-0.8, 0.3, front}});
    segments.push_back({{0.8, -0.5, front}, {0.8, 0.3, front}});
#endif
    return segments;
}

bool InImage(const PointF& p, float margin) {
    return p.x >= margin && p.y >= margin && p.x <= kWidth - 1 - margin && p.y <= kHeight - 1 - margin;
}

TEST(RoomSceneTest, ConstrainedEdgesComeOutStraightAndVerticalOnesVertical) {
    auto photo = test::Fisheye(kWidth, kHeight, 1250.0f);  // 15 mm on a full frame, 3000 px wide
    SolverSettings settings;  // the defaults: level 6, stereographic
    auto mesh = std::make_shared<const OctaMap>(settings.meshLevel, false);
    auto lines = std::make_shared<GeodesicLines>(photo, mesh);

    struct Constrained {
        Segment visible;
        Orientation orientation;
    };
    std::vector<Constrained> constrained;
    for (const Segment& s : RoomSegments()) {
        // The part of the edge inside the picture, a little inside its frame.
        double t0 = 2.0, t1 = -1.0;
        for (int k = 0; k <= 400; ++k) {
            const double t = k / 400.0;
            if (InImage(SourcePixelOf(*photo, s.a + (s.b - s.a) * t), 20.0f)) {
                t0 = std::min(t0, t), t1 = std::max(t1, t);
            }
        }
        if (t1 <= t0) {
            continue;
        }
        const Segment visible{s.a + (s.b - s.a) * t0, s.a + (s.b - s.a) * t1};
        const PointF p0 = SourcePixelOf(*photo, visible.a), p1 = SourcePixelOf(*photo, visible.b);
        if (std::hypot(p1.x - p0.x, p1.y - p0.y) < 150.0f) {
            continue;  // too short to tell
        }
        const Eigen::Vector3d d = s.b - s.a;
        Orientation orientation = Orientation::Unfixed;  // receding edges keep their own angle
        if (std::abs(d.x()) < 1e-9 && std::abs(d.z()) < 1e-9) {
            orientation = Orientation::Vertical;
        } else if (std::abs(d.y()) < 1e-9 && std::abs(d.z()) < 1e-9) {
            orientation = Orientation::Horizontal;
        }
        LineConstraint line;
        line.SetEndpoints(p0, p1);
        line.SetOrientation(orientation, 0.0f);
        line.SetId(static_cast<int32_t>(constrained.size()) + 1);
        ASSERT_TRUE(lines->FitLine(line));
        constrained.push_back({visible, orientation});
    }
    ASSERT_GE(constrained.size(), 10u);
    const auto verticals = std::count_if(constrained.begin(), constrained.end(),
                                         [](const Constrained& c) { return c.orientation == Orientation::Vertical; });
    ASSERT_GE(verticals, 3);

    Solver solver(mesh, photo, lines, settings);
    ASSERT_TRUE(solver.Run());
    const LineSolve& warp = *solver.Warp();
    const double scale = NominalScale(warp, lines->Locator(), *photo, kWidth, kHeight);
    for (size_t k = 0; k < constrained.size(); ++k) {
        const Constrained& c = constrained[k];
        std::vector<Eigen::Vector2d> points;
        for (int s = 0; s <= 300; ++s) {
            const Eigen::Vector3d p = c.visible.a + (c.visible.b - c.visible.a) * (s / 300.0);
            if (const auto o = OutputOf(warp, lines->Locator(), DirectionOf(p))) {
                points.push_back(*o);
            }
        }
        ASSERT_EQ(points.size(), 301u) << "edge " << k;
        const test::LineFit whole = FitLine(points);
        EXPECT_LT(whole.maxDeviation * scale, 1.5) << "edge " << k;
        points.resize(points.size() * 95 / 100);  // away from the far end
        const test::LineFit fit = FitLine(points);
        EXPECT_LT(fit.maxDeviation * scale, 1.0) << "edge " << k;
        if (c.orientation == Orientation::Vertical) {
            EXPECT_LT(DegreesFromVertical(fit.direction), 0.2) << "edge " << k;
        } else if (c.orientation == Orientation::Horizontal) {
            EXPECT_GT(DegreesFromVertical(fit.direction), 89.8) << "edge " << k;
        }
    }
}

}  // namespace
}  // namespace Project
