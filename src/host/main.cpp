// curvana: the host program of the Curvana filter module.
#include "Cli.h"

#if defined(__SANITIZE_ADDRESS__)
#include <dlfcn.h>

// Sanitizer builds only. Mesa's software Vulkan driver loses a few bytes each
// time a Vulkan instance goes away, and the loader then unloads it, leaving
// the leak checker a report it cannot attribute. Pinning the driver keeps its
// frames named, so the report can be matched to the library; glib loses a
// path string while the lens database loads.
extern "C" __attribute__((visibility("default"), used)) const char* __lsan_default_suppressions() {
    return "leak:libvulkan_lvp.so\nleak:libglib-2.0.so\n";
}

namespace {
const bool kDriverPinned = [] {
    (void)dlopen("libvulkan_lvp.so", RTLD_NOW | RTLD_NODELETE);
    return true;
}();
}  // namespace
#endif

int main(int argc, char** argv) {
    return Curvana::Host::runCli(argc, argv);
}
