// curvana: the host program of the Curvana filter module.
#include <cstdio>
#include <exception>
#include <new>

#include "Cli.h"
#include "HostError.h"
#include "hostkit/ProcessMemory.h"

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

// Every failure ends here with one line and a documented exit code; nothing
// that input can reach may end the program by abort.
int main(int argc, char** argv) {
    using namespace Curvana::Host;
    Curvana::HostKit::setUpProcessMemory(argv);
    try {
        return runCli(argc, argv);
    } catch (const HostError& e) {
        std::fprintf(stderr, "curvana: %s\n", e.what());
        return e.code();
    } catch (const std::bad_alloc&) {
        std::fprintf(stderr, "curvana: out of memory\n");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "curvana: %s\n", e.what());
    } catch (...) {
        std::fprintf(stderr, "curvana: unexpected failure\n");
    }
    return kExitFailed;
}
