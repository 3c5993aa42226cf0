#include "SystemFacts.h"

#include <sys/wait.h>
#include <unistd.h>
#include <vulkan/vulkan.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>
#include <type_traits>
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

namespace {

// The name of the first device on which a logical device can be made; empty
// when there is none.
std::string probeVulkan() {
    VkApplicationInfo app{};
    app.sType = VK_STRUCTURE_TYPE_APPLICATION_INFO;
    app.pApplicationName = "curvana";
    app.apiVersion = VK_API_VERSION_1_1;
    VkInstanceCreateInfo create{};
    create.sType = VK_STRUCTURE_TYPE_INSTANCE_CREATE_INFO;
    create.pApplicationInfo = &app;
    VkInstance raw = VK_NULL_HANDLE;
    if (vkCreateInstance(&create, nullptr, &raw) != VK_SUCCESS)
        return {};
    auto destroyInstance = [](VkInstance i) { vkDestroyInstance(i, nullptr); };
    std::unique_ptr<std::remove_pointer_t<VkInstance>, decltype(destroyInstance)> instance(
        raw, destroyInstance);

    uint32_t count = 0;
    if (vkEnumeratePhysicalDevices(instance.get(), &count, nullptr) != VK_SUCCESS || count == 0)
        return {};
    std::vector<VkPhysicalDevice> devices(count);
    if (vkEnumeratePhysicalDevices(instance.get(), &count, devices.data()) != VK_SUCCESS)
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

VulkanProbe::VulkanProbe() {
    // Probed in a child process: a driver that crashes or hangs while probed
    // cannot take the host with it, and what the driver leaves behind (threads,
    // allocations) stays out of the host process. The name comes back through
    // a pipe; the host goes on with its own work meanwhile.
    int fds[2];
    if (::pipe(fds) != 0) {
        finishInProcess();
        return;
    }
    pid_ = ::fork();
    if (pid_ < 0) {
        ::close(fds[0]);
        ::close(fds[1]);
        finishInProcess();
        return;
    }
    if (pid_ == 0) {
        ::close(fds[0]);
        const std::string name = probeVulkan();
        const bool written = !name.empty() && ::write(fds[1], name.data(), name.size()) ==
                                                  static_cast<ssize_t>(name.size());
        ::_exit(written ? 0 : 1);
    }
    ::close(fds[1]);
    pipe_ = fds[0];
}

VulkanProbe::~VulkanProbe() {
    if (pid_ > 0) {
        // Not asked for: the child need not finish its probe.
        ::kill(pid_, SIGKILL);
        collect();
    }
}

void VulkanProbe::finishInProcess() {
    std::string name = probeVulkan();
    if (!name.empty())
        name_ = std::move(name);
    pid_ = -1;
}

void VulkanProbe::collect() {
    std::string name;
    char buffer[256];
    for (;;) {
        const ssize_t n = ::read(pipe_, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        name.append(buffer, static_cast<size_t>(n));
    }
    ::close(pipe_);
    pipe_ = -1;
    int status = 0;
    bool waited = true;
    while (::waitpid(pid_, &status, 0) < 0)
        if (errno != EINTR) {
            waited = false;
            break;
        }
    pid_ = -1;
    if (waited && WIFEXITED(status) && WEXITSTATUS(status) == 0 && !name.empty())
        name_ = std::move(name);
}

const std::optional<std::string>& VulkanProbe::deviceName() {
    if (pid_ > 0)
        collect();
    return name_;
}

std::optional<std::string> vulkanDeviceName() {
    VulkanProbe probe;
    return probe.deviceName();
}

}  // namespace Curvana::HostKit
