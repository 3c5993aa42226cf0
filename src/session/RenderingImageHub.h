#pragma once

#include <array>
#include <cstdint>
#include <future>
#include <memory>
#include <string>

#include "render/PResult.h"
#include "render/gpu/GpuDevice.h"
#include "session/PFilterComponents.h"

namespace Project {

// What the picture shows where it shows nothing of the photograph: black in
// every image mode (grey and RGB 0; CMYK no colour ink and full black ink;
// Lab L = 0 with neutral a and b), and transparent (0) in an alpha plane that
// follows the mode's planes. Values on the host scale for the depth (8 or 16
// bits; full scale 255 or 32768).
std::array<uint16_t, 4> BorderValues(int32_t mode, int32_t depth);

// The image hub of the module: the host's image behind the renderer's source
// and sink interfaces, and the final full-resolution pass through the GPU.
// The GPU device is made on the first final render and kept for the plug-in
// instance (starting it costs tens of milliseconds and a shader compile), and
// so is the last result, whose source texture the next image of the same size
// reuses.
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
    // Starts the device, and makes the result with its source texture, on a
    // thread of its own: Vulkan start-up, the shader compile and the first
    // touch of a large texture take time the solve can hide.
    void Prewarm(PFilter& filter) override;

private:
    struct Warm {
        std::shared_ptr<Gpu::GpuDevice> device;
        std::unique_ptr<PResult> result;  // null when it could not be made ahead
    };
    Gpu::Result<std::shared_ptr<Gpu::GpuDevice>> Device();
    PResult::Config ResultConfig(PFilter& filter) const;

    Gpu::GpuOptions options_;
    HostImageContext context_;
    std::shared_ptr<Gpu::GpuDevice> device_;
    // Made ahead by Prewarm, then kept from one final render to the next.
    std::unique_ptr<PResult> result_;
    std::future<Gpu::Result<Warm>> starting_;
};

}  // namespace Project
