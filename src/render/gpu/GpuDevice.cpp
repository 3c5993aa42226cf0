#include "render/gpu/GpuDevice.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>

#include "render/gpu/HlslCompiler.h"
#include "render/gpu/VulkanContext.h"

namespace Project::Gpu {

// ---- Logging ------------------------------------------------------------------

LogSink StderrLogSink() {
    return [](LogLevel level, std::string_view line) {
        const char* tag = level == LogLevel::Error     ? "error"
                          : level == LogLevel::Warning ? "warning"
                                                       : "info";
        std::fprintf(stderr, "Curvana [%s]: %.*s\n", tag, static_cast<int>(line.size()),
                     line.data());
    };
}

// ---- The shader program -----------------------------------------------------------

std::string_view ResamplingShaderHlsl() {
    static constexpr std::string_view kSource = R"hlsl(
cbuffer uniforms : register(b0)
{
    float4x4 modelviewProjectionMatrix;
};

Texture2D theImage : register(t0);
SamplerState g_sampler : register(s0);

struct VertexInput
{
    float4 position : POSITION;
    float2 textureCoordinate : TEXCOORD;
};

struct PixelInput
{
    float4 position : SV_POSITION;
    float2 textureCoordinate : TEXCOORD;
};

PixelInput VSMain(VertexInput input)
{
    PixelInput result;
    result.position = mul(modelviewProjectionMatrix, input.position);
    result.textureCoordinate = input.textureCoordinate;
    return result;
}

float4 FSMain(PixelInput input) : SV_TARGET
{
    return theImage.Sample(g_sampler, input.textureCoordinate);
}
)hlsl";
    return kSource;
}

namespace detail {

const char* VkResultName(VkResult result) {
    switch (result) {
        case VK_SUCCESS:
            return "VK_SUCCESS";
        case VK_NOT_READY:
            return "VK_NOT_READY";
        case VK_TIMEOUT:
            return "VK_TIMEOUT";
        case VK_INCOMPLETE:
            return "VK_INCOMPLETE";
        case VK_ERROR_OUT_OF_HOST_MEMORY:
            return "VK_ERROR_OUT_OF_HOST_MEMORY";
        case VK_ERROR_OUT_OF_DEVICE_MEMORY:
            return "VK_ERROR_OUT_OF_DEVICE_MEMORY";
        case VK_ERROR_INITIALIZATION_FAILED:
            return "VK_ERROR_INITIALIZATION_FAILED";
        case VK_ERROR_DEVICE_LOST:
            return "VK_ERROR_DEVICE_LOST";
        case VK_ERROR_MEMORY_MAP_FAILED:
            return "VK_ERROR_MEMORY_MAP_FAILED";
        case VK_ERROR_LAYER_NOT_PRESENT:
            return "VK_ERROR_LAYER_NOT_PRESENT";
        case VK_ERROR_EXTENSION_NOT_PRESENT:
            return "VK_ERROR_EXTENSION_NOT_PRESENT";
        case VK_ERROR_FEATURE_NOT_PRESENT:
            return "VK_ERROR_FEATURE_NOT_PRESENT";
        case VK_ERROR_INCOMPATIBLE_DRIVER:
            return "VK_ERROR_INCOMPATIBLE_DRIVER";
        case VK_ERROR_TOO_MANY_OBJECTS:
            return "VK_ERROR_TOO_MANY_OBJECTS";
        case VK_ERROR_FORMAT_NOT_SUPPORTED:
            return "VK_ERROR_FORMAT_NOT_SUPPORTED";
        case VK_ERROR_FRAGMENTED_POOL:
            return "VK_ERROR_FRAGMENTED_POOL";
        case VK_ERROR_OUT_OF_POOL_MEMORY:
            return "VK_ERROR_OUT_OF_POOL_MEMORY";
        default:
            return "VK_ERROR_UNKNOWN";
    }
}

GpuError VkFailure(const char* what, VkResult result) {
    return GpuError{static_cast<int32_t>(result),
                    std::string(what) + " failed: " + VkResultName(result) + " (" +
                        std::to_string(static_cast<int>(result)) + ")"};
}

}  // namespace detail

// ---- Memory helpers -----------------------------------------------------------------

Result<uint32_t> GpuDevice::Impl::FindMemoryType(uint32_t typeBits, VkMemoryPropertyFlags required,
                                                 VkMemoryPropertyFlags preferred) const {
    int32_t fallback = -1;
    for (uint32_t i = 0; i < memoryProperties.memoryTypeCount; ++i) {
        if ((typeBits & (1u << i)) == 0) {
            continue;
        }
        const VkMemoryPropertyFlags flags = memoryProperties.memoryTypes[i].propertyFlags;
        if ((flags & required) != required) {
            continue;
        }
        if ((flags & preferred) == preferred) {
            return i;
        }
        if (fallback < 0) {
            fallback = static_cast<int32_t>(i);
        }
    }
    if (fallback >= 0) {
        return static_cast<uint32_t>(fallback);
    }
    return GpuError{static_cast<int32_t>(VK_ERROR_OUT_OF_DEVICE_MEMORY),
                    "no Vulkan memory type with the required properties"};
}

Result<detail::DeviceMemory> GpuDevice::Impl::Allocate(const VkMemoryRequirements& requirements,
                                                       uint32_t memoryType,
                                                       const char* call) const {
    auto allocate = detail::Info<VkMemoryAllocateInfo>(VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO);
    allocate.allocationSize = requirements.size;
    allocate.memoryTypeIndex = memoryType;
    return detail::Create<detail::DeviceMemory>(vk(), vkAllocateMemory, allocate, call);
}

Result<detail::BufferResource> GpuDevice::Impl::CreateBuffer(VkDeviceSize size,
                                                             VkBufferUsageFlags usage,
                                                             bool hostVisible,
                                                             bool preferCached) const {
    detail::BufferResource out;
    out.size = size;
    auto info = detail::Info<VkBufferCreateInfo>(VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO);
    info.size = size;
    info.usage = usage;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    if (Status s = detail::Assign(out.buffer, detail::Create<detail::Buffer>(
                                                  vk(), vkCreateBuffer, info, "vkCreateBuffer"));
        !s) {
        return s.error();
    }
    VkMemoryRequirements requirements{};
    vkGetBufferMemoryRequirements(vk(), out.buffer.get(), &requirements);
    const VkMemoryPropertyFlags required =
        hostVisible ? VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT : VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT;
    const VkMemoryPropertyFlags preferred =
        hostVisible ? (preferCached ? VK_MEMORY_PROPERTY_HOST_CACHED_BIT
                                    : VK_MEMORY_PROPERTY_HOST_COHERENT_BIT)
                    : 0;
    auto type = FindMemoryType(requirements.memoryTypeBits, required, preferred);
    if (!type) {
        return type.error();
    }
    if (Status s = detail::Assign(
            out.memory, Allocate(requirements, type.value(), "vkAllocateMemory (buffer)"));
        !s) {
        return s.error();
    }
    out.memoryHandle = out.memory.get();
    if (Status s = detail::Check(vkBindBufferMemory(vk(), out.buffer.get(), out.memoryHandle, 0),
                                 "vkBindBufferMemory");
        !s) {
        return s.error();
    }
    if (hostVisible) {
        out.coherent = (memoryProperties.memoryTypes[type.value()].propertyFlags &
                        VK_MEMORY_PROPERTY_HOST_COHERENT_BIT) != 0;
        void* data = nullptr;
        if (Status s = detail::Check(
                vkMapMemory(vk(), out.memoryHandle, 0, VK_WHOLE_SIZE, 0, &data), "vkMapMemory");
            !s) {
            return s.error();
        }
        out.mapped = detail::MappedMemory(vk(), out.memoryHandle, data);
    }
    return out;
}

Status GpuDevice::Impl::CreateImageHandle(detail::ImageResource& out, VkImageTiling tiling,
                                          VkImageUsageFlags usage, VkImageLayout initial) const {
    auto info = detail::Info<VkImageCreateInfo>(VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO);
    info.imageType = VK_IMAGE_TYPE_2D;
    info.format = out.format;
    info.extent = {out.width, out.height, 1};
    info.mipLevels = 1;
    info.arrayLayers = 1;
    info.samples = VK_SAMPLE_COUNT_1_BIT;
    info.tiling = tiling;
    info.usage = usage;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.initialLayout = initial;
    return detail::Assign(
        out.image, detail::Create<detail::Image>(vk(), vkCreateImage, info, "vkCreateImage"));
}

Status GpuDevice::Impl::BindMemory(detail::ImageResource& out,
                                   const VkMemoryRequirements& requirements, uint32_t memoryType,
                                   const char* call) const {
    if (Status s = detail::Assign(out.memory, Allocate(requirements, memoryType, call)); !s) {
        return s;
    }
    return detail::Check(vkBindImageMemory(vk(), out.image.get(), out.memory.get(), 0),
                         "vkBindImageMemory");
}

Status GpuDevice::Impl::CreateView(detail::ImageResource& out) const {
    auto info = detail::Info<VkImageViewCreateInfo>(VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO);
    info.image = out.image.get();
    info.viewType = VK_IMAGE_VIEW_TYPE_2D;
    info.format = out.format;
    info.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
    return detail::Assign(out.view, detail::Create<detail::ImageView>(vk(), vkCreateImageView, info,
                                                                      "vkCreateImageView"));
}

Result<detail::ImageResource> GpuDevice::Impl::CreateImage(uint32_t width, uint32_t height,
                                                           VkFormat format,
                                                           VkImageUsageFlags usage) const {
    const uint32_t deviceMax = properties.limits.maxImageDimension2D;
    if (width == 0 || height == 0 || width > deviceMax || height > deviceMax) {
        return GpuError{static_cast<int32_t>(VK_ERROR_FORMAT_NOT_SUPPORTED),
                        "image of " + std::to_string(width) + " x " + std::to_string(height) +
                            " exceeds the device's largest image side " +
                            std::to_string(deviceMax)};
    }
    detail::ImageResource out;
    out.width = width;
    out.height = height;
    out.format = format;
    if (Status s =
            CreateImageHandle(out, VK_IMAGE_TILING_OPTIMAL, usage, VK_IMAGE_LAYOUT_UNDEFINED);
        !s) {
        return s.error();
    }
    VkMemoryRequirements requirements{};
    vkGetImageMemoryRequirements(vk(), out.image.get(), &requirements);
    auto type = FindMemoryType(requirements.memoryTypeBits, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT);
    if (!type) {
        return type.error();
    }
    if (Status s = BindMemory(out, requirements, type.value(), "vkAllocateMemory (image)"); !s) {
        return s.error();
    }
    if (Status s = CreateView(out); !s) {
        return s.error();
    }
    return out;
}

Result<std::optional<detail::ImageResource>> GpuDevice::Impl::CreateMappedImage(
    uint32_t width, uint32_t height, VkFormat format) const {
    if (!mappedSource || width == 0 || height == 0 || width > maxTextureDimension ||
        height > maxTextureDimension) {
        return std::optional<detail::ImageResource>();
    }
    VkFormatProperties features{};
    vkGetPhysicalDeviceFormatProperties(physical, format, &features);
    const VkFormatFeatureFlags needed =
        VK_FORMAT_FEATURE_SAMPLED_IMAGE_BIT | VK_FORMAT_FEATURE_SAMPLED_IMAGE_FILTER_LINEAR_BIT;
    VkImageFormatProperties limits{};
    if ((features.linearTilingFeatures & needed) != needed ||
        vkGetPhysicalDeviceImageFormatProperties(physical, format, VK_IMAGE_TYPE_2D,
                                                 VK_IMAGE_TILING_LINEAR, VK_IMAGE_USAGE_SAMPLED_BIT,
                                                 0, &limits) != VK_SUCCESS ||
        limits.maxExtent.width < width || limits.maxExtent.height < height) {
        return std::optional<detail::ImageResource>();
    }
    detail::ImageResource out;
    out.width = width;
    out.height = height;
    out.format = format;
    if (Status s = CreateImageHandle(out, VK_IMAGE_TILING_LINEAR, VK_IMAGE_USAGE_SAMPLED_BIT,
                                     VK_IMAGE_LAYOUT_PREINITIALIZED);
        !s) {
        return s.error();
    }
    VkMemoryRequirements requirements{};
    vkGetImageMemoryRequirements(vk(), out.image.get(), &requirements);
    const VkMemoryPropertyFlags host =
        VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT;
    auto type = FindMemoryType(requirements.memoryTypeBits, host);
    if (!type) {
        return std::optional<detail::ImageResource>();  // the staging path then
    }
    if (Status s = BindMemory(out, requirements, type.value(), "vkAllocateMemory (mapped image)");
        !s) {
        return s.error();
    }
    const VkImageSubresource texels{VK_IMAGE_ASPECT_COLOR_BIT, 0, 0};
    VkSubresourceLayout layout{};
    vkGetImageSubresourceLayout(vk(), out.image.get(), &texels, &layout);
    void* data = nullptr;
    if (Status s =
            detail::Check(vkMapMemory(vk(), out.memory.get(), layout.offset, layout.size, 0, &data),
                          "vkMapMemory");
        !s) {
        return s.error();
    }
    out.mapped = detail::MappedMemory(vk(), out.memory.get(), data);
    out.rowPitch = layout.rowPitch;
    if (Status s = CreateView(out); !s) {
        return s.error();
    }
    return std::optional<detail::ImageResource>(std::move(out));
}

Status GpuDevice::Impl::SyncMapped(const detail::BufferResource& buffer,
                                   PFN_vkFlushMappedMemoryRanges sync, const char* call) const {
    // Coherent memory needs neither a flush nor an invalidation.
    if (buffer.coherent) {
        return {};
    }
    auto range = detail::Info<VkMappedMemoryRange>(VK_STRUCTURE_TYPE_MAPPED_MEMORY_RANGE);
    range.memory = buffer.memoryHandle;
    range.offset = 0;
    range.size = VK_WHOLE_SIZE;
    return detail::Check(sync(vk(), 1, &range), call);
}

Status GpuDevice::Impl::Flush(const detail::BufferResource& buffer) const {
    return SyncMapped(buffer, vkFlushMappedMemoryRanges, "vkFlushMappedMemoryRanges");
}

Status GpuDevice::Impl::Invalidate(const detail::BufferResource& buffer) const {
    // Same signature as the flush.
    return SyncMapped(buffer, vkInvalidateMappedMemoryRanges, "vkInvalidateMappedMemoryRanges");
}

// ---- Device selection -----------------------------------------------------------------

namespace {

constexpr const char* kValidationLayer = "VK_LAYER_KHRONOS_validation";

DeviceKind KindOf(VkPhysicalDeviceType type) {
    switch (type) {
        case VK_PHYSICAL_DEVICE_TYPE_DISCRETE_GPU:
            return DeviceKind::Discrete;
        case VK_PHYSICAL_DEVICE_TYPE_INTEGRATED_GPU:
            return DeviceKind::Integrated;
        case VK_PHYSICAL_DEVICE_TYPE_VIRTUAL_GPU:
            return DeviceKind::Virtual;
        case VK_PHYSICAL_DEVICE_TYPE_CPU:
            return DeviceKind::Cpu;
        default:
            return DeviceKind::Other;
    }
}

const char* KindName(DeviceKind kind) {
    switch (kind) {
        case DeviceKind::Discrete:
            return "discrete GPU";
        case DeviceKind::Integrated:
            return "integrated GPU";
        case DeviceKind::Virtual:
            return "virtual GPU";
        case DeviceKind::Cpu:
            return "CPU";
        default:
            return "other device";
    }
}

bool FormatUsable(VkPhysicalDevice device, VkFormat format) {
    VkFormatProperties properties{};
    vkGetPhysicalDeviceFormatProperties(device, format, &properties);
    const VkFormatFeatureFlags needed =
        VK_FORMAT_FEATURE_SAMPLED_IMAGE_BIT | VK_FORMAT_FEATURE_SAMPLED_IMAGE_FILTER_LINEAR_BIT |
        VK_FORMAT_FEATURE_COLOR_ATTACHMENT_BIT | VK_FORMAT_FEATURE_TRANSFER_SRC_BIT |
        VK_FORMAT_FEATURE_TRANSFER_DST_BIT;
    return (properties.optimalTilingFeatures & needed) == needed;
}

// The graphics queue family of a usable device, or -1 when the device cannot
// serve the renderer.
int32_t UsableQueueFamily(VkPhysicalDevice device) {
    VkPhysicalDeviceProperties properties{};
    vkGetPhysicalDeviceProperties(device, &properties);
    if (properties.apiVersion < VK_API_VERSION_1_1) {
        return -1;
    }
    if (!FormatUsable(device, VK_FORMAT_R8G8B8A8_UNORM) ||
        !FormatUsable(device, VK_FORMAT_R16G16B16A16_UNORM)) {
        return -1;
    }
    uint32_t count = 0;
    vkGetPhysicalDeviceQueueFamilyProperties(device, &count, nullptr);
    std::vector<VkQueueFamilyProperties> families(count);
    vkGetPhysicalDeviceQueueFamilyProperties(device, &count, families.data());
    for (uint32_t i = 0; i < count; ++i) {
        if ((families[i].queueFlags & VK_QUEUE_GRAPHICS_BIT) != 0 && families[i].queueCount > 0) {
            return static_cast<int32_t>(i);
        }
    }
    return -1;
}

struct Choice {
    VkPhysicalDevice device = VK_NULL_HANDLE;
    uint32_t queueFamily = 0;
};

Choice ChooseDevice(VkInstance instance, uint32_t* examined) {
    uint32_t count = 0;
    vkEnumeratePhysicalDevices(instance, &count, nullptr);
    std::vector<VkPhysicalDevice> devices(count);
    if (count > 0) {
        vkEnumeratePhysicalDevices(instance, &count, devices.data());
    }
    devices.resize(count);
    if (examined != nullptr) {
        *examined = count;
    }
    Choice best;
    int bestRank = 1 << 30;
    for (VkPhysicalDevice device : devices) {
        const int32_t family = UsableQueueFamily(device);
        if (family < 0) {
            continue;
        }
        VkPhysicalDeviceProperties properties{};
        vkGetPhysicalDeviceProperties(device, &properties);
        const int rank = static_cast<int>(KindOf(properties.deviceType));
        if (rank < bestRank) {
            bestRank = rank;
            best = {device, static_cast<uint32_t>(family)};
        }
    }
    return best;
}

bool LayerInstalled(const char* name) {
    uint32_t count = 0;
    if (vkEnumerateInstanceLayerProperties(&count, nullptr) != VK_SUCCESS) {
        return false;
    }
    std::vector<VkLayerProperties> layers(count);
    if (count > 0 && vkEnumerateInstanceLayerProperties(&count, layers.data()) != VK_SUCCESS) {
        return false;
    }
    return std::any_of(layers.begin(), layers.begin() + count, [&](const VkLayerProperties& l) {
        return std::strcmp(l.layerName, name) == 0;
    });
}

VKAPI_ATTR VkBool32 VKAPI_CALL OnDebugMessage(VkDebugUtilsMessageSeverityFlagBitsEXT severity,
                                              VkDebugUtilsMessageTypeFlagsEXT /*types*/,
                                              const VkDebugUtilsMessengerCallbackDataEXT* data,
                                              void* user) {
    auto* impl = static_cast<GpuDevice::Impl*>(user);
    const std::string_view message =
        data != nullptr && data->pMessage != nullptr ? data->pMessage : "(no message)";
    if ((severity & VK_DEBUG_UTILS_MESSAGE_SEVERITY_ERROR_BIT_EXT) != 0) {
        impl->validationErrors.fetch_add(1);
        impl->log(LogLevel::Error, std::string("Vulkan validation: ") + std::string(message));
        if (impl->onValidationError) {
            impl->onValidationError(message);
        }
    } else if ((severity & VK_DEBUG_UTILS_MESSAGE_SEVERITY_WARNING_BIT_EXT) != 0) {
        impl->log(LogLevel::Warning, std::string("Vulkan validation: ") + std::string(message));
    }
    return VK_FALSE;
}

GpuError NoDriverError() {
    return GpuError{static_cast<int32_t>(VK_ERROR_INCOMPATIBLE_DRIVER),
                    "no Vulkan driver found (VK_ERROR_INCOMPATIBLE_DRIVER): install a Vulkan "
                    "driver, for example Mesa's lavapipe (Debian package mesa-vulkan-drivers)"};
}

bool LoaderOffersVulkan11() {
    uint32_t loaderVersion = VK_API_VERSION_1_0;
    return vkEnumerateInstanceVersion(&loaderVersion) == VK_SUCCESS &&
           loaderVersion >= VK_API_VERSION_1_1;
}

// An instance for Vulkan 1.1 with the given layers and extensions; pNext
// chains a messenger that also reports the instance's own creation.
Result<detail::Instance> CreateInstance(const std::vector<const char*>& layers,
                                        const std::vector<const char*>& extensions,
                                        const void* pNext = nullptr) {
    auto app = detail::Info<VkApplicationInfo>(VK_STRUCTURE_TYPE_APPLICATION_INFO);
    app.pApplicationName = "Curvana";
    app.pEngineName = "Curvana";
    app.apiVersion = VK_API_VERSION_1_1;
    auto info = detail::Info<VkInstanceCreateInfo>(VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO);
    info.pNext = pNext;
    info.pApplicationInfo = &app;
    info.enabledLayerCount = static_cast<uint32_t>(layers.size());
    info.ppEnabledLayerNames = layers.data();
    info.enabledExtensionCount = static_cast<uint32_t>(extensions.size());
    info.ppEnabledExtensionNames = extensions.data();
    VkInstance instance = VK_NULL_HANDLE;
    const VkResult r = vkCreateInstance(&info, nullptr, &instance);
    if (r == VK_ERROR_INCOMPATIBLE_DRIVER) {
        return NoDriverError();
    }
    if (Status s = detail::Check(r, "vkCreateInstance"); !s) {
        return s.error();
    }
    return detail::Instance(instance);
}

// Sets a device up step by step: the instance (with the validation messenger
// when asked for and installed), the choice of the physical device, the
// logical device with its queue, and the shader program. Each step fills its
// part of the Impl; Build stops at the first failure.
class DeviceBuilder {
public:
    DeviceBuilder(GpuDevice::Impl& impl, const GpuOptions& options)
        : impl_(impl), options_(options) {}

    Status Build() {
        if (!LoaderOffersVulkan11()) {
            return GpuError{static_cast<int32_t>(VK_ERROR_INCOMPATIBLE_DRIVER),
                            "the Vulkan loader does not offer Vulkan 1.1"};
        }
        using Step = Status (DeviceBuilder::*)();
        for (Step step :
             {&DeviceBuilder::CreateInstanceAndMessenger, &DeviceBuilder::ChoosePhysicalDevice,
              &DeviceBuilder::CreateLogicalDevice, &DeviceBuilder::CompileShaders}) {
            if (Status s = (this->*step)(); !s) {
                return s;
            }
        }
        return {};
    }

private:
    Status CreateInstanceAndMessenger() {
        impl_.validation = options_.enableValidation && LayerInstalled(kValidationLayer);
        if (options_.enableValidation && !impl_.validation) {
            impl_.log(LogLevel::Warning,
                      "Vulkan validation requested but VK_LAYER_KHRONOS_validation is not "
                      "installed");
        }
        auto messengerInfo = detail::Info<VkDebugUtilsMessengerCreateInfoEXT>(
            VK_STRUCTURE_TYPE_DEBUG_UTILS_MESSENGER_CREATE_INFO_EXT);
        messengerInfo.messageSeverity = VK_DEBUG_UTILS_MESSAGE_SEVERITY_WARNING_BIT_EXT |
                                        VK_DEBUG_UTILS_MESSAGE_SEVERITY_ERROR_BIT_EXT;
        messengerInfo.messageType = VK_DEBUG_UTILS_MESSAGE_TYPE_GENERAL_BIT_EXT |
                                    VK_DEBUG_UTILS_MESSAGE_TYPE_VALIDATION_BIT_EXT;
        messengerInfo.pfnUserCallback = OnDebugMessage;
        messengerInfo.pUserData = &impl_;
        if (!impl_.validation) {
            return detail::Assign(impl_.instance, CreateInstance({}, {}));
        }
        if (Status s =
                detail::Assign(impl_.instance,
                               CreateInstance({kValidationLayer},
                                              {VK_EXT_DEBUG_UTILS_EXTENSION_NAME}, &messengerInfo));
            !s) {
            return s;
        }
        const VkInstance instance = impl_.instance.get();
        auto create = reinterpret_cast<PFN_vkCreateDebugUtilsMessengerEXT>(
            vkGetInstanceProcAddr(instance, "vkCreateDebugUtilsMessengerEXT"));
        auto destroy = reinterpret_cast<PFN_vkDestroyDebugUtilsMessengerEXT>(
            vkGetInstanceProcAddr(instance, "vkDestroyDebugUtilsMessengerEXT"));
        if (create == nullptr || destroy == nullptr) {
            return GpuError{static_cast<int32_t>(VK_ERROR_EXTENSION_NOT_PRESENT),
                            "VK_EXT_debug_utils entry points are missing"};
        }
        VkDebugUtilsMessengerEXT messenger = VK_NULL_HANDLE;
        if (Status s = detail::Check(create(instance, &messengerInfo, nullptr, &messenger),
                                     "vkCreateDebugUtilsMessengerEXT");
            !s) {
            return s;
        }
        impl_.messenger = detail::DebugMessenger(instance, messenger, destroy);
        return {};
    }

    Status ChoosePhysicalDevice() {
        uint32_t examined = 0;
        const Choice choice = ChooseDevice(impl_.instance.get(), &examined);
        if (choice.device == VK_NULL_HANDLE) {
            if (examined == 0) {
                return GpuError{static_cast<int32_t>(VK_ERROR_INITIALIZATION_FAILED),
                                "no Vulkan device found (the driver reports none)"};
            }
            return GpuError{static_cast<int32_t>(VK_ERROR_FEATURE_NOT_PRESENT),
                            "no suitable Vulkan device among " + std::to_string(examined) +
                                ": a graphics queue, Vulkan 1.1 and RGBA8/RGBA16 UNORM textures "
                                "with linear filtering and rendering are required"};
        }
        impl_.physical = choice.device;
        impl_.queueFamily = choice.queueFamily;
        vkGetPhysicalDeviceProperties(impl_.physical, &impl_.properties);
        vkGetPhysicalDeviceMemoryProperties(impl_.physical, &impl_.memoryProperties);
        impl_.kind = KindOf(impl_.properties.deviceType);
        impl_.mappedSource = options_.mappedSource && impl_.kind == DeviceKind::Cpu;
        impl_.name = impl_.properties.deviceName;
        const uint32_t deviceMax = impl_.properties.limits.maxImageDimension2D;
        impl_.maxTextureDimension = options_.maxTextureDimension != 0
                                        ? std::min(deviceMax, options_.maxTextureDimension)
                                        : deviceMax;
        return {};
    }

    Status CreateLogicalDevice() {
        const float priority = 1.0f;
        auto queueInfo =
            detail::Info<VkDeviceQueueCreateInfo>(VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO);
        queueInfo.queueFamilyIndex = impl_.queueFamily;
        queueInfo.queueCount = 1;
        queueInfo.pQueuePriorities = &priority;
        auto deviceInfo = detail::Info<VkDeviceCreateInfo>(VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO);
        deviceInfo.queueCreateInfoCount = 1;
        deviceInfo.pQueueCreateInfos = &queueInfo;
        VkDevice device = VK_NULL_HANDLE;
        if (Status s = detail::Check(vkCreateDevice(impl_.physical, &deviceInfo, nullptr, &device),
                                     "vkCreateDevice");
            !s) {
            return s;
        }
        impl_.device = detail::Device(device);
        vkGetDeviceQueue(device, impl_.queueFamily, 0, &impl_.queue);
        return {};
    }

    Status CompileShaders() {
        if (Status s =
                detail::Assign(impl_.vertexSpirv,
                               CompileHlsl(ResamplingShaderHlsl(), "VSMain", ShaderStage::Vertex));
            !s) {
            return s;
        }
        return detail::Assign(impl_.fragmentSpirv,
                              CompileHlsl(ResamplingShaderHlsl(), "FSMain", ShaderStage::Fragment));
    }

    GpuDevice::Impl& impl_;
    const GpuOptions& options_;
};

}  // namespace

// ---- GpuDevice ----------------------------------------------------------------------------

GpuDevice::GpuDevice(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
GpuDevice::~GpuDevice() = default;

Result<std::shared_ptr<GpuDevice>> GpuDevice::Create(const GpuOptions& options) {
    auto impl = std::make_unique<Impl>();
    impl->log = options.log ? options.log : StderrLogSink();
    impl->onValidationError = options.onValidationError;
    impl->log(LogLevel::Info, "Initializing GPU environment for " + std::string(kProductName));
    if (Status status = DeviceBuilder(*impl, options).Build(); !status) {
        impl->log(LogLevel::Error, "RavloException during Initialize: " + status.error().message);
        impl->log(LogLevel::Error,
                  "Failure in initializing Ravlo for " + std::string(kProductName));
        return status.error();
    }
    impl->log(LogLevel::Info, "GPU device: " + impl->name + " (" + KindName(impl->kind) +
                                  "), largest texture side " +
                                  std::to_string(impl->maxTextureDimension) +
                                  (impl->validation ? ", validation on" : ""));
    return std::shared_ptr<GpuDevice>(new GpuDevice(std::move(impl)));
}

const std::string& GpuDevice::Name() const {
    return impl_->name;
}
DeviceKind GpuDevice::Kind() const {
    return impl_->kind;
}
uint32_t GpuDevice::DeviceMaxImageDimension2D() const {
    return impl_->properties.limits.maxImageDimension2D;
}
uint32_t GpuDevice::MaxTextureDimension() const {
    return impl_->maxTextureDimension;
}
bool GpuDevice::ValidationEnabled() const {
    return impl_->validation;
}
uint64_t GpuDevice::ValidationErrorCount() const {
    return impl_->validationErrors.load();
}
void GpuDevice::Log(LogLevel level, std::string_view line) const {
    impl_->log(level, line);
}

bool IsVulkanDevicePresent() {
    if (!LoaderOffersVulkan11()) {
        return false;
    }
    auto instance = CreateInstance({}, {});
    if (!instance) {
        return false;
    }
    return ChooseDevice(instance.value().get(), nullptr).device != VK_NULL_HANDLE;
}

}  // namespace Project::Gpu
