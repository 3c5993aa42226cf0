// Compiled into every test executable: the environment each test needs,
// set before main so that it holds however the test is started (ctest, by
// hand, or under a debugger). Variables already set by the caller win, except
// the configuration folder, which is always the test's own.
#include <cstdlib>

namespace {

const bool kEnvironmentReady = [] {
    // Mesa's shader cache would otherwise write under the home folder.
    setenv("MESA_SHADER_CACHE_DISABLE", "true", 0);
    // Qt widgets without a display.
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    // Preferences and recorded actions go to a folder of the build tree.
    setenv("XDG_CONFIG_HOME", CURVANA_TEST_CONFIG_HOME, 1);
    return true;
}();

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
#include <dlfcn.h>

// Sanitizer builds only: leaks of third-party libraries, not of ours, for the
// leak checker (which asks the program for them). Mesa's software Vulkan
// driver loses a few bytes each time a Vulkan instance goes away, and the
// loader then unloads it; pinning it keeps its frames named so the report can
// be matched to the library. lensfun loses a path string that glib builds
// while the lens database loads (glib has no frame pointers, so the match is
// on the library).
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
