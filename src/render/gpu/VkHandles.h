#pragma once

// RAII owners for the Vulkan handles of the GPU layer. Internal to
// src/render/gpu/: the public headers of the layer never include Vulkan.
//
// Every owner is move-only, destroys its handle exactly once, and resets to
// VK_NULL_HANDLE when moved from. Device children keep the VkDevice they were
// made on; the owner of the device (VulkanContext) outlives them because every
// object that holds device children also holds a shared_ptr to the GpuDevice.

#include <vulkan/vulkan.h>

#include <utility>

namespace Project::Gpu::detail {

// A zero-initialised Vulkan info structure with its sType set.
template <typename T>
T Info(VkStructureType type) {
    T value{};
    value.sType = type;
    return value;
}

// A handle created from a VkDevice and destroyed by vkDestroyX(device, h, alloc).
template <typename T, void (*Destroy)(VkDevice, T, const VkAllocationCallbacks*)>
class DeviceChild {
public:
    DeviceChild() = default;
    DeviceChild(VkDevice device, T handle) : device_(device), handle_(handle) {}
    ~DeviceChild() { reset(); }
    DeviceChild(const DeviceChild&) = delete;
    DeviceChild& operator=(const DeviceChild&) = delete;
    DeviceChild(DeviceChild&& other) noexcept
        : device_(other.device_), handle_(std::exchange(other.handle_, T{})) {}
    DeviceChild& operator=(DeviceChild&& other) noexcept {
        if (this != &other) {
            reset();
            device_ = other.device_;
            handle_ = std::exchange(other.handle_, T{});
        }
        return *this;
    }

    T get() const { return handle_; }
    explicit operator bool() const { return handle_ != T{}; }
    // Destroys the handle now (no-op when empty).
    void reset() {
        if (handle_ != T{}) {
            Destroy(device_, handle_, nullptr);
            handle_ = T{};
        }
    }

private:
    VkDevice device_ = VK_NULL_HANDLE;
    T handle_ = T{};
};

using Buffer = DeviceChild<VkBuffer, vkDestroyBuffer>;
using DeviceMemory = DeviceChild<VkDeviceMemory, vkFreeMemory>;
using Image = DeviceChild<VkImage, vkDestroyImage>;
using ImageView = DeviceChild<VkImageView, vkDestroyImageView>;
using Sampler = DeviceChild<VkSampler, vkDestroySampler>;
using ShaderModule = DeviceChild<VkShaderModule, vkDestroyShaderModule>;
using DescriptorSetLayout = DeviceChild<VkDescriptorSetLayout, vkDestroyDescriptorSetLayout>;
using DescriptorPool = DeviceChild<VkDescriptorPool, vkDestroyDescriptorPool>;
using PipelineLayout = DeviceChild<VkPipelineLayout, vkDestroyPipelineLayout>;
using Pipeline = DeviceChild<VkPipeline, vkDestroyPipeline>;
using RenderPass = DeviceChild<VkRenderPass, vkDestroyRenderPass>;
using Framebuffer = DeviceChild<VkFramebuffer, vkDestroyFramebuffer>;
using CommandPool = DeviceChild<VkCommandPool, vkDestroyCommandPool>;
using Fence = DeviceChild<VkFence, vkDestroyFence>;

// The instance (destroyed last).
class Instance {
public:
    Instance() = default;
    explicit Instance(VkInstance handle) : handle_(handle) {}
    ~Instance() { reset(); }
    Instance(const Instance&) = delete;
    Instance& operator=(const Instance&) = delete;
    Instance(Instance&& other) noexcept : handle_(std::exchange(other.handle_, VK_NULL_HANDLE)) {}
    Instance& operator=(Instance&& other) noexcept {
        if (this != &other) {
            reset();
            handle_ = std::exchange(other.handle_, VK_NULL_HANDLE);
        }
        return *this;
    }
    VkInstance get() const { return handle_; }
    explicit operator bool() const { return handle_ != VK_NULL_HANDLE; }
    void reset() {
        if (handle_ != VK_NULL_HANDLE) {
            vkDestroyInstance(handle_, nullptr);
            handle_ = VK_NULL_HANDLE;
        }
    }

private:
    VkInstance handle_ = VK_NULL_HANDLE;
};

// The logical device. Waits for it to be idle before destroying it.
class Device {
public:
    Device() = default;
    explicit Device(VkDevice handle) : handle_(handle) {}
    ~Device() { reset(); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;
    Device(Device&& other) noexcept : handle_(std::exchange(other.handle_, VK_NULL_HANDLE)) {}
    Device& operator=(Device&& other) noexcept {
        if (this != &other) {
            reset();
            handle_ = std::exchange(other.handle_, VK_NULL_HANDLE);
        }
        return *this;
    }
    VkDevice get() const { return handle_; }
    explicit operator bool() const { return handle_ != VK_NULL_HANDLE; }
    void reset() {
        if (handle_ != VK_NULL_HANDLE) {
            vkDeviceWaitIdle(handle_);
            vkDestroyDevice(handle_, nullptr);
            handle_ = VK_NULL_HANDLE;
        }
    }

private:
    VkDevice handle_ = VK_NULL_HANDLE;
};

// The debug-utils messenger; its destroy function is an extension entry
// point fetched from the instance.
class DebugMessenger {
public:
    DebugMessenger() = default;
    DebugMessenger(VkInstance instance, VkDebugUtilsMessengerEXT handle,
                   PFN_vkDestroyDebugUtilsMessengerEXT destroy)
        : instance_(instance), handle_(handle), destroy_(destroy) {}
    ~DebugMessenger() { reset(); }
    DebugMessenger(const DebugMessenger&) = delete;
    DebugMessenger& operator=(const DebugMessenger&) = delete;
    DebugMessenger(DebugMessenger&& other) noexcept
        : instance_(other.instance_),
          handle_(std::exchange(other.handle_, VK_NULL_HANDLE)),
          destroy_(other.destroy_) {}
    DebugMessenger& operator=(DebugMessenger&& other) noexcept {
        if (this != &other) {
            reset();
            instance_ = other.instance_;
            handle_ = std::exchange(other.handle_, VK_NULL_HANDLE);
            destroy_ = other.destroy_;
        }
        return *this;
    }
    void reset() {
        if (handle_ != VK_NULL_HANDLE && destroy_ != nullptr) {
            destroy_(instance_, handle_, nullptr);
        }
        handle_ = VK_NULL_HANDLE;
    }

private:
    VkInstance instance_ = VK_NULL_HANDLE;
    VkDebugUtilsMessengerEXT handle_ = VK_NULL_HANDLE;
    PFN_vkDestroyDebugUtilsMessengerEXT destroy_ = nullptr;
};

// Unmaps on destruction (the memory itself is owned elsewhere and must
// outlive the mapping).
class MappedMemory {
public:
    MappedMemory() = default;
    MappedMemory(VkDevice device, VkDeviceMemory memory, void* data)
        : device_(device), memory_(memory), data_(data) {}
    ~MappedMemory() { reset(); }
    MappedMemory(const MappedMemory&) = delete;
    MappedMemory& operator=(const MappedMemory&) = delete;
    MappedMemory(MappedMemory&& other) noexcept
        : device_(other.device_),
          memory_(std::exchange(other.memory_, VK_NULL_HANDLE)),
          data_(std::exchange(other.data_, nullptr)) {}
    MappedMemory& operator=(MappedMemory&& other) noexcept {
        if (this != &other) {
            reset();
            device_ = other.device_;
            memory_ = std::exchange(other.memory_, VK_NULL_HANDLE);
            data_ = std::exchange(other.data_, nullptr);
        }
        return *this;
    }
    void* data() const { return data_; }
    void reset() {
        if (memory_ != VK_NULL_HANDLE) {
            vkUnmapMemory(device_, memory_);
            memory_ = VK_NULL_HANDLE;
            data_ = nullptr;
        }
    }

private:
    VkDevice device_ = VK_NULL_HANDLE;
    VkDeviceMemory memory_ = VK_NULL_HANDLE;
    void* data_ = nullptr;
};

}  // namespace Project::Gpu::detail
