#include <gtest/gtest.h>

#include <cmath>
#include <memory>

#include "constraints/Constraint.h"
#include "constraints/ConstraintSet.h"
#include "constraints/GeodesicLines.h"
#include "geometry/Projections.h"
#include "warp/OctaMap.h"

namespace Project {
namespace {

std::unique_ptr<PlaneConstraint> Polygon(std::initializer_list<PointF> corners) {
    auto p = std::make_unique<PlaneConstraint>();
    for (const PointF& c : corners)
        p->AddVertex(c);
    return p;
}

std::unique_ptr<PlaneConstraint> Square(float x0, float y0, float size) {
    return Polygon({{x0, y0}, {x0 + size, y0}, {x0 + size, y0 + size}, {x0, y0 + size}});
}

// The rectangle's sides, each grown by the 7-unit margin.
void ExpectGrown(const ViewRect& r, double left, double top, double right, double bottom) {
    EXPECT_DOUBLE_EQ(r.left, left - 7.0);
    EXPECT_DOUBLE_EQ(r.top, top - 7.0);
    EXPECT_DOUBLE_EQ(r.right, right + 7.0);
    EXPECT_DOUBLE_EQ(r.bottom, bottom + 7.0);
}

// A straight line of a pinhole photo is a great circle, so its unwarped
// display polyline follows the drawn segment.
struct PerspectiveScene {
    std::shared_ptr<const OctaMap> mesh = std::make_shared<OctaMap>(5, false);
    std::shared_ptr<PhotoToSphere> photo = std::make_shared<PerspectiveImage>(
        std::make_shared<SourceRaster>(4000, 3000), 2000.0f, 2000.0f, 1500.0f);
    GeodesicLines lines{photo, mesh};
};

TEST(ConstraintModel, IdentifierIsMinusOneUntilAddedAndCloneKeepsIt) {
    auto line = std::make_unique<LineConstraint>(1.0f, 2.0f, 3.0f, 4.0f);
    EXPECT_EQ(line->GetId(), -1);
    auto plane = Square(0.0f, 0.0f, 10.0f);
    EXPECT_EQ(plane->GetId(), -1);

    ConstraintSet set;
    const int32_t a = set.Add(std::move(line));
    const int32_t b = set.Add(std::move(plane));
    EXPECT_GE(a, 0);
    EXPECT_NE(a, b);
    EXPECT_EQ(set.At(0)->GetId(), a);

    auto clone = set.At(0)->Clone();
    EXPECT_EQ(clone->GetId(), a);
    EXPECT_NE(AsLine(*clone), nullptr);
    EXPECT_EQ(AsPlane(*clone), nullptr);
    auto planeClone = set.At(1)->Clone();
    EXPECT_EQ(planeClone->GetId(), b);
    EXPECT_EQ(static_cast<PlaneConstraint&>(*planeClone).VertexCount(), 4);
}

TEST(ConstraintModel, LineCloneCarriesDisplayEndpointsButNoSamples) {
    PerspectiveScene scene;
    LineConstraint line(500.0f, 600.0f, 3000.0f, 900.0f, Orientation::Arbitrary, 17.5f);
    line.SetId(7);
    line.UpdateDisplay(scene.lines, DisplaySpace{false, Affine2D::Identity()});
    ASSERT_GT(line.DisplaySamples().size(), 1u);

    auto clone = line.CloneLine();
    EXPECT_EQ(clone->GetId(), 7);
    EXPECT_TRUE(clone->DisplaySamples().empty());
    EXPECT_EQ(clone->DisplayFirst(), line.DisplayFirst());
    EXPECT_EQ(clone->DisplaySecond(), line.DisplaySecond());
    EXPECT_EQ(clone->First(), line.First());
    EXPECT_EQ(clone->Second(), line.Second());
    float angle = 0.0f;
    EXPECT_EQ(clone->GetOrientation(angle), Orientation::Arbitrary);
    EXPECT_EQ(angle, 17.5f);
    // The angle is kept under another orientation.
    clone->SetOrientation(Orientation::Horizontal);
    EXPECT_EQ(clone->GetOrientation(angle), Orientation::Horizontal);
    EXPECT_EQ(angle, 17.5f);
}

TEST(ConstraintModel, PlaneCloneKeepsVerticesAndFlagButNoDisplayLists) {
    PerspectiveScene scene;
    auto plane = Square(1000.0f, 1000.0f, 500.0f);
    plane->SetId(3);
    plane->SetEdgeCode(2, 3);
    plane->SetFlag(0);
    plane->UpdateDisplay(scene.lines, DisplaySpace{});
    ASSERT_EQ(plane->DisplayVertices().size(), 4u);
    auto clone = plane->ClonePlane();
    EXPECT_EQ(clone->GetId(), 3);
    EXPECT_EQ(clone->Vertices(), plane->Vertices());
    EXPECT_EQ(clone->PayloadSize(), 8u + 12u * 4u);
    EXPECT_EQ(clone->Flag(), 0);
    EXPECT_TRUE(clone->DisplayVertices().empty());
    EXPECT_TRUE(clone->DisplayEdges().empty());
}

// --- Hit tests.

TEST(LineHitTest, WithoutEntryTestsEndpointsThenMiddleWithSquareTolerance) {
    LineConstraint line(100.0f, 100.0f, 200.0f, 140.0f);
    const float t = 3.0f;
    EXPECT_EQ(line.HitPart({103.0f, 97.0f}, t, false), LinePart::FirstEnd);  // corner of the square
    EXPECT_EQ(line.HitPart({103.01f, 100.0f}, t, false), LinePart::None);
    EXPECT_EQ(line.HitPart({198.0f, 143.0f}, t, false), LinePart::SecondEnd);
    EXPECT_EQ(line.HitPart({152.0f, 121.0f}, t, false), LinePart::MiddleHandle);
    // No body hit without a usable entry.
    EXPECT_EQ(line.HitPart({125.0f, 110.0f}, t, false), LinePart::None);
    EXPECT_FALSE(line.HitTest({125.0f, 110.0f}, t, false));
    EXPECT_TRUE(line.HitTest({100.0f, 100.0f}, t, false));
}

TEST(LineHitTest, DisplaySpaceUsesDisplayEndpoints) {
    LineConstraint line(100.0f, 100.0f, 200.0f, 140.0f);
    line.SetDisplayEndpoints({10.0f, 10.0f}, {50.0f, 10.0f});
    EXPECT_EQ(line.HitPart({11.0f, 9.0f}, 2.0f, true), LinePart::FirstEnd);
    EXPECT_EQ(line.HitPart({11.0f, 9.0f}, 2.0f, false), LinePart::None);
    EXPECT_EQ(line.HitPart({30.0f, 10.0f}, 2.0f, true), LinePart::MiddleHandle);
}

TEST(LineHitTest, WithEntryWalksTheDisplayPolyline) {
    PerspectiveScene scene;
    ConstraintSet set;
    set.Add(std::make_unique<LineConstraint>(1000.0f, 1000.0f, 3000.0f, 1000.0f));
    auto& line = static_cast<LineConstraint&>(*set.At(0));
    ASSERT_TRUE(scene.lines.FitLine(line));
    line.UpdateDisplay(scene.lines, DisplaySpace{false, Affine2D::Identity()});
    ASSERT_TRUE(line.HasValidEntry());
    ASSERT_GT(line.DisplaySamples().size(), 2u);

    const float t = 2.0f;
    EXPECT_EQ(line.HitPart({1001.5f, 998.5f}, t, true), LinePart::FirstEnd);
    EXPECT_EQ(line.HitPart({2999.0f, 1002.0f}, t, true), LinePart::SecondEnd);
    // The body: within t (a circle here) of the polyline, anywhere along it.
    EXPECT_EQ(line.HitPart({1700.0f, 1001.9f}, t, true), LinePart::Body);
    EXPECT_EQ(line.HitPart({1700.0f, 1002.1f}, t, true), LinePart::None);
    // The middle handle only when shown; the body otherwise.
    EXPECT_EQ(line.HitPart({2000.0f, 1001.0f}, t, true), LinePart::Body);
    line.SetShowsMiddleHandle(true);
    EXPECT_EQ(line.HitPart({2000.0f, 1001.0f}, t, true), LinePart::MiddleHandle);
    const PointF mid = line.MiddleHandle(true);
    EXPECT_NEAR(mid.x, 2000.0f, 0.05f);
    EXPECT_NEAR(mid.y, 1000.0f, 0.05f);
}

TEST(PlaneHitTest, VertexSquareAndInside) {
    auto p = Square(100.0f, 100.0f, 50.0f);
    const float t = 1.5f;
    // Exactly the tolerance away in both axes: hit (a square, not a circle).
    EXPECT_TRUE(p->HitTest({98.5f, 98.5f}, t, false));
    EXPECT_FALSE(p->HitTest({98.4f, 98.5f}, t, false));
    // Inside, far from the corners.
    EXPECT_TRUE(p->HitTest({125.0f, 125.0f}, t, false));
    EXPECT_EQ(p->InsideTest({125.0f, 125.0f}, false), 1);
    EXPECT_EQ(p->InsideTest({100.0f, 120.0f}, false), 0);
    EXPECT_EQ(p->InsideTest({160.0f, 125.0f}, false), -1);
    EXPECT_FALSE(p->HitTest({160.0f, 125.0f}, t, false));
}

TEST(PlaneHitTest, ConcavePolygonAndEdges) {
    const auto p = Polygon({{0, 0}, {20, 0}, {20, 10}, {10, 10}, {10, 20}, {0, 20}});  // an L
    EXPECT_EQ(p->InsideTest({5, 15}, false), 1);
    EXPECT_EQ(p->InsideTest({15, 15}, false), -1);
    // Edge 1 runs from vertex 0 to vertex 1 (the top side).
    EXPECT_EQ(p->HitEdge({10, 1}, 1.5f, false), 1);
    // Edge 0 closes the polygon from vertex 5 to vertex 0.
    EXPECT_EQ(p->HitEdge({-1, 10}, 1.5f, false), 0);
    EXPECT_EQ(p->HitEdge({5, 5}, 1.5f, false), -1);
}

TEST(PlaneHitTest, DisplaySpaceFollowsDisplayGeometry) {
    PerspectiveScene scene;
    auto p = Square(1000.0f, 1000.0f, 400.0f);
    // The display is the source scaled by a half.
    p->UpdateDisplay(scene.lines, DisplaySpace{false, Affine2D::ScaleOffset(0.5, 0.5, 0.0, 0.0)});
    EXPECT_TRUE(p->HitTest({500.0f, 500.0f}, 1.0f, true));
    EXPECT_TRUE(p->HitTest({600.0f, 600.0f}, 1.0f, true));
    EXPECT_FALSE(p->HitTest({800.0f, 800.0f}, 1.0f, true));
    EXPECT_TRUE(p->HitTest({1200.0f, 1200.0f}, 1.0f, false));
}

// --- Bounding rectangles.

TEST(BoundingRect, LineOrdersEachAxisByAbsoluteValue) {
    LineConstraint line(10.0f, 20.0f, -30.0f, 5.0f);
    // x: |10| < |-30|, so 10 is the "minimum" and -30 the "maximum".
    ExpectGrown(line.BoundingRect(false, Affine2D::Identity()), 10.0, 5.0, -30.0, 20.0);

    line.SetDisplayEndpoints({1.0f, 2.0f}, {3.0f, 4.0f});
    ExpectGrown(line.BoundingRect(true, Affine2D::ScaleOffset(2.0, 2.0, 100.0, 0.0)), 102.0, 4.0,
                106.0, 8.0);
}

TEST(BoundingRect, PolygonRunningExtremesOnAbsoluteValues) {
    const auto p = Polygon({{10.0f, 20.0f}, {-30.0f, 5.0f}, {15.0f, -40.0f}});
    ExpectGrown(p->BoundingRect(false, Affine2D::Identity()), 10.0, 5.0, -30.0, -40.0);

    // No vertices: the start values themselves, grown.
    const ViewRect e = PlaneConstraint().BoundingRect(false, Affine2D::Identity());
    EXPECT_DOUBLE_EQ(e.left, 3.4028234663852886e38 - 7.0);
    EXPECT_DOUBLE_EQ(e.right, 1.1754943508222875e-38 + 7.0);

    // A vertex at 0 never becomes the maximum, whose start is positive.
    const ViewRect zr = Polygon({{0.0f, 0.0f}})->BoundingRect(false, Affine2D::Identity());
    EXPECT_DOUBLE_EQ(zr.left, -7.0);
    EXPECT_DOUBLE_EQ(zr.right, 1.1754943508222875e-38 + 7.0);
}

// --- The constraint set.

TEST(ConstraintSet, AddKeepsFreeIdentifiersAndReplacesTakenOnes) {
    ConstraintSet set;
    const int32_t a = set.Add(std::make_unique<LineConstraint>());
    auto copy = set.At(0)->Clone();  // same id as a: taken
    const int32_t b = set.Add(std::move(copy));
    EXPECT_NE(a, b);
    auto removed = set.Remove(a);
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(set.Find(a), nullptr);
    // Undo re-adds the copy with its identifier.
    EXPECT_EQ(set.Add(std::move(removed)), a);
    EXPECT_EQ(set.At(1)->GetId(), a);
    // A fresh constraint never reuses an identifier.
    const int32_t c = set.Add(std::make_unique<LineConstraint>());
    EXPECT_NE(c, a);
    EXPECT_NE(c, b);
    EXPECT_EQ(set.Size(), 3u);
    EXPECT_EQ(set.PayloadBytes(), 3u * 28u);
}

TEST(ConstraintSet, SelectionByIdentifiers) {
    ConstraintSet set;
    const int32_t a = set.Add(std::make_unique<LineConstraint>());
    const int32_t b = set.Add(std::make_unique<LineConstraint>());
    const int32_t c = set.Add(std::make_unique<LineConstraint>());
    set.SetSelection({c, b});
    // The first constraint of the list whose id is selected.
    EXPECT_EQ(set.Selected()->GetId(), b);
    set.Remove(b);
    set.RepairSelection();
    EXPECT_EQ(set.Selection(), std::vector<int32_t>{c});
    set.SetSelection({b, 999});
    set.RepairSelection();  // none left: unchanged
    EXPECT_EQ(set.Selection(), (std::vector<int32_t>{b, 999}));
    EXPECT_EQ(set.Selected(), nullptr);
    set.Select(a);
    set.AddToSelection(c);
    set.AddToSelection(c);
    EXPECT_EQ(set.Selection(), (std::vector<int32_t>{a, c}));
    set.Deselect(a);
    EXPECT_TRUE(set.IsSelected(c));
    EXPECT_FALSE(set.IsSelected(a));
}

TEST(ConstraintSet, HitTestReturnsTopmost) {
    ConstraintSet set;
    const int32_t below = set.Add(Square(0.0f, 0.0f, 100.0f));
    const int32_t above = set.Add(Square(50.0f, 50.0f, 100.0f));
    EXPECT_EQ(set.HitTest({75.0f, 75.0f}, 1.0f, false)->GetId(), above);
    EXPECT_EQ(set.HitTest({25.0f, 25.0f}, 1.0f, false)->GetId(), below);
    EXPECT_EQ(set.HitTest({500.0f, 500.0f}, 1.0f, false), nullptr);
}

}  // namespace
}  // namespace Project
