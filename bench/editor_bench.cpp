// The editor dialog on the demo's sample photograph (3000 x 2000), driven
// through its widgets in this process (offscreen), the dialog at 1280 x 820:
//  - SliderChange: from a slider step to the preview pane showing the image
//    drawn with the new settings' own warp, at the pane's size. slider:0 is
//    the Scale slider (the framing: no solve), slider:1 the Focal Length
//    slider (a new warp: draft solve, image, full solve, image); first_ms is
//    the time to the first updated image. Without and with the demo's
//    constraints (sample-room.cvc).
//  - EndpointDrag: from the release of an endpoint drag (the Constraint
//    tool, Preview on, mesh level 6, 20 lines on the demo photograph) to the
//    preview pane showing the image drawn with the new warp; first_ms is the
//    time to the first updated image (the draft).
//  - OpenToFirstPreview: from starting `curvana edit` (decoding the photo,
//    loading the module and the editor, reading the preview's source,
//    starting the GPU) to the first corrected image in the dialog;
//    shown_ms is the time until the dialog is on screen.
#include <benchmark/benchmark.h>

#include <QApplication>
#include <QSlider>
#include <QtTest/QTest>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <QMouseEvent>
#include <cmath>
#include <memory>
#include <optional>

#include "constraints/ConstraintFile.h"
#include "constraints/ConstraintSet.h"
#include "editordriver/EditorDriver.h"
#include "framework/CCursors.h"
#include "framework/Widgets.h"
#include "samplegen/SampleScene.h"

namespace {

using namespace Curvana::EditorDriver;
using Clock = std::chrono::steady_clock;
namespace fs = std::filesystem;

double Ms(Clock::duration d) {
    return std::chrono::duration<double, std::milli>(d).count();
}

std::vector<std::string> EditArgs() {
    static const fs::path out = fs::temp_directory_path() / "curvana-editor-bench.jpg";
    return {"edit", CURVANA_SAMPLE_PHOTO, "-o", out.string(), "--module", CURVANA_MODULE, "-q"};
}

bool LoadConstraints(QWidget& dialog) {
    ModalAnswers answers;
    answers.ChooseFile(CURVANA_SAMPLE_CONSTRAINTS);
    QAction* load = Command(dialog, "Project/Menu/File", "$$$/Curvana/FileMenu/LoadConstraints");
    if (!load)
        return false;
    load->trigger();
    return answers.Pending() == 0;
}

void SliderChange(benchmark::State& state) {
    const bool focal = state.range(0) != 0;
    const bool constrained = state.range(1) != 0;
    RunCurvana(EditArgs(), [&](QWidget& dialog) {
        dialog.resize(1280, 820);
        if (constrained && !LoadConstraints(dialog)) {
            state.SkipWithError("the constraints did not load");
            return;
        }
        if (!WaitForPreview(dialog)) {
            state.SkipWithError("no first preview");
            return;
        }
        auto* slider = ViewAs<Velmo::CSlider>(
            dialog, focal ? "Project/Dialog/FocalLengthSlider" : "Project/Dialog/ImageScaleSlider");
        QWidget* pane = View(dialog, "Project/Dialog/PreviewPane");
        if (!slider || !pane) {
            state.SkipWithError("the dialog lacks its slider or preview pane");
            return;
        }
        const int base = slider->Slider()->value();
        double first = 0.0;
        int step = 0;
        for (auto _ : state) {
            const int serial = pane->property("previewSerial").toInt();
            const Clock::time_point start = Clock::now();
            // One slider stop up or down, as a drag moves it.
            slider->Slider()->setValue(base + (++step % 2));
            WaitUntil([&] { return pane->property("previewSerial").toInt() != serial; }, 60000);
            first += Ms(Clock::now() - start);
            if (!WaitForPreview(dialog)) {
                state.SkipWithError("the preview did not follow");
                return;
            }
        }
        state.counters["first_ms"] =
            benchmark::Counter(first / static_cast<double>(state.iterations()));
        state.counters["pane_w"] = pane->width();
        state.counters["pane_h"] = pane->height();
    });
}
BENCHMARK(SliderChange)
    ->ArgNames({"slider", "constraints"})
    ->Args({0, 0})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

// The demo's own edges as `count` line constraints (the room's upright and
// level edges marked, the others free; halves of edges make up the number),
// written as a constraint file for the photograph.
bool WriteLines(const fs::path& file, size_t count) {
    namespace gen = Curvana::SampleGen;
    const gen::SceneOptions scene;
    const double reach = gen::focalPixels(scene) * std::sqrt(2.0) - 40;
    std::vector<std::vector<gen::Point>> edges;
    std::vector<Project::Orientation> marks;
    for (const gen::SceneEdge& e : gen::roomEdges(scene)) {
        std::vector<gen::Point> seen;
        for (const gen::Point& p : e.points)
            if (std::hypot(p.x - 1500, p.y - 1000) < reach)
                seen.push_back(p);
        if (seen.size() < 16)
            continue;
        const auto same = [](double u, double v) { return std::abs(u - v) < 1e-9; };
        marks.push_back(
            same(e.a[0], e.b[0]) && same(e.a[2], e.b[2])   ? Project::Orientation::Vertical
            : same(e.a[1], e.b[1]) && same(e.a[2], e.b[2]) ? Project::Orientation::Horizontal
                                                           : Project::Orientation::Unfixed);
        edges.push_back(std::move(seen));
    }
    Project::ConstraintSet set;
    const auto add = [&set](gen::Point a, gen::Point b, Project::Orientation o) {
        set.Add(std::make_unique<Project::LineConstraint>(
            static_cast<float>(a.x), static_cast<float>(a.y), static_cast<float>(b.x),
            static_cast<float>(b.y), o));
    };
    for (size_t k = 0; k < edges.size() && set.Size() < count; ++k)
        add(edges[k].front(), edges[k].back(), marks[k]);
    for (size_t k = 0; k < edges.size() && set.Size() < count; ++k)
        add(edges[k].front(), edges[k][edges[k].size() / 2], marks[k]);
    if (set.Size() != count)
        return false;
    Project::SimpleConstraintFileContext context;
    context.width = scene.width;
    context.height = scene.height;
    context.make = gen::kSampleMake;
    context.model = gen::kSampleModel;
    context.lens = gen::sampleLensName(scene.lens);
    context.settings.focalLength = static_cast<float>(gen::focalPixels(scene));
    return Project::saveConstraintFile(set, context, file.parent_path(), file.filename().string());
}

void SendMouse(QWidget& pane, QEvent::Type type, QPointF at, bool held) {
    const Qt::MouseButton button = type == QEvent::MouseMove ? Qt::NoButton : Qt::LeftButton;
    const Qt::MouseButtons buttons = held ? Qt::MouseButtons(Qt::LeftButton) : Qt::MouseButtons();
    QMouseEvent event(type, at, pane.mapToGlobal(at), button, buttons, {});
    QApplication::sendEvent(&pane, &event);
}

// Where the pane shows a line's end near `guess`: where the Constraint
// tool offers the move cursor.
std::optional<QPointF> FindEnd(QWidget& pane, QPointF guess) {
    return FindCursor(pane, guess, Velmo::CCursors::Picture(Velmo::CCursorKind::Move));
}

void EndpointDrag(benchmark::State& state) {
    const fs::path lines = fs::temp_directory_path() / "curvana-editor-bench-lines.cvc";
    if (!WriteLines(lines, 19)) {
        state.SkipWithError("the lines could not be written");
        return;
    }
    RunCurvana(EditArgs(), [&](QWidget& dialog) {
        dialog.resize(1280, 820);
        {
            ModalAnswers answers;
            answers.ChooseFile(lines);
            Command(dialog, "Project/Menu/File", "$$$/Curvana/FileMenu/LoadConstraints")->trigger();
        }
        QWidget* pane = View(dialog, "Project/Dialog/PreviewPane");
        if (!pane || !WaitForPreview(dialog) || pane->property("constraintsDrawn").toInt() != 19) {
            state.SkipWithError("the lines did not load");
            return;
        }
        // The 20th line drawn near the centre: its end is where it was
        // released, so the drags know where to look for it.
        const QPointF centre(pane->width() / 2.0, pane->height() / 2.0);
        SendMouse(*pane, QEvent::MouseButtonPress, centre - QPointF(30, 80), true);
        SendMouse(*pane, QEvent::MouseMove, centre + QPointF(-20, 0), true);
        SendMouse(*pane, QEvent::MouseMove, centre + QPointF(-10, 80), true);
        SendMouse(*pane, QEvent::MouseButtonRelease, centre + QPointF(-10, 80), false);
        if (!WaitForPreview(dialog)) {
            state.SkipWithError("no preview after drawing");
            return;
        }
        QPointF end = centre + QPointF(-10, 80);
        double first = 0.0;
        int step = 0;
        for (auto _ : state) {
            const std::optional<QPointF> found = FindEnd(*pane, end);
            if (!found) {
                state.SkipWithError("the line's end was not found");
                return;
            }
            const QPointF to = *found + QPointF(++step % 2 ? 10 : -10, 0);
            const int serial = pane->property("previewSerial").toInt();
            SendMouse(*pane, QEvent::MouseButtonPress, *found, true);
            SendMouse(*pane, QEvent::MouseMove, to, true);
            const Clock::time_point start = Clock::now();
            SendMouse(*pane, QEvent::MouseButtonRelease, to, false);
            WaitUntil([&] { return pane->property("previewSerial").toInt() != serial; }, 60000);
            first += Ms(Clock::now() - start);
            if (!WaitForPreview(dialog)) {
                state.SkipWithError("the preview did not follow");
                return;
            }
            state.SetIterationTime(Ms(Clock::now() - start) / 1000.0);
            end = to;
        }
        state.counters["first_ms"] =
            benchmark::Counter(first / static_cast<double>(state.iterations()));
        state.counters["lines"] = pane->property("constraintsDrawn").toInt();
    });
    std::error_code ec;
    fs::remove(lines, ec);
}
BENCHMARK(EndpointDrag)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(12);

void OpenToFirstPreview(benchmark::State& state) {
    double shown = 0.0;
    for (auto _ : state) {
        const Clock::time_point start = Clock::now();
        double elapsed = 0.0;
        RunCurvana(EditArgs(), [&](QWidget& dialog) {
            shown += Ms(Clock::now() - start);
            if (!WaitForPreview(dialog))
                state.SkipWithError("no first preview");
            elapsed = Ms(Clock::now() - start);
        });
        state.SetIterationTime(elapsed / 1000.0);
    }
    state.counters["shown_ms"] =
        benchmark::Counter(shown / static_cast<double>(state.iterations()));
}
BENCHMARK(OpenToFirstPreview)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);

}  // namespace

int main(int argc, char** argv) {
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    setenv("MESA_SHADER_CACHE_DISABLE", "true", 0);
    // The settings of a first start, not the user's.
    const fs::path config = fs::temp_directory_path() / "curvana-editor-bench-config";
    setenv("XDG_CONFIG_HOME", config.c_str(), 1);
    QApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::error_code ec;
    fs::remove_all(config, ec);
    return 0;
}
