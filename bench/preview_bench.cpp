// The editor's live preview (PPreview) on the demo's sample photograph, a
// 3000 x 2000 fisheye view of the room, in a pane of 800 x 533 (the picture
// fitted): the time from a change of settings to the updated image on the
// dialog's side. Each iteration is what a focal-length slider step does: a
// new scene captured (projection, a copy of the constraints), requested, and
// waited for until the image drawn with its own warp arrives -- the solve
// at mesh level 6 and the reduced render; the counter first_ms is the time
// to the first updated image (the draft, solved at level 4). Without
// constraints and with the demo's constraints (sample-room.cvc); also a
// scroll (no solve), the first image of a new engine (GPU start, solve,
// render), and the solve alone by mesh level.
#include <benchmark/benchmark.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "constraints/ConstraintFile.h"
#include "geometry/CameraMetadata.h"
#include "geometry/ProjectionFactory.h"
#include "host/Raster.h"
#include "session/PPreview.h"
#include "session/PSettings.h"
#include "session/SessionWarp.h"

namespace {

using namespace Project;

constexpr int32_t kPaneWidth = 800;
constexpr int32_t kPaneHeight = 533;

// The photograph, its constraints and the mesh, read once.
struct Sample {
    int32_t width = 0;
    int32_t height = 0;
    std::shared_ptr<MemoryImage> display;
    std::shared_ptr<ConstraintSet> constraints = std::make_shared<ConstraintSet>();
    float focal = 0.0f;
    std::shared_ptr<const MeshLocator> locator;
    SolverSettings solver;

    Sample() {
        setenv("MESA_SHADER_CACHE_DISABLE", "true", 0);
        auto source = Curvana::Host::openImage(CURVANA_SAMPLE_PHOTO);
        const auto& info = source->info();
        width = info.width;
        height = info.height;
        std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
        source->readInterleaved(info.bounds(), rgb.data(), static_cast<ptrdiff_t>(width) * 3);
        display = std::make_shared<MemoryImage>(width, height, PixelFormat{4, 8});
        for (int32_t y = 0; y < height; ++y)
            for (int32_t x = 0; x < width; ++x) {
                const size_t at = 3 * (static_cast<size_t>(y) * width + x);
                for (int32_t c = 0; c < 3; ++c)
                    display->Set(c, x, y, rgb[at + static_cast<size_t>(c)]);
                display->Set(3, x, y, 255);
            }

        SimpleConstraintFileContext context;
        context.width = width;
        context.height = height;
        context.make = "Curvana";
        context.model = "Sample Room Camera";
        context.lens = "Sample Fisheye";
        loadConstraintFile(*constraints, context, CURVANA_SAMPLE_CONSTRAINTS);
        if (!constraints->Success() || constraints->Empty()) {
            std::fprintf(stderr, "cannot read %s: %s\n", CURVANA_SAMPLE_CONSTRAINTS,
                         constraints->Message().c_str());
            std::exit(1);
        }
        focal = context.settings.focalLength;
        PSettings settings(width);
        solver = solverSettingsFrom(settings);
        solver.projectionModel = ProjectionModel::Fisheye;
        locator = std::make_shared<const MeshLocator>(
            std::make_shared<const OctaMap>(solver.meshLevel, solver.meshLayoutFlag));
    }

    struct Level {
        int32_t level;
        std::shared_ptr<const MeshLocator> locator;
    };
    Level AtLevel(int32_t level) const {
        return {level, std::make_shared<const MeshLocator>(
                           std::make_shared<const OctaMap>(level, solver.meshLayoutFlag))};
    }

    // What the dialog captures after a settings change.
    std::shared_ptr<const PreviewScene> Scene(bool constrained, float focalScale) const {
        auto scene = std::make_shared<PreviewScene>();
        scene->photo = makeProjection(ProjectionModel::Fisheye, focal * focalScale, width, height,
                                      CameraMetadata{}, std::nullopt, 1.0f);
        scene->locator = locator;
        auto copy = std::make_shared<ConstraintSet>();
        if (constrained)
            for (const auto& c : constraints->Constraints())
                copy->Add(c->Clone());
        scene->constraints = std::move(copy);
        scene->solver = solver;
        return scene;
    }

    PreviewView Fitted(double left = 0.0) const {
        PreviewView view;
        view.paneWidth = kPaneWidth;
        view.paneHeight = kPaneHeight;
        view.zoom = static_cast<double>(kPaneWidth) / width;
        view.left = left;
        return view;
    }
};

const Sample& TheSample() {
    static const Sample sample;
    return sample;
}

using Clock = std::chrono::steady_clock;

// Waits for the image of a request drawn with its own warp, and notes when
// the request's first image arrived.
class Waiter {
public:
    PPreview::Callback Callback() {
        return [this](PreviewResult r) {
            std::lock_guard lock(mutex_);
            if (r.id != last_.id)
                first_ = Clock::now();
            last_ = std::move(r);
            arrived_.notify_all();
        };
    }
    PreviewResult WaitFor(uint64_t id) {
        std::unique_lock lock(mutex_);
        arrived_.wait(lock, [&] { return last_.id == id && last_.current; });
        return last_;
    }
    Clock::time_point FirstArrival() {
        std::lock_guard lock(mutex_);
        return first_;
    }

private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    PreviewResult last_;
    Clock::time_point first_;
};

void SettingsChange(benchmark::State& state) {
    const Sample& sample = TheSample();
    const bool constrained = state.range(0) != 0;
    Waiter waiter;
    PPreview preview(sample.display, sample.width, sample.height, waiter.Callback());
    waiter.WaitFor(preview.Request(sample.Scene(constrained, 1.0f), sample.Fitted()));
    double first = 0.0, solve = 0.0, render = 0.0;
    int step = 0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        const float focalScale = 1.0f + 0.002f * static_cast<float>(++step % 5);
        const PreviewResult r =
            waiter.WaitFor(preview.Request(sample.Scene(constrained, focalScale), sample.Fitted()));
        first += std::chrono::duration<double>(waiter.FirstArrival() - start).count();
        solve += r.warp->solveSeconds;
        render += r.renderSeconds;
    }
    const auto perIteration = [&](double seconds) {
        return benchmark::Counter(1e3 * seconds / static_cast<double>(state.iterations()));
    };
    state.counters["first_ms"] = perIteration(first);
    state.counters["solve_ms"] = perIteration(solve);
    state.counters["render_ms"] = perIteration(render);
}
BENCHMARK(SettingsChange)
    ->ArgName("constraints")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

void Scroll(benchmark::State& state) {
    const Sample& sample = TheSample();
    Waiter waiter;
    PPreview preview(sample.display, sample.width, sample.height, waiter.Callback());
    const auto scene = sample.Scene(true, 1.0f);
    waiter.WaitFor(preview.Request(scene, sample.Fitted()));
    int step = 0;
    for (auto _ : state)
        waiter.WaitFor(preview.Request(scene, sample.Fitted(20.0 * (++step % 7))));
}
BENCHMARK(Scroll)->Unit(benchmark::kMillisecond)->UseRealTime();

void FirstImage(benchmark::State& state) {
    const Sample& sample = TheSample();
    for (auto _ : state) {
        Waiter waiter;
        PPreview preview(sample.display, sample.width, sample.height, waiter.Callback());
        waiter.WaitFor(preview.Request(sample.Scene(false, 1.0f), sample.Fitted()));
    }
}
BENCHMARK(FirstImage)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);

}  // namespace

// The preview's solve alone, on this thread, by mesh level.
void Solve(benchmark::State& state) {
    const Sample& sample = TheSample();
    Sample::Level level = sample.AtLevel(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) {
        auto scene = std::const_pointer_cast<PreviewScene>(sample.Scene(state.range(1) != 0, 1.0f));
        scene->locator = level.locator;
        scene->solver.meshLevel = level.level;
        benchmark::DoNotOptimize(SolvePreviewScene(scene));
    }
}
BENCHMARK(Solve)
    ->ArgNames({"level", "constraints"})
    ->ArgsProduct({{4, 5, 6}, {0, 1}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
