// Suggested lines: grouping on the sphere, the vertical direction, and what
// the whole search finds (and refuses) in pictures.
#include "detect/LineSuggestion.h"

#include <gtest/gtest.h>
#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <memory>
#include <random>

#include "geometry/Projections.h"

namespace Project {
namespace {

constexpr int32_t kWidth = 3000, kHeight = 2000;
constexpr double kDeg = 3.14159265358979323846 / 180.0;

enum class Lens { Fisheye, Perspective };

std::shared_ptr<const PhotoToSphere> Photo(Lens lens, int32_t w = kWidth, int32_t h = kHeight,
                                           float f = 1250.0f) {
    auto raster = std::make_shared<SourceRaster>(w, h);
    if (lens == Lens::Fisheye)
        return std::make_shared<FisheyeImage>(raster, f, w * 0.5f, h * 0.5f);
    return std::make_shared<PerspectiveImage>(raster, f, w * 0.5f, h * 0.5f);
}

// A camera rolled (about the optical axis) and pitched (looking down):
// camera-frame vectors to the scene frame (x right, y down, z forward).
Eigen::Matrix3d CameraToScene(double rollDeg, double pitchDeg) {
    return (Eigen::AngleAxisd(-pitchDeg * kDeg, Eigen::Vector3d::UnitX()) *
            Eigen::AngleAxisd(rollDeg * kDeg, Eigen::Vector3d::UnitZ()))
        .toRotationMatrix();
}

struct SceneLine {
    Eigen::Vector3d a, b;
};

// The picture of a scene line as the chords a detector would report: about
// chordPx long (a short tail joins the last one), each end pulled in by
// `inset` px (so neighbours leave gaps).
std::vector<ImageSegment> Chords(const PhotoToSphere& photo, const Eigen::Matrix3d& toScene,
                                 const SceneLine& line, double chordPx = 40, double inset = 0) {
    std::vector<Eigen::Vector2d> points;
    const auto& r = photo.Raster();
    for (int k = 0; k <= 2000; ++k) {
        const Eigen::Vector3d p = toScene.transpose() * (line.a + (line.b - line.a) * (k / 2000.0));
        if (p.z() <= 0.05 * p.norm())
            continue;
        const float lambda = static_cast<float>(std::atan2(p.x(), p.z()));
        const float phi = static_cast<float>(std::asin(p.y() / p.norm()));
        if (!photo.IsVisible(lambda, phi))
            continue;
        const ImagePoint ip = photo.ToImagePoint(lambda, phi);
        const Eigen::Vector2d q(ip.x + r.halfWidth, ip.y + r.halfHeight);
        if (q.x() < 5 || q.y() < 5 || q.x() > r.width - 6 || q.y() > r.height - 6)
            continue;
        points.push_back(q);
    }
    std::vector<ImageSegment> out;
    size_t start = 0;
    for (size_t k = 1; k < points.size(); ++k) {
        const bool shortTail = (points.back() - points[k]).norm() < 0.5 * chordPx;
        if (((points[k] - points[start]).norm() < chordPx || shortTail) && k + 1 < points.size())
            continue;
        const Eigen::Vector2d d = (points[k] - points[start]).normalized();
        const Eigen::Vector2d a = points[start] + d * inset, b = points[k] - d * inset;
        out.push_back({a.x(), a.y(), b.x(), b.y(), 1.0});
        start = k;
    }
    return out;
}

class Grouping : public ::testing::TestWithParam<Lens> {};

TEST_P(Grouping, PiecesOfOneGreatCircleMakeOneLineAndANearbyParallelEdgeAnother) {
    const auto photo = Photo(GetParam());
    const Eigen::Matrix3d level = Eigen::Matrix3d::Identity();
    // A slanting edge across the view, and one 1.5 cm beside it at 4 m
    // (about 4.5 px in the picture): the two sides of a painted strip.
    const SceneLine edge{{-2.0, -1.0, 4.0}, {2.0, 0.4, 4.0}};
    const SceneLine beside{{-2.0, -0.985, 4.0}, {2.0, 0.415, 4.0}};
    std::vector<ImageSegment> one = Chords(*photo, level, edge, 40, 3.0);
    ASSERT_GE(one.size(), 20u);

    const std::vector<SuggestedLine> merged = FindSceneLines(one, *photo, 100);
    ASSERT_EQ(merged.size(), 1u);
    EXPECT_EQ(merged[0].segments, static_cast<int32_t>(one.size()));
    // The ends lie where the edge's first and last chords begin and end.
    const auto near = [](double x, double y, double u, double v) {
        return std::hypot(x - u, y - v) < 4.0;
    };
    const ImageSegment &first = one.front(), &last = one.back();
    EXPECT_TRUE((near(merged[0].x1, merged[0].y1, first.x1, first.y1) &&
                 near(merged[0].x2, merged[0].y2, last.x2, last.y2)) ||
                (near(merged[0].x2, merged[0].y2, first.x1, first.y1) &&
                 near(merged[0].x1, merged[0].y1, last.x2, last.y2)));

    std::vector<ImageSegment> two = Chords(*photo, level, beside, 55, 3.0);
    const size_t besideCount = two.size();
    two.insert(two.end(), one.begin(), one.end());
    const std::vector<SuggestedLine> apart = FindSceneLines(two, *photo, 100);
    ASSERT_EQ(apart.size(), 2u);
    const auto counts = std::minmax(apart[0].segments, apart[1].segments);
    EXPECT_EQ(counts.first, static_cast<int32_t>(std::min(besideCount, one.size())));
    EXPECT_EQ(counts.second, static_cast<int32_t>(std::max(besideCount, one.size())));

    // The same edge broken by a wide gap (a door in the way) makes two arcs.
    std::vector<ImageSegment> broken;
    for (size_t k = 0; k < one.size(); ++k)
        if (k < one.size() / 3 || k > one.size() / 3 + 2)
            broken.push_back(one[k]);
    EXPECT_EQ(FindSceneLines(broken, *photo, 100).size(), 2u);
}

// A painted upright strip (sides 4 cm apart at 4 m) that stops at the
// border of a level edge: one line along the strip's middle, its lower end
// carried on to the level edge; its upper end, far from any crossing, stays.
TEST_P(Grouping, AStripsSidesMakeOneLineAlongItsMiddleThatMeetsTheEdgeItRunsInto) {
    const auto photo = Photo(GetParam());
    const Eigen::Matrix3d level = Eigen::Matrix3d::Identity();
    const SceneLine floorEdge{{-2.0, 1.0, 4.0}, {2.0, 1.0, 4.0}};
    const SceneLine above{{-2.0, -1.3, 4.0}, {2.0, -1.3, 4.0}};  // out of the upper end's reach
    std::vector<ImageSegment> segments;
    for (const SceneLine& l : {floorEdge, above, SceneLine{{-1.02, -1.0, 4.0}, {-1.02, 0.98, 4.0}},
                               SceneLine{{-0.98, -1.0, 4.0}, {-0.98, 0.98, 4.0}}}) {
        const auto chords = Chords(*photo, level, l, 40, 3.0);
        segments.insert(segments.end(), chords.begin(), chords.end());
    }
    const LineSuggestion found = SuggestFromSegments(segments, *photo, {}, 100);

    const Eigen::Vector3d middle =
        Eigen::Vector3d(-1.0, -1.0, 4.0).cross(Eigen::Vector3d(-1.0, 1.0, 4.0)).normalized();
    const auto offMiddle = [&](const SuggestedLine& l) {
        return Eigen::Vector3d(l.normal[0], l.normal[1], l.normal[2]).cross(middle).norm();
    };
    std::vector<const SuggestedLine*> upright;
    for (const SuggestedLine& line : found.lines)
        if (offMiddle(line) < std::sin(1.5 * kDeg))
            upright.push_back(&line);
    ASSERT_EQ(upright.size(), 1u);
    const SuggestedLine& line = *upright.front();
    EXPECT_LT(offMiddle(line), std::sin(0.05 * kDeg));  // the sides lie 0.29 degrees off

    const auto pixel = [&](const Eigen::Vector3d& p) {
        const ImagePoint ip = photo->ToImagePoint(static_cast<float>(std::atan2(p.x(), p.z())),
                                                  static_cast<float>(std::asin(p.y() / p.norm())));
        return Eigen::Vector2d(ip.x + photo->Raster().halfWidth, ip.y + photo->Raster().halfHeight);
    };
    const Eigen::Vector2d top = pixel({-1.0, -1.0, 4.0}), bottom = pixel({-1.0, 1.0, 4.0});
    Eigen::Vector2d a(line.x1, line.y1), b(line.x2, line.y2);
    if (a.y() > b.y())
        std::swap(a, b);
    EXPECT_LT((b - bottom).norm(), 1.0);
    EXPECT_LT((a - top).norm(), 6.0);
    EXPECT_GT(a.y(), top.y() - 1.0);
}

INSTANTIATE_TEST_SUITE_P(Lenses, Grouping, ::testing::Values(Lens::Fisheye, Lens::Perspective),
                         [](const auto& p) {
                             return p.param == Lens::Fisheye ? "Fisheye" : "Perspective";
                         });

struct ViewCase {
    Lens lens;
    double rollDeg, pitchDeg;
};

class VerticalEstimation : public ::testing::TestWithParam<ViewCase> {};

// A room's upright, level-across and receding edges seen from a rolled and
// pitched camera: the vertical comes back as the camera sees it, the
// upright edges are Vertical, the level ones across the view Horizontal
// (asked for), the receding ones Unfixed.
TEST_P(VerticalEstimation, UprightEdgesAgreeOnTheCamerasVertical) {
    const ViewCase c = GetParam();
    const auto photo = Photo(c.lens);
    const Eigen::Matrix3d toScene = CameraToScene(c.rollDeg, c.pitchDeg);
    struct Truth {
        SceneLine line;
        SuggestedKind kind;
    };
    std::vector<Truth> truth;
    for (const double x : {-2.6, -1.1, 0.7, 2.2})
        truth.push_back({{{x, -1.4, 4.5}, {x, 1.3, 4.5}}, SuggestedKind::Vertical});
    for (const double x : {-3.0, 3.0})
        truth.push_back({{{x, -1.4, 2.2}, {x, 1.3, 2.2}}, SuggestedKind::Vertical});
    for (const double y : {-1.4, 1.3}) {
        truth.push_back({{{-3.0, y, 4.5}, {3.0, y, 4.5}}, SuggestedKind::Horizontal});
        for (const double x : {-3.0, 3.0})
            truth.push_back({{{x, y, 0.8}, {x, y, 4.5}}, SuggestedKind::Unfixed});
    }
    std::vector<ImageSegment> segments;
    for (const Truth& t : truth) {
        const auto chords = Chords(*photo, toScene, t.line);
        segments.insert(segments.end(), chords.begin(), chords.end());
    }
    SuggestOptions options;
    options.horizontals = true;
    options.maxLines = 50;
    const LineSuggestion found = SuggestFromSegments(segments, *photo, options, 80);

    ASSERT_TRUE(found.vertical);
    const Eigen::Vector3d expected = toScene.transpose() * Eigen::Vector3d::UnitY();
    const Eigen::Vector3d got((*found.vertical)[0], (*found.vertical)[1], (*found.vertical)[2]);
    EXPECT_LT(std::acos(std::clamp(got.dot(expected), -1.0, 1.0)) / kDeg, 0.05);

    // Each suggestion is matched to the scene line whose plane it lies in.
    ASSERT_GE(found.lines.size(), truth.size() - 2);
    for (const SuggestedLine& line : found.lines) {
        const Eigen::Vector3d n(line.normal[0], line.normal[1], line.normal[2]);
        const Truth* match = nullptr;
        for (const Truth& t : truth) {
            const Eigen::Vector3d tn =
                (toScene.transpose() * t.line.a).cross(toScene.transpose() * t.line.b).normalized();
            if (n.cross(tn).norm() < 0.002)
                match = &t;
        }
        ASSERT_NE(match, nullptr) << "a line no scene edge makes";
        EXPECT_EQ(line.kind, match->kind);
    }

    options.verticalsOnly = true;
    const LineSuggestion upright = SuggestFromSegments(segments, *photo, options, 80);
    EXPECT_EQ(upright.lines.size(),
              static_cast<size_t>(std::count_if(
                  found.lines.begin(), found.lines.end(),
                  [](const SuggestedLine& l) { return l.kind == SuggestedKind::Vertical; })));
    EXPECT_GE(upright.lines.size(), 4u);
    for (const SuggestedLine& line : upright.lines)
        EXPECT_EQ(line.kind, SuggestedKind::Vertical);
}

INSTANTIATE_TEST_SUITE_P(Views, VerticalEstimation,
                         ::testing::Values(ViewCase{Lens::Fisheye, 0, 0},
                                           ViewCase{Lens::Fisheye, 9, 25},
                                           ViewCase{Lens::Perspective, -6, -20},
                                           ViewCase{Lens::Perspective, 12, 8}));

// Nothing to go on: a noise picture gives no line, and two upright edges
// alone give no vertical (they are kept, Unfixed).
TEST(SuggestLines, GuessesNothingWithoutEvidence) {
    constexpr int32_t w = 2400, h = 1600;
    std::vector<uint8_t> pixels(static_cast<size_t>(w) * h);
    std::mt19937 random(7);
    std::uniform_int_distribution<int> value(0, 255);
    for (uint8_t& p : pixels)
        p = static_cast<uint8_t>(value(random));
    const auto photo = Photo(Lens::Perspective, w, h, 1500.0f);
    const LineSuggestion noise = SuggestLines({w, h, pixels.data(), w}, *photo, {});
    EXPECT_TRUE(noise.lines.empty());
    EXPECT_FALSE(noise.vertical);

    std::vector<ImageSegment> segments;
    for (const double x : {-1.0, 1.0}) {
        const auto chords =
            Chords(*photo, Eigen::Matrix3d::Identity(), SceneLine{{x, -1.4, 4.5}, {x, 1.3, 4.5}});
        segments.insert(segments.end(), chords.begin(), chords.end());
    }
    const LineSuggestion two = SuggestFromSegments(segments, *photo, {}, 80);
    EXPECT_EQ(two.lines.size(), 2u);
    EXPECT_FALSE(two.vertical);
    for (const SuggestedLine& line : two.lines)
        EXPECT_EQ(line.kind, SuggestedKind::Unfixed);
}

}  // namespace
}  // namespace Project
