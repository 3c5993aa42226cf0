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
