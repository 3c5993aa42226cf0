// The final render of a 6000 x 4000 fisheye photograph through the
// stereographic closed form (default mesh level 6, default framing), on
// whatever Vulkan device is present: megapixels of output per second, at 8
// and 16 bits per channel (RGB). Each iteration is one whole PResult::Render:
// the source upload, every tile's draw, readback and copy into the planes.
//
// Also: the same 6000 x 4000 picture through source windows (a texture limit
// of 2048 forced), and the preview variant at 1200 x 800.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "geometry/Projections.h"
#include "render/PResult.h"
#include "warp/ClosedFormWarp.h"
#include "warp/OctaMap.h"

namespace {

using namespace Project;

constexpr int32_t kWidth = 6000;
constexpr int32_t kHeight = 4000;

std::shared_ptr<Gpu::GpuDevice> Device(uint32_t maxTexture = 0) {
    setenv("MESA_SHADER_CACHE_DISABLE", "true", 0);
    Gpu::GpuOptions options;
    options.maxTextureDimension = maxTexture;
    options.log = [](Gpu::LogLevel level, std::string_view line) {
        if (level != Gpu::LogLevel::Info) {
            std::fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
        }
    };
    auto device = Gpu::GpuDevice::Create(options);
    if (!device) {
        std::fprintf(stderr, "no GPU device: %s\n", device.error().message.c_str());
        std::exit(1);
    }
    return std::move(device).value();
}

MemoryImage Photo(int32_t width, int32_t height, PixelFormat format) {
    MemoryImage image(width, height, format);
    const uint32_t top = format.depth > 8 ? 32768 : 255;
    for (int32_t p = 0; p < format.planes; ++p) {
        uint8_t* data = image.PlaneData(p);
        for (int32_t y = 0; y < height; ++y) {
            for (int32_t x = 0; x < width; ++x) {
                const uint32_t v = ((x / 64 + y / 64 + p) % 2 == 0 ? top / 4 : 3 * top / 4) +
                                   static_cast<uint32_t>((x + y) % 31);
                const size_t k = static_cast<size_t>(y) * width + x;
                if (format.depth > 8) {
                    reinterpret_cast<uint16_t*>(data)[k] = static_cast<uint16_t>(v);
                } else {
                    data[k] = static_cast<uint8_t>(v);
                }
            }
        }
    }
    return image;
}

std::shared_ptr<const RenderMesh> FisheyeStereographicMesh(int32_t width, int32_t height) {
    auto raster = std::make_shared<SourceRaster>(width, height);
    const float f = static_cast<float>(std::max(width, height)) * 15.0f / 36.0f;
    auto photo = std::make_shared<FisheyeImage>(raster, f, width * 0.5f, height * 0.5f);
    auto mesh = std::make_shared<OctaMap>(6, false);
    StereographicClosedForm warp(mesh, photo);
    return std::make_shared<const RenderMesh>(
        BuildRenderMesh(warp, MeshTextureCoordinates(*mesh, *photo)));
}

// range(0): depth; range(1): forced texture limit (0 = the device's).
void FinalRender(benchmark::State& state) {
    const auto depth = static_cast<int32_t>(state.range(0));
    const auto limit = static_cast<uint32_t>(state.range(1));
    auto device = Device(limit);
    const PixelFormat format{3, depth};
    MemoryImage source = Photo(kWidth, kHeight, format);
    MemoryImage output(kWidth, kHeight, format);
    auto made = PResult::Create(device, {kWidth, kHeight, format, {}});
    if (!made) {
        state.SkipWithError(made.error().message.c_str());
        return;
    }
    PResult& result = *made.value();
    result.SetMesh(FisheyeStereographicMesh(kWidth, kHeight));
    for (auto _ : state) {
        const RenderStatus status = result.Render(source, output);
        if (!status.ok()) {
            state.SkipWithError(status.message.c_str());
            return;
        }
    }
    const double megapixels = kWidth * static_cast<double>(kHeight) / 1e6;
    state.counters["MP/s"] = benchmark::Counter(
        megapixels * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
    state.counters["tiles"] = result.Plan()->TileCount();
    const RenderStatistics& statistics = result.Statistics();
    const double runs = static_cast<double>(state.iterations());
    state.counters["upload_ms"] = 1000.0 * statistics.uploadSeconds / runs;
    state.counters["draw_ms"] = 1000.0 * statistics.drawSeconds / runs;
    state.counters["write_ms"] = 1000.0 * statistics.writeSeconds / runs;
    state.SetLabel(device->Name() +
                   (result.Mode() == SourceMode::Whole ? ", whole source" : ", source windows"));
}
BENCHMARK(FinalRender)
    ->Args({8, 0})
    ->Args({16, 0})
    ->Args({8, 2048})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(3.0);

void PreviewRender(benchmark::State& state) {
    auto device = Device();
    const PixelFormat format{3, 8};
    MemoryImage source = Photo(1500, 1000, format);
    auto made = PResultScaled::Create(device, {1200, 800, 1500, 1000, format, {}});
    if (!made) {
        state.SkipWithError(made.error().message.c_str());
        return;
    }
    made.value()->SetMesh(FisheyeStereographicMesh(1500, 1000));
    MemoryImage output;
    for (auto _ : state) {
        if (!made.value()->Render(source, output).ok()) {
            state.SkipWithError("render failed");
            return;
        }
    }
    state.counters["MP/s"] = benchmark::Counter(
        1200 * 800 / 1e6 * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(PreviewRender)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
