#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "render/ImageAccess.h"
#include "render/RenderPlan.h"
#include "render/RenderTypes.h"
#include "render/gpu/GpuDevice.h"
#include "render/gpu/GpuResampler.h"

namespace Project {

// Options shared by PResult and PResultScaled.
struct RenderOptions {
    ViewFraming framing;
    // The most memory one source texture may take, in bytes (four channels of
    // 1 or 2 bytes per texel). A source that fits this budget and the
    // device's largest texture side is uploaded whole, once per render pass;
    // any other is rendered through source windows.
    uint64_t sourceTextureBudget = uint64_t{512} << 20;
    // The value of each plane where the picture shows nothing, on the host
    // scale (0 ... 255, or 0 ... 32768 at 16 bits); the session chooses it
    // for the image mode (one visible colour in every mode).
    std::array<uint16_t, 4> border{};
};

// How the source reaches the GPU.
enum class SourceMode {
    Whole,    // one texture of the whole source, uploaded once per pass
    Windows,  // per output tile, only the source window its quads touch
};

// Counters for tests and benchmarks.
struct RenderStatistics {
    uint64_t tilesDrawn = 0;      // tiles with a non-empty bucket
    uint64_t draws = 0;           // GPU draw calls
    uint64_t sourceUploads = 0;   // whole-source or window uploads
    uint64_t uploadedTexels = 0;  // texels uploaded in all
    uint64_t splitTriangles = 0;  // triangles subdivided to fit a window
    // Wall-clock seconds spent in each phase.
    double uploadSeconds = 0.0;  // reading the source and uploading it
    double drawSeconds = 0.0;    // building index lists, drawing, reading back
    double writeSeconds = 0.0;   // converting tiles into planes and writing them
};

// The tile renderer behind PResult and PResultScaled: renders a RenderPlan's
// tiles on a GpuResampler, reading the source through a RenderSource and
// writing tiles through a RenderSink.
//
// Rendering one output tile: an empty bucket draws and writes
// nothing. Otherwise the tile's matrix is set, the bucket's quads are drawn
// (six indices each, in bucket order) onto the cleared 1024 x 1024 target, the
// part of the target inside the output is read back (uncovered pixels hold
// the options' border) and copied into the sink's planes (16 bits:
// v > 65534 -> 32768, else v / 2).
//
// Source windows (SourceMode::Windows): the bucket's triangles are gathered
// greedily, in bucket order, into groups whose source window (the texels
// their texture coordinates reach under bilinear filtering, plus one texel,
// inside the union of the quads' source tiles) fits a square of side
// L = min(largest texture side, sqrt(budget / bytes per texel)). Each group
// uploads its window into the top-left corner of the source texture (which
// only grows, so it is re-created only when a window outgrows it) and is
// drawn with texture coordinates remapped into the window; the first group
// of a tile clears the target, the last one reads it back. A triangle whose
// own window is larger than L is cut into four at its edge midpoints (the
// mapping inside a triangle is affine, so the pieces draw the same pixels)
// until the pieces fit. No image is limited by the largest texture.
class WarpRenderer {
public:
    static Gpu::Result<std::unique_ptr<WarpRenderer>> Create(std::shared_ptr<Gpu::GpuDevice> device,
                                                             PixelFormat format,
                                                             const RenderOptions& options);

    const PixelFormat& Format() const { return format_; }
    // The options it was made with; the framing in them is the plan's
    // business (RenderPlan), the budget decides the source mode.
    const RenderOptions& Options() const { return options_; }

    // A new plan (the mesh or the sizes changed). Keeps the source texture.
    void SetPlan(std::shared_ptr<const RenderPlan> plan);
    const std::shared_ptr<const RenderPlan>& Plan() const { return plan_; }
    SourceMode Mode() const { return mode_; }
    // The window side limit L of the window mode.
    uint32_t WindowLimit() const { return windowLimit_; }

    // Every tile, row by row, with progress and abort.
    RenderStatus RenderAll(RenderSource& source, RenderSink& sink, const RenderControl& control);
    // One tile. In whole mode the source is uploaded on the first call after
    // SetPlan or InvalidateSource; RenderAll always uploads it afresh.
    RenderStatus RenderTile(int32_t column, int32_t row, RenderSource& source, RenderSink& sink);
    // The source's pixels changed: upload again before the next tile.
    void InvalidateSource() { sourceResident_ = false; }
    // Makes (and clears) the texture that a source of this size is drawn from
    // whole, ahead of the first plan, and draws from it once; nothing for a
    // source drawn through windows. Run beside other work, it takes the
    // texture's first-touch cost and the shader's first-draw compile off the
    // render.
    RenderStatus ReserveSource(int32_t sourceWidth, int32_t sourceHeight);

    const RenderStatistics& Statistics() const { return statistics_; }
    Gpu::GpuResampler& Resampler() { return *resampler_; }

private:
    WarpRenderer(std::unique_ptr<Gpu::GpuResampler> resampler, PixelFormat format,
                 const RenderOptions& options);

    // Plane position and texture coordinate in the whole source.
    using TriangleVertex = PlanVertex;
    struct Group {
        PixelRect window;
        std::vector<TriangleVertex> vertices;  // three per triangle
    };

    // Texels one source texture may hold under the options' budget.
    uint64_t BudgetTexels() const;
    // Whether a source of this size is drawn from one whole texture.
    bool FitsWhole(int32_t sourceWidth, int32_t sourceHeight) const;
    RenderStatus UploadWhole(RenderSource& source);
    RenderStatus UploadWindow(RenderSource& source, const PixelRect& window);
    // Rows of rect as texels at dst (pitch bytes per row): through planes,
    // or straight from a source that offers pixels.
    bool ReadPlanes(RenderSource& source, const PixelRect& rect, void* dst, size_t pitch);
    bool ReadPixels(RenderSource& source, const PixelRect& rect, void* dst, size_t pitch);
    RenderStatus DrawWhole(int32_t column, int32_t row, const PixelRect& region);
    RenderStatus DrawWindows(int32_t column, int32_t row, const PixelRect& region,
                             RenderSource& source);
    RenderStatus BuildGroups(int32_t column, int32_t row, std::vector<Group>& groups);
    PixelRect Footprint(const TriangleVertex* corners, int32_t count) const;
    // The footprint of the triangle's part that covers output tile `tile`
    // (pixels); false when the triangle misses it.
    bool TileFootprint(const TriangleVertex* tri, const PixelRect& tile,
                       PixelRect& footprint) const;
    RenderStatus WriteBack(const PixelRect& region, RenderSink& sink);

    std::unique_ptr<Gpu::GpuResampler> resampler_;
    PixelFormat format_;
    RenderOptions options_;
    std::shared_ptr<const RenderPlan> plan_;
    SourceMode mode_ = SourceMode::Whole;
    uint32_t windowLimit_ = 0;
    bool sourceResident_ = false;
    bool rectangleVerticesResident_ = false;
    RenderStatistics statistics_;
    // Scratch buffers reused across tiles.
    std::vector<std::vector<uint8_t>> planeScratch_;
    std::vector<uint16_t> texelScratch_;  // 16-bit texels on their way to or from the host
    std::vector<Gpu::GpuVertex> vertexScratch_;
    std::vector<uint32_t> indexScratch_;
};

}  // namespace Project
