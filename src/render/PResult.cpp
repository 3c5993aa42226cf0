#include "render/PResult.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "warp/SphereWarp.h"

namespace Project {

// ---- PResult -------------------------------------------------------------------------

Gpu::Result<std::unique_ptr<PResult>> PResult::Create(std::shared_ptr<Gpu::GpuDevice> device,
                                                      const Config& config) {
    if (config.width <= 0 || config.height <= 0) {
        return Gpu::GpuError{0, "empty render rectangle " + std::to_string(config.width) + " x " +
                                    std::to_string(config.height)};
    }
    auto renderer = WarpRenderer::Create(std::move(device), config.format, config.options);
    if (!renderer) {
        return renderer.error();
    }
    return std::unique_ptr<PResult>(new PResult(config, std::move(renderer).value()));
}

PResult::PResult(Config config, std::unique_ptr<WarpRenderer> renderer)
    : config_(config), renderer_(std::move(renderer)) {}

bool PResult::SameTarget(const Config& a, const Config& b) {
    return a.width == b.width && a.height == b.height && a.format.planes == b.format.planes &&
           a.format.depth == b.format.depth && a.options.border == b.options.border &&
           a.options.sourceTextureBudget == b.options.sourceTextureBudget;
}

void PResult::SetMesh(std::shared_ptr<const RenderMesh> mesh) {
    mesh_ = std::move(mesh);
    renderer_->SetPlan(std::make_shared<const RenderPlan>(mesh_, config_.width, config_.height,
                                                          config_.width, config_.height,
                                                          config_.options.framing));
}

void PResult::SetMesh(std::shared_ptr<const RenderMesh> mesh, const ViewFraming& framing) {
    config_.options.framing = framing;
    SetMesh(std::move(mesh));
}

void PResult::SetWarp(const SphereWarp& warp, const TexCoordFunction& texCoord) {
    SetMesh(std::make_shared<const RenderMesh>(BuildRenderMesh(warp, texCoord)));
}

void PResult::SetFraming(const ViewFraming& framing) {
    config_.options.framing = framing;
    if (mesh_) {
        SetMesh(mesh_);
    }
}

RenderStatus PResult::Render(RenderSource& source, RenderSink& sink, const RenderControl& control) {
    if (!renderer_->Plan()) {
        return {RenderCode::InvalidArgument, "PResult::Render before SetMesh"};
    }
    return renderer_->RenderAll(source, sink, control);
}

RenderStatus PResult::RenderTile(const PixelRect& requested, RenderSource& source,
                                 RenderSink& sink) {
    if (!renderer_->Plan()) {
        return {RenderCode::InvalidArgument, "PResult::RenderTile before SetMesh"};
    }
    if (requested.left < 0 || requested.top < 0 || requested.left >= config_.width ||
        requested.top >= config_.height) {
        return {RenderCode::InvalidArgument, "requested rectangle outside the image"};
    }
    return renderer_->RenderTile(requested.left / RenderPlan::kTileSize,
                                 requested.top / RenderPlan::kTileSize, source, sink);
}

// ---- PResultScaled ----------------------------------------------------------------------

Gpu::Result<std::unique_ptr<PResultScaled>> PResultScaled::Create(
    std::shared_ptr<Gpu::GpuDevice> device, const Config& config) {
    if (config.outputWidth <= 0 || config.outputHeight <= 0 || config.sourceWidth <= 0 ||
        config.sourceHeight <= 0) {
        return Gpu::GpuError{0, "PResultScaled needs a non-empty output and source"};
    }
    auto renderer = WarpRenderer::Create(std::move(device), config.format, config.options);
    if (!renderer) {
        return renderer.error();
    }
    return std::unique_ptr<PResultScaled>(new PResultScaled(config, std::move(renderer).value()));
}

PResultScaled::PResultScaled(Config config, std::unique_ptr<WarpRenderer> renderer)
    : config_(config), renderer_(std::move(renderer)) {}

void PResultScaled::SetMesh(std::shared_ptr<const RenderMesh> mesh) {
    mesh_ = std::move(mesh);
    renderer_->SetPlan(std::make_shared<const RenderPlan>(
        mesh_, config_.outputWidth, config_.outputHeight, config_.sourceWidth, config_.sourceHeight,
        config_.options.framing, window_));
}

void PResultScaled::SetWindow(const PictureWindow& window) {
    window_ = window;
    if (mesh_) {
        SetMesh(mesh_);
    }
}

void PResultScaled::SetFraming(const ViewFraming& framing) {
    config_.options.framing = framing;
    if (mesh_) {
        SetMesh(mesh_);
    }
}

RenderStatus PResultScaled::Render(RenderSource& source, MemoryImage& output,
                                   const RenderControl& control) {
    if (!renderer_->Plan()) {
        return {RenderCode::InvalidArgument, "PResultScaled::Render before SetMesh"};
    }
    if (output.Width() != config_.outputWidth || output.Height() != config_.outputHeight ||
        output.Format().planes != config_.format.planes ||
        output.Format().depth != config_.format.depth) {
        output = MemoryImage(config_.outputWidth, config_.outputHeight, config_.format);
    }
    // Tiles without a quad are not drawn: they keep the border from here.
    for (int32_t p = 0; p < config_.format.planes; ++p) {
        const uint16_t border = config_.options.border[static_cast<size_t>(p)];
        const size_t count =
            static_cast<size_t>(output.Width()) * static_cast<size_t>(output.Height());
        if (config_.format.depth > 8) {
            auto* values = reinterpret_cast<uint16_t*>(output.PlaneData(p));
            std::fill(values, values + count, border);
        } else {
            std::memset(output.PlaneData(p), std::min<uint16_t>(border, 255), count);
        }
    }
    // RenderAll reads the source afresh on every call.
    return renderer_->RenderAll(source, output, control);
}

}  // namespace Project
