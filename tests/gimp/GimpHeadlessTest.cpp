// GIMP itself, headless (gimp-console with Script-Fu batches), running the
// installed plug-in in a private GIMP profile: its result must be the one
// the curvana program gives for the same photograph and constraints, pixels
// outside the selection must stay as they were, and "Repeat" must replay the
// last action, constraints included. Slow (each case starts GIMP): label gimp.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "PngSamples.h"
#include "host/HostTestUtil.h"

namespace Curvana::Gimp::Test {
namespace {

namespace fs = std::filesystem;
using Host::Test::runProgram;
using Host::Test::RunResult;
using Host::Test::ScratchDir;

constexpr int kGimpTimeoutSeconds = 900;

struct Difference {
    int largest = 0;    // the largest channel difference met
    double over = 1.0;  // share of pixels whose largest difference passes the tolerance
};

// How far `a` is from `b` over the pixels `where` selects.
template <class Where>
Difference difference(const PngSamples& a, const PngSamples& b, int channels, int tolerance,
                      Where&& where) {
    size_t counted = 0;
    size_t over = 0;
    Difference d;
    for (int y = 0; y < a.height; ++y) {
        for (int x = 0; x < a.width; ++x) {
            if (!where(x, y))
                continue;
            ++counted;
            int worst = 0;
            for (int c = 0; c < channels; ++c)
                worst = std::max(worst, std::abs(a.at(x, y, c) - b.at(x, y, c)));
            over += worst > tolerance ? 1 : 0;
            d.largest = std::max(d.largest, worst);
        }
    }
    d.over = counted ? static_cast<double>(over) / static_cast<double>(counted) : 1.0;
    return d;
}

class GimpHeadless : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fs::exists(CURVANA_GIMP_CONSOLE))
            GTEST_SKIP() << "gimp-console-2.10 is not installed";
        profile = dir / "profile";
        fs::create_directories(profile / "plug-ins");
        // Only the plug-ins these cases use, so that GIMP's first start in a
        // fresh profile queries four plug-ins instead of a hundred.
        for (const char* name : {"file-jpeg", "file-png", "script-fu"})
            fs::create_directory_symlink(fs::path(CURVANA_GIMP_SYSTEM_PLUGINS) / name,
                                         profile / "plug-ins" / name);
        std::ofstream(profile / "gimprc") << "(plug-in-path \"${gimp_dir}/plug-ins\")\n";
        const RunResult installed =
            runProgram(CURVANA_INSTALL_SCRIPT, {"--build", CURVANA_BINARY_DIR},
                       {{"GIMP2_DIRECTORY", profile.string()}});
        ASSERT_EQ(installed.exitCode, 0) << installed.err;
        ASSERT_TRUE(fs::exists(profile / "plug-ins/curvana-gimp/curvana-gimp"));
    }

    // Runs the Script-Fu batches in GIMP with the private profile; GIMP's
    // messages come back for the failure report.
    RunResult gimp(const std::vector<std::string>& batches) {
        std::vector<std::string> args = {"-i", "-d", "-f"};
        for (const std::string& b : batches) {
            args.emplace_back("-b");
            args.push_back(b);
        }
        args.emplace_back("-b");
        args.emplace_back("(gimp-quit 0)");
        return runProgram(
            CURVANA_GIMP_CONSOLE, args,
            {{"GIMP2_DIRECTORY", profile.string()}, {"XDG_CACHE_HOME", (dir / "cache").string()}},
            kGimpTimeoutSeconds);
    }

    RunResult curvana(const std::vector<std::string>& args) {
        return runProgram(CURVANA_EXE, args, {{"XDG_CONFIG_HOME", (dir / "xdg").string()}}, 600);
    }

    // A Script-Fu batch: load `in`, prepare the layer, run the plug-in, export
    // the layer as PNG to `out`.
    static std::string batch(const fs::path& in, const std::string& prepare, const std::string& run,
                             const fs::path& out) {
        return "(let* ((image (car (gimp-file-load RUN-NONINTERACTIVE \"" + in.string() + "\" \"" +
               in.string() + "\"))) (layer (car (gimp-image-get-active-drawable image)))) " +
               prepare + " " + run + " (file-png-save2 RUN-NONINTERACTIVE image layer \"" +
               out.string() + "\" \"" + out.string() +
               "\" 0 9 0 0 0 0 0 0 0) (gimp-image-delete image))";
    }

    ScratchDir dir;
    fs::path profile;
};

TEST_F(GimpHeadless, DemoPhotographMatchesTheCurvanaProgram) {
    const fs::path photo = CURVANA_SAMPLE_PHOTO;
    const fs::path constraints = CURVANA_SAMPLE_CONSTRAINTS;
    const fs::path decoded = dir / "decoded.png";  // the photograph as GIMP decoded it
    const fs::path result = dir / "gimp.png";
    const RunResult run =
        gimp({batch(photo,
                    "(file-png-save2 RUN-NONINTERACTIVE image layer \"" + decoded.string() +
                        "\" \"" + decoded.string() + "\" 0 9 0 0 0 0 0 0 0)",
                    "(plug-in-curvana RUN-NONINTERACTIVE image layer \"\" \"\" 0 0 \"" +
                        constraints.string() + "\")",
                    result)});
    ASSERT_TRUE(fs::exists(result)) << run.err;
    const PngSamples got = readPng(result);
    ASSERT_EQ(got.channels, 3);

    // The same photograph and constraints through the curvana program: from
    // the JPEG, decoded by its own reader, and from GIMP's decoded pixels.
    for (const fs::path& input : {photo, decoded}) {
        const fs::path reference = dir / ("reference-" + input.stem().string() + ".png");
        const RunResult ref = curvana({"apply", input.string(), "-o", reference.string(),
                                       "--constraints", constraints.string(), "--quiet"});
        ASSERT_EQ(ref.exitCode, 0) << ref.err;
        const PngSamples want = readPng(reference);
        ASSERT_EQ(want.channels, 3);
        ASSERT_EQ(got.width, want.width);
        ASSERT_EQ(got.height, want.height);
        const Difference d = difference(got, want, 3, 1, [](int, int) { return true; });
        std::printf(
            "GIMP against the curvana program from %s: largest difference %d, "
            "%.4f %% of pixels within 1\n",
            input.filename().c_str(), d.largest, 100.0 * (1.0 - d.over));
        if (input == photo) {
            // The two JPEG readers differ by a step here and there.
            EXPECT_LE(d.over, 0.001);
        } else {
            // The same pixels in: the two hosts must give the module's result alike.
            EXPECT_EQ(d.largest, 0);
        }
    }
}

TEST_F(GimpHeadless, SixteenBitAlphaLayerChangesOnlyTheSelectionAndRepeats) {
    const fs::path photo = dir / "room16.png";
    const fs::path constraints = dir / "room16.cvc";
    const RunResult made =
        runProgram(CURVANA_SAMPLEGEN, {photo.string(), "--width", "480", "--height", "320",
                                       "--depth", "16", "--constraints", constraints.string()});
    ASSERT_EQ(made.exitCode, 0) << made.err;
    // A short focal length: the corrected picture no longer fills the frame.
    const fs::path reference = dir / "reference16.png";
    const RunResult ref =
        curvana({"apply", photo.string(), "-o", reference.string(), "--constraints",
                 constraints.string(), "--focal-mm", "6", "--quiet"});
    ASSERT_EQ(ref.exitCode, 0) << ref.err;

    // The top-left part of the frame: a corner the picture leaves empty, and
    // part of the picture.
    constexpr int kRight = 300, kBottom = 170;
    const fs::path selected = dir / "selected.png";
    const fs::path repeated = dir / "repeated.png";
    const RunResult run = gimp(
        {batch(photo,
               "(gimp-layer-add-alpha layer) (gimp-image-select-rectangle image "
               "CHANNEL-OP-REPLACE 0 0 " +
                   std::to_string(kRight) + " " + std::to_string(kBottom) + ")",
               "(plug-in-curvana RUN-NONINTERACTIVE image layer \"\" \"\" 6 0 \"" +
                   constraints.string() + "\")",
               selected),
         // Repeat on a fresh copy, without a selection: the last action, its
         // constraints and focal length included.
         batch(photo, "(gimp-layer-add-alpha layer)",
               "(plug-in-curvana RUN-WITH-LAST-VALS image layer \"\" \"\" 0 0 \"\")", repeated)});
    ASSERT_TRUE(fs::exists(selected)) << run.err;
    ASSERT_TRUE(fs::exists(repeated)) << run.err;

    const PngSamples input = readPng(photo);
    const PngSamples want = readPng(reference);
    const PngSamples got = readPng(selected);
    const PngSamples again = readPng(repeated);
    for (const PngSamples* image : {&got, &again}) {
        ASSERT_EQ(image->depth, 16);
        ASSERT_EQ(image->channels, 4);
        ASSERT_EQ(image->width, input.width);
        ASSERT_EQ(image->height, input.height);
    }
    auto inside = [&](int x, int y) { return x < kRight && y < kBottom; };
    auto empty = [&](int x, int y) {
        return want.at(x, y, 0) == 0 && want.at(x, y, 1) == 0 && want.at(x, y, 2) == 0;
    };

    size_t changedOutside = 0;
    size_t emptyInside = 0;
    size_t alphaWrong = 0;  // transparent exactly where the reference is empty
    size_t alphaWrongAgain = 0;
    for (int y = 0; y < input.height; ++y) {
        for (int x = 0; x < input.width; ++x) {
            alphaWrongAgain += (again.at(x, y, 3) == 0) != empty(x, y) ? 1 : 0;
            if (!inside(x, y)) {
                bool same = got.at(x, y, 3) == 65535;
                for (int c = 0; c < 3; ++c)
                    same = same && got.at(x, y, c) == input.at(x, y, c);
                changedOutside += same ? 0 : 1;
                continue;
            }
            emptyInside += empty(x, y) ? 1 : 0;
            alphaWrong += (got.at(x, y, 3) == 0) != empty(x, y) ? 1 : 0;
        }
    }
    EXPECT_EQ(changedOutside, 0u);
    ASSERT_GT(emptyInside, 1000u) << "the selection should reach the empty corner";
    const double frame = static_cast<double>(input.width) * input.height;
    EXPECT_LE(static_cast<double>(alphaWrong), 0.001 * frame);
    EXPECT_LE(static_cast<double>(alphaWrongAgain), 0.001 * frame);

    // Where the picture covers the frame, the curvana program's pixels.
    constexpr int kTolerance = 2;  // of 65535
    auto opaque = [](const PngSamples& image) {
        return [&image](int x, int y) { return image.at(x, y, 3) == 65535; };
    };
    EXPECT_LE(difference(got, want, 3, kTolerance,
                         [&](int x, int y) { return inside(x, y) && opaque(got)(x, y); })
                  .over,
              0.001);
    EXPECT_LE(difference(again, want, 3, kTolerance, opaque(again)).over, 0.001);
}

}  // namespace
}  // namespace Curvana::Gimp::Test
