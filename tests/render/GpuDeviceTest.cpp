// The Vulkan layer: start-up, its log lines and failure, the shader program,
// the source-texture rules and the draw/readback path on lavapipe.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "RenderTestSupport.h"
#include "render/gpu/GpuDevice.h"
#include "render/gpu/GpuResampler.h"
#include "render/gpu/HlslCompiler.h"
#include "render/gpu/VulkanContext.h"

namespace Project {
namespace {

using Testing::CapturedLog;
using Testing::MakeTestDevice;

TEST(GpuDevice, StartsHeadlessAndLogsTheProduct) {
    CapturedLog log;
    auto device = MakeTestDevice(0, &log);
    ASSERT_TRUE(device);
    EXPECT_TRUE(log.Contains("Initializing GPU environment for Curvana"));
    EXPECT_FALSE(log.Contains("RavloException"));
    EXPECT_FALSE(device->Name().empty());
    EXPECT_GE(device->DeviceMaxImageDimension2D(), 4096u);
    EXPECT_EQ(device->MaxTextureDimension(), device->DeviceMaxImageDimension2D());
    EXPECT_TRUE(Gpu::IsVulkanDevicePresent());
    // The test devices run under the validation layers whenever they are
    // installed (scripts/setup installs them).
    EXPECT_TRUE(device->ValidationEnabled() || log.Contains("validation requested but"));
}

// The debug messenger reports a validation error to the handler: an invalid
// call (a buffer of size 0) made directly on the device.
TEST(GpuDevice, ValidationErrorsReachTheHandler) {
    Testing::KeepVulkanDriverLoaded();
    std::vector<std::string> errors;
    Gpu::GpuOptions options;
    options.enableValidation = true;
    options.onValidationError = [&](std::string_view message) { errors.emplace_back(message); };
    options.log = [](Gpu::LogLevel, std::string_view) {};
    auto device = Gpu::GpuDevice::Create(options);
    ASSERT_TRUE(device) << device.error().message;
    if (!device.value()->ValidationEnabled()) {
        GTEST_SKIP() << "VK_LAYER_KHRONOS_validation is not installed";
    }
    auto info = Gpu::detail::Info<VkBufferCreateInfo>(VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO);
    info.size = 0;  // invalid
    info.usage = VK_BUFFER_USAGE_VERTEX_BUFFER_BIT;
    VkBuffer buffer = VK_NULL_HANDLE;
    const VkDevice vk = device.value()->impl().vk();
    if (vkCreateBuffer(vk, &info, nullptr, &buffer) == VK_SUCCESS) {
        vkDestroyBuffer(vk, buffer, nullptr);
    }
    EXPECT_FALSE(errors.empty());
    EXPECT_EQ(device.value()->ValidationErrorCount(), errors.size());
}

// The start-up failure runs in a child process (gtest re-executes this test
// binary), where the Vulkan loader is pointed at a driver file that does not
// exist before anything touched Vulkan.
void StartWithoutDriver() {
    setenv("VK_DRIVER_FILES", "/nonexistent/curvana_no_icd.json", 1);
    setenv("VK_ICD_FILENAMES", "/nonexistent/curvana_no_icd.json", 1);
    Gpu::GpuOptions options;
    options.log = Gpu::StderrLogSink();
    auto device = Gpu::GpuDevice::Create(options);
    if (device) {
        std::fprintf(stderr, "unexpectedly got a device\n");
        std::exit(2);
    }
    std::fprintf(stderr, "error code %d: %s\n", device.error().vkResult,
                 device.error().message.c_str());
    if (Gpu::IsVulkanDevicePresent()) {
        std::exit(3);
    }
    std::exit(device.error().message.find("VK_ERROR_INCOMPATIBLE_DRIVER") != std::string::npos ? 0
                                                                                               : 4);
}

TEST(GpuDevice, StartupFailureIsLoggedAndReturnedNotFatal) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(StartWithoutDriver(), testing::ExitedWithCode(0),
                "Initializing GPU environment for Curvana(.|\n)*"
                "RavloException during Initialize: no Vulkan driver found "
                "\\(VK_ERROR_INCOMPATIBLE_DRIVER\\)(.|\n)*"
                "Failure in initializing Ravlo for Curvana");
}

// The (binding, descriptor set) decorations of a SPIR-V module, by result id.
std::vector<uint32_t> Bindings(const std::vector<uint32_t>& spirv) {
    std::vector<uint32_t> bindings;
    for (size_t at = 5; at < spirv.size();) {
        const uint32_t word = spirv[at];
        const uint32_t count = word >> 16;
        const uint32_t opcode = word & 0xffffu;
        if (count == 0) {
            break;
        }
        // OpDecorate target Binding(33) value
        if (opcode == 71 && count == 4 && spirv[at + 2] == 33) {
            bindings.push_back(spirv[at + 3]);
        }
        at += count;
    }
    return bindings;
}

TEST(HlslCompiler, CompilesBothStagesWithSeparateBindings) {
    auto vertex = Gpu::CompileHlsl(Gpu::ResamplingShaderHlsl(), "VSMain", Gpu::ShaderStage::Vertex);
    ASSERT_TRUE(vertex) << vertex.error().message;
    auto fragment =
        Gpu::CompileHlsl(Gpu::ResamplingShaderHlsl(), "FSMain", Gpu::ShaderStage::Fragment);
    ASSERT_TRUE(fragment) << fragment.error().message;
    EXPECT_EQ(vertex.value()[0], 0x07230203u);  // SPIR-V magic
    // Each module declares the three globals: b0 -> 0, t0 -> 1, s0 -> 2,
    // where glslang alone would put all three on binding 0.
    const std::vector<uint32_t> expected{0, Gpu::kTextureBindingShift, Gpu::kSamplerBindingShift};
    for (const auto* module : {&vertex.value(), &fragment.value()}) {
        auto bindings = Bindings(*module);
        std::sort(bindings.begin(), bindings.end());
        EXPECT_EQ(bindings, expected);
    }
}

TEST(HlslCompiler, ReportsErrorsAsValues) {
    auto broken = Gpu::CompileHlsl("float4 FSMain( : SV_TARGET { return 1; }", "FSMain",
                                   Gpu::ShaderStage::Fragment);
    ASSERT_FALSE(broken);
    EXPECT_NE(broken.error().message.find("HLSL compile of FSMain failed"), std::string::npos);
}

TEST(GpuResampler, SourceTextureIsRecreatedOnlyWhenItsSizeChanges) {
    auto device = MakeTestDevice();
    ASSERT_TRUE(device);
    auto resampler = Gpu::GpuResampler::Create(device, 8);
    ASSERT_TRUE(resampler) << resampler.error().message;
    auto& r = *resampler.value();
    EXPECT_TRUE(r.EnsureSourceTexture(100, 50).value());
    EXPECT_FALSE(r.EnsureSourceTexture(100, 50).value());
    EXPECT_TRUE(r.EnsureSourceTexture(100, 51).value());
    EXPECT_TRUE(r.EnsureSourceTexture(101, 51).value());
    EXPECT_FALSE(r.EnsureSourceTexture(101, 51).value());
    EXPECT_EQ(r.SourceTextureCreations(), 3u);
}

TEST(GpuResampler, RefusesTexturesBeyondTheLimit) {
    auto device = MakeTestDevice();
    ASSERT_TRUE(device);
    auto resampler = Gpu::GpuResampler::Create(device, 16);
    ASSERT_TRUE(resampler);
    // lavapipe itself would accept this silently.
    auto made = resampler.value()->EnsureSourceTexture(device->MaxTextureDimension() + 1, 1);
    ASSERT_FALSE(made);
    EXPECT_NE(made.error().message.find("exceeds the largest texture side"), std::string::npos);

    auto small = MakeTestDevice(256);  // a forced limit below the device's
    ASSERT_TRUE(small);
    EXPECT_EQ(small->MaxTextureDimension(), 256u);
    auto limited = Gpu::GpuResampler::Create(small, 8);
    ASSERT_TRUE(limited) << limited.error().message;  // the 1024 target is still fine
    EXPECT_TRUE(limited.value()->EnsureSourceTexture(256, 256));
    EXPECT_FALSE(limited.value()->EnsureSourceTexture(257, 16));
}

// A quad sampling a 2 x 2 texture through a matrix that halves x and shifts
// it: checks orientation (texel (0, 0) at the quad's top-left, row 0 of the
// target at the top) and the layout of the matrix in the constant buffer.
TEST(GpuResampler, DrawsAndReadsBackInTheExpectedOrientation) {
    auto device = MakeTestDevice();
    ASSERT_TRUE(device);
    for (int32_t depth : {8, 16}) {
        auto made = Gpu::GpuResampler::Create(device, depth);
        ASSERT_TRUE(made) << made.error().message;
        auto& r = *made.value();
        ASSERT_TRUE(r.EnsureSourceTexture(2, 2));
        // Texels: (0,0) 10, (1,0) 20, (0,1) 30, (1,1) 40 in channel 0; channel c adds c.
        ASSERT_TRUE(r.UploadSource(2, 2, [&](uint32_t y0, uint32_t rows, void* dst, size_t pitch) {
            for (uint32_t y = y0; y < y0 + rows; ++y) {
                for (uint32_t x = 0; x < 2; ++x) {
                    for (uint32_t c = 0; c < 4; ++c) {
                        const uint32_t value = 10 * (1 + x + 2 * y) + c;
                        auto* row = static_cast<uint8_t*>(dst) + (y - y0) * pitch;
                        if (depth == 8) {
                            row[4 * x + c] = static_cast<uint8_t>(value);
                        } else {
                            const auto wide = static_cast<uint16_t>(value * 257);
                            std::memcpy(row + 2 * (4 * x + c), &wide, 2);
                        }
                    }
                }
            }
            return true;
        }));
        const std::vector<Gpu::GpuVertex> quad = {
            // Texture coordinates at the 2 x 2 texture's texel centres: the
            // corners show whole texels, clear of the empty border.
            {-1, -1, 0, 1, 0.25f, 0.25f},
            {1, -1, 0, 1, 0.75f, 0.25f},
            {-1, 1, 0, 1, 0.25f, 0.75f},
            {1, 1, 0, 1, 0.75f, 0.75f}};
        const std::vector<uint32_t> indices = {0, 2, 3, 0, 1, 3};
        ASSERT_TRUE(r.UploadVertices(quad));
        ASSERT_TRUE(r.UploadIndices(indices));
        std::array<float, 16> matrix{1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1};
        matrix[0] = 0.5f;
        matrix[3] = 0.5f;  // x / 2 + 1 / 2: the quad covers the right half only
        ASSERT_TRUE(r.SetMatrix(matrix));
        ASSERT_TRUE(r.Draw(6, true, Gpu::TargetRegion{0, 0, 1024, 1024}));
        auto value = [&](uint32_t x, uint32_t y, uint32_t c) -> uint32_t {
            const size_t at = (static_cast<size_t>(y) * 1024 + x) * 4 + c;
            if (depth == 8) {
                return static_cast<const uint8_t*>(r.ReadbackData())[at];
            }
            return static_cast<const uint16_t*>(r.ReadbackData())[at] / 257;
        };
        EXPECT_EQ(value(100, 5, 0), 0u) << "left half is uncovered and cleared";
        EXPECT_NEAR(value(513, 1, 0), 10.0, 1.0) << "top-left texel at the quad's top-left";
        EXPECT_NEAR(value(513, 1, 3), 13.0, 1.0);
        EXPECT_NEAR(value(1022, 1, 0), 20.0, 1.0);
        EXPECT_NEAR(value(513, 1022, 0), 30.0, 1.0);
        EXPECT_NEAR(value(1022, 1022, 2), 42.0, 1.0);
        // A second draw without clearing keeps the first; a region readback.
        matrix[3] = -0.5f;  // now the left half
        ASSERT_TRUE(r.SetMatrix(matrix));
        ASSERT_TRUE(r.Draw(6, false, Gpu::TargetRegion{510, 0, 4, 1}));
        if (depth == 8) {
            const auto* row = static_cast<const uint8_t*>(r.ReadbackData());
            EXPECT_NEAR(row[0], 20.0, 1.0);      // (510, 0): right edge of the new quad
            EXPECT_NEAR(row[4 * 3], 10.0, 1.0);  // (513, 0): left edge of the old quad
        }
    }
}

}  // namespace
}  // namespace Project
