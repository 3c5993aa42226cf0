// The editor dialog on the demo's sample photograph (3000 x 2000), driven
// through its widgets in this process (offscreen), the dialog at 1280 x 820:
//  - SliderChange: from a slider step to the preview pane showing the image
//    drawn with the new settings' own warp, at the pane's size. slider:0 is
//    the Scale slider (the framing: no solve), slider:1 the Focal Length
//    slider (a new warp: draft solve, image, full solve, image); first_ms is
//    the time to the first updated image. Without and with the demo's
//    constraints (sample-room.cvc).
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

#include "editordriver/EditorDriver.h"
#include "framework/Widgets.h"

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
    state.counters["shown_ms"] = benchmark::Counter(shown / static_cast<double>(state.iterations()));
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
