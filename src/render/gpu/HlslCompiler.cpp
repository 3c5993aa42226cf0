#include "render/gpu/HlslCompiler.h"

#include <glslang/Public/ResourceLimits.h>
#include <glslang/Public/ShaderLang.h>
#include <glslang/SPIRV/GlslangToSpv.h>

#include <cstdlib>
#include <mutex>
#include <string>

namespace Project::Gpu {

namespace {

// glslang keeps process-wide tables; set them up once and tear them down at
// exit so leak checkers see a clean process.
void EnsureGlslangProcess() {
    static std::once_flag once;
    std::call_once(once, [] {
        glslang::InitializeProcess();
        std::atexit([] { glslang::FinalizeProcess(); });
    });
}

}  // namespace

Result<std::vector<uint32_t>> CompileHlsl(std::string_view source, std::string_view entryPoint,
                                          ShaderStage stage) {
    EnsureGlslangProcess();
    const EShLanguage language = stage == ShaderStage::Vertex ? EShLangVertex : EShLangFragment;
    const std::string entry(entryPoint);
    const char* text = source.data();
    const int length = static_cast<int>(source.size());

    // The program must be destroyed before the shader linked into it.
    glslang::TShader shader(language);
    shader.setStringsWithLengths(&text, &length, 1);
    shader.setEntryPoint(entry.c_str());
    shader.setSourceEntryPoint(entry.c_str());
    shader.setEnvInput(glslang::EShSourceHlsl, language, glslang::EShClientVulkan, 100);
    shader.setEnvClient(glslang::EShClientVulkan, glslang::EShTargetVulkan_1_1);
    shader.setEnvTarget(glslang::EShTargetSpv, glslang::EShTargetSpv_1_3);
    // b0, t0 and s0 would all be binding 0 of set 0: shift the texture and
    // sampler register spaces (applied by mapIO below).
    shader.setShiftBinding(glslang::EResTexture, kTextureBindingShift);
    shader.setShiftBinding(glslang::EResSampler, kSamplerBindingShift);

    const auto messages = static_cast<EShMessages>(EShMsgSpvRules | EShMsgVulkanRules |
                                                   EShMsgReadHlsl | EShMsgHlslOffsets);
    if (!shader.parse(GetDefaultResources(), 100, false, messages)) {
        return GpuError{0, "HLSL compile of " + entry + " failed: " + shader.getInfoLog()};
    }
    glslang::TProgram program;
    program.addShader(&shader);
    if (!program.link(messages)) {
        return GpuError{0, "HLSL link of " + entry + " failed: " + program.getInfoLog()};
    }
    if (!program.mapIO()) {
        return GpuError{0,
                        "HLSL resource mapping of " + entry + " failed: " + program.getInfoLog()};
    }
    const glslang::TIntermediate* intermediate = program.getIntermediate(language);
    if (intermediate == nullptr) {
        return GpuError{0, "HLSL compile of " + entry + " produced no code"};
    }
    std::vector<uint32_t> spirv;
    glslang::SpvOptions options;
    options.validate = false;
    options.disableOptimizer = true;
    spv::SpvBuildLogger logger;
    glslang::GlslangToSpv(*intermediate, spirv, &logger, &options);
    if (spirv.empty()) {
        return GpuError{0,
                        "SPIR-V generation for " + entry + " failed: " + logger.getAllMessages()};
    }
    return spirv;
}

}  // namespace Project::Gpu
