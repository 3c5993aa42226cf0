// The CPU side of the renderer: framing, buckets, source-tile lists,
// triangulation, tile matrices and the 16-bit conversion. No GPU needed.

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

#include "RenderTestSupport.h"
#include "render/RenderMesh.h"
#include "render/RenderPlan.h"
#include "render/RenderTypes.h"

namespace Project {
namespace {

using Testing::DistortedGridMesh;
using Testing::FunctionWarp;

std::shared_ptr<const RenderMesh> Grid(int32_t n, int32_t width, int32_t height) {
    return std::make_shared<const RenderMesh>(DistortedGridMesh(n, width, height, 0.0f));
}

ViewFraming Fit() {
    return ViewFraming{100, 0.5f, 0.5f};
}

// A quad at index `first` of a grid of rows `stride` long, its corners
// (i, j), (i + 1, j), (i, j + 1), (i + 1, j + 1) as x, y pairs, and the six
// indices it must give.
struct QuadCase {
    const char* name;
    uint32_t first, stride;
    std::array<float, 8> corners;
    std::array<uint32_t, 6> expected;
};

class Triangulation : public ::testing::TestWithParam<QuadCase> {};

TEST_P(Triangulation, CutsAlongTheShorterDiagonal) {
    const QuadCase& c = GetParam();
    const float* p = c.corners.data();
    EXPECT_EQ(TriangulateQuad(c.first, c.stride, p, p + 2, p + 4, p + 6), c.expected);
}

// The anti-diagonal (i + 1, j) - (i, j + 1) when it is shorter, the main one
// otherwise and on a tie.
INSTANTIATE_TEST_SUITE_P(
    Quads, Triangulation,
    ::testing::Values(
        QuadCase{"Anti", 10, 5, {0, 0, 1, .1f, .1f, 1, 1.5f, 1.5f}, {10, 15, 11, 15, 16, 11}},
        QuadCase{"Main", 0, 3, {0, 0, 2, 0, -1, 1, 1, 1}, {0, 3, 4, 0, 1, 4}},
        QuadCase{"Tie", 7, 4, {0, 0, 1, 0, 0, 1, 1, 1}, {7, 11, 12, 7, 8, 12}}),
    [](const ::testing::TestParamInfo<QuadCase>& p) { return p.param.name; });

TEST(Conversion16, HostAndGpuScales) {
    EXPECT_EQ(GpuToHost16(65535), 32768);
    EXPECT_EQ(GpuToHost16(65534), 32767);
    EXPECT_EQ(GpuToHost16(1), 0);
    EXPECT_EQ(GpuToHost16(0), 0);
    EXPECT_EQ(HostToGpu16(32768), 65535);
    EXPECT_EQ(HostToGpu16(0), 0);
    for (uint32_t v = 0; v <= 32768; ++v)
        ASSERT_EQ(GpuToHost16(HostToGpu16(static_cast<uint16_t>(v))), v);
}

TEST(RenderPlan, TileGridOf1025By1024HasTwoColumnsAndOneRow) {
    const RenderPlan plan(Grid(9, 1025, 1024), 1025, 1024, 1025, 1024, Fit());
    EXPECT_EQ(plan.TileColumns(), 2);
    EXPECT_EQ(plan.TileRows(), 1);
    EXPECT_EQ(plan.TileRect(1, 0), (PixelRect{1024, 0, 1025, 1024}));
    // The last column of pixels is one quad column's worth: only the
    // rightmost quads (and the margin) reach it.
    EXPECT_FALSE(plan.Bucket(1, 0).empty());
    for (int32_t quad : plan.Bucket(1, 0))
        EXPECT_EQ(quad % 8, 7);
    EXPECT_EQ(static_cast<int32_t>(plan.Bucket(0, 0).size()), 64);
}

TEST(RenderPlan, FitAtScale100HoldsTheExtentCentredOnTheOtherAxis) {
    // A square extent into a 2:1 output: the height fits, the width is centred.
    auto mesh = std::make_shared<RenderMesh>(DistortedGridMesh(5, 1, 1, 0.0f));
    const RenderPlan plan(mesh, 2000, 1000, 2000, 1000, Fit());
    const MeshExtent& e = plan.Extent();
    EXPECT_FLOAT_EQ(e.minX, 0.0f);
    EXPECT_FLOAT_EQ(e.maxX, 1.0f);
    EXPECT_FLOAT_EQ(e.minY, -1.0f);
    EXPECT_FLOAT_EQ(e.maxY, 0.0f);
    const ViewFrame& f = plan.Frame();
    EXPECT_FLOAT_EQ(f.height, 1.0f);
    EXPECT_FLOAT_EQ(f.width, 2.0f);
    EXPECT_FLOAT_EQ(f.top, 0.0f);
    EXPECT_FLOAT_EQ(f.left, -0.5f);
    // The extent's corners land on the output's edges.
    double px = 0.0, py = 0.0;
    plan.PlaneToPixel(0.0, 0.0, px, py);
    EXPECT_NEAR(px, 500.0, 1e-6);
    EXPECT_NEAR(py, 0.0, 1e-6);
    plan.PlaneToPixel(1.0, -1.0, px, py);
    EXPECT_NEAR(px, 1500.0, 1e-6);
    EXPECT_NEAR(py, 1000.0, 1e-6);
}

TEST(RenderPlan, ScaleMagnifiesAndOffsetsMoveTheFrame) {
    auto mesh = std::make_shared<RenderMesh>(DistortedGridMesh(5, 1, 1, 0.0f));
    const MeshExtent extent = ComputeMeshExtent(*mesh);
    const ViewFrame centred = FitViewFrame(extent, 100, 100, ViewFraming{200, 0.5f, 0.5f});
    EXPECT_FLOAT_EQ(centred.width, 0.5f);
    EXPECT_FLOAT_EQ(centred.height, 0.5f);
    EXPECT_FLOAT_EQ(centred.left, 0.25f);
    EXPECT_FLOAT_EQ(centred.top, -0.25f);
    const ViewFrame topLeft = FitViewFrame(extent, 100, 100, ViewFraming{200, 0.0f, 0.0f});
    EXPECT_FLOAT_EQ(topLeft.left, 0.0f);
    EXPECT_FLOAT_EQ(topLeft.top, 0.0f);
    const ViewFrame bottomRight = FitViewFrame(extent, 100, 100, ViewFraming{200, 1.0f, 1.0f});
    EXPECT_FLOAT_EQ(bottomRight.left, 0.5f);
    EXPECT_FLOAT_EQ(bottomRight.top, -0.5f);
    // The default scale, 120 %, shows 1 / 1.2 of the fit.
    const ViewFrame standard = FitViewFrame(extent, 100, 100, ViewFraming{});
    EXPECT_NEAR(standard.width, 1.0 / 1.2, 1e-6);
}

// A window of the picture (the preview's zoom and scroll) shows the picture's
// pixels moved by the window's corner and magnified by output / window size.
TEST(RenderPlan, AWindowShowsThePictureMovedAndMagnified) {
    auto mesh = std::make_shared<RenderMesh>(DistortedGridMesh(9, 3000, 1700, 0.02f));
    const ViewFraming framing{110, 0.4f, 0.6f};
    const RenderPlan whole(mesh, 3000, 1700, 3000, 1700, framing);
    const PictureWindow window{3000, 1700, 812.5, 433.25, 600.0, 400.0};
    const RenderPlan part(mesh, 1500, 1000, 3000, 1700, framing, window);
    for (const auto& [x, y] : {std::pair{0.3, -0.4}, {0.55, -0.2}, {0.1, -0.05}}) {
        double wx = 0.0, wy = 0.0, px = 0.0, py = 0.0;
        whole.PlaneToPixel(x, y, wx, wy);
        part.PlaneToPixel(x, y, px, py);
        EXPECT_NEAR(px, (wx - 812.5) * 2.5, 0.05);
        EXPECT_NEAR(py, (wy - 433.25) * 2.5, 0.05);
    }
}

TEST(RenderPlan, TileMatrixAgreesWithPlaneToPixel) {
    auto mesh = std::make_shared<RenderMesh>(DistortedGridMesh(9, 3000, 1700, 0.02f));
    for (const auto& size : {std::pair{3000, 1700}, std::pair{1700, 3000}}) {
        const RenderPlan plan(mesh, size.first, size.second, 3000, 1700, ViewFraming{});
        for (int32_t row = 0; row < plan.TileRows(); ++row) {
            for (int32_t column = 0; column < plan.TileColumns(); ++column) {
                const auto m = plan.TileMatrix(column, row);
                for (const auto& point : {std::pair{0.3, -0.2}, std::pair{1.7, -0.9}}) {
                    const double ndcX = m[0] * point.first + m[1] * point.second + m[3];
                    const double ndcY = m[4] * point.first + m[5] * point.second + m[7];
                    double px = 0.0, py = 0.0;
                    plan.PlaneToPixel(point.first, point.second, px, py);
                    EXPECT_NEAR((ndcX + 1.0) * 512.0 + 1024.0 * column, px, 2e-3);
                    EXPECT_NEAR((ndcY + 1.0) * 512.0 + 1024.0 * row, py, 2e-3);
                }
            }
        }
    }
}

TEST(RenderPlan, QuadLeftOfTheFrameStillLandsInColumnZero) {
    // Two quads: one inside, one far to the left of a frame magnified onto
    // the first.
    FunctionWarp warp(3,
                      [](int32_t i, int32_t j, float& x, float& y) {
                          // Quads (0, j) lie far to the left, between x = -50 and -49.
                          x = i == 0 ? -50.0f : (i == 1 ? -49.0f : 2.0f);
                          y = static_cast<float>(j);  // the render plane turns it to -j
                      },
                      {});
    auto mesh = std::make_shared<RenderMesh>(
        BuildRenderMesh(warp, [](int32_t i, int32_t j, float& u, float& v) {
            u = static_cast<float>(i) / 2.0f;
            v = static_cast<float>(j) / 2.0f;
        }));
    // Extent 52 x 2; at 5200 % the frame is 1 x 1, pushed to the right edge:
    // x in [1, 2], at 2048 x 2048 (2 x 2 tiles).
    const RenderPlan plan(mesh, 2048, 2048, 2048, 2048, ViewFraming{5200, 1.0f, 0.0f});
    ASSERT_NEAR(plan.Frame().left, 1.0f, 1e-5);
    bool found = false;
    for (int32_t quad : plan.Bucket(0, 0)) {
        found = found || quad == 0;  // quad (0, 0): its box lies left of the frame
    }
    EXPECT_TRUE(found);
}

TEST(RenderPlan, SourceTileListsFollowTheTextureBoxes) {
    // 2 x 2 quads over a 2500 x 1500 source: texture boxes split at s = 0.5.
    auto mesh = std::make_shared<RenderMesh>(DistortedGridMesh(3, 2500, 1500, 0.0f));
    const RenderPlan plan(mesh, 2500, 1500, 2500, 1500, Fit());
    EXPECT_EQ(plan.SourceTileColumns(), 3);
    EXPECT_EQ(plan.SourceTileRows(), 2);
    // Quad (0, 0): u in [0, 0.5] -> pixels 0 ... 1250: tiles 0 and 1;
    // v in [0, 0.5] -> rows 0 ... 750: tile row 0.
    const auto tiles = plan.SourceTiles(mesh->QuadIndex(0, 0));
    ASSERT_EQ(tiles.size(), 2u);
    EXPECT_EQ(tiles[0], (SourceTile{0, 0}));
    EXPECT_EQ(tiles[1], (SourceTile{1, 0}));
    // Quad (1, 1): u in [0.5, 1] -> tiles 1, 2; v in [0.5, 1] -> rows 750 ... 1500: 0 and 1.
    const auto lower = plan.SourceTiles(mesh->QuadIndex(1, 1));
    EXPECT_EQ(lower.size(), 4u);
}

TEST(RenderPlan, VertexRectangleHoldsEveryValidQuad) {
    FunctionWarp warp(
        9,
        [](int32_t i, int32_t j, float& x, float& y) {
            x = i * 0.1f;
            y = -j * 0.1f;
        },
        [](int32_t i, int32_t j) { return i >= 2 && i <= 6 && j >= 3 && j <= 8; });
    auto mesh = std::make_shared<RenderMesh>(
        BuildRenderMesh(warp, [](int32_t i, int32_t j, float& u, float& v) {
            u = i / 8.0f;
            v = j / 8.0f;
        }));
    EXPECT_EQ(mesh->ValidQuadCount(), 4 * 5);
    const RenderPlan plan(mesh, 100, 100, 100, 100, Fit());
    const VertexRect& rect = plan.Vertices();
    EXPECT_EQ(rect.c0, 2);
    EXPECT_EQ(rect.c1, 6);
    EXPECT_EQ(rect.r0, 3);
    EXPECT_EQ(rect.r1, 8);
    EXPECT_EQ(plan.GpuIndex(2, 3), 0u);
    EXPECT_EQ(plan.GpuIndex(3, 4), 6u);
    EXPECT_EQ(plan.RectangleVertices().size(), 30u);
    // Indices of every bucket stay inside the rectangle.
    for (uint32_t index : plan.TileIndices(0, 0))
        EXPECT_LT(index, 30u);
    EXPECT_EQ(plan.TileIndices(0, 0).size(), 6u * 20u);
}

// A flat 2 : 1 grid whose texture coordinates run 0 ... 1 across it, shown
// only within a content box: the plane region u in [0.1, 0.9], v in
// [0.25, 0.75] is x in [0.2, 1.8], y in [-0.75, -0.25] (the plane's y up).
std::shared_ptr<const RenderMesh> BoxedGrid(TextureBox content) {
    auto mesh = std::make_shared<RenderMesh>();
    const int32_t n = 11;
    mesh->n = n;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            mesh->positions.insert(mesh->positions.end(), {0.2f * i, -0.1f * j});
            mesh->texcoords.insert(mesh->texcoords.end(), {0.1f * i, 0.1f * j});
        }
    }
    mesh->quadValid.assign(static_cast<size_t>((n - 1) * (n - 1)), 1);
    mesh->content = content;
    return mesh;
}

TEST(RenderPlan, TrianglesAreClippedToTheContentExactly) {
    const auto mesh = BoxedGrid({0.1f, 0.25f, 0.9f, 0.75f});
    const MeshExtent extent = ComputeMeshExtent(*mesh);
    EXPECT_NEAR(extent.minX, 0.2f, 1e-6f);
    EXPECT_NEAR(extent.maxX, 1.8f, 1e-6f);
    EXPECT_NEAR(extent.minY, -0.75f, 1e-6f);
    EXPECT_NEAR(extent.maxY, -0.25f, 1e-6f);
    // Every clipped corner keeps its affine texture coordinate, and the
    // pieces cover the box's area exactly (1.6 x 0.5).
    const RenderPlan plan(mesh, 400, 100, 400, 100, Fit());
    double area = 0.0;
    for (int32_t quad = 0; quad < 100; ++quad) {
        std::vector<PlanVertex> t;
        plan.AppendQuadTriangles(quad, t);
        for (size_t k = 0; k < t.size(); k += 3) {
            area += 0.5 * std::abs((t[k + 1].x - t[k].x) * (t[k + 2].y - t[k].y) -
                                   (t[k + 2].x - t[k].x) * (t[k + 1].y - t[k].y));
        }
        for (const PlanVertex& p : t) {
            EXPECT_NEAR(p.u, p.x / 2.0f, 1e-6f);
            EXPECT_NEAR(p.v, -p.y, 1e-6f);
        }
    }
    EXPECT_NEAR(area, 0.8, 1e-6);
    // Quads wholly beside the box draw nothing and are in no bucket.
    EXPECT_TRUE(plan.Bucket(0, 0).size() < 100u);
}

struct CropCase {
    const char* name;
    float offsetY;
    float top;  // of the expected 1.6 x 0.4 frame
};

class CropToContentCases : public ::testing::TestWithParam<CropCase> {};

// A 4 : 1 output over a 1.6 x 0.5 content: the largest 4 : 1 frame is the
// content's full width, 0.4 high, placed by the offsets within the 0.1 of
// travel; the scale plays no part.
TEST_P(CropToContentCases, FramesTheLargestRectangleWithoutEmptyPixels) {
    const auto mesh = BoxedGrid({0.1f, 0.25f, 0.9f, 0.75f});
    const RenderPlan plan(mesh, 400, 100, 400, 100, {250, 0.5f, GetParam().offsetY, true});
    const ViewFrame& f = plan.Frame();
    constexpr float kCell = 1.6f / 400;
    EXPECT_NEAR(f.width, 1.6f, 2 * kCell);
    EXPECT_NEAR(f.height, 0.4f, kCell);
    EXPECT_GE(f.left, 0.2f);
    EXPECT_LE(f.left + f.width, 1.8f);
    EXPECT_LE(f.top, -0.25f);
    EXPECT_GE(f.top - f.height, -0.75f);
    EXPECT_NEAR(f.top, GetParam().top, 2 * kCell);
}

INSTANTIATE_TEST_SUITE_P(Offsets, CropToContentCases,
                         ::testing::Values(CropCase{"Centred", 0.5f, -0.30f},
                                           CropCase{"Top", 0.0f, -0.25f},
                                           CropCase{"Bottom", 1.0f, -0.35f}),
                         [](const ::testing::TestParamInfo<CropCase>& p) { return p.param.name; });

TEST(RenderPlan, CropToContentOfAnEmptyMeshFallsBackToTheFit) {
    const auto mesh = BoxedGrid({2.0f, 2.0f, 3.0f, 3.0f});  // beside every quad
    EXPECT_FALSE(CropToContent(*mesh, 400, 100, {}).has_value());
}

TEST(RenderMesh, UnsolvedWarpDrawsNothing) {
    class Unsolved final : public SphereWarp {
    public:
        bool IsVertexValid(int32_t, int32_t) const override { return true; }
        bool IsQuadValid(int32_t, int32_t) const override { return true; }
        void GetVertexPosition(int32_t, int32_t, float& x, float& y) const override {
            x = y = 0.0f;
        }
        void Solve() override {}
        bool IsSolved() const override { return false; }
        int32_t MeshSize() const override { return 5; }
    } warp;
    const RenderMesh mesh = BuildRenderMesh(warp, [](int32_t, int32_t, float&, float&) {});
    EXPECT_EQ(mesh.n, 5);
    EXPECT_EQ(mesh.ValidQuadCount(), 0);
}

}  // namespace
}  // namespace Project
