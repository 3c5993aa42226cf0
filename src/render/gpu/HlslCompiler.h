#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "render/gpu/GpuResult.h"

namespace Project::Gpu {

enum class ShaderStage { Vertex, Fragment };

// Compiles one entry point of HLSL source to SPIR-V for Vulkan 1.1 with
// glslang's C++ API. Register spaces are separated so that b0, t0 and s0 do
// not all land on binding 0 of set 0:
//   constant buffers bN -> binding N, textures tN -> binding kTextureBindingShift + N,
//   samplers sN -> binding kSamplerBindingShift + N.
// Vertex inputs get locations in declaration order. Failure (syntax, link)
// returns the compiler's info log in the error message.
Result<std::vector<uint32_t>> CompileHlsl(std::string_view source, std::string_view entryPoint,
                                          ShaderStage stage);

inline constexpr uint32_t kTextureBindingShift = 1;
inline constexpr uint32_t kSamplerBindingShift = 2;

}  // namespace Project::Gpu
