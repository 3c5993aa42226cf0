// Scenarios: the real curvana binary on generated photographs, with the fake
// module standing in for the filter (it mirrors the image). Output mode,
// depth, size, pixels and metadata are checked, and every refusal must be
// one clear line, a non-zero exit and no file.
#include <gtest/gtest.h>
#include <tiffio.h>

#include <exiv2/exiv2.hpp>

#include <csignal>

#include "HostTestUtil.h"
#include "host/Descriptor.h"
#include "host/HostError.h"
#include "host/TiffFile.h"
#include "host/TiffMetadata.h"
#include "samplegen/SampleFiles.h"

namespace Curvana::Host::Test {
namespace {

// An XMP packet with one property that must reach the output unchanged.
std::string ratingPacket() {
    Exiv2::XmpData xmp;
    xmp["Xmp.xmp.Rating"] = 4;
    std::string packet;
    Exiv2::XmpParser::encode(packet, xmp);
    return packet;
}

class CliScenario : public ::testing::Test {
protected:
    static SampleGen::SampleFileOptions sampleOptions(Mode mode, int depth, int32_t width = 240,
                                                      int32_t height = 160) {
        SampleGen::SampleFileOptions o;
        o.scene.width = width;
        o.scene.height = height;
        o.scene.samples = 1;
        o.mode = mode;
        o.depth = depth;
        o.icc = makeIcc(mode);
        o.xmpPacket = ratingPacket();
        return o;
    }
    fs::path sample(const std::string& name, const SampleGen::SampleFileOptions& o) {
        const fs::path p = dir / name;
        SampleGen::writeSampleFile(p, o);
        return p;
    }
    fs::path sample(const std::string& name, Mode mode, int depth, int32_t width = 240,
                    int32_t height = 160) {
        return sample(name, sampleOptions(mode, depth, width, height));
    }

    RunResult curvana(std::vector<std::string> args, std::map<std::string, std::string> env = {}) {
        if (!args.empty() && args[0] != "--help" &&
            std::find(args.begin(), args.end(), "--module") == args.end()) {
            args.push_back("--module");
            args.push_back(CURVANA_FAKE_MODULE);
        }
        env.emplace("XDG_CONFIG_HOME", (dir / "xdg").string());
        env.emplace("CURVANA_FAKE_REPORT", (dir / "report.txt").string());
        return runProgram(CURVANA_EXE, args, env);
    }

    std::string report() {
        std::ifstream in(dir / "report.txt");
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }

    // Files in the scratch folder other than the given ones (temporaries left behind).
    std::vector<std::string> strayFiles(const std::vector<std::string>& expected) {
        std::vector<std::string> stray;
        for (const auto& e : fs::directory_iterator(dir.path())) {
            const std::string name = e.path().filename().string();
            if (e.is_regular_file() && name != "report.txt" &&
                std::find(expected.begin(), expected.end(), name) == expected.end())
                stray.push_back(name);
        }
        return stray;
    }

    void expectCarriedMetadata(const fs::path& out) {
        auto image = Exiv2::ImageFactory::open(out.string());
        image->readMetadata();
        const auto& exif = image->exifData();
        ASSERT_NE(exif.findKey(Exiv2::ExifKey("Exif.Image.Make")), exif.end()) << out;
        EXPECT_EQ(exif.findKey(Exiv2::ExifKey("Exif.Image.Make"))->toString(), "Curvana");
        EXPECT_EQ(exif.findKey(Exiv2::ExifKey("Exif.Image.Model"))->toString(),
                  "Sample Room Camera");
        EXPECT_FLOAT_EQ(exif.findKey(Exiv2::ExifKey("Exif.Photo.FocalLength"))->toFloat(), 15.0f);
        const auto& xmp = image->xmpData();
        const auto rating = xmp.findKey(Exiv2::XmpKey("Xmp.xmp.Rating"));
        ASSERT_NE(rating, xmp.end()) << out;
        EXPECT_EQ(rating->toString(), "4");
        auto image2 = openImage(out);
        EXPECT_EQ(image2->iccProfile(), makeIcc(image2->info().mode));
    }

    ScratchDir dir;
};

struct RoundTripCase {
    const char* in;
    const char* out;
    Mode mode;
    int depth;
    int tolerance;
    bool bigTiffIn = false;  // whose metadata Exiv2 cannot read
};

class CliRoundTrip : public CliScenario, public ::testing::WithParamInterface<RoundTripCase> {};

TEST_P(CliRoundTrip, KeepsModeDepthPixelsAndMetadata) {
    const auto [in, out, mode, depth, tolerance, bigTiff] = GetParam();
    SampleGen::SampleFileOptions o = sampleOptions(mode, depth);
    o.bigTiff = bigTiff;
    const fs::path input = sample(in, o);
    ASSERT_EQ(isBigTiff(input), bigTiff);
    const RunResult r = curvana({"apply", input.string(), "-o", (dir / out).string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const ImageInfo info = openImage(dir / out)->info();
    EXPECT_EQ(info.mode, mode);
    EXPECT_EQ(info.depth, depth);
    EXPECT_EQ(info.width, 240);
    EXPECT_EQ(info.height, 160);
    EXPECT_LE(maxDifference(readWhole(dir / out), mirrored(readWhole(input))), tolerance);
    expectCarriedMetadata(dir / out);
    // EXIF reached the module as XMP.
    EXPECT_NE(report().find("xmpHasFocal=1"), std::string::npos);
    EXPECT_TRUE(strayFiles({in, out}).empty());
}

INSTANTIATE_TEST_SUITE_P(Formats, CliRoundTrip,
                         ::testing::Values(RoundTripCase{"in.jpg", "out.jpg", Mode::RGB, 8, 48},
                                           RoundTripCase{"in.tif", "out.tif", Mode::RGB, 16, 0},
                                           RoundTripCase{"in.tif", "out.tif", Mode::CMYK, 8, 0},
                                           RoundTripCase{"in.tif", "out.tif", Mode::Lab, 16, 0},
                                           RoundTripCase{"in.tif", "out.tif", Mode::RGB, 8, 0,
                                                         true},
                                           RoundTripCase{"in.png", "out.png", Mode::Gray, 8, 0},
                                           RoundTripCase{"in.png", "out.png", Mode::Gray, 16, 0},
                                           RoundTripCase{"in.jpg", "out.tif", Mode::RGB, 8, 0}));

TEST_F(CliScenario, HandsTheOptionsToTheModuleAndRecordsTheResult) {
    const fs::path input = sample("in.png", Mode::RGB, 8);
    RunResult r =
        curvana({"apply", input.string(), "-o", (dir / "a.png").string(), "--projection", "fisheye",
                 "--regularizer", "mercator", "--focal-mm", "12", "--crop", "1.5"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    expectContains(report(),
                   {"in.prjM=prjM:fisP", "in.regM=regM:merR", "in.PhyF=12.0000", "in.CrpF=1.5000"});
    EXPECT_EQ(report().find("in.focL="), std::string::npos) << "the filter works it out";
    const fs::path record = dir / "xdg" / "curvana" / "last-action.json";
    ASSERT_TRUE(fs::exists(record));
    EXPECT_TRUE(loadAction(record)->find(CV_FOURCC('r', 'u', 'n', 'N')));

    // repeat replays the recorded action, and so does apply --params with an override.
    fs::remove(dir / "report.txt");
    r = curvana({"repeat", input.string(), "-o", (dir / "b.png").string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    expectContains(report(),
                   {"in.regM=regM:merR", "in.PhyF=12.0000", "parameters=0", "modifiers=0"});

    fs::copy_file(record, dir / "action.json");
    fs::remove(dir / "report.txt");
    r = curvana({"apply", input.string(), "-o", (dir / "c.png").string(), "--params",
                 (dir / "action.json").string(), "--regularizer", "panini"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    expectContains(report(), {"in.regM=regM:panR", "in.CrpF=1.5000"});
}

// Lines of standard error that are messages (not progress).
std::vector<std::string> messages(const RunResult& r) {
    std::vector<std::string> lines;
    for (const auto& l : r.errLines())
        if (l.rfind("curvana: ", 0) == 0)
            lines.push_back(l);
    return lines;
}

TEST_F(CliScenario, ProcessesABatchIntoAFolderWithProgress) {
    fs::create_directory(dir / "out");
    const fs::path a = sample("a.jpg", Mode::RGB, 8), b = sample("b.png", Mode::Gray, 8),
                   c = sample("c.tif", Mode::Lab, 8);
    const RunResult r =
        curvana({"apply", a.string(), b.string(), c.string(), "-o", (dir / "out").string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    for (const char* name : {"a.jpg", "b.png", "c.tif"})
        EXPECT_TRUE(fs::exists(dir / "out" / name)) << name;
    EXPECT_NE(r.err.find("c.tif (3/3): Applying Curvana. 100%"), std::string::npos) << r.err;
}

// Each input is opened, and decodes, while the one before it is corrected: a
// broken input is still reported in its own turn, once, and the rest are done.
TEST_F(CliScenario, ABrokenInputInABatchFailsAloneInItsTurn) {
    fs::create_directory(dir / "out");
    const fs::path a = sample("a.tif", Mode::RGB, 8), b = sample("b.jpg", Mode::RGB, 8, 600, 400),
                   c = sample("c.png", Mode::RGB, 16);
    fs::resize_file(b, fs::file_size(b) / 2);
    const RunResult r =
        curvana({"apply", a.string(), b.string(), c.string(), "-o", (dir / "out").string()});
    EXPECT_EQ(r.exitCode, kExitInput) << r.err;
    std::vector<std::string> aboutB;
    for (const auto& l : messages(r))
        if (l.find("b.jpg") != std::string::npos)
            aboutB.push_back(l);
    ASSERT_EQ(aboutB.size(), 1u) << r.err;
    EXPECT_NE(aboutB[0].find("cannot decode"), std::string::npos) << aboutB[0];
    EXPECT_TRUE(fs::exists(dir / "out" / "a.tif"));
    EXPECT_FALSE(fs::exists(dir / "out" / "b.jpg"));
    EXPECT_TRUE(fs::exists(dir / "out" / "c.png"));
}

TEST_F(CliScenario, NeverOverwritesAnInputUnlessNamedAsTheOutput) {
    const fs::path input = sample("in.png", Mode::RGB, 8);
    const auto before = fs::file_size(input);
    RunResult r = curvana({"apply", input.string(), "-o", dir.path().string()});
    EXPECT_EQ(r.exitCode, kExitOutput);
    EXPECT_NE(r.err.find("would overwrite the input"), std::string::npos) << r.err;
    EXPECT_EQ(fs::file_size(input), before);

    const Raster original = readWhole(input);
    r = curvana({"apply", input.string(), "-o", input.string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(maxDifference(readWhole(input), mirrored(original)), 0);
}

// Every refusal: one message line, the expected exit code, no output and no temporary file.
void expectRefusal(const RunResult& r, int code, const std::string& text) {
    EXPECT_EQ(r.exitCode, code) << r.err;
    const auto lines = messages(r);
    ASSERT_EQ(lines.size(), 1u) << r.err;
    EXPECT_EQ(lines[0].rfind("curvana: ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(text), std::string::npos) << lines[0];
}

TEST_F(CliScenario, RefusesBadInputsCleanly) {
    const std::string out = (dir / "out.tif").string();
    expectRefusal(curvana({"apply", (dir / "missing.tif").string(), "-o", out}), kExitInput,
                  "no such file");

    std::ofstream(dir / "notes.tif") << "these are notes, not a picture";
    expectRefusal(curvana({"apply", (dir / "notes.tif").string(), "-o", out}), kExitInput,
                  "unsupported image format");

    const fs::path cut = sample("cut.tif", Mode::RGB, 8, 600, 400);
    fs::resize_file(cut, fs::file_size(cut) * 2 / 3);
    expectRefusal(curvana({"apply", cut.string(), "-o", out}), kExitInput, "cut.tif");

    EXPECT_FALSE(fs::exists(out));
    EXPECT_TRUE(strayFiles({"notes.tif", "cut.tif"}).empty());
}

TEST_F(CliScenario, RefusesOutputsItCannotWrite) {
    const fs::path input = sample("in.tif", Mode::RGB, 16);
    expectRefusal(curvana({"apply", input.string(), "-o", (dir / "nowhere" / "out.tif").string()}),
                  kExitOutput, "no such folder");
    // Root ignores folder permissions: use a folder no one can create files in.
    const fs::path locked =
        ::geteuid() == 0 ? fs::path("/proc/curvana-out.tif") : dir / "locked" / "out.tif";
    if (::geteuid() != 0) {
        fs::create_directory(dir / "locked");
        fs::permissions(dir / "locked", fs::perms::owner_read | fs::perms::owner_exec);
    }
    expectRefusal(curvana({"apply", input.string(), "-o", locked.string()}), kExitOutput,
                  "cannot write there");
    expectRefusal(curvana({"apply", input.string(), "-o", (dir / "out.jpg").string()}), kExitOutput,
                  "JPEG cannot hold");
    expectRefusal(curvana({"apply", input.string(), "-o", (dir / "out.bmp").string()}), kExitOutput,
                  "unknown output format");
    EXPECT_TRUE(strayFiles({"in.tif"}).empty());
}

// edit is the fresh invocation: the Parameters selector and no descriptor,
// also once an action was recorded; a run without a result writes nothing.
TEST_F(CliScenario, EditRunsTheFreshInvocation) {
    const fs::path input = sample("in.png", Mode::RGB, 8);
    for (const char* out : {"a.png", "b.png"}) {
        const RunResult r = curvana({"edit", input.string(), "-o", (dir / out).string()});
        ASSERT_EQ(r.exitCode, kExitOk) << r.err;
        expectContains(report(), {"parameters=1", "descriptor=no"});
        EXPECT_TRUE(fs::exists(dir / "xdg" / "curvana" / "last-action.json"));
        fs::remove(dir / "report.txt");
    }
    const RunResult r = curvana({"edit", input.string(), "-o", (dir / "c.png").string()},
                                {{"CURVANA_FAKE", "nowrite"}});
    EXPECT_EQ(r.exitCode, kExitFailed);
    EXPECT_NE(r.err.find("edit: the editor ended without a result"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(dir / "c.png"));
}

TEST_F(CliScenario, WritesNothingWhenTheFilterFailsOrDeclines) {
    const fs::path input = sample("in.png", Mode::RGB, 8);
    for (const char* mode : {"fail", "nowrite"}) {
        const RunResult r = curvana({"apply", input.string(), "-o", (dir / "out.png").string()},
                                    {{"CURVANA_FAKE", mode}});
        EXPECT_EQ(r.exitCode, kExitFailed) << mode << ": " << r.err;
        EXPECT_NE(r.err.find("nothing written"), std::string::npos) << r.err;
        EXPECT_FALSE(fs::exists(dir / "out.png")) << mode;
    }
    EXPECT_TRUE(strayFiles({"in.png"}).empty());
    EXPECT_FALSE(fs::exists(dir / "xdg" / "curvana" / "last-action.json"));
}

// A run ended by a signal half way leaves nothing in the output folder: the
// catchable ones abort cleanly, and not even SIGKILL leaves a temporary file.
class CliSignal : public CliScenario, public ::testing::WithParamInterface<std::pair<int, int>> {};

TEST_P(CliSignal, LeavesNoPartialFile) {
    const auto [signal, code] = GetParam();
    fs::create_directory(dir / "out");
    const fs::path a = sample("a.tif", Mode::RGB, 8), b = sample("b.tif", Mode::RGB, 8);
    const RunResult r =
        curvana({"apply", a.string(), b.string(), "-o", (dir / "out").string()},
                {{"CURVANA_FAKE", "signal"}, {"CURVANA_FAKE_SIGNAL", std::to_string(signal)}});
    EXPECT_EQ(r.exitCode, code) << r.err;
    EXPECT_TRUE(fs::is_empty(dir / "out"));
}

INSTANTIATE_TEST_SUITE_P(Signals, CliSignal,
                         ::testing::Values(std::pair{SIGINT, kExitInterrupted},
                                           std::pair{SIGTERM, kExitInterrupted},
                                           std::pair{SIGHUP, kExitInterrupted},
                                           std::pair{SIGKILL, 128 + SIGKILL}));

// Crafted files: headers that claim far more pixels than the file holds, and
// JPEG data that ends early or is cut. Each is refused as an input before
// memory is spent on it, and the photograph named as the output stays as it was.
class CliHostileFile : public CliScenario,
                       public ::testing::WithParamInterface<std::pair<const char*, const char*>> {};

TEST_P(CliHostileFile, IsRefusedBeforeAnyLargeAllocation) {
    const auto [name, reason] = GetParam();
    const fs::path photo = dir / ("photo" + fs::path(name).extension().string());
    fs::copy_file(regressionFile(name), photo);
    const RunResult r = curvana({"apply", photo.string(), "-o", photo.string()});
    expectRefusal(r, kExitInput, reason);
    EXPECT_LT(r.peakRssKiB, 400 * 1024) << "peak memory of the refused run";
    EXPECT_EQ(readBytes(photo), readBytes(regressionFile(name)));
    EXPECT_TRUE(strayFiles({photo.filename().string()}).empty());
}

INSTANTIATE_TEST_SUITE_P(
    Crafted, CliHostileFile,
    ::testing::Values(std::pair{"png/claims-20000x20000.png", "20000 x 20000 pixels, more than"},
                      std::pair{"tiff/tile-20000x20000.tif", "20000 x 20000 pixels, more than"},
                      std::pair{"jpeg/frame-65500x65500.jpg", "65500 x 65500 pixels, more than"},
                      std::pair{"jpeg/taller-frame.jpg", "corrupt JPEG"},
                      std::pair{"jpeg/cut-with-eoi.jpg", "corrupt JPEG"}));

// BigTIFF photos with damaged metadata: each damage is a warning that names
// it, and the photo is still corrected, with what could be read.
enum class Damage { CutXmp, ExifPastTheEnd, ExifInThePixels };

class CliDamagedBigTiff : public CliScenario, public ::testing::WithParamInterface<Damage> {};

TEST_P(CliDamagedBigTiff, CorrectsWithAWarning) {
    const Damage damage = GetParam();
    SampleGen::SampleFileOptions o = sampleOptions(Mode::RGB, 8);
    o.bigTiff = true;
    if (damage == Damage::CutXmp)  // within the XML (cut padding would still parse)
        o.xmpPacket.resize(o.xmpPacket.find("Rating"));
    const fs::path input = sample("in.tif", o);
    if (damage != Damage::CutXmp) {
        const TiffHandle tif(TIFFOpen(input.c_str(), "r+"));
        ASSERT_TRUE(tif);
        const uint64_t offset = damage == Damage::ExifPastTheEnd ? fs::file_size(input) + 4096
                                                                 : 16;  // the first tile's data
        TIFFSetField(tif.get(), TIFFTAG_EXIFIFD, offset);
        ASSERT_TRUE(TIFFRewriteDirectory(tif.get()));
    }
    const fs::path output = dir / "out.tif";
    const RunResult r = curvana({"apply", input.string(), "-o", output.string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find(damage == Damage::CutXmp ? "its XMP packet is damaged"
                                                  : "its EXIF directory is damaged"),
              std::string::npos)
        << r.err;

    auto image = Exiv2::ImageFactory::open(output.string());
    image->readMetadata();
    const auto& exif = image->exifData();
    auto has = [&](const char* key) { return exif.findKey(Exiv2::ExifKey(key)) != exif.end(); };
    EXPECT_TRUE(has("Exif.Image.Make"));
    EXPECT_EQ(has("Exif.Photo.FocalLength"), damage == Damage::CutXmp);
    const auto& xmp = image->xmpData();
    EXPECT_EQ(xmp.findKey(Exiv2::XmpKey("Xmp.xmp.Rating")) != xmp.end(), damage != Damage::CutXmp);
}

INSTANTIATE_TEST_SUITE_P(Damages, CliDamagedBigTiff,
                         ::testing::Values(Damage::CutXmp, Damage::ExifPastTheEnd,
                                           Damage::ExifInThePixels));

// Refusals that name what to fix.
TEST_F(CliScenario, SaysWhatToFix) {
    const fs::path input = sample("in.png", Mode::RGB, 8);
    const std::string out = (dir / "out.png").string();
    expectRefusal(curvana({"apply", input.string(), "-o", out, "--params", dir.path().string()}),
                  kExitUsage, "is a folder");
    std::ofstream(dir / "bad.json") << "{ \"curvanaAction\": 1, \"descriptor\": [ { \"key\": ";
    expectRefusal(
        curvana({"apply", input.string(), "-o", out, "--params", (dir / "bad.json").string()}),
        kExitUsage, "not valid JSON");
    expectRefusal(curvana({"apply", input.string(), "-o", out, "--constraints",
                           (dir / "missing.cvc").string()}),
                  kExitUsage, "cannot read the constraint file");
    expectRefusal(
        curvana({"apply", input.string(), "-o", out, "--module", (dir / "nope.so").string()}),
        kExitModule, "no such module");
    expectRefusal(curvana({"apply", input.string(), "-o", out},
                          {{"VK_ICD_FILENAMES", (dir / "none.json").string()},
                           {"VK_DRIVER_FILES", (dir / "none.json").string()}}),
                  kExitModule, "mesa-vulkan-drivers");
    const fs::path big = sample("big.png", Mode::RGB, 8, 800, 600);  // 1.4 MiB decoded
    expectRefusal(curvana({"apply", big.string(), "-o", out, "--memory-mb", "1"}), kExitInput,
                  "more than the 1 MiB allowed (raise it with --memory-mb)");
    EXPECT_FALSE(fs::exists(out));

    // A settings folder that cannot be made is a warning that says so; the image is written.
    std::ofstream(dir / "file") << "not a folder";
    const RunResult r = curvana({"apply", input.string(), "-o", out},
                                {{"XDG_CONFIG_HOME", (dir / "file").string()}});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find("cannot create the folder"), std::string::npos) << r.err;
}

}  // namespace
}  // namespace Curvana::Host::Test
