// The live preview engine on the sample room: its images against a direct
// reduced render, newest-wins under a burst, view changes without a solve,
// and the display source read from the host.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <mutex>
#include <optional>

#include "FakeHost.h"
#include "RenderTestSupport.h"
#include "constraints/Constraint.h"
#include "geometry/CameraMetadata.h"
#include "geometry/ProjectionFactory.h"
#include "render/PResult.h"
#include "samplegen/SampleScene.h"
#include "session/HostRecord.h"
#include "session/PPreview.h"

namespace Project {
namespace {

constexpr int32_t kWidth = 480;
constexpr int32_t kHeight = 320;

// Every delivered result, in order.
struct Delivered {
    std::mutex mutex;
    std::vector<PreviewResult> results;

    PPreview::Callback Callback() {
        return [this](PreviewResult r) {
            std::lock_guard lock(mutex);
            results.push_back(std::move(r));
        };
    }
    std::vector<PreviewResult> Take() {
        std::lock_guard lock(mutex);
        return std::exchange(results, {});
    }
};

PreviewView View(int32_t w, int32_t h, double zoom, double left = 0, double top = 0) {
    PreviewView v;
    v.paneWidth = w, v.paneHeight = h, v.zoom = zoom, v.left = left, v.top = top;
    return v;
}

class Preview : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        options_.width = kWidth;
        options_.height = kHeight;
        options_.samples = 1;
        room_.emplace(Curvana::SampleGen::renderRoom(options_));
    }
    static void TearDownTestSuite() { room_.reset(); }

    void SetUp() override {
        source = std::make_shared<MemoryImage>(kWidth, kHeight, PixelFormat{4, 8});
        for (int32_t y = 0; y < kHeight; ++y)
            for (int32_t x = 0; x < kWidth; ++x) {
                const size_t at = 3 * (static_cast<size_t>(y) * kWidth + x);
                for (int32_t c = 0; c < 3; ++c)
                    source->Set(c, x, y, room_->rgb[at + static_cast<size_t>(c)]);
                source->Set(3, x, y, 255);
            }
        locator = std::make_shared<const MeshLocator>(std::make_shared<const OctaMap>(5, false));
        preview = std::make_unique<PPreview>(source, kWidth, kHeight, delivered.Callback());
    }

    // A new scene of the fisheye room; with the room's edges as line
    // constraints (vertical edges held vertical) when asked.
    std::shared_ptr<const PreviewScene> Scene(bool constrained, float focalScale = 1.0f) const {
        auto scene = std::make_shared<PreviewScene>();
        scene->photo = makeProjection(
            ProjectionModel::Fisheye,
            static_cast<float>(Curvana::SampleGen::focalPixels(options_)) * focalScale, kWidth,
            kHeight, CameraMetadata{}, std::nullopt, 1.0f);
        scene->locator = locator;
        auto set = std::make_shared<ConstraintSet>();
        if (constrained) {
            for (const auto& e : room_->edges) {
                if (e.points.size() < 16)
                    continue;
                auto line = std::make_unique<LineConstraint>();
                line->SetEndpoints(
                    {static_cast<float>(e.points.front().x),
                     static_cast<float>(e.points.front().y)},
                    {static_cast<float>(e.points.back().x), static_cast<float>(e.points.back().y)});
                const bool vertical =
                    std::abs(e.a[0] - e.b[0]) < 1e-9 && std::abs(e.a[2] - e.b[2]) < 1e-9;
                line->SetOrientation(vertical ? Orientation::Vertical : Orientation::Unfixed);
                set->Add(std::move(line));
            }
        }
        scene->constraints = std::move(set);
        scene->solver.meshLevel = 5;
        return scene;
    }

    // The last result after the engine went idle.
    PreviewResult Settle() {
        preview->WaitIdle();
        auto results = delivered.Take();
        EXPECT_FALSE(results.empty());
        return results.empty() ? PreviewResult{} : results.back();
    }

    static inline Curvana::SampleGen::SceneOptions options_;
    static inline std::optional<Curvana::SampleGen::RenderedScene> room_;
    std::shared_ptr<MemoryImage> source;
    std::shared_ptr<const MeshLocator> locator;
    Delivered delivered;
    std::unique_ptr<PPreview> preview;  // last: stopped before what it reads
};

// ---- What it draws ---------------------------------------------------------------------

struct ViewCase {
    const char* name;
    PreviewView view;
};

class PreviewImage : public Preview, public ::testing::WithParamInterface<ViewCase> {};

// The engine's image is the reduced render of the same warp, framing and
// window made directly, pixel for pixel.
TEST_P(PreviewImage, EqualsADirectReducedRender) {
    const PreviewView view = GetParam().view;
    const auto scene = Scene(false);
    preview->Request(scene, view);
    const PreviewResult result = Settle();
    ASSERT_TRUE(result.current);
    ASSERT_FALSE(result.solveFailed);
    ASSERT_EQ(result.width, view.paneWidth);
    ASSERT_EQ(static_cast<int32_t>(result.rgba.size()), view.paneWidth * view.paneHeight * 4);

    std::shared_ptr<const RenderMesh> mesh;
    if (view.corrected) {
        ASSERT_TRUE(result.warp && result.warp->mesh);
        EXPECT_EQ(result.warp->scene, scene);
        mesh = result.warp->mesh;
    } else {
        auto identity = std::make_shared<RenderMesh>();
        identity->n = 2;
        identity->positions = {0, 0, kWidth, 0, 0, -kHeight, kWidth, -kHeight};
        identity->texcoords = {0, 0, 1, 0, 0, 1, 1, 1};
        identity->quadValid = {1};
        mesh = identity;
    }
    auto device = Testing::MakeTestDevice();
    ASSERT_TRUE(device);
    auto direct =
        std::move(PResultScaled::Create(
                      device, {view.paneWidth, view.paneHeight, kWidth, kHeight, {4, 8}, {}}))
            .value();
    direct->SetFraming(view.corrected ? view.framing : ViewFraming{100, 0.5f, 0.5f});
    direct->SetWindow(PictureWindow{kWidth, kHeight, view.left, view.top,
                                    view.paneWidth / view.zoom, view.paneHeight / view.zoom});
    direct->SetMesh(mesh);
    MemoryImage out;
    ASSERT_TRUE(direct->Render(*source, out).ok());

    size_t different = 0, covered = 0;
    for (int32_t y = 0; y < view.paneHeight; ++y)
        for (int32_t x = 0; x < view.paneWidth; ++x)
            for (int32_t p = 0; p < 4; ++p) {
                const size_t at = 4 * (static_cast<size_t>(y) * view.paneWidth + x) + p;
                different += result.rgba[at] != out.At(p, x, y);
                covered += p == 3 && result.rgba[at] > 0;
            }
    EXPECT_EQ(different, 0u);
    EXPECT_GT(covered, static_cast<size_t>(view.paneWidth * view.paneHeight) / 4) << "a picture";
}

PreviewView Framed(PreviewView v, int32_t scale, float x, float y) {
    v.framing = ViewFraming{scale, x, y};
    return v;
}
PreviewView Source(PreviewView v) {
    v.corrected = false;
    return v;
}

INSTANTIATE_TEST_SUITE_P(
    Views, PreviewImage,
    ::testing::Values(ViewCase{"Fit", View(360, 240, 0.75)},
                      ViewCase{"ZoomedAndScrolled", View(200, 150, 2.0, 130.5, 70.25)},
                      ViewCase{"ScaledAndOffset", Framed(View(264, 176, 0.55), 90, 0.3f, 0.7f)},
                      ViewCase{"SourceZoomed", Source(View(300, 200, 1.5, 40, 20))}),
    [](const auto& named) { return std::string(named.param.name); });

// ---- Newest wins -------------------------------------------------------------------------

// A burst of changes, each needing a new solve: only the newest is solved
// and drawn (its draft, then its own warp); the scene being solved when the
// burst began is never shown.
TEST_F(Preview, NewestWinsInABurst) {
    std::vector<std::shared_ptr<const PreviewScene>> scenes;
    uint64_t last = 0;
    for (int i = 0; i < 10; ++i) {
        scenes.push_back(Scene(true, 1.0f + 0.01f * i));
        last = preview->Request(scenes.back(), View(240 + 8 * i, 160, 0.5 + 0.01 * i));
    }
    preview->WaitIdle();
    const auto results = delivered.Take();
    ASSERT_FALSE(results.empty());
    ASSERT_LE(results.size(), 2u);
    for (const PreviewResult& r : results) {
        EXPECT_EQ(r.id, last);
        ASSERT_TRUE(r.warp);
        EXPECT_EQ(r.warp->scene, scenes.back());
        EXPECT_EQ(r.warp->draft, !r.current);
        EXPECT_EQ(r.width, 240 + 8 * 9);
    }
    EXPECT_TRUE(results.back().current);
    // The newest scene's draft and exact solve, and at most the draft of the
    // scene taken before the burst ended.
    EXPECT_LE(preview->Statistics().solves, 3u);
}

// Zoom, scroll and Show Mesh redraw the solved warp without solving again;
// a change of view while a new scene solves is drawn at once from the last
// good warp, and the new warp follows.
TEST_F(Preview, ViewChangesReuseTheSolvedWarp) {
    const auto first = Scene(false);
    preview->Request(first, View(240, 160, 0.5));
    ASSERT_TRUE(Settle().current);
    const uint64_t solves = preview->Statistics().solves;

    PreviewView meshView = View(300, 200, 1.0, 90, 60);
    meshView.meshStep = 8;
    PreviewResult meshed;
    for (const PreviewView& v : {View(200, 200, 3.0, 150, 100), meshView}) {
        const uint64_t id = preview->Request(first, v);
        meshed = Settle();
        EXPECT_EQ(meshed.id, id);
        EXPECT_TRUE(meshed.current);
        EXPECT_EQ(meshed.warp->scene, first);
    }
    EXPECT_EQ(preview->Statistics().solves, solves);

    // The mesh overlay (the last view): polylines of the warped grid, through the pane.
    ASSERT_GE(meshed.meshLines.size(), 4u);
    size_t inside = 0;
    for (const auto& line : meshed.meshLines) {
        ASSERT_GE(line.size(), 2u);
        for (const PointF& p : line) {
            ASSERT_TRUE(std::isfinite(p.x) && std::isfinite(p.y));
            inside += p.x >= 0 && p.y >= 0 && p.x <= 300 && p.y <= 200;
        }
    }
    EXPECT_GT(inside, 20u);

    const auto second = Scene(true);
    preview->Request(second, meshView);
    const uint64_t id = preview->Request(second, View(240, 160, 0.5));
    preview->WaitIdle();
    const auto results = delivered.Take();
    ASSERT_FALSE(results.empty());
    for (const PreviewResult& r : results) {
        EXPECT_EQ(r.id, id);
        ASSERT_TRUE(r.warp);
        if (r.current)
            EXPECT_EQ(r.warp->scene, second);
        else  // the new scene's draft, or the last exact warp meanwhile
            EXPECT_TRUE(r.warp->scene == second ? r.warp->draft : r.warp->scene == first);
    }
    EXPECT_TRUE(results.back().current);
}

// ---- Edits ---------------------------------------------------------------------------------

// A scene that differs from the last only in its constraints (one endpoint
// dragged) goes on from the last warp, at both levels, and lands where a
// fresh solve of it lands; a new projection solves afresh.
TEST_F(Preview, AnEditGoesOnFromTheLastWarp) {
    const auto first = Scene(true);
    preview->Request(first, View(240, 160, 0.5));
    ASSERT_TRUE(Settle().current);

    auto moved = std::make_shared<PreviewScene>(*first);
    auto set = std::make_shared<ConstraintSet>();
    for (const auto& c : first->constraints->Constraints())
        set->Add(c->Clone());
    auto* line = dynamic_cast<LineConstraint*>(set->Constraints().front().get());
    ASSERT_NE(line, nullptr);
    line->SetFirst({line->First().x + 6.0f, line->First().y + 4.0f});
    moved->constraints = std::move(set);
    preview->Request(moved, View(240, 160, 0.5));
    preview->WaitIdle();
    const auto results = delivered.Take();
    ASSERT_EQ(results.size(), 2u);
    for (const PreviewResult& r : results) {
        ASSERT_TRUE(r.warp && r.warp->solved);
        EXPECT_TRUE(r.warp->continued) << (r.warp->draft ? "draft" : "exact");
    }
    const auto fresh = SolvePreviewScene(moved);
    ASSERT_TRUE(fresh->solved);
    EXPECT_FALSE(fresh->continued);
    const SphereWarp& warm = *results.back().warp->warp;
    const int32_t n = locator->Mesh().Size();
    double worst = 0.0;
    for (int32_t j = 0; j < n; ++j)
        for (int32_t i = 0; i < n; ++i) {
            if (!warm.IsVertexValid(i, j))
                continue;
            float ax = 0, ay = 0, bx = 0, by = 0;
            warm.GetVertexPosition(i, j, ax, ay);
            fresh->warp->GetVertexPosition(i, j, bx, by);
            worst = std::max(worst, static_cast<double>(std::hypot(ax - bx, ay - by)));
        }
    EXPECT_LT(worst, 0.25) << "pixels from a fresh solve";

    preview->Request(Scene(true, 1.05f), View(240, 160, 0.5));
    const PreviewResult refocused = Settle();
    ASSERT_TRUE(refocused.warp);
    EXPECT_FALSE(refocused.warp->continued);
}

// ---- The display source ----------------------------------------------------------------

TEST(PreviewSource, ReadsTheHostImageInDisplayForm) {
    test::FakeHost host;
    host.width = 64;
    host.height = 48;
    const auto value = [](int32_t x, int32_t y, int32_t p, int32_t depth) {
        return static_cast<double>(test::FakeHost::SourceValue(x, y, p, depth));
    };

    // RGB, whole: the values themselves, opaque.
    const auto whole = ReadPreviewSource(HostRecord(host.Record()), 64);
    ASSERT_EQ(whole->Width(), 64);
    for (int32_t p = 0; p < 3; ++p)
        EXPECT_EQ(whole->At(p, 13, 7), value(13, 7, p, 8));
    EXPECT_EQ(whole->At(3, 13, 7), 255u);

    // Halved: each pixel the mean of its block.
    const auto half = ReadPreviewSource(HostRecord(host.Record()), 32);
    ASSERT_EQ(half->Width(), 32);
    ASSERT_EQ(half->Height(), 24);
    const double mean =
        (value(10, 6, 1, 8) + value(11, 6, 1, 8) + value(10, 7, 1, 8) + value(11, 7, 1, 8)) / 4;
    EXPECT_NEAR(half->At(1, 5, 3), mean, 0.51);

    // Grey at 16 bits: the same grey in every channel, scaled to 8 bits.
    host.mode = cvModeGray;
    host.depth = 16;
    const auto grey = ReadPreviewSource(HostRecord(host.Record()), 64);
    const double expected = value(20, 30, 0, 16) * 255.0 / 32768.0;
    for (int32_t p = 0; p < 3; ++p)
        EXPECT_NEAR(grey->At(p, 20, 30), expected, 0.51);
}

}  // namespace
}  // namespace Project
