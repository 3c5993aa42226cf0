#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <numbers>
#include <random>
#include <string>

#include "ConstraintTestSupport.h"
#include "constraints/Constraint.h"
#include "constraints/ConstraintSet.h"
#include "constraints/GeodesicLines.h"
#include "geometry/Projections.h"
#include "warp/ClosedFormWarp.h"
#include "warp/OctaMap.h"

namespace Project {
namespace {

double AngleBetween(SphereDirection a, SphereDirection b) {
    const Vec3d u = PhotoFrameVector(a), v = PhotoFrameVector(b);
    return std::atan2(Norm(Cross(u, v)), Dot(u, v));
}

std::shared_ptr<const SourceRaster> Raster(int32_t w, int32_t h) {
    return std::make_shared<const SourceRaster>(w, h);
}

::testing::AssertionResult Near(PointF got, PointF want, float tolerance) {
    if (std::fabs(got.x - want.x) <= tolerance && std::fabs(got.y - want.y) <= tolerance)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "(" << got.x << ", " << got.y << ") is not within "
                                         << tolerance << " of (" << want.x << ", " << want.y << ")";
}

std::unique_ptr<PlaneConstraint> Polygon(int32_t id, std::initializer_list<PointF> corners,
                                         std::initializer_list<int32_t> codes = {}) {
    auto plane = std::make_unique<PlaneConstraint>();
    plane->SetId(id);
    auto code = codes.begin();
    for (const PointF& p : corners)
        plane->AddVertex(p, code != codes.end() ? *code++ : 1);
    return plane;
}

// A 6000 x 4000 fisheye of 1500 pixels' focal length on a mesh of the given
// level, optionally seen through the stereographic closed form.
struct Fisheye {
    explicit Fisheye(int32_t level, bool warped = false, float focal = 1500.0f)
        : photo(std::make_shared<FisheyeImage>(Raster(6000, 4000), focal, 3000.0f, 2000.0f)),
          mesh(std::make_shared<const OctaMap>(level, false)),
          lines(photo, mesh) {
        if (warped)
            lines.SetWarp(std::make_shared<StereographicClosedForm>(mesh, photo));
    }
    std::shared_ptr<FisheyeImage> photo;
    std::shared_ptr<const OctaMap> mesh;
    GeodesicLines lines;
};

struct ModelCase {
    std::string name;
    std::shared_ptr<PhotoToSphere> photo;
    PointF first, second;  // source pixels
};

const ModelCase kModels[] = {
    {"Fisheye",
     std::make_shared<FisheyeImage>(Raster(6000, 4000), 1800.0f, 3000.0f, 2000.0f),
     {900.0f, 1000.0f},
     {5200.0f, 1300.0f}},
    {"Perspective",
     std::make_shared<PerspectiveImage>(Raster(6000, 4000), 3500.0f, 3100.0f, 1950.0f),
     {200.0f, 3800.0f},
     {5900.0f, 300.0f}},
    {"Cylindrical",
     std::make_shared<CylindricalImage>(Raster(12000, 3000), 1900.0f, 6000.0f, 1400.0f),
     {500.0f, 600.0f},
     {11000.0f, 900.0f}},
    {"Spherical",
     std::make_shared<SphericalImage>(Raster(8000, 4000), 4000.0f / 3.1415927f, 4000.0f, 2000.0f),
     {300.0f, 1500.0f},
     {7700.0f, 1200.0f}},
    {"KestrixFisheye",
     std::make_shared<KestrixFisheye>(Raster(6000, 4000), 1750.0f, 1760.0f, -0.03f, 0.002f, 12.0f,
                                      -8.0f),
     {1100.0f, 900.0f},
     {4800.0f, 3200.0f}},
    {"KestrixPerspective",
     std::make_shared<KestrixPerspective>(Raster(6000, 4000), 4200.0f, 4190.0f, -0.08f, 0.02f, 0.0f,
                                          0.0005f, -0.0003f, 15.0f, 6.0f),
     {400.0f, 500.0f},
     {5600.0f, 3500.0f}},
};

class FitEveryModel : public ::testing::TestWithParam<ModelCase> {};

TEST_P(FitEveryModel, ArcPassesThroughBothEndpoints) {
    const ModelCase& m = GetParam();
    auto mesh = std::make_shared<const OctaMap>(6, false);
    GeodesicLines lines(m.photo, mesh);
    const GeodesicLine arc = lines.FitArc(m.first, m.second);
    ASSERT_TRUE(arc.fitted);
    ASSERT_GE(arc.samples.size(), 3u);

    // The endpoints, projected back, land on the drawn pixels.
    const PhotoToSphere& photo = *lines.Photo();
    const SphereDirection a = arc.samples.front().direction;
    const SphereDirection b = arc.samples.back().direction;
    const PointF pa = lines.ToSourcePixel(photo.ToImagePoint(a.lambda, a.phi));
    const PointF pb = lines.ToSourcePixel(photo.ToImagePoint(b.lambda, b.phi));
    EXPECT_TRUE(Near(pa, m.first, 0.01f));
    EXPECT_TRUE(Near(pb, m.second, 0.01f));

    // Every sample lies on one great circle that holds both endpoints, and
    // consecutive samples are at most the spacing apart.
    double total = 0.0;
    for (size_t k = 0; k < arc.samples.size(); ++k) {
        EXPECT_NEAR(Dot(arc.circleNormal, PhotoFrameVector(arc.samples[k].direction)), 0.0, 2e-6)
            << k;
        EXPECT_TRUE(arc.samples[k].Located()) << k;
        const double step =
            k ? AngleBetween(arc.samples[k - 1].direction, arc.samples[k].direction) : 0.0;
        EXPECT_LE(step, lines.SampleSpacing() * 1.001) << k;
        total += step;
    }
    EXPECT_NEAR(total, arc.arcAngle, 1e-5);
}

INSTANTIATE_TEST_SUITE_P(Models, FitEveryModel, ::testing::ValuesIn(kModels),
                         [](const ::testing::TestParamInfo<ModelCase>& p) { return p.param.name; });

TEST(GeodesicLines, ImagePointsCountFromTheFlooredCentre) {
    // An odd-sized raster: the centre pixel is (floor(w/2), floor(h/2)).
    auto photo = std::make_shared<PerspectiveImage>(Raster(4001, 3001), 1000.0f, 2000.5f, 1500.5f);
    GeodesicLines lines(photo, std::make_shared<const OctaMap>(3, false));
    const ImagePoint p = lines.ToImagePoint({2000.0f, 1500.0f});
    EXPECT_EQ(p.x, 0.0f);
    EXPECT_EQ(p.y, 0.0f);
    SphereDirection d;
    ASSERT_TRUE(lines.SourceToSphere({2000.0f, 1500.0f}, d));
    EXPECT_NEAR(d.lambda, 0.0f, 1e-7f);
    EXPECT_NEAR(d.phi, 0.0f, 1e-7f);
}

TEST(GeodesicLines, PanoramaLineLongerThanHalfATurnTakesTheDrawnSide) {
    // On an equirectangular photo, a line drawn across 220 degrees of longitude
    // through the front must not take the short way round through the back.
    auto photo = std::make_shared<SphericalImage>(Raster(8000, 4000), 4000.0f / 3.1415927f, 4000.0f,
                                                  2000.0f);
    GeodesicLines lines(photo, std::make_shared<const OctaMap>(5, false));
    const float perRadian = 4000.0f / 3.1415927f;
    const PointF a{4000.0f - 1.92f * perRadian, 2000.0f - 0.2f * perRadian};
    const PointF b{4000.0f + 1.92f * perRadian, 2000.0f - 0.2f * perRadian};
    const GeodesicLine arc = lines.FitArc(a, b);
    ASSERT_TRUE(arc.fitted);
    EXPECT_GT(arc.arcAngle, std::numbers::pi);
    const SphereDirection middle = arc.samples[arc.samples.size() / 2].direction;
    EXPECT_LT(std::fabs(middle.lambda), 0.1f);
}

TEST(GeodesicLines, LinesAndPlanesThatCannotBeFittedAreRefused) {
    Fisheye fish(4, false, 1000.0f);
    GeodesicLines& lines = fish.lines;
    EXPECT_FALSE(lines.FitArc({100.0f, 100.0f}, {100.0f, 100.0f}).fitted);
    // A corner of the frame lies beyond the fisheye's image circle.
    EXPECT_FALSE(lines.FitArc({5.0f, 5.0f}, {3000.0f, 2000.0f}).fitted);
    EXPECT_FALSE(lines.FitArc({NAN, 5.0f}, {3000.0f, 2000.0f}).fitted);

    GeodesicLines none(nullptr, std::make_shared<const OctaMap>(4, false));
    EXPECT_FALSE(none.FitArc({0.0f, 0.0f}, {10.0f, 10.0f}).fitted);

    // A polygon of two corners.
    EXPECT_FALSE(lines.SetUpPlane(*Polygon(1, {{100.0f, 100.0f}, {200.0f, 100.0f}})));
    EXPECT_FALSE(lines.FindPlane(1)->valid);
    // A corner beyond the image circle.
    auto outside = Polygon(2, {{3000.0f, 2000.0f}, {3100.0f, 2000.0f}, {5.0f, 5.0f}});
    EXPECT_FALSE(lines.SetUpPlane(*outside));
    // Valid, but too small to hold four mesh vertices.
    auto tiny = Polygon(3, {{3000.0f, 2000.0f}, {3004.0f, 2000.0f}, {3004.0f, 2004.0f}});
    EXPECT_TRUE(lines.SetUpPlane(*tiny));
    EXPECT_FALSE(lines.FindPlane(3)->active);
    EXPECT_EQ(tiny->Refresh(lines), 1);
    EXPECT_EQ(outside->Refresh(lines), 0);
}

TEST(GeodesicLines, RecordsKeyedByIdentifierWithOrientationNormals) {
    auto photo = std::make_shared<PerspectiveImage>(Raster(4000, 3000), 2500.0f, 2000.0f, 1500.0f);
    GeodesicLines lines(photo, std::make_shared<const OctaMap>(5, false));
    ConstraintSet set;
    testing::FillSample(set);
    lines.FitAll(set);
    ASSERT_EQ(lines.Lines().size(), 4u);
    EXPECT_EQ(lines.ActiveLineCount(), 4);

    const double pi = std::numbers::pi;
    const GeodesicLine* unfixed = lines.FindLine(set.At(0)->GetId());
    const GeodesicLine* horizontal = lines.FindLine(set.At(1)->GetId());
    const GeodesicLine* vertical = lines.FindLine(set.At(2)->GetId());
    const GeodesicLine* arbitrary = lines.FindLine(set.At(3)->GetId());
    ASSERT_TRUE(unfixed && horizontal && vertical && arbitrary);
    EXPECT_FALSE(unfixed->HasFixedNormal());
    EXPECT_DOUBLE_EQ(horizontal->fixedNormal, pi / 2.0);
    EXPECT_DOUBLE_EQ(vertical->fixedNormal, 0.0);
    EXPECT_NEAR(arbitrary->fixedNormal, -33.25 * pi / 180.0 + pi / 2.0, 1e-12);
    EXPECT_EQ(lines.FindLine(12345), nullptr);

    // Re-fitting replaces the entry in place.
    auto& line = static_cast<LineConstraint&>(*set.At(0));
    line.SetSecond({2000.0f, 2500.0f});
    ASSERT_TRUE(lines.FitLine(line));
    EXPECT_EQ(lines.Lines().size(), 4u);
    EXPECT_EQ(lines.FindLine(line.GetId())->second, (PointF{2000.0f, 2500.0f}));

    // Polygon edges form the second list: one per vertex, active when marked.
    EXPECT_EQ(lines.EdgeLines().size(), 7u);
    const auto edges = lines.FindEdges(set.At(4)->GetId());
    ASSERT_EQ(edges.size(), 4u);
    EXPECT_FALSE(edges[0]->active);  // code 1
    EXPECT_TRUE(edges[1]->active);   // code 2
    EXPECT_DOUBLE_EQ(edges[1]->fixedNormal, pi / 2.0);
    EXPECT_TRUE(edges[2]->active);  // code 3
    EXPECT_DOUBLE_EQ(edges[2]->fixedNormal, 0.0);
    // Edge 1 runs from vertex 0 to vertex 1.
    const auto& quad = static_cast<const PlaneConstraint&>(*set.At(4));
    EXPECT_EQ(edges[1]->first, (PointF{quad.Vertex(0).x, quad.Vertex(0).y}));
    EXPECT_EQ(edges[1]->second, (PointF{quad.Vertex(1).x, quad.Vertex(1).y}));
    EXPECT_EQ(lines.ActiveEdgeCount(), 4);  // 3 in the quad, 1 in the triangle

    lines.Remove(set.At(4)->GetId());
    EXPECT_EQ(lines.EdgeLines().size(), 3u);
    EXPECT_EQ(lines.FindPlane(set.At(4)->GetId()), nullptr);
    lines.Clear();
    EXPECT_TRUE(lines.Lines().empty());
}

TEST(GeodesicLines, PlaneSamplesAreTheMeshVerticesInside) {
    auto photo = std::make_shared<PerspectiveImage>(Raster(4000, 3000), 2000.0f, 2000.0f, 1500.0f);
    auto mesh = std::make_shared<const OctaMap>(6, false);
    GeodesicLines lines(photo, mesh);
    auto plane =
        Polygon(4, {{1000.0f, 700.0f}, {3000.0f, 800.0f}, {2900.0f, 2300.0f}, {1100.0f, 2200.0f}});
    ASSERT_TRUE(lines.SetUpPlane(*plane));
    const GeodesicPlane* p = lines.FindPlane(4);
    ASSERT_NE(p, nullptr);
    EXPECT_TRUE(p->valid);
    EXPECT_TRUE(p->active);
    EXPECT_GT(p->samples.size(), 100u);

    // Each sample is a mesh vertex whose direction falls inside the drawn
    // quadrilateral, and its (u, v) are the gnomonic coordinates about the
    // mean direction.
    std::vector<PointF> outline;
    for (const PlaneVertex& v : plane->Vertices())
        outline.push_back({v.x, v.y});
    for (const PlaneSample& s : p->samples) {
        const SphereDirection d = mesh->UnrotatedAngles(s.i, s.j);
        const PointF px = lines.ToSourcePixel(photo->ToImagePoint(d.lambda, d.phi));
        EXPECT_GE(detail::PointInPolygon(px, outline), 0) << s.i << "," << s.j;
        const Vec3d v = PhotoFrameVector(d);
        const double vm = Dot(v, p->mean);
        EXPECT_NEAR(s.u, Dot(v, p->e1) / vm, 1e-5);
        EXPECT_NEAR(s.v, Dot(v, p->e2) / vm, 1e-5);
    }
    // And every mesh vertex inside (a margin away from the outline) is a
    // sample.
    size_t inside = 0;
    for (int32_t j = 0; j < mesh->Size(); ++j)
        for (int32_t i = 0; i < mesh->Size(); ++i) {
            const SphereDirection d = mesh->UnrotatedAngles(i, j);
            if (std::fabs(d.lambda) > 1.5f)
                continue;
            const PointF px = lines.ToSourcePixel(photo->ToImagePoint(d.lambda, d.phi));
            if (detail::PointInPolygon(px, outline) > 0)
                ++inside;
        }
    EXPECT_NEAR(static_cast<double>(p->samples.size()), static_cast<double>(inside), 2.0);
}

// --- Display through a warp.

TEST(GeodesicLines, LinesAndPolygonsAreDisplayedThroughAClosedFormWarp) {
    Fisheye fish(6, true);
    GeodesicLines& lines = fish.lines;
    // Output plane -> display pixels: 1000 pixels per unit, y flipped.
    const DisplaySpace space{true, Affine2D::ScaleOffset(1000.0, -1000.0, 3000.0, 2000.0)};
    auto stereo = [&](SphereDirection d) {
        // The closed form on the mesh's angles (OctaMap frame = photo angles).
        const double k = 2.0 / (1.0 + std::cos(d.phi) * std::cos(d.lambda));
        return PointF{
            static_cast<float>(3000.0 + 1000.0 * k * std::cos(d.phi) * std::sin(d.lambda)),
            static_cast<float>(2000.0 - 1000.0 * k * std::sin(d.phi))};
    };

    ConstraintSet set;
    set.Add(std::make_unique<LineConstraint>(1200.0f, 1500.0f, 4700.0f, 2600.0f,
                                             Orientation::Horizontal));
    auto& line = static_cast<LineConstraint&>(*set.At(0));
    ASSERT_TRUE(lines.FitLine(line));
    line.UpdateDisplay(lines, space);
    EXPECT_TRUE(line.HasValidEntry());

    SphereDirection d1, d2;
    ASSERT_TRUE(lines.SourceToSphere(line.First(), d1));
    ASSERT_TRUE(lines.SourceToSphere(line.Second(), d2));
    EXPECT_TRUE(Near(line.DisplayFirst(), stereo(d1), 1.0f));
    EXPECT_TRUE(Near(line.DisplaySecond(), stereo(d2), 1.0f));
    const GeodesicLine* entry = lines.FindLine(line.GetId());
    ASSERT_EQ(line.DisplaySamples().size(), entry->samples.size());
    for (size_t k = 0; k < entry->samples.size(); ++k)
        EXPECT_TRUE(Near(line.DisplaySamples()[k], stereo(entry->samples[k].direction), 1.0f)) << k;
    EXPECT_EQ(line.DisplaySamples().front(), line.DisplayFirst());

    // A point off the image circle keeps its previous display position.
    const PointF before = line.DisplayFirst();
    line.SetFirst({2.0f, 2.0f});
    line.UpdateDisplay(lines, space);
    EXPECT_EQ(line.DisplayFirst(), before);
    EXPECT_TRUE(line.DisplaySamples().empty());  // no arc without a direction

    // Unwarped: the samples come back to the source pixels of the arc.
    line.SetFirst({1200.0f, 1500.0f});
    line.UpdateDisplay(lines, DisplaySpace{false, Affine2D::Identity()});
    EXPECT_EQ(line.DisplayFirst(), line.First());
    EXPECT_NEAR(line.DisplaySamples().front().x, 1200.0f, 0.01f);
    EXPECT_NEAR(line.DisplaySamples().back().y, 2600.0f, 0.01f);

    // A polygon's display edges follow the arcs.
    auto plane =
        Polygon(11, {{2000.0f, 1200.0f}, {4000.0f, 1300.0f}, {3900.0f, 2800.0f}}, {1, 2, 3});
    ASSERT_TRUE(lines.SetUpPlane(*plane));
    const DisplaySpace polygonSpace{true, Affine2D::ScaleOffset(1000.0, -1000.0, 0.0, 0.0)};
    plane->UpdateDisplay(lines, polygonSpace);
    ASSERT_EQ(plane->DisplayVertices().size(), 3u);
    ASSERT_EQ(plane->DisplayEdges().size(), 3u);
    for (int32_t k = 0; k < 3; ++k) {
        const auto& edge = plane->DisplayEdges()[static_cast<size_t>(k)];
        ASSERT_GE(edge.size(), 2u);
        const PointF start =
            plane->DisplayVertices()[static_cast<size_t>(PlaneConstraint::EdgeStart(k, 3))];
        const PointF end = plane->DisplayVertices()[static_cast<size_t>(k)];
        EXPECT_TRUE(Near(edge.front(), start, 1e-3f)) << k;
        EXPECT_TRUE(Near(edge.back(), end, 1e-3f)) << k;
    }
    // The centroid of the display triangle is inside it in display space.
    PointF c{0.0f, 0.0f};
    for (const PointF& p : plane->DisplayVertices())
        c.x += p.x / 3.0f, c.y += p.y / 3.0f;
    EXPECT_TRUE(plane->HitTest(c, 0.001f, true));
    EXPECT_EQ(plane->Refresh(lines), 1);
}

TEST(GeodesicLines, SampleInterpolationNeedsAValidQuad) {
    Fisheye fish(5);
    GeodesicLines& lines = fish.lines;
    auto warp = std::make_shared<EquirectangularClosedForm>(fish.mesh, fish.photo);
    SphereSample front{{0.1f, 0.2f}, {}};
    float x = 0.0f, y = 0.0f;
    EXPECT_FALSE(front.Interpolate(*warp, x, y));  // not located
    front.quad = *lines.Locator().Locate(front.direction);
    ASSERT_TRUE(front.Interpolate(*warp, x, y));
    EXPECT_TRUE(Near({x, y}, {0.1f, 0.2f}, 2e-3f));
    // Behind the camera no corner sees the photo.
    SphereSample back{{3.0f, 0.0f}, {}};
    back.quad = *lines.Locator().Locate(back.direction);
    EXPECT_FALSE(back.Interpolate(*warp, x, y));
    EXPECT_FALSE(back.Interpolate(*warp, x, y, true));
}

TEST(GeodesicLines, DisplayBackToSource) {
    Fisheye fish(6);
    GeodesicLines& lines = fish.lines;
    const DisplaySpace space{true, Affine2D::ScaleOffset(800.0, -800.0, 2500.0, 1800.0)};
    PointF out;
    EXPECT_FALSE(lines.DisplayToSource({2500.0f, 1800.0f}, space, out));  // no warp yet
    lines.SetWarp(std::make_shared<StereographicClosedForm>(fish.mesh, fish.photo));

    std::mt19937 rng(3);
    std::uniform_real_distribution<float> x(1700.0f, 4300.0f), y(700.0f, 3300.0f);
    for (int k = 0; k < 300; ++k) {
        const PointF src{x(rng), y(rng)};
        PointF display, back;
        ASSERT_TRUE(lines.SourceToDisplay(src, space, display));
        ASSERT_TRUE(lines.DisplayToSource(display, space, back)) << src.x << "," << src.y;
        EXPECT_TRUE(Near(back, src, 0.5f));
        EXPECT_TRUE(lines.IsInValidArea(display, space));
    }
    // Far outside the warped picture.
    EXPECT_FALSE(lines.IsInValidArea({-100000.0f, 5.0f}, space));
    EXPECT_FALSE(lines.IsInValidArea({NAN, 5.0f}, space));

    // Unwarped: the transform's inverse alone.
    ASSERT_TRUE(lines.DisplayToSource(
        {30.0f, 50.0f}, DisplaySpace{false, Affine2D::ScaleOffset(2.0, 2.0, 10.0, 0.0)}, out));
    EXPECT_EQ(out, (PointF{10.0f, 25.0f}));
    EXPECT_FALSE(lines.IsInValidArea(
        {1.0f, 1.0f}, DisplaySpace{false, Affine2D::ScaleOffset(0.0, 1.0, 0.0, 0.0)}));
}

}  // namespace
}  // namespace Project
