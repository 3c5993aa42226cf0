#include "SystemInfo.h"

#include <sys/wait.h>
#include <unistd.h>
#include <vulkan/vulkan.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <vector>

namespace Curvana::Host {

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

namespace {

bool probeVulkan() {
    VkApplicationInfo app{};
    app.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
    app.pApplicationName = "curvana";
    app.apiVersion = VK_API_VERSION_1_1;
    VkInstanceCreateInfo create{};
    create.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
    create.pApplicationInfo = &app;
    VkInstance raw = VK_NULL_HANDLE;
    if (vkCreateInstance(&create, nullptr, &raw) != VK_SUCCESS)
        return false;
    auto destroyInstance = [](VkInstance i) { vkDestroyInstance(i, nullptr); };
    std::unique_ptr<std::remove_pointer_t<VkInstance>, decltype(destroyInstance)> instance(
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

}  // namespace

bool vulkanDeviceAvailable() {
    // Probed in a child process: a driver that crashes or hangs while probed
    // cannot take the host with it, and what the driver leaves behind (threads,
    // allocations) stays out of the host process.
    const pid_t pid = ::fork();
    if (pid < 0)
        return probeVulkan();
    if (pid == 0)
        ::_exit(probeVulkan() ? 0 : 1);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string preferencesBase() {
    std::string base;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg)
        base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = std::string(home) + "/.config";
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    return base;
}

}  // namespace Curvana::Host
