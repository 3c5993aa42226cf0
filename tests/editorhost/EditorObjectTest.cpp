// The editor in its own shared object, driven through the real curvana
// program and module: `curvana edit` with a test double in the editor
// object's place (stage/), without one (bare/), and without a display; and
// what a silent apply maps into the process.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "host/HostTestUtil.h"
#include "samplegen/SampleFiles.h"
#include "session/PreferencesFile.h"

namespace Curvana::Host::Test {
namespace {

const fs::path kStage = CURVANA_EDITOR_STAGE;
const fs::path kBare = CURVANA_EDITOR_BARE;

std::string readText(const fs::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Whether a shared library of Qt 6 is mapped into this process.
bool qtMapped() {
    return readText("/proc/self/maps").find("libQt6") != std::string::npos;
}

class EditorObject : public ::testing::Test {
protected:
    void SetUp() override {
        SampleGen::SampleFileOptions o;
        o.scene.width = 360;
        o.scene.height = 240;
        o.scene.samples = 1;
        input = dir / "room.png";
        SampleGen::writeSampleFile(input, o);
    }

    // curvana with the module of `folder`, the test's own configuration
    // folder, and the double's answer.
    RunResult curvana(std::vector<std::string> args, const fs::path& folder,
                      const std::string& answer, std::vector<std::string> unset = {}) {
        args.push_back("--module");
        args.push_back((folder / "libcurvana.so").string());
        std::vector<std::string> line;
        for (const std::string& name : unset) {
            line.push_back("-u");
            line.push_back(name);
        }
        line.push_back("XDG_CONFIG_HOME=" + (dir / "xdg").string());
        line.push_back("CURVANA_TEST_EDITOR_LOG=" + log().string());
        line.push_back("CURVANA_TEST_EDITOR_ANSWER=" + answer);
        line.push_back(CURVANA_EXE);
        line.insert(line.end(), args.begin(), args.end());
        return runProgram("/usr/bin/env", line);
    }

    fs::path log() const { return dir / "editor.log"; }
    fs::path lastAction() const { return dir / "xdg" / "curvana" / "last-action.json"; }

    ScratchDir dir;
    fs::path input;
};

TEST_F(EditorObject, OkWritesWhatApplyWritesWithTheSameSettings) {
    // A translation installed by the module must reach the editor object:
    // both work on the engine's one translation table.
    const fs::path prefs = Project::PreferencesFolder(dir / "xdg");
    fs::create_directories(prefs);
    std::ofstream(prefs / "Curvana Strings.txt") << "$$$/Curvana/Process/Name=Kurvana\n";

    const fs::path edited = dir / "edited.png", applied = dir / "applied.png";
    const RunResult r = curvana({"edit", input.string(), "-o", edited.string()}, kStage, "ok");
    ASSERT_EQ(r.exitCode, kExitOk) << r.err;
    const std::string events = readText(log());
    EXPECT_NE(events.find("created\nrun PDialog.zel widgets=1 name=Kurvana"), std::string::npos)
        << events;
    EXPECT_NE(events.find("\nok\n"), std::string::npos) << events;
    ASSERT_TRUE(fs::exists(lastAction()));

    // The recorded action replayed by apply gives the same pixels.
    const RunResult again = curvana(
        {"apply", input.string(), "-o", applied.string(), "--params", lastAction().string()}, kBare,
        "cancel");
    ASSERT_EQ(again.exitCode, kExitOk) << again.err;
    const Raster a = readWhole(edited), b = readWhole(applied);
    ASSERT_EQ(a.info.width, 360);
    EXPECT_EQ(maxDifference(a, b), 0);
}

TEST_F(EditorObject, CancelWritesNothingAndExitsWithOne) {
    const fs::path out = dir / "out.png";
    const RunResult r = curvana({"edit", input.string(), "-o", out.string()}, kStage, "cancel");
    EXPECT_EQ(r.exitCode, kExitFailed);
    EXPECT_NE(r.err.find("edit: cancelled; nothing written"), std::string::npos) << r.err;
    EXPECT_NE(readText(log()).find("cancel"), std::string::npos);
    EXPECT_FALSE(fs::exists(out));
    EXPECT_FALSE(fs::exists(lastAction()));
}

// The editor cannot open: the cause is named, and the run ends like Cancel.
TEST_F(EditorObject, SaysWhyTheEditorCannotOpen) {
    struct Case {
        fs::path folder;
        std::vector<std::string> unset;
        std::string message;
    };
    const Case cases[] = {
        {kBare, {}, (kBare / "libcurvana_editor.so").string() + " is missing"},
        {kStage, {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"}, "needs a display"},
    };
    for (const Case& c : cases) {
        const fs::path out = dir / "out.png";
        const RunResult r =
            curvana({"edit", input.string(), "-o", out.string()}, c.folder, "ok", c.unset);
        EXPECT_EQ(r.exitCode, kExitFailed) << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_NE(r.err.find("see its message above"), std::string::npos) << r.err;
        EXPECT_FALSE(fs::exists(out));
        EXPECT_EQ(readText(log()).find("run "), std::string::npos) << "the dialog never ran";
    }
}

// The host and the module in this process: a silent apply maps no Qt, and
// an edit does (so the check sees Qt where it is).
TEST_F(EditorObject, ASilentApplyMapsNoQt) {
    if (qtMapped())
        GTEST_SKIP() << "Qt was loaded by an earlier test of this process";
    const std::string module = (kStage / "libcurvana.so").string();
    ASSERT_EQ(runCliOn({"curvana", "apply", input.string(), "-o", (dir / "a.png").string(),
                        "--module", module, "-q"}),
              kExitOk);
    EXPECT_TRUE(fs::exists(dir / "a.png"));
    EXPECT_FALSE(qtMapped());

    setenv("CURVANA_TEST_EDITOR_ANSWER", "cancel", 1);
    EXPECT_EQ(runCliOn({"curvana", "edit", input.string(), "-o", (dir / "e.png").string(),
                        "--module", module, "-q"}),
              kExitFailed);
    EXPECT_TRUE(qtMapped());
}

}  // namespace
}  // namespace Curvana::Host::Test
