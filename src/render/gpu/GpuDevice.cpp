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

using detail::VkFailure;

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
    VkBuffer buffer = VK_NULL_HANDLE;
    if (VkResult r = vkCreateBuffer(vk(), &info, nullptr, &buffer); r != VK_SUCCESS) {
        return VkFailure("vkCreateBuffer", r);
    }
    out.buffer = detail::Buffer(vk(), buffer);
    VkMemoryRequirements requirements{};
    vkGetBufferMemoryRequirements(vk(), buffer, &requirements);
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
    auto allocate = detail::Info<VkMemoryAllocateInfo>(VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO);
    allocate.allocationSize = requirements.size;
    allocate.memoryTypeIndex = type.value();
    VkDeviceMemory memory = VK_NULL_HANDLE;
    if (VkResult r = vkAllocateMemory(vk(), &allocate, nullptr, &memory); r != VK_SUCCESS) {
        return VkFailure("vkAllocateMemory (buffer)", r);
    }
    out.memory = detail::DeviceMemory(vk(), memory);
    out.memoryHandle = memory;
    if (VkResult r = vkBindBufferMemory(vk(), buffer, memory, 0); r != VK_SUCCESS) {
        return VkFailure("vkBindBufferMemory", r);
    }
    if (hostVisible) {
        out.coherent = (memoryProperties.memoryTypes[type.value()].propertyFlags &
                        VK_MEMORY_PROPERTY_HOST_COHERENT_BIT) != 0;
        void* data = nullptr;
        if (VkResult r = vkMapMemory(vk(), memory, 0, VK_WHOLE_SIZE, 0, &data); r != VK_SUCCESS) {
            return VkFailure("vkMapMemory", r);
        }
        out.mapped = detail::MappedMemory(vk(), memory, data);
    }
    return out;
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
    auto info = detail::Info<VkImageCreateInfo>(VK_STRUCTURE_TYPE_IMAGE_CREATE_INFO);
    info.imageType = VK_IMAGE_TYPE_2D;
    info.format = format;
    info.extent = {width, height, 1};
    info.mipLevels = 1;
    info.arrayLayers = 1;
    info.samples = VK_SAMPLE_COUNT_1_BIT;
    info.tiling = VK_IMAGE_TILING_OPTIMAL;
    info.usage = usage;
    info.sharingMode = VK_SHARING_MODE_EXCLUSIVE;
    info.initialLayout = VK_IMAGE_LAYOUT_UNDEFINED;
    VkImage image = VK_NULL_HANDLE;
    if (VkResult r = vkCreateImage(vk(), &info, nullptr, &image); r != VK_SUCCESS) {
        return VkFailure("vkCreateImage", r);
    }
    out.image = detail::Image(vk(), image);
    VkMemoryRequirements requirements{};
    vkGetImageMemoryRequirements(vk(), image, &requirements);
    auto type = FindMemoryType(requirements.memoryTypeBits, VK_MEMORY_PROPERTY_DEVICE_LOCAL_BIT);
    if (!type) {
        return type.error();
    }
    auto allocate = detail::Info<VkMemoryAllocateInfo>(VK_STRUCTURE_TYPE_MEMORY_ALLOCATE_INFO);
    allocate.allocationSize = requirements.size;
    allocate.memoryTypeIndex = type.value();
    VkDeviceMemory memory = VK_NULL_HANDLE;
    if (VkResult r = vkAllocateMemory(vk(), &allocate, nullptr, &memory); r != VK_SUCCESS) {
        return VkFailure("vkAllocateMemory (image)", r);
    }
    out.memory = detail::DeviceMemory(vk(), memory);
    if (VkResult r = vkBindImageMemory(vk(), image, memory, 0); r != VK_SUCCESS) {
        return VkFailure("vkBindImageMemory", r);
    }
    auto viewInfo = detail::Info<VkImageViewCreateInfo>(VK_STRUCTURE_TYPE_IMAGE_VIEW_CREATE_INFO);
    viewInfo.image = image;
    viewInfo.viewType = VK_IMAGE_VIEW_TYPE_2D;
    viewInfo.format = format;
    viewInfo.subresourceRange = {VK_IMAGE_ASPECT_COLOR_BIT, 0, 1, 0, 1};
    VkImageView view = VK_NULL_HANDLE;
    if (VkResult r = vkCreateImageView(vk(), &viewInfo, nullptr, &view); r != VK_SUCCESS) {
        return VkFailure("vkCreateImageView", r);
    }
    out.view = detail::ImageView(vk(), view);
    return out;
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
    if (VkResult r = sync(vk(), 1, &range); r != VK_SUCCESS) {
        return VkFailure(call, r);
    }
    return {};
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

// Creates a plain instance (no layers, no extensions) for queries.
Result<detail::Instance> CreateQueryInstance() {
    auto app = detail::Info<VkApplicationInfo>(VK_STRUCTURE_TYPE_APPLICATION_INFO);
    app.pApplicationName = "Curvana";
    app.pEngineName = "Curvana";
    app.apiVersion = VK_API_VERSION_1_1;
    auto info = detail::Info<VkInstanceCreateInfo>(VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO);
    info.pApplicationInfo = &app;
    VkInstance instance = VK_NULL_HANDLE;
    const VkResult r = vkCreateInstance(&info, nullptr, &instance);
    if (r == VK_ERROR_INCOMPATIBLE_DRIVER) {
        return NoDriverError();
    }
    if (r != VK_SUCCESS) {
        return VkFailure("vkCreateInstance", r);
    }
    return detail::Instance(instance);
}

// Everything of Create that can fail, filling impl.
Status Initialize(GpuDevice::Impl& impl, const GpuOptions& options) {
    uint32_t loaderVersion = VK_API_VERSION_1_0;
    if (vkEnumerateInstanceVersion(&loaderVersion) != VK_SUCCESS ||
        loaderVersion < VK_API_VERSION_1_1) {
        return GpuError{static_cast<int32_t>(VK_ERROR_INCOMPATIBLE_DRIVER),
                        "the Vulkan loader does not offer Vulkan 1.1"};
    }

    std::vector<const char*> layers;
    std::vector<const char*> extensions;
    impl.validation = options.enableValidation && LayerInstalled(kValidationLayer);
    if (options.enableValidation && !impl.validation) {
        impl.log(LogLevel::Warning,
                 "Vulkan validation requested but VK_LAYER_KHRONOS_validation is not installed");
    }
    auto messengerInfo = detail::Info<VkDebugUtilsMessengerCreateInfoEXT>(
        VK_STRUCTURE_TYPE_DEBUG_UTILS_MESSENGER_CREATE_INFO_EXT);
    messengerInfo.messageSeverity = VK_DEBUG_UTILS_MESSAGE_SEVERITY_WARNING_BIT_EXT |
                                    VK_DEBUG_UTILS_MESSAGE_SEVERITY_ERROR_BIT_EXT;
    messengerInfo.messageType = VK_DEBUG_UTILS_MESSAGE_TYPE_GENERAL_BIT_EXT |
                                VK_DEBUG_UTILS_MESSAGE_TYPE_VALIDATION_BIT_EXT;
    messengerInfo.pfnUserCallback = OnDebugMessage;
    messengerInfo.pUserData = &impl;
    if (impl.validation) {
        layers.push_back(kValidationLayer);
        extensions.push_back(VK_EXT_DEBUG_UTILS_EXTENSION_NAME);
    }

    auto app = detail::Info<VkApplicationInfo>(VK_STRUCTURE_TYPE_APPLICATION_INFO);
    app.pApplicationName = "Curvana";
    app.pEngineName = "Curvana";
    app.apiVersion = VK_API_VERSION_1_1;
    auto instanceInfo = detail::Info<VkInstanceCreateInfo>(VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO);
    instanceInfo.pApplicationInfo = &app;
    instanceInfo.enabledLayerCount = static_cast<uint32_t>(layers.size());
    instanceInfo.ppEnabledLayerNames = layers.data();
    instanceInfo.enabledExtensionCount = static_cast<uint32_t>(extensions.size());
    instanceInfo.ppEnabledExtensionNames = extensions.data();
    if (impl.validation) {
        instanceInfo.pNext = &messengerInfo;  // also report instance creation itself
    }
    VkInstance instance = VK_NULL_HANDLE;
    const VkResult created = vkCreateInstance(&instanceInfo, nullptr, &instance);
    if (created == VK_ERROR_INCOMPATIBLE_DRIVER) {
        return NoDriverError();
    }
    if (created != VK_SUCCESS) {
        return VkFailure("vkCreateInstance", created);
    }
    impl.instance = detail::Instance(instance);

    if (impl.validation) {
        auto create = reinterpret_cast<PFN_vkCreateDebugUtilsMessengerEXT>(
            vkGetInstanceProcAddr(instance, "vkCreateDebugUtilsMessengerEXT"));
        auto destroy = reinterpret_cast<PFN_vkDestroyDebugUtilsMessengerEXT>(
            vkGetInstanceProcAddr(instance, "vkDestroyDebugUtilsMessengerEXT"));
        if (create == nullptr || destroy == nullptr) {
            return GpuError{static_cast<int32_t>(VK_ERROR_EXTENSION_NOT_PRESENT),
                            "VK_EXT_debug_utils entry points are missing"};
        }
        VkDebugUtilsMessengerEXT messenger = VK_NULL_HANDLE;
        if (VkResult r = create(instance, &messengerInfo, nullptr, &messenger); r != VK_SUCCESS) {
            return VkFailure("vkCreateDebugUtilsMessengerEXT", r);
        }
        impl.messenger = detail::DebugMessenger(instance, messenger, destroy);
    }

    uint32_t examined = 0;
    const Choice choice = ChooseDevice(instance, &examined);
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
    impl.physical = choice.device;
    impl.queueFamily = choice.queueFamily;
    vkGetPhysicalDeviceProperties(impl.physical, &impl.properties);
    vkGetPhysicalDeviceMemoryProperties(impl.physical, &impl.memoryProperties);
    impl.kind = KindOf(impl.properties.deviceType);
    impl.name = impl.properties.deviceName;
    const uint32_t deviceMax = impl.properties.limits.maxImageDimension2D;
    impl.maxTextureDimension = options.maxTextureDimension != 0
                                   ? std::min(deviceMax, options.maxTextureDimension)
                                   : deviceMax;

    const float priority = 1.0f;
    auto queueInfo =
        detail::Info<VkDeviceQueueCreateInfo>(VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO);
    queueInfo.queueFamilyIndex = impl.queueFamily;
    queueInfo.queueCount = 1;
    queueInfo.pQueuePriorities = &priority;
    auto deviceInfo = detail::Info<VkDeviceCreateInfo>(VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO);
    deviceInfo.queueCreateInfoCount = 1;
    deviceInfo.pQueueCreateInfos = &queueInfo;
    VkDevice device = VK_NULL_HANDLE;
    if (VkResult r = vkCreateDevice(impl.physical, &deviceInfo, nullptr, &device);
        r != VK_SUCCESS) {
        return VkFailure("vkCreateDevice", r);
    }
    impl.device = detail::Device(device);
    vkGetDeviceQueue(device, impl.queueFamily, 0, &impl.queue);

    auto vertex = CompileHlsl(ResamplingShaderHlsl(), "VSMain", ShaderStage::Vertex);
    if (!vertex) {
        return vertex.error();
    }
    auto fragment = CompileHlsl(ResamplingShaderHlsl(), "FSMain", ShaderStage::Fragment);
    if (!fragment) {
        return fragment.error();
    }
    impl.vertexSpirv = std::move(vertex).value();
    impl.fragmentSpirv = std::move(fragment).value();
    return {};
}

}  // namespace

// ---- GpuDevice ----------------------------------------------------------------------------

GpuDevice::GpuDevice(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
GpuDevice::~GpuDevice() = default;

Result<std::shared_ptr<GpuDevice>> GpuDevice::Create(const GpuOptions& options) {
    auto impl = std::make_unique<Impl>();
    impl->log = options.log ? options.log : StderrLogSink();
    impl->onValidationError = options.onValidationError;
    impl->log(LogLevel::Info, "Initializing GPU environment for " + std::string(kProductName));
    if (Status status = Initialize(*impl, options); !status) {
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
    uint32_t loaderVersion = VK_API_VERSION_1_0;
    if (vkEnumerateInstanceVersion(&loaderVersion) != VK_SUCCESS ||
        loaderVersion < VK_API_VERSION_1_1) {
        return false;
    }
    auto instance = CreateQueryInstance();
    if (!instance) {
        return false;
    }
    return ChooseDevice(instance.value().get(), nullptr).device != VK_NULL_HANDLE;
}

}  // namespace Project::Gpu
