// The selector driver and the host callbacks, in process, against the fake module.
#include <gtest/gtest.h>

#include "HostTestUtil.h"
#include "host/ImageFiles.h"
#include "host/ModuleHost.h"

namespace Curvana::Host::Test {
namespace {

std::vector<std::string> readLines(const fs::path& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string l; std::getline(in, l);)
        lines.push_back(l);
    return lines;
}

bool has(const std::vector<std::string>& lines, const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

class ModuleHostTest : public ::testing::Test {
protected:
    void SetUp() override {
        ::setenv("CURVANA_FAKE_REPORT", (dir / "report.txt").c_str(), 1);
        ::unsetenv("CURVANA_FAKE");
        original = randomRaster(ImageInfo{130, 90, Mode::RGB, 16}, 9);
        writePng(dir / "in.png", original, {});
        facts.maxSpace = 64 << 20;
        facts.preferencesBase = "/prefs/base";
    }
    InvocationOutcome runOnce(Module& module, const Descriptor* descriptor, bool parameters,
                              Raster* out, FileFormat format = FileFormat::Png) {
        const std::string extension = format == FileFormat::Tiff ? ".tif" : ".png";
        auto source = openImage(dir / ("in" + extension));
        auto result = createResult(format, dir / ("out" + extension), *source, ResultOptions{});
        Invocation inv;
        inv.source = source.get();
        inv.result = result.get();
        inv.xmpPacket = "<x:xmpmeta/>";
        inv.descriptor = descriptor;
        inv.parameters = parameters;
        InvocationOutcome outcome = module.run(inv);
        result->finish();
        if (out)
            *out = readWhole(dir / ("out" + extension));
        return outcome;
    }
    ScratchDir dir;
    Raster original;
    HostFacts facts;
};

TEST_F(ModuleHostTest, DrivesTheSelectorsAndServesEveryCallback) {
    {
        auto module = Module::load(CURVANA_FAKE_MODULE, facts);
        Descriptor in;
        in.putFloat(CV_FOURCC('f', 'o', 'c', 'L'), 1234.5);
        Raster out;
        InvocationOutcome outcome = runOnce(*module, &in, false, &out);
        EXPECT_EQ(outcome.error, 0);
        EXPECT_FALSE(outcome.aborted);
        EXPECT_EQ(maxDifference(out, mirrored(original)), 0);
        ASSERT_TRUE(outcome.resultDescriptor);
        EXPECT_TRUE(outcome.resultDescriptor->find(CV_FOURCC('f', 'o', 'c', 'L')));
        EXPECT_EQ(outcome.resultDescriptor->find(CV_FOURCC('r', 'u', 'n', 'N'))->integer, 1);

        // The instance lives on across invocations; Parameters comes only when asked for.
        outcome = runOnce(*module, nullptr, true, nullptr);
        EXPECT_EQ(outcome.resultDescriptor->find(CV_FOURCC('r', 'u', 'n', 'N'))->integer, 2);
    }
    const auto lines = readLines(dir / "report.txt");
    const std::vector<std::string> selectors = [&] {
        std::vector<std::string> s;
        for (const auto& l : lines)
            if (l.rfind("selector=", 0) == 0 || l == "unload")
                s.push_back(l);
        return s;
    }();
    const std::vector<std::string> expected = {
        "selector=2", "selector=3", "selector=4", "selector=5", "selector=1",
        "selector=2", "selector=3", "selector=4", "selector=5", "unload"};
    EXPECT_EQ(selectors, expected);
    EXPECT_TRUE(has(lines, "vers=" + std::to_string(27 << 16)));
    EXPECT_TRUE(has(lines, "gpuf=0"));
    EXPECT_TRUE(has(lines, "image=130x90 mode=3 depth=16 planes=3"));
    EXPECT_TRUE(has(lines, "prefs=/prefs/base"));
    EXPECT_TRUE(has(lines, "xmpLength=12"));
    EXPECT_TRUE(has(lines, "modifiers=0"));
    EXPECT_TRUE(has(lines, "in.focL=1234.5000"));
    EXPECT_TRUE(has(lines, "descriptor=no"));
    EXPECT_TRUE(has(lines, "parameters=1"));
}

// A module that moves every plane at once, with gaps between its pixels,
// gets the same picture from PNG and TIFF files; a request whose pixels
// overlap is refused.
TEST_F(ModuleHostTest, ServesInterleavedPixels) {
    ::setenv("CURVANA_FAKE", "pixels", 1);
    // A result nobody writes is a copy of its source.
    createResult(FileFormat::Tiff, dir / "in.tif", *openImage(dir / "in.png"), {})->finish();
    auto module = Module::load(CURVANA_FAKE_MODULE, facts);
    for (FileFormat format : {FileFormat::Png, FileFormat::Tiff}) {
        Raster out;
        const InvocationOutcome outcome = runOnce(*module, nullptr, false, &out, format);
        EXPECT_EQ(outcome.error, 0);
        EXPECT_EQ(maxDifference(out, mirrored(original)), 0);
    }
    EXPECT_TRUE(has(readLines(dir / "report.txt"), "narrowColumns=" + std::to_string(cvErrParam)));
}

TEST_F(ModuleHostTest, ReportsAFailedStartAndItsAlert) {
    ::setenv("CURVANA_FAKE", "fail", 1);
    auto module = Module::load(CURVANA_FAKE_MODULE, facts);
    const InvocationOutcome outcome = runOnce(*module, nullptr, false, nullptr);
    EXPECT_EQ(outcome.error, cvErrFilterFailed);
    EXPECT_EQ(outcome.failedSelector, cvSelectorStart);
    ASSERT_EQ(outcome.alerts.size(), 1u);
    EXPECT_EQ(outcome.alerts[0], "Fake: The fake filter failed.");
    EXPECT_FALSE(outcome.resultDescriptor);
}

TEST_F(ModuleHostTest, StopsServingPlanesOnceAbortIsRequested) {
    abortFlag = 1;
    auto module = Module::load(CURVANA_FAKE_MODULE, facts);
    const InvocationOutcome outcome = runOnce(*module, nullptr, false, nullptr);
    abortFlag = 0;
    EXPECT_TRUE(outcome.aborted);
    EXPECT_EQ(outcome.error, cvErrAborted);
}

TEST(ModuleLoading, NamesWhatIsWrong) {
    ScratchDir dir;
    std::ofstream(dir / "libnot.so") << "not a shared object";
    EXPECT_THROW(Module::locate(dir / "missing.so"), HostError);
    try {
        Module::load(dir / "libnot.so", HostFacts{});
        FAIL();
    } catch (const HostError& e) {
        EXPECT_NE(std::string(e.what()).find("cannot load"), std::string::npos);
    }
    EXPECT_EQ(displayText("$$$/Curvana/Warning/SolveFailed=Solve failed"), "Solve failed");
    EXPECT_EQ(displayText("plain"), "plain");
}

}  // namespace
}  // namespace Curvana::Host::Test
