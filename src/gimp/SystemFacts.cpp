#include "SystemFacts.h"

#include <libgimp/gimp.h>
#include <vulkan/vulkan.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "GLibHandles.h"

namespace Curvana::Gimp {

bool vulkanDeviceAvailable() {
    VkApplicationInfo app{};
    app.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
    app.pApplicationName = "curvana-gimp";
    app.apiVersion = VK_API_VERSION_1_1;
    VkInstanceCreateInfo create{};
    create.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
    create.pApplicationInfo = &app;
    VkInstance raw = VK_NULL_HANDLE;
    if (vkCreateInstance(&create, nullptr, &raw) != VK_SUCCESS)
        return false;
    auto destroyInstance = [](VkInstance i) { vkDestroyInstance(i, nullptr); };
    const std::unique_ptr<std::remove_pointer_t<VkInstance>, decltype(destroyInstance)> instance(
        raw, destroyInstance);

    uint32_t count = 0;
    if (vkEnumeratePhysicalDevices(instance.get(), &count, nullptr) != VK_SUCCESS || count == 0)
        return false;
    std::vector<VkPhysicalDevice> devices(count);
    if (vkEnumeratePhysicalDevices(instance.get(), &count, devices.data()) != VK_SUCCESS)
        return false;
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
                return true;
            }
        }
    }
    return false;
}

uint64_t availableMemory() {
    std::ifstream in("/proc/meminfo");
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        std::string name;
        uint64_t kib = 0;
        fields >> name >> kib;
        if (name == "MemAvailable:")
            return kib * 1024;
    }
    return 0;
}

uint64_t tileCacheBytes() {
    const std::string setting = takeString(gimp_gimprc_query("tile-cache-size"));
    guint64 bytes = 0;
    if (setting.empty() || !gimp_memsize_deserialize(setting.c_str(), &bytes))
        return 0;
    return bytes;
}

}  // namespace Curvana::Gimp
