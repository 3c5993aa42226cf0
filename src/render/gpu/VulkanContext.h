#pragma once

// Internal to src/render/gpu/: the Vulkan state behind GpuDevice and small
// helpers to make buffers and images on it.

#include <vulkan/vulkan.h>

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "render/gpu/GpuDevice.h"
#include "render/gpu/VkHandles.h"

namespace Project::Gpu {

namespace detail {

// "vkFoo failed: VK_ERROR_... (-N)".
GpuError VkFailure(const char* what, VkResult result);
const char* VkResultName(VkResult result);

// The one check of every Vulkan call's result: success, or the failure
// naming the call.
//   if (Status s = Check(vkQueueSubmit(...), "vkQueueSubmit"); !s) return s;
inline Status Check(VkResult result, const char* call) {
    if (result != VK_SUCCESS)
        return VkFailure(call, result);
    return {};
}

// Makes a device child with vkCreateX(device, &info, nullptr, &handle) (or
// vkAllocateMemory, of the same shape) and hands it to its owner type.
template <typename Owner, typename CreateInfo, typename Handle>
Result<Owner> Create(VkDevice device,
                     VkResult (*create)(VkDevice, const CreateInfo*, const VkAllocationCallbacks*,
                                        Handle*),
                     const CreateInfo& info, const char* call) {
    Handle handle = VK_NULL_HANDLE;
    if (Status s = Check(create(device, &info, nullptr, &handle), call); !s)
        return s.error();
    return Owner(device, handle);
}

// Moves a made object into place, or passes its failure on.
template <typename T>
Status Assign(T& into, Result<T> made) {
    if (!made)
        return made.error();
    into = std::move(made).value();
    return {};
}

// A buffer with its own memory, persistently mapped when host-visible.
// Destruction and assignment release in the safe order: unmap, destroy the
// buffer, free the memory.
struct BufferResource {
    DeviceMemory memory;
    Buffer buffer;
    MappedMemory mapped;
    VkDeviceSize size = 0;
    bool coherent = true;
    VkDeviceMemory memoryHandle = VK_NULL_HANDLE;

    BufferResource() = default;
    ~BufferResource() { reset(); }
    BufferResource(const BufferResource&) = delete;
    BufferResource& operator=(const BufferResource&) = delete;
    BufferResource(BufferResource&& other) noexcept { *this = std::move(other); }
    BufferResource& operator=(BufferResource&& other) noexcept {
        if (this != &other) {
            reset();
            memory = std::move(other.memory);
            buffer = std::move(other.buffer);
            mapped = std::move(other.mapped);
            size = std::exchange(other.size, 0);
            coherent = other.coherent;
            memoryHandle = std::exchange(other.memoryHandle, VK_NULL_HANDLE);
        }
        return *this;
    }
    void reset() {
        mapped.reset();
        buffer.reset();
        memory.reset();
        size = 0;
        memoryHandle = VK_NULL_HANDLE;
    }

    void* data() const { return mapped.data(); }
};

// A 2-D image with its own memory and a colour view, released view first,
// then the image, then the memory.
struct ImageResource {
    DeviceMemory memory;
    Image image;
    ImageView view;
    uint32_t width = 0;
    uint32_t height = 0;
    VkFormat format = VK_FORMAT_UNDEFINED;
    // A linear image in host-coherent memory is mapped for its lifetime:
    // its rows lie rowPitch bytes apart from data().
    MappedMemory mapped;
    VkDeviceSize rowPitch = 0;

    ImageResource() = default;
    ~ImageResource() { reset(); }
    ImageResource(const ImageResource&) = delete;
    ImageResource& operator=(const ImageResource&) = delete;
    ImageResource(ImageResource&& other) noexcept { *this = std::move(other); }
    ImageResource& operator=(ImageResource&& other) noexcept {
        if (this != &other) {
            reset();
            memory = std::move(other.memory);
            image = std::move(other.image);
            view = std::move(other.view);
            mapped = std::move(other.mapped);
            width = std::exchange(other.width, 0);
            height = std::exchange(other.height, 0);
            format = other.format;
            rowPitch = std::exchange(other.rowPitch, 0);
        }
        return *this;
    }
    void reset() {
        view.reset();
        mapped.reset();
        image.reset();
        memory.reset();
        width = 0;
        height = 0;
        rowPitch = 0;
    }

    uint8_t* data() const { return static_cast<uint8_t*>(mapped.data()); }
};

}  // namespace detail

struct GpuDevice::Impl {
    LogSink log;
    std::function<void(std::string_view)> onValidationError;
    std::atomic<uint64_t> validationErrors{0};
    bool validation = false;

    // Declaration order is destruction order reversed: the device goes first,
    // then the messenger, then the instance.
    detail::Instance instance;
    detail::DebugMessenger messenger;
    VkPhysicalDevice physical = VK_NULL_HANDLE;
    VkPhysicalDeviceProperties properties{};
    VkPhysicalDeviceMemoryProperties memoryProperties{};
    detail::Device device;
    VkQueue queue = VK_NULL_HANDLE;
    uint32_t queueFamily = 0;

    DeviceKind kind = DeviceKind::Other;
    std::string name;
    uint32_t maxTextureDimension = 0;
    bool mappedSource = false;  // GpuOptions::mappedSource, on a processor device

    // The compiled shader program (SPIR-V words).
    std::vector<uint32_t> vertexSpirv;
    std::vector<uint32_t> fragmentSpirv;

    VkDevice vk() const { return device.get(); }

    // A memory type index allowed by typeBits with all `required` flags,
    // preferring one that also has `preferred`.
    Result<uint32_t> FindMemoryType(uint32_t typeBits, VkMemoryPropertyFlags required,
                                    VkMemoryPropertyFlags preferred = 0) const;

    // A buffer of `size` bytes. hostVisible: host-visible memory, mapped for
    // its lifetime (cached memory preferred when preferCached, for readback).
    Result<detail::BufferResource> CreateBuffer(VkDeviceSize size, VkBufferUsageFlags usage,
                                                bool hostVisible, bool preferCached = false) const;

    // A device-local 2-D image (one mip level, one layer, optimal tiling)
    // with a colour view. Checks the size against the device's
    // maxImageDimension2D (some drivers accept larger images silently).
    Result<detail::ImageResource> CreateImage(uint32_t width, uint32_t height, VkFormat format,
                                              VkImageUsageFlags usage) const;
    // A linear, sampled 2-D image of format in host-coherent memory, mapped
    // (ImageResource::data), when the device samples such images with
    // linear filtering at this size; nothing (and no error) otherwise.
    Result<std::optional<detail::ImageResource>> CreateMappedImage(uint32_t width, uint32_t height,
                                                                   VkFormat format) const;

    // Makes host writes to a non-coherent mapping visible / device writes
    // visible to the host (no-ops for coherent memory).
    Status Flush(const detail::BufferResource& buffer) const;
    Status Invalidate(const detail::BufferResource& buffer) const;

private:
    // The image and the colour view of out, whose size and format are set.
    Status CreateImageHandle(detail::ImageResource& out, VkImageTiling tiling,
                             VkImageUsageFlags usage, VkImageLayout initial) const;
    Status CreateView(detail::ImageResource& out) const;
    // Memory of memoryType for out's image, bound to it.
    Status BindMemory(detail::ImageResource& out, const VkMemoryRequirements& requirements,
                      uint32_t memoryType, const char* call) const;
    // Memory of a given type for the requirements; `call` names the
    // allocation in a failure.
    Result<detail::DeviceMemory> Allocate(const VkMemoryRequirements& requirements,
                                          uint32_t memoryType, const char* call) const;
    Status SyncMapped(const detail::BufferResource& buffer, PFN_vkFlushMappedMemoryRanges sync,
                      const char* call) const;
};

}  // namespace Project::Gpu
