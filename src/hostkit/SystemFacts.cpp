#include "SystemFacts.h"

#include <vulkan/vulkan.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

namespace Curvana::HostKit {

MemoryFigures memoryFigures() {
    MemoryFigures m;
    std::ifstream in("/proc/meminfo");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string name;
        uint64_t kib = 0;
        fields >> name >> kib;
        if (name == "MemTotal:")
            m.total = kib * 1024;
        else if (name == "MemAvailable:")
            m.available = kib * 1024;
    }
    return m;
}

struct VulkanProbe::Instance {
    VkInstance handle = VK_NULL_HANDLE;
    ~Instance() {
        if (handle != VK_NULL_HANDLE)
            vkDestroyInstance(handle, nullptr);
    }
};

namespace {

// The name of the first device of instance on which a logical device can be
// made; empty when there is none.
std::string firstUsableDevice(VkInstance instance) {
    uint32_t count = 0;
    if (vkEnumeratePhysicalDevices(instance, &count, nullptr) != VK_SUCCESS || count == 0)
        return {};
    std::vector<VkPhysicalDevice> devices(count);
    if (vkEnumeratePhysicalDevices(instance, &count, devices.data()) != VK_SUCCESS)
        return {};
    for (VkPhysicalDevice physical : devices) {
        uint32_t families = 0;
        vkGetPhysicalDeviceQueueFamilyProperties(physical, &families, nullptr);
        std::vector<VkQueueFamilyProperties> props(families);
        vkGetPhysicalDeviceQueueFamilyProperties(physical, &families, props.data());
        for (uint32_t f = 0; f < families; ++f) {
            if (!(props[f].queueFlags & VK_QUEUE_GRAPHICS_BIT))
                continue;
            const float priority = 1.0f;
            VkDeviceQueueCreateInfo queue{};
            queue.sType = VK_STRUCTURE_TYPE_DEVICE_QUEUE_CREATE_INFO;
            queue.queueFamilyIndex = f;
            queue.queueCount = 1;
            queue.pQueuePriorities = &priority;
            VkDeviceCreateInfo deviceInfo{};
            deviceInfo.sType = VK_STRUCTURE_TYPE_DEVICE_CREATE_INFO;
            deviceInfo.queueCreateInfoCount = 1;
            deviceInfo.pQueueCreateInfos = &queue;
            VkDevice device = VK_NULL_HANDLE;
            if (vkCreateDevice(physical, &deviceInfo, nullptr, &device) == VK_SUCCESS) {
                vkDestroyDevice(device, nullptr);
                VkPhysicalDeviceProperties properties{};
                vkGetPhysicalDeviceProperties(physical, &properties);
                std::string name = properties.deviceName;
                return name.empty() ? std::string("unnamed device") : name;
            }
        }
    }
    return {};
}

}  // namespace

VulkanProbe::VulkanProbe() : instance_(std::make_unique<Instance>()) {
    thread_ = std::thread([this] {
        VkApplicationInfo app{};
        app.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
        app.pApplicationName = "curvana";
        app.apiVersion = VK_API_VERSION_1_1;
        VkInstanceCreateInfo create{};
        create.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
        create.pApplicationInfo = &app;
        if (vkCreateInstance(&create, nullptr, &instance_->handle) != VK_SUCCESS) {
            instance_->handle = VK_NULL_HANDLE;
            return;
        }
        std::string name = firstUsableDevice(instance_->handle);
        if (!name.empty())
            name_ = std::move(name);
    });
}

VulkanProbe::~VulkanProbe() {
    if (thread_.joinable())
        thread_.join();
}

const std::optional<std::string>& VulkanProbe::deviceName() {
    if (thread_.joinable())
        thread_.join();
    return name_;
}

std::optional<std::string> vulkanDeviceName() {
    VulkanProbe probe;
    return probe.deviceName();
}

}  // namespace Curvana::HostKit
