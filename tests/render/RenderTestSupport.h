#pragma once

// Shared helpers of the renderer tests: a GPU device with validation that
// fails the test on any validation error, small fake warps, synthetic
// images, and a CPU reference renderer of the same triangles.

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "render/ImageAccess.h"
#include "render/RenderMesh.h"
#include "render/RenderPlan.h"
#include "render/gpu/GpuDevice.h"
#include "warp/SphereWarp.h"

namespace Project::Testing {

// Log lines captured from a device.
struct CapturedLog {
    std::mutex mutex;
    std::vector<std::string> lines;

    Gpu::LogSink Sink();
    bool Contains(const std::string& text);
};

// Keeps one device, and so the Vulkan driver library, alive until the
// process exits. Mesa keeps process-wide allocations in the driver's globals;
// unloading the driver with the last instance would make them look leaked to
// the leak sanitizer. MakeTestDevice calls it.
void KeepVulkanDriverLoaded();

// A device on whatever Vulkan driver is present (lavapipe here), with
// VK_LAYER_KHRONOS_validation when installed and every validation error
// turned into a test failure. Sets MESA_SHADER_CACHE_DISABLE=true first.
// Fails the current test (and returns null) when no device can be made.
// mappedSource: GpuOptions::mappedSource.
std::shared_ptr<Gpu::GpuDevice> MakeTestDevice(uint32_t maxTextureDimension = 0,
                                               CapturedLog* log = nullptr,
                                               bool mappedSource = true);

// A SphereWarp of N x N vertices given by functions (positions in plane
// units, validity per vertex; a quad is valid when its four corners are).
class FunctionWarp final : public SphereWarp {
public:
    using PositionFn = std::function<void(int32_t i, int32_t j, float& x, float& y)>;
    using ValidFn = std::function<bool(int32_t i, int32_t j)>;

    FunctionWarp(int32_t n, PositionFn position, ValidFn valid = {})
        : n_(n), position_(std::move(position)), valid_(std::move(valid)) {}

    bool IsVertexValid(int32_t i, int32_t j) const override { return !valid_ || valid_(i, j); }
    bool IsQuadValid(int32_t i, int32_t j) const override {
        return IsVertexValid(i, j) && IsVertexValid(i + 1, j) && IsVertexValid(i, j + 1) &&
               IsVertexValid(i + 1, j + 1);
    }
    void GetVertexPosition(int32_t i, int32_t j, float& x, float& y) const override {
        position_(i, j, x, y);
    }
    void Solve() override {}
    int32_t MeshSize() const override { return n_; }

private:
    int32_t n_;
    PositionFn position_;
    ValidFn valid_;
};

// A smoothly distorted "identity" mesh: vertex (i, j) sits at plane position
// (s, -t) * scale (t grows down the picture, the plane's y up) with s, t in
// [0, 1] stretched to the aspect width : height, and samples the source at
// (s, t) plus a wobble of the given amplitude (texture units). With
// wobble 0 and scale 100 the output reproduces the source.
RenderMesh DistortedGridMesh(int32_t n, int32_t width, int32_t height, float wobble);

// Synthetic photographs: every value of every plane is at least 1 (8 bits) or
// 2 (16 bits), so an all-zero output pixel means "not covered". Gradients with
// a few sharp edges; the planes differ.
MemoryImage SyntheticImage(int32_t width, int32_t height, PixelFormat format, uint32_t seed = 1);

// The CPU reference render of the same triangles: each output pixel centre is
// located in the triangles of the plan (quads ascending, each quad's two
// triangles in order; a later triangle wins), its texture coordinate is the
// barycentric interpolation of the corners', and the source is sampled
// bilinearly (texel centres at (k + 0.5) / size, the edge texel beyond it), in double.
struct ReferenceImage {
    int32_t width = 0;
    int32_t height = 0;
    int32_t planes = 0;
    // Values on the host scale as doubles: 0 ... 255 (8 bits) or the GPU
    // scale 0 ... 65535 before the host conversion (16 bits).
    std::vector<double> values;  // planes per pixel
    // 0: outside every triangle; 1: on or within 0.01 px of a triangle's edge
    // (coverage is the rasteriser's call); 2: inside by more than 0.01 px.
    std::vector<uint8_t> coverage;
};
ReferenceImage RenderReference(const RenderPlan& plan, const MemoryImage& source);

// Comparison of a GPU render with the reference over the pixels both cover.
struct Comparison {
    int64_t compared = 0;         // pixels covered by the GPU and the reference
    int64_t withinTolerance = 0;  // every plane within the tolerance
    int64_t strictUncovered = 0;  // reference coverage 2 but the GPU left 0
    int64_t spuriousCovered = 0;  // reference coverage 0 but the GPU wrote
    int64_t maxDifference = 0;    // largest difference in host units
    double Share() const {
        return compared == 0 ? 0.0 : static_cast<double>(withinTolerance) / compared;
    }
};
// tolerance in host units (8 bits: 0 ... 255; 16 bits: 0 ... 32768).
Comparison CompareWithReference(const MemoryImage& gpu, const ReferenceImage& reference,
                                int64_t tolerance);

// Exact comparison of two images: the number of values that differ and the
// largest difference.
struct Difference {
    int64_t differing = 0;
    int64_t maxDifference = 0;
};
Difference CompareImages(const MemoryImage& a, const MemoryImage& b);

}  // namespace Project::Testing
