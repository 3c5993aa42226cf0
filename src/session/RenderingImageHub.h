#pragma once

#include <memory>
#include <string>

#include "render/gpu/GpuDevice.h"
#include "session/PFilterComponents.h"

namespace Project {

// The image hub of the module: the host's image behind the renderer's source
// and sink interfaces, and the final full-resolution pass through the GPU.
// The GPU device is made on the first final render and kept for the plug-in
// instance (starting it costs tens of milliseconds and a shader compile).
class RenderingImageHub final : public PImageHub {
public:
    // options: how the device is made (tests turn validation on).
    explicit RenderingImageHub(Gpu::GpuOptions options = {});

    void AttachHost(const HostImageContext& context) override { context_ = context; }
    ImageRect GetImageRect() const override { return context_.host.FilterRect(); }
    // Draws the pipeline's solved warp into the host's result planes. A
    // missing solution ("Solve failed") or a GPU that cannot start is shown
    // to the user and returns false, like a cancel: the image is untouched and
    // no parameters are written.
    bool RenderFinal(PFilter& filter) override;

private:
    Gpu::GpuOptions options_;
    HostImageContext context_;
    std::shared_ptr<Gpu::GpuDevice> device_;
};

}  // namespace Project
