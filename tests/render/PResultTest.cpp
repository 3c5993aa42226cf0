// Golden tests of the renderer on lavapipe: GPU renders against the CPU
// reference render of the same triangles (RenderTestSupport.h), every image
// mode, tiles, source windows, progress and abort, and the preview variant.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <vector>

#include "RenderTestSupport.h"
#include "geometry/Projections.h"
#include "render/PResult.h"
#include "warp/ClosedFormWarp.h"
#include "warp/OctaMap.h"

namespace Project {
namespace {

using Testing::CompareImages;
using Testing::CompareWithReference;
using Testing::DistortedGridMesh;
using Testing::MakeTestDevice;
using Testing::RenderReference;
using Testing::SyntheticImage;

// A fisheye photograph of width x height seen through the stereographic
// closed form on the default mesh (level 6, N = 129): the warp and photo
// objects the session builds, with the default 15 mm focal length.
struct FisheyeScene {
    std::shared_ptr<SourceRaster> raster;
    std::shared_ptr<FisheyeImage> photo;
    std::shared_ptr<OctaMap> mesh;
    std::shared_ptr<StereographicClosedForm> warp;

    FisheyeScene(int32_t width, int32_t height, int32_t level = 6) {
        raster = std::make_shared<SourceRaster>(width, height);
        const float f = static_cast<float>(std::max(width, height)) * 15.0f / 36.0f;
        photo = std::make_shared<FisheyeImage>(raster, f, width * 0.5f, height * 0.5f);
        mesh = std::make_shared<OctaMap>(level, false);
        warp = std::make_shared<StereographicClosedForm>(mesh, photo);
    }

    std::shared_ptr<const RenderMesh> Mesh() const {
        return std::make_shared<const RenderMesh>(
            BuildRenderMesh(*warp, MeshTextureCoordinates(*mesh, *photo)));
    }
};

// A renderer for `config` drawing `mesh`.
std::unique_ptr<PResult> Renderer(const std::shared_ptr<Gpu::GpuDevice>& device,
                                  const PResult::Config& config,
                                  std::shared_ptr<const RenderMesh> mesh) {
    auto made = PResult::Create(device, config);
    EXPECT_TRUE(made) << (made ? "" : made.error().message);
    if (!made)
        return nullptr;
    made.value()->SetMesh(std::move(mesh));
    return std::move(made.value());
}

struct Rendered {
    MemoryImage image;
    std::shared_ptr<const RenderPlan> plan;
    RenderStatistics statistics;
    SourceMode mode = SourceMode::Whole;
};

// A planar image passed to the renderer as a host with interleaved pixels
// passes it: both ways at once, pixels columnBytes apart.
class InterleavedHost final : public RenderSource, public RenderSink {
public:
    InterleavedHost(MemoryImage& source, MemoryImage& result) : source_(source), result_(result) {}
    bool ReadWindow(const PixelRect&, std::span<void* const>, ptrdiff_t) override {
        ADD_FAILURE() << "planes read from a source that offers pixels";
        return false;
    }
    bool WriteTile(const PixelRect&, std::span<const void* const>, ptrdiff_t) override {
        ADD_FAILURE() << "planes written to a sink that takes pixels";
        return false;
    }
    bool OffersPixels() const override { return true; }
    bool TakesPixels() const override { return true; }
    bool ReadPixels(const PixelRect& rect, void* pixels, ptrdiff_t columnBytes,
                    ptrdiff_t rowBytes) override {
        Each(rect, columnBytes, rowBytes, [&](int32_t p, int32_t x, int32_t y, size_t at) {
            const uint32_t v = source_.At(p, x, y);
            std::memcpy(static_cast<uint8_t*>(pixels) + at, &v, Bytes());  // little-endian
        });
        return true;
    }
    bool WritePixels(const PixelRect& rect, const void* pixels, ptrdiff_t columnBytes,
                     ptrdiff_t rowBytes) override {
        Each(rect, columnBytes, rowBytes, [&](int32_t p, int32_t x, int32_t y, size_t at) {
            uint32_t v = 0;
            std::memcpy(&v, static_cast<const uint8_t*>(pixels) + at, Bytes());
            result_.Set(p, x, y, v);
        });
        return true;
    }

private:
    size_t Bytes() const { return static_cast<size_t>(source_.Format().BytesPerValue()); }
    template <class F>
    void Each(const PixelRect& rect, ptrdiff_t columnBytes, ptrdiff_t rowBytes, F&& f) const {
        for (int32_t y = rect.top; y < rect.bottom; ++y)
            for (int32_t x = rect.left; x < rect.right; ++x)
                for (int32_t p = 0; p < source_.Format().planes; ++p)
                    f(p, x, y,
                      static_cast<size_t>((y - rect.top) * rowBytes +
                                          (x - rect.left) * columnBytes) +
                          static_cast<size_t>(p) * Bytes());
    }
    MemoryImage& source_;
    MemoryImage& result_;
};

Rendered RenderWithPResult(const std::shared_ptr<Gpu::GpuDevice>& device, MemoryImage& source,
                           std::shared_ptr<const RenderMesh> mesh, ViewFraming framing = {},
                           RenderOptions options = {}, bool interleaved = false) {
    options.framing = framing;
    const auto made = Renderer(device, {source.Width(), source.Height(), source.Format(), options},
                               std::move(mesh));
    if (!made)
        return {};
    PResult& renderer = *made;
    Rendered out{MemoryImage(source.Width(), source.Height(), source.Format()),
                 renderer.Plan(),
                 {},
                 renderer.Mode()};
    InterleavedHost host(source, out.image);
    const RenderStatus status =
        interleaved ? renderer.Render(host, host) : renderer.Render(source, out.image);
    EXPECT_TRUE(status.ok()) << status.message;
    out.statistics = renderer.Statistics();
    return out;
}

void ExpectMatchesReference(const Rendered& rendered, const MemoryImage& source, int64_t tolerance,
                            double minimumCoveredShare) {
    const auto reference = RenderReference(*rendered.plan, source);
    const auto comparison = CompareWithReference(rendered.image, reference, tolerance);
    const double pixels = static_cast<double>(rendered.image.Width()) * rendered.image.Height();
    EXPECT_GE(comparison.compared, minimumCoveredShare * pixels);
    EXPECT_GE(comparison.Share(), 0.999)
        << comparison.withinTolerance << " of " << comparison.compared
        << " within tolerance, largest difference " << comparison.maxDifference;
    EXPECT_EQ(comparison.strictUncovered, 0);
    EXPECT_EQ(comparison.spuriousCovered, 0);
    testing::Test::RecordProperty("compared", std::to_string(comparison.compared));
    testing::Test::RecordProperty("maxDifference", std::to_string(comparison.maxDifference));
}

// Every test renders on the lavapipe device.
class OnLavapipe : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(device); }
    std::shared_ptr<Gpu::GpuDevice> device = MakeTestDevice();
};

// Every image mode through the same fisheye scene.
class PResultGolden : public OnLavapipe, public ::testing::WithParamInterface<PixelFormat> {};

TEST_P(PResultGolden, FisheyeThroughStereographicMatchesTheReference) {
    FisheyeScene scene(320, 240);
    MemoryImage source = SyntheticImage(320, 240, GetParam(), 7);
    const Rendered rendered = RenderWithPResult(device, source, scene.Mesh());
    EXPECT_EQ(rendered.mode, SourceMode::Whole);
    ExpectMatchesReference(rendered, source, 1, 0.5);
    // The same picture to the last value through a host that passes pixels
    // interleaved, and through staging memory rather than a texture the
    // host writes in place; from the whole texture and from windows (the
    // last column repeated into a larger texture).
    for (uint32_t limit : {0u, 128u}) {
        auto mapped = MakeTestDevice(limit);
        auto staged = MakeTestDevice(limit, nullptr, false);
        ASSERT_TRUE(mapped && staged);
        const Rendered first = RenderWithPResult(mapped, source, scene.Mesh());
        EXPECT_EQ(first.mode, limit == 0 ? SourceMode::Whole : SourceMode::Windows);
        for (const auto& [gpu, interleaved] :
             {std::pair{mapped, true}, std::pair{staged, false}, std::pair{staged, true}}) {
            const Rendered other =
                RenderWithPResult(gpu, source, scene.Mesh(), {}, {}, interleaved);
            EXPECT_EQ(CompareImages(first.image, other.image).differing, 0)
                << "limit " << limit << (gpu == mapped ? " mapped" : " staged")
                << (interleaved ? " interleaved" : " planes");
        }
    }
}

// Grey, RGB and Lab (three planes like RGB), CMYK; 8 and 16 bits.
INSTANTIATE_TEST_SUITE_P(Modes, PResultGolden,
                         ::testing::Values(PixelFormat{1, 8}, PixelFormat{1, 16}, PixelFormat{3, 8},
                                           PixelFormat{3, 16}, PixelFormat{4, 8},
                                           PixelFormat{4, 16}),
                         [](const ::testing::TestParamInfo<PixelFormat>& p) {
                             return "Planes" + std::to_string(p.param.planes) + "Depth" +
                                    std::to_string(p.param.depth);
                         });

TEST_F(OnLavapipe, TwoTileColumnsAt1025By1024) {
    FisheyeScene scene(1025, 1024, 5);
    MemoryImage source = SyntheticImage(1025, 1024, {1, 8}, 5);
    // Scale 200: the picture fills the frame, so both columns are covered.
    const Rendered rendered = RenderWithPResult(device, source, scene.Mesh(), {200, 0.5f, 0.5f});
    ASSERT_TRUE(rendered.plan);
    EXPECT_EQ(rendered.plan->TileColumns(), 2);
    EXPECT_EQ(rendered.plan->TileRows(), 1);
    ASSERT_EQ(rendered.image.Writes().size(), 2u);
    EXPECT_EQ(rendered.image.Writes()[1], (PixelRect{1024, 0, 1025, 1024}));
    ExpectMatchesReference(rendered, source, 1, 0.9);
}

// Identity warp, scale 100: every output pixel samples its own texel centre,
// so the values come back exactly (including the 16-bit round trip).
TEST_F(OnLavapipe, IdentityWarpReproducesTheSource) {
    for (PixelFormat format : {PixelFormat{3, 8}, PixelFormat{4, 16}}) {
        MemoryImage source = SyntheticImage(256, 128, format, 11);
        // Extreme values survive too.
        source.Set(0, 0, 0, format.depth > 8 ? 32768 : 255);
        source.Set(0, 1, 0, format.depth > 8 ? 32767 : 254);
        auto mesh = std::make_shared<const RenderMesh>(DistortedGridMesh(9, 256, 128, 0.0f));
        const Rendered rendered = RenderWithPResult(device, source, mesh, {100, 0.5f, 0.5f});
        const auto difference = CompareImages(rendered.image, source);
        EXPECT_EQ(difference.differing, 0) << "largest difference " << difference.maxDifference;
    }
}

// An image wider than lavapipe's 16384-texel limit: rendered through source
// windows, compared with the CPU reference.
TEST_F(OnLavapipe, WiderThanTheLargestTexture) {
    const int32_t width = static_cast<int32_t>(device->MaxTextureDimension()) + 616;
    const int32_t height = 96;
    MemoryImage source = SyntheticImage(width, height, {1, 8}, 13);
    auto mesh = std::make_shared<const RenderMesh>(DistortedGridMesh(65, width, height, 0.002f));
    const Rendered rendered = RenderWithPResult(device, source, mesh, {100, 0.5f, 0.5f});
    EXPECT_EQ(rendered.mode, SourceMode::Windows);
    EXPECT_GT(rendered.statistics.sourceUploads, 16u);
    // Windows are small: a tile and the quads reaching beyond it, never
    // the whole width.
    for (const PixelRect& read : source.Reads())
        EXPECT_LE(read.Width(), 1600);
    ExpectMatchesReference(rendered, source, 1, 0.95);
}

// The same image through a forced small texture limit (windows, several
// groups per tile, cut triangles) equals the image rendered whole.
TEST_F(OnLavapipe, SmallTextureLimitEqualsWholeRender) {
    // Two tile columns; windows of at most 512 (several per tile) and 200
    // texels (the coarse mesh's quads are cut to fit).
    MemoryImage source = SyntheticImage(1400, 900, {3, 8}, 17);
    auto fine = std::make_shared<const RenderMesh>(DistortedGridMesh(33, 1400, 900, 0.03f));
    auto coarse = std::make_shared<const RenderMesh>(DistortedGridMesh(6, 1400, 900, 0.03f));
    for (const auto& [limit, mesh] : {std::pair{512u, fine}, std::pair{200u, coarse}}) {
        const Rendered reference = RenderWithPResult(device, source, mesh, {110, 0.4f, 0.6f});
        ASSERT_EQ(reference.mode, SourceMode::Whole);
        auto small = MakeTestDevice(limit);
        ASSERT_TRUE(small);
        source.ClearReads();
        const Rendered windowed = RenderWithPResult(small, source, mesh, {110, 0.4f, 0.6f});
        EXPECT_EQ(windowed.mode, SourceMode::Windows);
        for (const PixelRect& read : source.Reads()) {
            EXPECT_LE(read.Width(), static_cast<int32_t>(limit));
            EXPECT_LE(read.Height(), static_cast<int32_t>(limit));
        }
        EXPECT_GT(windowed.statistics.draws, windowed.statistics.tilesDrawn);
        if (limit == 200u) {
            EXPECT_GT(windowed.statistics.splitTriangles, 0u);
        }
        const auto difference = CompareImages(reference.image, windowed.image);
        const double values = 3.0 * 1400 * 900;
        EXPECT_LE(difference.maxDifference, 1);
        EXPECT_LE(difference.differing, 0.001 * values)
            << difference.differing << " values differ (limit " << limit << ")";
        testing::Test::RecordProperty("differing_" + std::to_string(limit),
                                      std::to_string(difference.differing));
    }
}

// The photo's own edge inside the picture (a fisheye through the
// stereographic form at scale 100 shows all four sides): windows too small
// for a tile draw every quad that shows any of the photo, so the edge is where
// the photo ends, as in the whole render, not a row of missing triangles.
TEST_F(OnLavapipe, ThePhotosEdgeIsDrawnLikeTheWholeRender) {
    auto small = MakeTestDevice(256);
    ASSERT_TRUE(small);
    FisheyeScene scene(1500, 1000);
    MemoryImage source = SyntheticImage(1500, 1000, {3, 8}, 41);
    const Rendered reference = RenderWithPResult(device, source, scene.Mesh(), {100, 0.5f, 0.5f});
    const Rendered windowed = RenderWithPResult(small, source, scene.Mesh(), {100, 0.5f, 0.5f});
    ASSERT_EQ(reference.mode, SourceMode::Whole);
    ASSERT_EQ(windowed.mode, SourceMode::Windows);
    // Per column, the last covered row of the picture's bottom edge and the
    // first of its top edge: the same in both renders, and a smooth curve.
    auto covered = [](const MemoryImage& m, int32_t x, int32_t y) {
        return m.At(0, x, y) + m.At(1, x, y) + m.At(2, x, y) > 0;
    };
    int32_t worstStep = 0, worstMismatch = 0, columns = 0;
    int32_t previousBottom = -1;
    for (int32_t x = 0; x < 1500; ++x) {
        int32_t top = -1, bottom = -1, wTop = -1, wBottom = -1;
        for (int32_t y = 0; y < 1000; ++y) {
            if (covered(reference.image, x, y))
                top = top < 0 ? y : top, bottom = y;
            if (covered(windowed.image, x, y))
                wTop = wTop < 0 ? y : wTop, wBottom = y;
        }
        if (top < 0) {
            previousBottom = -1;
            continue;
        }
        ++columns;
        worstMismatch = std::max({worstMismatch, std::abs(top - wTop), std::abs(bottom - wBottom)});
        // The middle half, away from the corners where the edge turns.
        if (previousBottom >= 0 && x > 375 && x < 1125)
            worstStep = std::max(worstStep, std::abs(wBottom - previousBottom));
        previousBottom = wBottom;
    }
    EXPECT_GT(columns, 1000);
    EXPECT_LE(worstMismatch, 1);
    EXPECT_LE(worstStep, 3);
    const auto difference = CompareImages(reference.image, windowed.image);
    EXPECT_LE(difference.differing, 0.001 * 3 * 1500 * 1000)
        << "largest difference " << difference.maxDifference;
}

// A memory budget smaller than the whole source also selects windows. A
// tile's window holds what its own pixels sample, not the whole quads that
// reach into it: with quads of about 400 texels, the uploads add up to little
// more than the source.
TEST_F(OnLavapipe, MemoryBudgetSelectsWindows) {
    MemoryImage source = SyntheticImage(1200, 900, {1, 16}, 19);
    auto mesh = std::make_shared<const RenderMesh>(DistortedGridMesh(17, 1200, 900, 0.02f));
    RenderOptions options;
    options.sourceTextureBudget = 600 * 600 * 8;
    const Rendered windowed = RenderWithPResult(device, source, mesh, {}, options);
    EXPECT_EQ(windowed.mode, SourceMode::Windows);
    ExpectMatchesReference(windowed, source, 1, 0.9);

    MemoryImage wide = SyntheticImage(2100, 1100, {3, 8}, 37);
    auto coarse = std::make_shared<const RenderMesh>(DistortedGridMesh(5, 2100, 1100, 0.02f));
    const Rendered whole = RenderWithPResult(device, wide, coarse, {});
    options.sourceTextureBudget = 1400 * 1400 * 4;
    const Rendered tiles = RenderWithPResult(device, wide, coarse, {}, options);
    EXPECT_EQ(tiles.mode, SourceMode::Windows);
    EXPECT_LT(tiles.statistics.uploadedTexels, 2100u * 1100u * 5 / 4);
    const auto difference = CompareImages(whole.image, tiles.image);
    EXPECT_LE(difference.maxDifference, 1);
    EXPECT_LE(difference.differing, 0.001 * 3 * 2100 * 1100);
}

TEST_F(OnLavapipe, ReportsProgressAndStopsWhenAborted) {
    MemoryImage source = SyntheticImage(2100, 1100, {1, 8}, 23);
    auto mesh = std::make_shared<const RenderMesh>(DistortedGridMesh(9, 2100, 1100, 0.0f));
    const auto made = Renderer(device, {2100, 1100, {1, 8}, {}}, mesh);
    ASSERT_TRUE(made);
    PResult& renderer = *made;
    EXPECT_EQ(renderer.Plan()->TileCount(), 6);

    std::vector<std::pair<int64_t, int64_t>> reports;
    MemoryImage all(2100, 1100, {1, 8});
    RenderControl control;
    control.progress = [&](int64_t done, int64_t total) { reports.emplace_back(done, total); };
    ASSERT_TRUE(renderer.Render(source, all, control).ok());
    ASSERT_EQ(reports.size(), 6u);
    for (size_t k = 0; k < reports.size(); ++k)
        EXPECT_EQ(reports[k], (std::pair<int64_t, int64_t>(static_cast<int64_t>(k) + 1, 6)));

    MemoryImage partial(2100, 1100, {1, 8});
    int32_t polls = 0;
    control.progress = {};
    control.abortRequested = [&] { return ++polls > 2; };  // after the first tile
    const RenderStatus status = renderer.Render(source, partial, control);
    EXPECT_EQ(status.code, RenderCode::Cancelled);
    EXPECT_EQ(partial.Writes().size(), 1u);
}

TEST_F(OnLavapipe, RenderTileProducesTheTileHoldingTheRequest) {
    MemoryImage source = SyntheticImage(2100, 1100, {3, 8}, 29);
    auto mesh = std::make_shared<const RenderMesh>(DistortedGridMesh(9, 2100, 1100, 0.01f));
    const auto made = Renderer(device, {2100, 1100, {3, 8}, {}}, mesh);
    ASSERT_TRUE(made);
    PResult& renderer = *made;
    MemoryImage whole(2100, 1100, {3, 8});
    ASSERT_TRUE(renderer.Render(source, whole).ok());
    MemoryImage single(2100, 1100, {3, 8});
    ASSERT_TRUE(renderer.RenderTile({1500, 1030, 1600, 1090}, source, single).ok());
    ASSERT_EQ(single.Writes().size(), 1u);
    EXPECT_EQ(single.Writes()[0], (PixelRect{1024, 1024, 2048, 1100}));
    for (int32_t y = 1024; y < 1100; y += 7) {
        for (int32_t x = 1024; x < 2048; x += 13)
            ASSERT_EQ(single.At(1, x, y), whole.At(1, x, y));
    }
    EXPECT_EQ(renderer.RenderTile({2100, 0, 2101, 1}, source, single).code,
              RenderCode::InvalidArgument);
}

TEST_F(OnLavapipe, EmptyBucketsAreNeitherDrawnNorWritten) {
    MemoryImage source = SyntheticImage(2048, 1024, {1, 8}, 31);
    auto mesh = std::make_shared<RenderMesh>(DistortedGridMesh(9, 1024, 1024, 0.0f));
    auto made = PResult::Create(device, {2048, 1024, {1, 8}, {}});
    ASSERT_TRUE(made);
    PResult& renderer = *made.value();
    // The square mesh at the left of a 2:1 frame, at 90 % so that the
    // margin of its right-most quads stays short of the second column.
    renderer.SetFraming({90, 0.0f, 0.5f});
    renderer.SetMesh(mesh);
    MemoryImage out(2048, 1024, {1, 8});
    ASSERT_TRUE(renderer.Render(source, out).ok());
    EXPECT_TRUE(renderer.Plan()->Bucket(1, 0).empty());
    ASSERT_EQ(out.Writes().size(), 1u);
    EXPECT_EQ(out.Writes()[0], (PixelRect{0, 0, 1024, 1024}));
}

TEST_F(OnLavapipe, SourceFailureIsReported) {
    class FailingSource final : public RenderSource {
    public:
        bool ReadWindow(const PixelRect&, std::span<void* const>, ptrdiff_t) override {
            return false;
        }
    } failing;
    const auto made =
        Renderer(device, {300, 200, {3, 8}, {}},
                 std::make_shared<const RenderMesh>(DistortedGridMesh(5, 300, 200, 0.0f)));
    ASSERT_TRUE(made);
    MemoryImage out(300, 200, {3, 8});
    EXPECT_EQ(made->Render(failing, out).code, RenderCode::SourceFailed);
}

TEST_F(OnLavapipe, RendersThePreviewAtTheRequestedSize) {
    FisheyeScene scene(640, 480);
    MemoryImage source = SyntheticImage(640, 480, {3, 8}, 37);
    auto made = PResultScaled::Create(device, {200, 150, 640, 480, {3, 8}, {}});
    ASSERT_TRUE(made);
    PResultScaled& preview = *made.value();
    preview.SetMesh(scene.Mesh());
    MemoryImage out;
    ASSERT_TRUE(preview.Render(source, out).ok());
    EXPECT_EQ(out.Width(), 200);
    EXPECT_EQ(out.Height(), 150);
    const auto reference = RenderReference(*preview.Plan(), source);
    const auto comparison = CompareWithReference(out, reference, 1);
    EXPECT_GE(comparison.Share(), 0.999);
    EXPECT_GT(comparison.compared, 200 * 150 / 2);
    EXPECT_EQ(comparison.strictUncovered, 0);
}

}  // namespace
}  // namespace Project
