// Suggested lines on a 24-megapixel photograph (6000 x 4000, the sample
// room through a 15 mm full-frame fisheye), from the grey picture to the
// oriented lines: the downscale, the segment detector, the grouping on the
// sphere and the vertical.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "detect/LineSuggestion.h"
#include "geometry/Projections.h"
#include "samplegen/SampleScene.h"

namespace {

struct Photo24 {
    std::vector<uint8_t> grey;
    std::shared_ptr<const Project::PhotoToSphere> photo;
    int32_t width = 6000, height = 4000;

    Photo24() {
        Curvana::SampleGen::SceneOptions scene;
        scene.width = width;
        scene.height = height;
        scene.samples = 1;
        std::vector<uint8_t> rgb(static_cast<size_t>(width) * height * 3);
        Curvana::SampleGen::renderRoomRegion(scene, 0, 0, width, height, rgb.data(),
                                             static_cast<ptrdiff_t>(width) * 3);
        grey.resize(rgb.size() / 3);
        for (size_t i = 0; i < grey.size(); ++i)
            grey[i] = static_cast<uint8_t>(
                (299 * rgb[3 * i] + 587 * rgb[3 * i + 1] + 114 * rgb[3 * i + 2]) / 1000);
        auto raster = std::make_shared<Project::SourceRaster>(width, height);
        photo = std::make_shared<Project::FisheyeImage>(
            raster, static_cast<float>(Curvana::SampleGen::focalPixels(scene)), width * 0.5f,
            height * 0.5f);
    }
};

const Photo24& photo24() {
    static const Photo24 p;
    return p;
}

void BM_SuggestLines24MP(benchmark::State& state) {
    const Photo24& p = photo24();
    size_t lines = 0;
    for (auto _ : state) {
        const Project::LineSuggestion found = Project::SuggestLines(
            {p.width, p.height, p.grey.data(), p.width}, *p.photo, Project::SuggestOptions{});
        lines = found.lines.size();
        benchmark::DoNotOptimize(lines);
    }
    state.counters["lines"] = static_cast<double>(lines);
}
BENCHMARK(BM_SuggestLines24MP)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace
