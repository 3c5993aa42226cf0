// The fixture of the tests that run the curvana binary with the real filter
// module.
#pragma once

#include "HostTestUtil.h"
#include "host/Descriptor.h"

namespace Curvana::Host::Test {

// The curvana binary with the real filter module beside it (skipped in a
// build without one); its settings live in the scratch folder.
class RealModuleTest : public ::testing::Test {
protected:
    void SetUp() override {
        module = fs::path(CURVANA_EXE).parent_path() / "libcurvana.so";
        if (!fs::exists(module))
            GTEST_SKIP() << "no libcurvana.so beside curvana in this build";
    }
    RunResult curvana(std::vector<std::string> args, int timeoutSeconds = 180) {
        args.insert(args.end(), {"--module", module.string()});
        return runProgram(CURVANA_EXE, args, {{"XDG_CONFIG_HOME", (dir / "xdg").string()}},
                          timeoutSeconds);
    }
    // The settings the last run recorded.
    std::unique_ptr<Descriptor> lastAction() const {
        return loadAction(dir / "xdg" / "curvana" / "last-action.json");
    }
    // An action file holding one number.
    fs::path paramsFile(const std::string& key, double value, bool integer = true) {
        const fs::path p = dir / (key + ".json");
        std::ofstream(p) << R"({"curvanaAction": 1, "descriptor": [{"key": ")" << key
                         << R"(", "type": ")" << (integer ? "integer" : "double")
                         << R"(", "value": )" << value << "}]}";
        return p;
    }

    ScratchDir dir;
    fs::path module;
};

}  // namespace Curvana::Host::Test
