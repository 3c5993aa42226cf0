// Per-pixel cost of the photo-to-sphere models (what the renderer pays per
// output pixel), the iterative inverses, and the one-off metadata and lens
// profile reads.
#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "geometry/CameraMetadata.h"
#include "geometry/LensProfile.h"
#include "geometry/Projections.h"

namespace {

using namespace Project;

std::shared_ptr<const SourceRaster> filledRaster() {
    auto r = std::make_shared<SourceRaster>(6000, 4000);
    r->pixels.resize(static_cast<size_t>(6000) * 4000 * 3);
    std::mt19937 rng(7);
    for (auto& p : r->pixels)
        p = static_cast<uint8_t>(rng());
    return r;
}

std::unique_ptr<PhotoToSphere> makeModel(int which) {
    static const auto raster = filledRaster();
    switch (which) {
        case 0:
            return std::make_unique<FisheyeImage>(raster, 1800.0f, 3000.0f, 2000.0f);
        case 1:
            return std::make_unique<PerspectiveImage>(raster, 3500.0f, 3000.0f, 2000.0f);
        case 2:
            return std::make_unique<CylindricalImage>(raster, 1900.0f, 3000.0f, 2000.0f);
        case 3:
            return std::make_unique<SphericalImage>(raster, 1900.0f, 3000.0f, 2000.0f);
        case 4:
            return std::make_unique<KestrixFisheye>(raster, 1650.0f, 1660.0f, -0.045f, 0.002f,
                                                    12.0f, -7.0f);
        default:
            return std::make_unique<KestrixPerspective>(raster, 3000.0f, 3010.0f, -0.08f, 0.01f,
                                                        -0.0005f, 0.0005f, -0.0003f, 20.0f, -15.0f);
    }
}

const char* kNames[] = {"Fisheye",   "Perspective",    "Cylindrical",
                        "Spherical", "KestrixFisheye", "KestrixPerspective"};

// Directions the model sees, drawn once.
std::vector<SphereDirection> visibleDirections(const PhotoToSphere& p, size_t n) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> angle(-0.9f, 0.9f);
    std::vector<SphereDirection> out;
    while (out.size() < n) {
        const SphereDirection d{angle(rng), angle(rng)};
        if (p.IsVisible(d.lambda, d.phi))
            out.push_back(d);
    }
    return out;
}

void BM_SampleColor(benchmark::State& state) {
    const auto p = makeModel(static_cast<int>(state.range(0)));
    const auto dirs = visibleDirections(*p, 1 << 16);
    size_t i = 0;
    for (auto _ : state) {
        const SphereDirection& d = dirs[i++ & (dirs.size() - 1)];
        if (p->IsVisible(d.lambda, d.phi))
            benchmark::DoNotOptimize(p->SampleColor(d.lambda, d.phi));
    }
    state.SetLabel(kNames[state.range(0)]);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_SampleColor)->DenseRange(0, 5);

void BM_ToSphere(benchmark::State& state) {
    const auto p = makeModel(static_cast<int>(state.range(0)));
    std::vector<ImagePoint> points;
    for (const auto& d : visibleDirections(*p, 1 << 12))
        points.push_back(p->ToImagePoint(d.lambda, d.phi));
    size_t i = 0;
    SphereDirection out;
    for (auto _ : state) {
        benchmark::DoNotOptimize(p->ToSphere(points[i++ & (points.size() - 1)], out));
    }
    state.SetLabel(kNames[state.range(0)]);
}
BENCHMARK(BM_ToSphere)->DenseRange(0, 5);

void BM_LensProfileFind(benchmark::State& state) {
    CameraMetadata m;
    m.make = "NIKON CORPORATION";
    m.model = "NIKON D90";
    m.lens = "Nikon AF DX Fisheye-Nikkor 10.5mm f/2.8G ED";
    m.focalLength = 10.5f;
    m.focalLength35mm = 15.0f;
    const auto lookup = lensfunProfileLookup();
    benchmark::DoNotOptimize(lookup->Find(m, 6000, 4000));  // loads the database once
    for (auto _ : state)
        benchmark::DoNotOptimize(lookup->Find(m, 6000, 4000));
}
BENCHMARK(BM_LensProfileFind)->Unit(benchmark::kMillisecond);

}  // namespace
