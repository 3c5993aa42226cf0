#include "render/gpu/GpuResampler.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "render/gpu/HlslCompiler.h"
#include "render/gpu/VulkanContext.h"

namespace Project::Gpu {

namespace {

// Staging bands of the source upload: two buffers of about this size, so the
// host fills one while the device copies the other. Not smaller: each band is
// a submission, and on the software device a copy into a large texture costs
// milliseconds beyond its bytes (2 MiB bands made a gigapixel run a third
// slower).
constexpr VkDeviceSize kStagingBandBytes = VkDeviceSize{16} << 20;

// Rows of rowPitch bytes in one staging band of an upload of height rows.
uint32_t BandRows(size_t rowPitch, uint32_t height) {
    return static_cast<uint32_t>(std::clamp<VkDeviceSize>(kStagingBandBytes / rowPitch, 1, height));
}

// A command buffer with its fence; the buffer is freed with the pool.
struct Submission {
    VkCommandBuffer commands = VK_NULL_HANDLE;
    detail::Fence fence;
    bool pending = false;
};

}  // namespace

struct GpuResampler::Impl {
    std::shared_ptr<GpuDevice> owner;
    GpuDevice::Impl* gpu = nullptr;
    int32_t depth = 8;
    VkFormat format = VK_FORMAT_R8G8B8A8_UNORM;
    uint32_t bytesPerTexel = 4;

    // Declared in dependency order; destroyed in reverse.
    detail::CommandPool commandPool;
    Submission drawSubmission;
    std::array<Submission, 2> uploadSubmissions;
    detail::Sampler sampler;
    detail::DescriptorSetLayout setLayout;
    detail::PipelineLayout pipelineLayout;
    detail::RenderPass clearPass;
    detail::RenderPass loadPass;
    detail::ShaderModule vertexModule;
    detail::ShaderModule fragmentModule;
    detail::Pipeline pipeline;
    detail::ImageResource target;
    detail::Framebuffer framebuffer;
    detail::DescriptorPool descriptorPool;
    VkDescriptorSet descriptorSet = VK_NULL_HANDLE;
    detail::BufferResource uniforms;
    detail::BufferResource vertices;
    detail::BufferResource indices;
    detail::BufferResource readback;
    std::array<detail::BufferResource, 2> staging;
    detail::ImageResource source;
    bool sourceMapped = false;  // a linear image the host writes in place
    uint64_t sourceCreations = 0;
    bool targetInitialized = false;
    bool sourceReady = false;
    std::array<float, 4> clearColor{};

    VkDevice vk() const { return gpu->vk(); }

    // Everything a resampler needs, step by step; stops at the first failure.
    Status CreateAll();
    Status CreateCommands();
    Status CreateBindingLayout();
    Status CreateRenderPasses();
    Status CreatePipeline();
    Status CreateTarget();
    Status CreateDescriptorSet();
    Status CreateHostBuffers();
    Result<VkCommandBuffer> Begin(Submission& submission);
    Status SubmitAndWait(Submission& submission);
    Status Submit(Submission& submission);
    Status Wait(Submission& submission);
    Status EnsureBuffer(detail::BufferResource& buffer, VkDeviceSize size,
                        VkBufferUsageFlags usage);
    // Both staging buffers hold at least bandBytes; new ones are written
    // through once (zeros) when touch is set, so that their pages are
    // first touched here rather than by the upload.
    Status EnsureStaging(VkDeviceSize bandBytes, bool touch);
    void WriteDescriptors();
    // Records a layout move of the source texture.
    void SourceBarrier(VkCommandBuffer commands, VkImageLayout from, VkImageLayout to,
                       VkAccessFlags fromAccess, VkAccessFlags toAccess,
                       VkPipelineStageFlags fromStage, VkPipelineStageFlags toStage) const;
    // Records the source texture's move to transfer writes (its content
    // discarded), or from them to sampling.
    void MoveSource(VkCommandBuffer commands, bool toSampling) const;
};

namespace {

Result<detail::RenderPass> MakeRenderPass(VkDevice device, VkFormat format, bool clear) {
    VkAttachmentDescription attachment{};
    attachment.format = format;
    attachment.samples = VK_SAMPLE_COUNT_1_BIT;
    attachment.loadOp = clear ? VK_ATTACHMENT_LOAD_OP_CLEAR : VK_ATTACHMENT_LOAD_OP_LOAD;
    attachment.storeOp = VK_ATTACHMENT_STORE_OP_STORE;
    attachment.stencilLoadOp = VK_ATTACHMENT_LOAD_OP_DONT_CARE;
    attachment.stencilStoreOp = VK_ATTACHMENT_STORE_OP_DONT_CARE;
    // A load pass continues from the previous pass, which left the target
    // ready for the readback copy.
    attachment.initialLayout =
        clear ? VK_IMAGE_LAYOUT_UNDEFINED : VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL;
    attachment.finalLayout = VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL;
    VkAttachmentReference reference{0, VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL};
    VkSubpassDescription subpass{};
    subpass.pipelineBindPoint = VK_PIPELINE_BIND_POINT_GRAPHICS;
    subpass.colorAttachmentCount = 1;
    subpass.pColorAttachments = &reference;
    std::array<VkSubpassDependency, 2> dependencies{};
    // Earlier readback copies and earlier passes before this pass writes.
    dependencies[0].srcSubpass = VK_SUBPASS_EXTERNAL;
    dependencies[0].dstSubpass = 0;
    dependencies[0].srcStageMask =
        VK_PIPELINE_STAGE_TRANSFER_BIT | VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT;
    dependencies[0].srcAccessMask = VK_ACCESS_COLOR_ATTACHMENT_WRITE_BIT;
    dependencies[0].dstStageMask = VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT;
    dependencies[0].dstAccessMask =
        VK_ACCESS_COLOR_ATTACHMENT_READ_BIT | VK_ACCESS_COLOR_ATTACHMENT_WRITE_BIT;
    // This pass's writes before the readback copy (and a later load pass).
    dependencies[1].srcSubpass = 0;
    dependencies[1].dstSubpass = VK_SUBPASS_EXTERNAL;
    dependencies[1].srcStageMask = VK_PIPELINE_STAGE_COLOR_ATTACHMENT_OUTPUT_BIT;
    dependencies[1].srcAccessMask = VK_ACCESS_COLOR_ATTACHMENT_WRITE_BIT;
    dependencies[1].dstStageMask = VK_PIPELINE_STAGE_TRANSFER_BIT;
    dependencies[1].dstAccessMask = VK_ACCESS_TRANSFER_READ_BIT;
    auto info = detail::Info<VkRenderPassCreateInfo>(VK_STRUCTURE_TYPE_RENDER_PASS_CREATE_INFO);
    info.attachmentCount = 1;
    info.pAttachments = &attachment;
    info.subpassCount = 1;
    info.pSubpasses = &subpass;
    info.dependencyCount = static_cast<uint32_t>(dependencies.size());
    info.pDependencies = dependencies.data();
    return detail::Create<detail::RenderPass>(device, vkCreateRenderPass, info,
                                              "vkCreateRenderPass");
}

Result<detail::ShaderModule> MakeShaderModule(VkDevice device, const std::vector<uint32_t>& code) {
    auto info = detail::Info<VkShaderModuleCreateInfo>(VK_STRUCTURE_TYPE_SHADER_MODULE_CREATE_INFO);
    info.codeSize = code.size() * sizeof(uint32_t);
    info.pCode = code.data();
    return detail::Create<detail::ShaderModule>(device, vkCreateShaderModule, info,
                                                "vkCreateShaderModule");
}

}  // namespace

Status GpuResampler::Impl::CreatePipeline() {
    if (Status s = detail::Assign(vertexModule, MakeShaderModule(vk(), gpu->vertexSpirv)); !s) {
        return s;
    }
    if (Status s = detail::Assign(fragmentModule, MakeShaderModule(vk(), gpu->fragmentSpirv)); !s) {
        return s;
    }

    std::array<VkPipelineShaderStageCreateInfo, 2> stages{};
    stages[0].sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
    stages[0].stage = VK_SHADER_STAGE_VERTEX_BIT;
    stages[0].module = vertexModule.get();
    stages[0].pName = "VSMain";
    stages[1].sType = VK_STRUCTURE_TYPE_PIPELINE_SHADER_STAGE_CREATE_INFO;
    stages[1].stage = VK_SHADER_STAGE_FRAGMENT_BIT;
    stages[1].module = fragmentModule.get();
    stages[1].pName = "FSMain";

    // The "vertices" binding: POSITION float4 then TEXCOORD float2.
    VkVertexInputBindingDescription binding{0, sizeof(GpuVertex), VK_VERTEX_INPUT_RATE_VERTEX};
    std::array<VkVertexInputAttributeDescription, 2> attributes{};
    attributes[0] = {0, 0, VK_FORMAT_R32G32B32A32_SFLOAT, offsetof(GpuVertex, x)};
    attributes[1] = {1, 0, VK_FORMAT_R32G32_SFLOAT, offsetof(GpuVertex, u)};
    auto vertexInput = detail::Info<VkPipelineVertexInputStateCreateInfo>(
        VK_STRUCTURE_TYPE_PIPELINE_VERTEX_INPUT_STATE_CREATE_INFO);
    vertexInput.vertexBindingDescriptionCount = 1;
    vertexInput.pVertexBindingDescriptions = &binding;
    vertexInput.vertexAttributeDescriptionCount = static_cast<uint32_t>(attributes.size());
    vertexInput.pVertexAttributeDescriptions = attributes.data();

    auto assembly = detail::Info<VkPipelineInputAssemblyStateCreateInfo>(
        VK_STRUCTURE_TYPE_PIPELINE_INPUT_ASSEMBLY_STATE_CREATE_INFO);
    assembly.topology = VK_PRIMITIVE_TOPOLOGY_TRIANGLE_LIST;

    const auto size = static_cast<float>(kTargetSize);
    VkViewport viewport{0.0f, 0.0f, size, size, 0.0f, 1.0f};
    VkRect2D scissor{{0, 0}, {kTargetSize, kTargetSize}};
    auto viewportState = detail::Info<VkPipelineViewportStateCreateInfo>(
        VK_STRUCTURE_TYPE_PIPELINE_VIEWPORT_STATE_CREATE_INFO);
    viewportState.viewportCount = 1;
    viewportState.pViewports = &viewport;
    viewportState.scissorCount = 1;
    viewportState.pScissors = &scissor;

    // Folded meshes may turn triangles over: no culling.
    auto raster = detail::Info<VkPipelineRasterizationStateCreateInfo>(
        VK_STRUCTURE_TYPE_PIPELINE_RASTERIZATION_STATE_CREATE_INFO);
    raster.polygonMode = VK_POLYGON_MODE_FILL;
    raster.cullMode = VK_CULL_MODE_NONE;
    raster.frontFace = VK_FRONT_FACE_COUNTER_CLOCKWISE;
    raster.lineWidth = 1.0f;

    auto multisample = detail::Info<VkPipelineMultisampleStateCreateInfo>(
        VK_STRUCTURE_TYPE_PIPELINE_MULTISAMPLE_STATE_CREATE_INFO);
    multisample.rasterizationSamples = VK_SAMPLE_COUNT_1_BIT;

    VkPipelineColorBlendAttachmentState blendAttachment{};
    blendAttachment.colorWriteMask = VK_COLOR_COMPONENT_R_BIT | VK_COLOR_COMPONENT_G_BIT |
                                     VK_COLOR_COMPONENT_B_BIT | VK_COLOR_COMPONENT_A_BIT;
    auto blend = detail::Info<VkPipelineColorBlendStateCreateInfo>(
        VK_STRUCTURE_TYPE_PIPELINE_COLOR_BLEND_STATE_CREATE_INFO);
    blend.attachmentCount = 1;
    blend.pAttachments = &blendAttachment;

    auto info =
        detail::Info<VkGraphicsPipelineCreateInfo>(VK_STRUCTURE_TYPE_GRAPHICS_PIPELINE_CREATE_INFO);
    info.stageCount = static_cast<uint32_t>(stages.size());
    info.pStages = stages.data();
    info.pVertexInputState = &vertexInput;
    info.pInputAssemblyState = &assembly;
    info.pViewportState = &viewportState;
    info.pRasterizationState = &raster;
    info.pMultisampleState = &multisample;
    info.pColorBlendState = &blend;
    info.layout = pipelineLayout.get();
    info.renderPass = clearPass.get();
    info.subpass = 0;
    VkPipeline made = VK_NULL_HANDLE;
    if (Status s =
            detail::Check(vkCreateGraphicsPipelines(vk(), VK_NULL_HANDLE, 1, &info, nullptr, &made),
                          "vkCreateGraphicsPipelines");
        !s) {
        return s;
    }
    pipeline = detail::Pipeline(vk(), made);
    return {};
}

Status GpuResampler::Impl::CreateAll() {
    using Step = Status (Impl::*)();
    for (Step step : {&Impl::CreateCommands, &Impl::CreateBindingLayout, &Impl::CreateRenderPasses,
                      &Impl::CreatePipeline, &Impl::CreateTarget, &Impl::CreateDescriptorSet,
                      &Impl::CreateHostBuffers}) {
        if (Status s = (this->*step)(); !s) {
            return s;
        }
    }
    return {};
}

Status GpuResampler::Impl::CreateCommands() {
    auto poolInfo =
        detail::Info<VkCommandPoolCreateInfo>(VK_STRUCTURE_TYPE_COMMAND_POOL_CREATE_INFO);
    poolInfo.flags = VK_COMMAND_POOL_CREATE_RESET_COMMAND_BUFFER_BIT;
    poolInfo.queueFamilyIndex = gpu->queueFamily;
    if (Status s = detail::Assign(
            commandPool, detail::Create<detail::CommandPool>(vk(), vkCreateCommandPool, poolInfo,
                                                             "vkCreateCommandPool"));
        !s) {
        return s;
    }
    for (Submission* submission : {&drawSubmission, &uploadSubmissions[0], &uploadSubmissions[1]}) {
        auto allocate = detail::Info<VkCommandBufferAllocateInfo>(
            VK_STRUCTURE_TYPE_COMMAND_BUFFER_ALLOCATE_INFO);
        allocate.commandPool = commandPool.get();
        allocate.level = VK_COMMAND_BUFFER_LEVEL_PRIMARY;
        allocate.commandBufferCount = 1;
        if (Status s =
                detail::Check(vkAllocateCommandBuffers(vk(), &allocate, &submission->commands),
                              "vkAllocateCommandBuffers");
            !s) {
            return s;
        }
        auto fenceInfo = detail::Info<VkFenceCreateInfo>(VK_STRUCTURE_TYPE_FENCE_CREATE_INFO);
        if (Status s = detail::Assign(
                submission->fence,
                detail::Create<detail::Fence>(vk(), vkCreateFence, fenceInfo, "vkCreateFence"));
            !s) {
            return s;
        }
    }
    return {};
}

// The sampler, and the layouts of the shader's bindings: "uniforms" (b0),
// "theImage" (t0), "g_sampler" (s0).
Status GpuResampler::Impl::CreateBindingLayout() {
    // Bilinear, one level.
    auto samplerInfo = detail::Info<VkSamplerCreateInfo>(VK_STRUCTURE_TYPE_SAMPLER_CREATE_INFO);
    samplerInfo.magFilter = VK_FILTER_LINEAR;
    samplerInfo.minFilter = VK_FILTER_LINEAR;
    samplerInfo.mipmapMode = VK_SAMPLER_MIPMAP_MODE_NEAREST;
    // The renderer clips its triangles to the photograph, so texture
    // coordinates stay inside it; only the bilinear footprint of the last
    // half texel reaches beyond, and there the edge texel is the right value
    // (a border colour would tint the edge, and no single one suits every
    // image mode). The empty area is the target's clear colour.
    samplerInfo.addressModeU = VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    samplerInfo.addressModeV = VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    samplerInfo.addressModeW = VK_SAMPLER_ADDRESS_MODE_CLAMP_TO_EDGE;
    samplerInfo.maxLod = 0.0f;
    if (Status s = detail::Assign(
            sampler,
            detail::Create<detail::Sampler>(vk(), vkCreateSampler, samplerInfo, "vkCreateSampler"));
        !s) {
        return s;
    }

    std::array<VkDescriptorSetLayoutBinding, 3> bindings{};
    bindings[0] = {0, VK_DESCRIPTOR_TYPE_UNIFORM_BUFFER, 1, VK_SHADER_STAGE_VERTEX_BIT, nullptr};
    bindings[1] = {kTextureBindingShift, VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE, 1,
                   VK_SHADER_STAGE_FRAGMENT_BIT, nullptr};
    bindings[2] = {kSamplerBindingShift, VK_DESCRIPTOR_TYPE_SAMPLER, 1,
                   VK_SHADER_STAGE_FRAGMENT_BIT, nullptr};
    auto layoutInfo = detail::Info<VkDescriptorSetLayoutCreateInfo>(
        VK_STRUCTURE_TYPE_DESCRIPTOR_SET_LAYOUT_CREATE_INFO);
    layoutInfo.bindingCount = static_cast<uint32_t>(bindings.size());
    layoutInfo.pBindings = bindings.data();
    if (Status s = detail::Assign(setLayout, detail::Create<detail::DescriptorSetLayout>(
                                                 vk(), vkCreateDescriptorSetLayout, layoutInfo,
                                                 "vkCreateDescriptorSetLayout"));
        !s) {
        return s;
    }
    const VkDescriptorSetLayout layout = setLayout.get();
    auto pipelineLayoutInfo =
        detail::Info<VkPipelineLayoutCreateInfo>(VK_STRUCTURE_TYPE_PIPELINE_LAYOUT_CREATE_INFO);
    pipelineLayoutInfo.setLayoutCount = 1;
    pipelineLayoutInfo.pSetLayouts = &layout;
    return detail::Assign(pipelineLayout, detail::Create<detail::PipelineLayout>(
                                              vk(), vkCreatePipelineLayout, pipelineLayoutInfo,
                                              "vkCreatePipelineLayout"));
}

Status GpuResampler::Impl::CreateRenderPasses() {
    if (Status s = detail::Assign(clearPass, MakeRenderPass(vk(), format, true)); !s) {
        return s;
    }
    return detail::Assign(loadPass, MakeRenderPass(vk(), format, false));
}

// The render target and its framebuffer.
Status GpuResampler::Impl::CreateTarget() {
    if (Status s = detail::Assign(target, gpu->CreateImage(kTargetSize, kTargetSize, format,
                                                           VK_IMAGE_USAGE_COLOR_ATTACHMENT_BIT |
                                                               VK_IMAGE_USAGE_TRANSFER_SRC_BIT));
        !s) {
        return s;
    }
    const VkImageView view = target.view.get();
    auto framebufferInfo =
        detail::Info<VkFramebufferCreateInfo>(VK_STRUCTURE_TYPE_FRAMEBUFFER_CREATE_INFO);
    framebufferInfo.renderPass = clearPass.get();
    framebufferInfo.attachmentCount = 1;
    framebufferInfo.pAttachments = &view;
    framebufferInfo.width = kTargetSize;
    framebufferInfo.height = kTargetSize;
    framebufferInfo.layers = 1;
    return detail::Assign(
        framebuffer, detail::Create<detail::Framebuffer>(vk(), vkCreateFramebuffer, framebufferInfo,
                                                         "vkCreateFramebuffer"));
}

Status GpuResampler::Impl::CreateDescriptorSet() {
    std::array<VkDescriptorPoolSize, 3> sizes{{{VK_DESCRIPTOR_TYPE_UNIFORM_BUFFER, 1},
                                               {VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE, 1},
                                               {VK_DESCRIPTOR_TYPE_SAMPLER, 1}}};
    auto descriptorPoolInfo =
        detail::Info<VkDescriptorPoolCreateInfo>(VK_STRUCTURE_TYPE_DESCRIPTOR_POOL_CREATE_INFO);
    descriptorPoolInfo.maxSets = 1;
    descriptorPoolInfo.poolSizeCount = static_cast<uint32_t>(sizes.size());
    descriptorPoolInfo.pPoolSizes = sizes.data();
    if (Status s = detail::Assign(
            descriptorPool,
            detail::Create<detail::DescriptorPool>(vk(), vkCreateDescriptorPool, descriptorPoolInfo,
                                                   "vkCreateDescriptorPool"));
        !s) {
        return s;
    }
    const VkDescriptorSetLayout layout = setLayout.get();
    auto setInfo =
        detail::Info<VkDescriptorSetAllocateInfo>(VK_STRUCTURE_TYPE_DESCRIPTOR_SET_ALLOCATE_INFO);
    setInfo.descriptorPool = descriptorPool.get();
    setInfo.descriptorSetCount = 1;
    setInfo.pSetLayouts = &layout;
    return detail::Check(vkAllocateDescriptorSets(vk(), &setInfo, &descriptorSet),
                         "vkAllocateDescriptorSets");
}

// The constant buffer (one float4x4) and the readback of a whole target.
Status GpuResampler::Impl::CreateHostBuffers() {
    if (Status s = detail::Assign(uniforms,
                                  gpu->CreateBuffer(64, VK_BUFFER_USAGE_UNIFORM_BUFFER_BIT, true));
        !s) {
        return s;
    }
    return detail::Assign(readback,
                          gpu->CreateBuffer(VkDeviceSize{kTargetSize} * kTargetSize * bytesPerTexel,
                                            VK_BUFFER_USAGE_TRANSFER_DST_BIT, true, true));
}

Result<VkCommandBuffer> GpuResampler::Impl::Begin(Submission& submission) {
    if (Status s = Wait(submission); !s) {
        return s.error();
    }
    if (Status s =
            detail::Check(vkResetCommandBuffer(submission.commands, 0), "vkResetCommandBuffer");
        !s) {
        return s.error();
    }
    auto begin =
        detail::Info<VkCommandBufferBeginInfo>(VK_STRUCTURE_TYPE_COMMAND_BUFFER_BEGIN_INFO);
    begin.flags = VK_COMMAND_BUFFER_USAGE_ONE_TIME_SUBMIT_BIT;
    if (Status s = detail::Check(vkBeginCommandBuffer(submission.commands, &begin),
                                 "vkBeginCommandBuffer");
        !s) {
        return s.error();
    }
    return submission.commands;
}

Status GpuResampler::Impl::Submit(Submission& submission) {
    if (Status s = detail::Check(vkEndCommandBuffer(submission.commands), "vkEndCommandBuffer");
        !s) {
        return s;
    }
    VkFence fence = submission.fence.get();
    if (Status s = detail::Check(vkResetFences(vk(), 1, &fence), "vkResetFences"); !s) {
        return s;
    }
    auto info = detail::Info<VkSubmitInfo>(VK_STRUCTURE_TYPE_SUBMIT_INFO);
    info.commandBufferCount = 1;
    info.pCommandBuffers = &submission.commands;
    if (Status s = detail::Check(vkQueueSubmit(gpu->queue, 1, &info, fence), "vkQueueSubmit"); !s) {
        return s;
    }
    submission.pending = true;
    return {};
}

Status GpuResampler::Impl::Wait(Submission& submission) {
    if (!submission.pending) {
        return {};
    }
    VkFence fence = submission.fence.get();
    submission.pending = false;
    return detail::Check(vkWaitForFences(vk(), 1, &fence, VK_TRUE, UINT64_MAX), "vkWaitForFences");
}

Status GpuResampler::Impl::SubmitAndWait(Submission& submission) {
    if (Status s = Submit(submission); !s) {
        return s;
    }
    return Wait(submission);
}

void GpuResampler::Impl::SourceBarrier(VkCommandBuffer commands, VkImageLayout from,
                                       VkImageLayout to, VkAccessFlags fromAccess,
                                       VkAccessFlags toAccess, VkPipelineStageFlags fromStage,
                                       VkPipelineStageFlags toStage) const {
    auto barrier = detail::Info<VkImageMemoryBarrier>(VK_STRUCTURE_TYPE_IMAGE_MEMORY_BARRIER);
    barrier.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
    barrier.image = source.image.get();
    barrier.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
    barrier.srcAccessMask = fromAccess;
    barrier.dstAccessMask = toAccess;
    barrier.oldLayout = from;
    barrier.newLayout = to;
    vkCmdPipelineBarrier(commands, fromStage, toStage, 0, 0, nullptr, 0, nullptr, 1, &barrier);
}

void GpuResampler::Impl::MoveSource(VkCommandBuffer commands, bool toSampling) const {
    const VkPipelineStageFlags fragment = VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT;
    const VkPipelineStageFlags transfer = VK_PIPELINE_STAGE_TRANSFER_BIT;
    if (toSampling) {
        SourceBarrier(commands, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                      VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL, VK_ACCESS_TRANSFER_WRITE_BIT,
                      VK_ACCESS_SHADER_READ_BIT, transfer, fragment);
    } else {
        SourceBarrier(commands, VK_IMAGE_LAYOUT_UNDEFINED, VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 0,
                      VK_ACCESS_TRANSFER_WRITE_BIT, fragment, transfer);
    }
}

Status GpuResampler::Impl::EnsureBuffer(detail::BufferResource& buffer, VkDeviceSize size,
                                        VkBufferUsageFlags usage) {
    if (buffer.buffer && buffer.size >= size) {
        return {};
    }
    VkDeviceSize capacity = 4096;
    while (capacity < size) {
        capacity *= 2;
    }
    buffer = {};  // release the old one first
    auto made = gpu->CreateBuffer(capacity, usage, true);
    if (!made) {
        return made.error();
    }
    buffer = std::move(made).value();
    return {};
}

void GpuResampler::Impl::WriteDescriptors() {
    VkDescriptorBufferInfo bufferInfo{uniforms.buffer.get(), 0, 64};
    VkDescriptorImageInfo imageInfo{
        VK_NULL_HANDLE, source.view.get(),
        sourceMapped ? VK_IMAGE_LAYOUT_GENERAL : VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL};
    VkDescriptorImageInfo samplerInfo{sampler.get(), VK_NULL_HANDLE, VK_IMAGE_LAYOUT_UNDEFINED};
    std::array<VkWriteDescriptorSet, 3> writes{};
    for (auto& write : writes) {
        write.sType = VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET;
        write.dstSet = descriptorSet;
        write.descriptorCount = 1;
    }
    writes[0].dstBinding = 0;
    writes[0].descriptorType = VK_DESCRIPTOR_TYPE_UNIFORM_BUFFER;
    writes[0].pBufferInfo = &bufferInfo;
    writes[1].dstBinding = kTextureBindingShift;
    writes[1].descriptorType = VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE;
    writes[1].pImageInfo = &imageInfo;
    writes[2].dstBinding = kSamplerBindingShift;
    writes[2].descriptorType = VK_DESCRIPTOR_TYPE_SAMPLER;
    writes[2].pImageInfo = &samplerInfo;
    vkUpdateDescriptorSets(vk(), static_cast<uint32_t>(writes.size()), writes.data(), 0, nullptr);
}

// ---- GpuResampler -----------------------------------------------------------------------

GpuResampler::GpuResampler(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}

GpuResampler::~GpuResampler() {
    if (impl_ && impl_->gpu != nullptr && impl_->gpu->device) {
        // Nothing may be in flight when the handles go.
        vkQueueWaitIdle(impl_->gpu->queue);
    }
}

Result<std::unique_ptr<GpuResampler>> GpuResampler::Create(std::shared_ptr<GpuDevice> device,
                                                           int32_t depth) {
    if (!device) {
        return GpuError{0, "GpuResampler needs a device"};
    }
    if (depth != 8 && depth != 16) {
        return GpuError{0, "unsupported depth " + std::to_string(depth) + " (8 or 16)"};
    }
    auto impl = std::make_unique<Impl>();
    impl->gpu = &device->impl();
    impl->owner = std::move(device);
    impl->depth = depth;
    impl->format = depth == 8 ? VK_FORMAT_R8G8B8A8_UNORM : VK_FORMAT_R16G16B16A16_UNORM;
    impl->bytesPerTexel = depth == 8 ? 4 : 8;
    if (Status s = impl->CreateAll(); !s) {
        if (impl->gpu->device) {
            vkQueueWaitIdle(impl->gpu->queue);
        }
        return s.error();
    }
    return std::unique_ptr<GpuResampler>(new GpuResampler(std::move(impl)));
}

int32_t GpuResampler::Depth() const {
    return impl_->depth;
}
uint32_t GpuResampler::BytesPerTexel() const {
    return impl_->bytesPerTexel;
}
const std::shared_ptr<GpuDevice>& GpuResampler::Device() const {
    return impl_->owner;
}
uint32_t GpuResampler::SourceWidth() const {
    return impl_->source.width;
}
uint32_t GpuResampler::SourceHeight() const {
    return impl_->source.height;
}
uint64_t GpuResampler::SourceTextureCreations() const {
    return impl_->sourceCreations;
}

Result<bool> GpuResampler::EnsureSourceTexture(uint32_t width, uint32_t height) {
    Impl& m = *impl_;
    if (m.source.image && m.source.width == width && m.source.height == height) {
        return false;
    }
    if (width > m.gpu->maxTextureDimension || height > m.gpu->maxTextureDimension) {
        return GpuError{static_cast<int32_t>(VK_ERROR_FORMAT_NOT_SUPPORTED),
                        "source texture of " + std::to_string(width) + " x " +
                            std::to_string(height) + " exceeds the largest texture side " +
                            std::to_string(m.gpu->maxTextureDimension)};
    }
    if (Status s = m.Wait(m.drawSubmission); !s) {
        return s.error();
    }
    m.source = {};
    m.sourceReady = false;
    auto mapped = m.gpu->CreateMappedImage(width, height, m.format);
    if (!mapped) {
        return mapped.error();
    }
    m.sourceMapped = mapped.value().has_value();
    if (m.sourceMapped) {
        m.source = std::move(*mapped.value());
        // Host writes and sampling both take the general layout; the image
        // stays in it.
        Submission& submission = m.uploadSubmissions[0];
        auto begun = m.Begin(submission);
        if (!begun) {
            return begun.error();
        }
        m.SourceBarrier(begun.value(), VK_IMAGE_LAYOUT_PREINITIALIZED, VK_IMAGE_LAYOUT_GENERAL,
                        VK_ACCESS_HOST_WRITE_BIT, VK_ACCESS_SHADER_READ_BIT,
                        VK_PIPELINE_STAGE_HOST_BIT, VK_PIPELINE_STAGE_FRAGMENT_SHADER_BIT);
        if (Status s = m.SubmitAndWait(submission); !s) {
            return s.error();
        }
        m.staging = {};  // not needed beside a mapped texture
    } else {
        auto image = m.gpu->CreateImage(
            width, height, m.format, VK_IMAGE_USAGE_SAMPLED_BIT | VK_IMAGE_USAGE_TRANSFER_DST_BIT);
        if (!image) {
            return image.error();
        }
        m.source = std::move(image).value();
    }
    ++m.sourceCreations;
    m.WriteDescriptors();
    return true;
}

Status GpuResampler::ClearSource() {
    Impl& m = *impl_;
    if (!m.source.image) {
        return GpuError{0, "ClearSource before EnsureSourceTexture"};
    }
    if (Status s = m.Wait(m.drawSubmission); !s) {
        return s;
    }
    if (m.sourceMapped) {
        std::memset(m.source.data(), 0, m.source.rowPitch * m.source.height);
        m.sourceReady = true;
        return {};
    }
    Submission& submission = m.uploadSubmissions[0];
    auto begun = m.Begin(submission);
    if (!begun) {
        return begun.error();
    }
    VkCommandBuffer commands = begun.value();
    m.MoveSource(commands, false);
    const VkImageSubresourceRange range{VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
    const VkClearColorValue zero{};
    vkCmdClearColorImage(commands, m.source.image.get(), VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL,
                         &zero, 1, &range);
    m.MoveSource(commands, true);
    if (Status s = m.SubmitAndWait(submission); !s) {
        return s;
    }
    m.sourceReady = true;  // black until the first upload
    const size_t rowPitch = size_t{m.source.width} * m.bytesPerTexel;
    return m.EnsureStaging(VkDeviceSize{BandRows(rowPitch, m.source.height)} * rowPitch, true);
}

Status GpuResampler::Impl::EnsureStaging(VkDeviceSize bandBytes, bool touch) {
    for (auto& buffer : staging) {
        if (buffer.buffer && buffer.size >= bandBytes) {
            continue;
        }
        buffer = {};
        auto made = gpu->CreateBuffer(bandBytes, VK_BUFFER_USAGE_TRANSFER_SRC_BIT, true);
        if (!made) {
            return made.error();
        }
        buffer = std::move(made).value();
        if (touch) {
            std::memset(buffer.data(), 0, bandBytes);
        }
    }
    return {};
}

Status GpuResampler::UploadSource(uint32_t width, uint32_t height, const FillRows& fill) {
    Impl& m = *impl_;
    if (!m.source.image) {
        return GpuError{0, "UploadSource before EnsureSourceTexture"};
    }
    if (width == 0 || height == 0 || width > m.source.width || height > m.source.height) {
        return GpuError{0, "upload region outside the source texture"};
    }
    // The previous draw may still sample the texture.
    if (Status s = m.Wait(m.drawSubmission); !s) {
        return s;
    }
    if (m.sourceMapped) {
        // In place, band by band as through staging, so that the caller's
        // scratch stays the size of a band.
        const uint32_t bandRows = BandRows(m.source.rowPitch, height);
        m.sourceReady = false;
        for (uint32_t y0 = 0; y0 < height; y0 += bandRows) {
            if (!fill(y0, std::min(bandRows, height - y0), m.source.data() + y0 * m.source.rowPitch,
                      m.source.rowPitch)) {
                return GpuError{0, "source read failed"};
            }
        }
        m.sourceReady = true;
        return {};
    }
    const size_t rowPitch = size_t{width} * m.bytesPerTexel;
    const uint32_t bandRows = BandRows(rowPitch, height);
    if (Status s = m.EnsureStaging(VkDeviceSize{bandRows} * rowPitch, false); !s) {
        return s;
    }
    m.sourceReady = false;
    uint32_t band = 0;
    for (uint32_t y0 = 0; y0 < height; y0 += bandRows, ++band) {
        const uint32_t rows = std::min(bandRows, height - y0);
        const uint32_t slot = band % 2;
        Submission& submission = m.uploadSubmissions[slot];
        // Wait until the copy that last used this staging buffer is done.
        if (Status s = m.Wait(submission); !s) {
            return s;
        }
        detail::BufferResource& staging = m.staging[slot];
        if (!fill(y0, rows, staging.data(), rowPitch)) {
            (void)m.Wait(m.uploadSubmissions[0]);
            (void)m.Wait(m.uploadSubmissions[1]);
            return GpuError{0, "source read failed"};
        }
        if (Status s = m.gpu->Flush(staging); !s) {
            return s;
        }
        auto begun = m.Begin(submission);
        if (!begun) {
            return begun.error();
        }
        VkCommandBuffer commands = begun.value();
        if (y0 == 0) {
            // The old content is discarded: the caller samples only the region.
            m.MoveSource(commands, false);
        }
        VkBufferImageCopy copy{};
        copy.bufferOffset = 0;
        copy.bufferRowLength = 0;
        copy.bufferImageHeight = 0;
        copy.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        copy.imageOffset = {0, static_cast<int32_t>(y0), 0};
        copy.imageExtent = {width, rows, 1};
        vkCmdCopyBufferToImage(commands, staging.buffer.get(), m.source.image.get(),
                               VK_IMAGE_LAYOUT_TRANSFER_DST_OPTIMAL, 1, &copy);
        if (y0 + rows >= height) {
            // Every band's copy (earlier submissions included) before sampling.
            m.MoveSource(commands, true);
        }
        if (Status s = m.Submit(submission); !s) {
            return s;
        }
    }
    for (auto& submission : m.uploadSubmissions) {
        if (Status s = m.Wait(submission); !s) {
            return s;
        }
    }
    m.sourceReady = true;
    return {};
}

Status GpuResampler::UploadVertices(std::span<const GpuVertex> vertices) {
    Impl& m = *impl_;
    if (Status s = m.Wait(m.drawSubmission); !s) {
        return s;
    }
    const VkDeviceSize bytes = std::max<VkDeviceSize>(vertices.size_bytes(), sizeof(GpuVertex));
    if (Status s = m.EnsureBuffer(m.vertices, bytes, VK_BUFFER_USAGE_VERTEX_BUFFER_BIT); !s) {
        return s;
    }
    if (!vertices.empty()) {
        std::memcpy(m.vertices.data(), vertices.data(), vertices.size_bytes());
    }
    return m.gpu->Flush(m.vertices);
}

Status GpuResampler::UploadIndices(std::span<const uint32_t> indices) {
    Impl& m = *impl_;
    if (Status s = m.Wait(m.drawSubmission); !s) {
        return s;
    }
    const VkDeviceSize bytes = std::max<VkDeviceSize>(indices.size_bytes(), sizeof(uint32_t) * 3);
    if (Status s = m.EnsureBuffer(m.indices, bytes, VK_BUFFER_USAGE_INDEX_BUFFER_BIT); !s) {
        return s;
    }
    if (!indices.empty()) {
        std::memcpy(m.indices.data(), indices.data(), indices.size_bytes());
    }
    return m.gpu->Flush(m.indices);
}

Status GpuResampler::SetMatrix(const std::array<float, 16>& rowMajor) {
    Impl& m = *impl_;
    if (Status s = m.Wait(m.drawSubmission); !s) {
        return s;
    }
    // The HLSL cbuffer holds the matrix column-major (HLSL's default packing):
    // element (row, column) at float index 4 * column + row.
    std::array<float, 16> packed{};
    for (int row = 0; row < 4; ++row) {
        for (int column = 0; column < 4; ++column) {
            packed[4 * column + row] = rowMajor[4 * row + column];
        }
    }
    std::memcpy(m.uniforms.data(), packed.data(), sizeof(packed));
    return m.gpu->Flush(m.uniforms);
}

Status GpuResampler::Draw(uint32_t indexCount, bool clear, std::optional<TargetRegion> region) {
    Impl& m = *impl_;
    if (indexCount > 0 && !m.sourceReady) {
        return GpuError{0, "Draw before the source texture was uploaded"};
    }
    if (indexCount > 0 && (!m.indices.buffer || !m.vertices.buffer ||
                           m.indices.size < VkDeviceSize{indexCount} * sizeof(uint32_t))) {
        return GpuError{0, "Draw with more indices than uploaded"};
    }
    if (region &&
        (region->width == 0 || region->height == 0 || region->x + region->width > kTargetSize ||
         region->y + region->height > kTargetSize)) {
        return GpuError{0, "readback region outside the render target"};
    }
    const bool clearNow = clear || !m.targetInitialized;
    auto begun = m.Begin(m.drawSubmission);
    if (!begun) {
        return begun.error();
    }
    VkCommandBuffer commands = begun.value();
    VkClearValue clearValue{};
    clearValue.color = {{m.clearColor[0], m.clearColor[1], m.clearColor[2], m.clearColor[3]}};
    auto passInfo = detail::Info<VkRenderPassBeginInfo>(VK_STRUCTURE_TYPE_RENDER_PASS_BEGIN_INFO);
    passInfo.renderPass = clearNow ? m.clearPass.get() : m.loadPass.get();
    passInfo.framebuffer = m.framebuffer.get();
    passInfo.renderArea = {{0, 0}, {kTargetSize, kTargetSize}};
    passInfo.clearValueCount = clearNow ? 1 : 0;
    passInfo.pClearValues = clearNow ? &clearValue : nullptr;
    vkCmdBeginRenderPass(commands, &passInfo, VK_SUBPASS_CONTENTS_INLINE);
    if (indexCount > 0) {
        vkCmdBindPipeline(commands, VK_PIPELINE_BIND_POINT_GRAPHICS, m.pipeline.get());
        vkCmdBindDescriptorSets(commands, VK_PIPELINE_BIND_POINT_GRAPHICS, m.pipelineLayout.get(),
                                0, 1, &m.descriptorSet, 0, nullptr);
        VkBuffer vertexBuffer = m.vertices.buffer.get();
        VkDeviceSize offset = 0;
        vkCmdBindVertexBuffers(commands, 0, 1, &vertexBuffer, &offset);
        vkCmdBindIndexBuffer(commands, m.indices.buffer.get(), 0, VK_INDEX_TYPE_UINT32);
        vkCmdDrawIndexed(commands, indexCount, 1, 0, 0, 0);
    }
    vkCmdEndRenderPass(commands);
    if (region) {
        VkBufferImageCopy copy{};
        copy.bufferOffset = 0;
        copy.bufferRowLength = 0;  // tightly packed at region->width
        copy.bufferImageHeight = 0;
        copy.imageSubresource = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 0, 1};
        copy.imageOffset = {static_cast<int32_t>(region->x), static_cast<int32_t>(region->y), 0};
        copy.imageExtent = {region->width, region->height, 1};
        vkCmdCopyImageToBuffer(commands, m.target.image.get(), VK_IMAGE_LAYOUT_TRANSFER_SRC_OPTIMAL,
                               m.readback.buffer.get(), 1, &copy);
        auto toHost = detail::Info<VkBufferMemoryBarrier>(VK_STRUCTURE_TYPE_BUFFER_MEMORY_BARRIER);
        toHost.srcAccessMask = VK_ACCESS_TRANSFER_WRITE_BIT;
        toHost.dstAccessMask = VK_ACCESS_HOST_READ_BIT;
        toHost.srcQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
        toHost.dstQueueFamilyIndex = VK_QUEUE_FAMILY_IGNORED;
        toHost.buffer = m.readback.buffer.get();
        toHost.offset = 0;
        toHost.size = VK_WHOLE_SIZE;
        vkCmdPipelineBarrier(commands, VK_PIPELINE_STAGE_TRANSFER_BIT, VK_PIPELINE_STAGE_HOST_BIT,
                             0, 0, nullptr, 1, &toHost, 0, nullptr);
    }
    if (Status s = m.SubmitAndWait(m.drawSubmission); !s) {
        return s;
    }
    m.targetInitialized = true;
    if (region) {
        return m.gpu->Invalidate(m.readback);
    }
    return {};
}

void GpuResampler::SetClearColor(const std::array<float, 4>& color) {
    impl_->clearColor = color;
}

const void* GpuResampler::ReadbackData() const {
    return impl_->readback.data();
}

}  // namespace Project::Gpu
