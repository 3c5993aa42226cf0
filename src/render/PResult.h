#pragma once

#include <cstdint>
#include <memory>

#include "render/ImageAccess.h"
#include "render/RenderMesh.h"
#include "render/RenderPlan.h"
#include "render/RenderTypes.h"
#include "render/WarpRenderer.h"
#include "render/gpu/GpuDevice.h"
#include "render/gpu/GpuResult.h"

namespace Project {

class SphereWarp;

// The corrected image: the solved warp mesh drawn as textured
// triangles on the GPU, one 1024 x 1024 output tile at a time, sampling the
// source as a texture, and each finished tile copied into the result planes.
//
// The render rectangle is the image area being produced, width x height
// pixels; the source and the result have that same size and are addressed
// relative to its top-left corner (the session adapts the host's filter
// rectangle and tile callbacks to RenderSource and RenderSink). The output
// framing (view extent and origin, from the scale and offsets) is described
// in render/RenderPlan.h.
//
// Usage: Create once per invocation (it makes the GPU pipeline for the
// image's depth), SetMesh whenever the warp changed (rebuilds the buckets and
// source-tile lists), then Render for the whole image or RenderTile for the
// tile that holds a requested rectangle. Tiles whose bucket is empty are
// neither drawn nor written: the result keeps what it held there.
class PResult {
public:
    struct Config {
        int32_t width = 0;   // W, of the render rectangle
        int32_t height = 0;  // H
        PixelFormat format;  // planes (1, 3 or 4) and depth (8 or 16)
        RenderOptions options;
    };

    static Gpu::Result<std::unique_ptr<PResult>> Create(std::shared_ptr<Gpu::GpuDevice> device,
                                                        const Config& config);

    const Config& Configuration() const { return config_; }
    int32_t Width() const { return config_.width; }
    int32_t Height() const { return config_.height; }
    const PixelFormat& Format() const { return config_.format; }

    // Rebuilds the plan (buckets, source-tile lists, frame) for a new mesh.
    void SetMesh(std::shared_ptr<const RenderMesh> mesh);
    // The same with new scale and offsets, planned once.
    void SetMesh(std::shared_ptr<const RenderMesh> mesh, const ViewFraming& framing);
    // BuildRenderMesh(warp, texCoord), then SetMesh.
    void SetWarp(const SphereWarp& warp, const TexCoordFunction& texCoord);
    // New scale and offsets: the frame and buckets are rebuilt for the mesh.
    void SetFraming(const ViewFraming& framing);
    // The current plan; null before the first SetMesh.
    const std::shared_ptr<const RenderPlan>& Plan() const { return renderer_->Plan(); }

    // Every tile, with progress (tiles done of tiles in all) and abort.
    RenderStatus Render(RenderSource& source, RenderSink& sink, const RenderControl& control = {});
    // The tile that holds the requested rectangle: its column and row are
    // requested.left / 1024 and requested.top / 1024.
    RenderStatus RenderTile(const PixelRect& requested, RenderSource& source, RenderSink& sink);
    // The source's pixels changed since the last upload.
    void InvalidateSource() { renderer_->InvalidateSource(); }
    // Makes the source texture ahead of the first mesh (WarpRenderer::ReserveSource).
    RenderStatus ReserveSource() { return renderer_->ReserveSource(config_.width, config_.height); }
    // New scale and offsets, or the same target: whether a result made with
    // `a` can render what `b` asks for after SetFraming(b's framing).
    static bool SameTarget(const Config& a, const Config& b);

    SourceMode Mode() const { return renderer_->Mode(); }
    const RenderStatistics& Statistics() const { return renderer_->Statistics(); }
    WarpRenderer& Renderer() { return *renderer_; }

private:
    PResult(Config config, std::unique_ptr<WarpRenderer> renderer);

    Config config_;
    std::unique_ptr<WarpRenderer> renderer_;
    std::shared_ptr<const RenderMesh> mesh_;
};

// The reduced-scale counterpart of PResult for the preview: renders the whole
// warp, with the same framing rules and through the same GPU layer, into an
// image of a requested size. The source may have any size (typically a
// reduced copy of the photograph; the sampling is bilinear without mipmaps,
// so a source much larger than the output is undersampled); texture
// coordinates are normalised, so the same mesh serves any source size.
class PResultScaled {
public:
    struct Config {
        int32_t outputWidth = 0;
        int32_t outputHeight = 0;
        int32_t sourceWidth = 0;
        int32_t sourceHeight = 0;
        PixelFormat format;
        RenderOptions options;
    };

    static Gpu::Result<std::unique_ptr<PResultScaled>> Create(
        std::shared_ptr<Gpu::GpuDevice> device, const Config& config);

    void SetMesh(std::shared_ptr<const RenderMesh> mesh);
    void SetFraming(const ViewFraming& framing);
    // The part of the picture to show (RenderPlan.h); the default is all of it.
    void SetWindow(const PictureWindow& window);
    const std::shared_ptr<const RenderPlan>& Plan() const { return renderer_->Plan(); }

    // Renders into `output` (outputWidth x outputHeight, the configured
    // format), which is first filled with the options' border, so every pixel
    // that no quad covers holds it.
    RenderStatus Render(RenderSource& source, MemoryImage& output,
                        const RenderControl& control = {});
    const RenderStatistics& Statistics() const { return renderer_->Statistics(); }

private:
    PResultScaled(Config config, std::unique_ptr<WarpRenderer> renderer);

    Config config_;
    PictureWindow window_;
    std::unique_ptr<WarpRenderer> renderer_;
    std::shared_ptr<const RenderMesh> mesh_;
};

}  // namespace Project
