#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "render/gpu/GpuLog.h"
#include "render/gpu/GpuResult.h"

namespace Project::Gpu {

// How GpuDevice::Create sets the device up.
struct GpuOptions {
    // Where log lines go; empty means stderr.
    LogSink log;
    // Request VK_LAYER_KHRONOS_validation (and VK_EXT_debug_utils) when the
    // layer is installed; silently runs without it otherwise (see
    // GpuDevice::ValidationEnabled). Meant for tests.
    bool enableValidation = false;
    // With validation on: called once per validation message of error
    // severity (tests turn it into a failure). Warnings go to the log.
    std::function<void(std::string_view)> onValidationError;
    // When non-zero, the largest texture side the renderer may use is the
    // smaller of this and the device's maxImageDimension2D. Lets tests drive
    // the source-window path with small images.
    uint32_t maxTextureDimension = 0;
    // On a device that renders in the processor's memory, the renderer's
    // source texture is a linear image that the host writes in place: no
    // staging memory and no copy. Off: the staging path every other device
    // takes (tests drive it on the software device so).
    bool mappedSource = true;
};

// The class of the physical device, in order of preference.
enum class DeviceKind { Discrete, Integrated, Virtual, Cpu, Other };

// A headless Vulkan 1.1+ device (no window, no surface) with one graphics
// queue, and the renderer's shader program (HLSL text compiled to
// SPIR-V with glslang at start-up). Shared by reference count: every GPU
// object made on it holds a reference, so the device outlives them.
//
// Not thread-safe: one thread at a time uses a device and what is made on it
// (everything runs on the host's thread; parallel work is joined inside each call).
class GpuDevice {
public:
    // Initialises Vulkan and compiles the shader program. Logs
    // "Initializing GPU environment for Curvana" first. On failure logs
    // "RavloException during Initialize: <text>" and "Failure in initializing
    // Ravlo for Curvana" (the system's fixed log strings) and returns the
    // error; never aborts. No Vulkan driver at all gives an error naming
    // VK_ERROR_INCOMPATIBLE_DRIVER and what to install.
    //
    // Picks a device with a graphics queue and the formats the renderer needs
    // (RGBA8 and RGBA16 UNORM, sampled with linear filtering and as colour
    // attachments), preferring discrete, then integrated, then virtual, then
    // CPU devices (Mesa's lavapipe).
    static Result<std::shared_ptr<GpuDevice>> Create(const GpuOptions& options = {});

    ~GpuDevice();
    GpuDevice(const GpuDevice&) = delete;
    GpuDevice& operator=(const GpuDevice&) = delete;

    // The device's product name (VkPhysicalDeviceProperties::deviceName).
    const std::string& Name() const;
    DeviceKind Kind() const;
    // The device's own maxImageDimension2D.
    uint32_t DeviceMaxImageDimension2D() const;
    // The largest texture side the renderer uses: DeviceMaxImageDimension2D,
    // or the smaller GpuOptions::maxTextureDimension. Checked by the layer
    // itself because some drivers (lavapipe) accept larger images silently.
    uint32_t MaxTextureDimension() const;
    // VK_LAYER_KHRONOS_validation is active on this device.
    bool ValidationEnabled() const;
    // Validation errors reported so far (0 without validation).
    uint64_t ValidationErrorCount() const;

    // Logs one line through the device's sink.
    void Log(LogLevel level, std::string_view line) const;

    // Internal state, defined in render/gpu/VulkanContext.h (Vulkan types).
    struct Impl;
    Impl& impl() { return *impl_; }
    const Impl& impl() const { return *impl_; }

private:
    explicit GpuDevice(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

// Whether a usable Vulkan device (graphics queue, Vulkan 1.1, the renderer's
// formats) is present. Cheap: creates an instance and inspects the physical
// devices, creates no logical device and compiles nothing. Logs nothing.
bool IsVulkanDevicePresent();

// The HLSL source of the resampling shader program: stages
// "VSMain" and "FSMain", cbuffer "uniforms" (b0) with modelviewProjectionMatrix,
// Texture2D theImage (t0), SamplerState g_sampler (s0).
std::string_view ResamplingShaderHlsl();

}  // namespace Project::Gpu
