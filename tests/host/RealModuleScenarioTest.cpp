// The real curvana binary with the real filter module (libcurvana.so beside
// it): constraint files handed in with --constraints, checked against the
// photograph by the filter, and their effect on the result.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "RealModuleTest.h"
#include "RenderTestSupport.h"
#include "constraints/ConstraintFile.h"
#include "curvana/CurvanaScripting.h"
#include "geometry/ProjectionFactory.h"
#include "host/ApplyDescriptor.h"
#include "host/Cli.h"
#include "host/ImageFiles.h"
#include "render/RenderMesh.h"
#include "render/RenderPlan.h"
#include "samplegen/SampleFiles.h"
#include "samplegen/SampleScene.h"
#include "session/PreferencesFile.h"
#include "solver/Solver.h"

namespace Curvana::Host::Test {
namespace {

constexpr int32_t kWidth = 480;
constexpr int32_t kHeight = 320;

class RealModuleScenario : public RealModuleTest {
protected:
    void SetUp() override {
        RealModuleTest::SetUp();
        if (IsSkipped())
            return;
        SampleGen::SampleFileOptions o;
        o.scene.width = kWidth;
        o.scene.height = kHeight;
        o.scene.samples = 1;
        o.mode = Mode::RGB;
        o.depth = 8;
        scene = o.scene;
        input = dir / "room.png";
        SampleGen::writeSampleFile(input, o);
    }

    // A constraint file for an image of the given size with the sample
    // camera's strings: every vertical edge of the room as a vertical line,
    // the others free.
    fs::path constraintFile(
        const std::string& name, int32_t width, int32_t height,
        const std::string& model = "Sample Room Camera",
        const std::function<void(Project::ConstraintFileSettings&)>& adjust = {}) {
        Project::SimpleConstraintFileContext context;
        context.width = width;
        context.height = height;
        context.make = "Curvana";
        context.model = model;
        context.lens = "Sample Fisheye";
        context.settings.focalLength = static_cast<float>(SampleGen::focalPixels(scene));
        context.settings.projectionModel = Project::ProjectionModel::Fisheye;
        if (adjust)
            adjust(context.settings);
        Project::ConstraintSet set;
        for (const SampleGen::SceneEdge& e : SampleGen::roomEdges(scene)) {
            if (e.points.size() < 8)
                continue;
            const auto& a = e.points.front();
            const auto& b = e.points.back();
            auto line = std::make_unique<Project::LineConstraint>();
            line->SetEndpoints({static_cast<float>(a.x), static_cast<float>(a.y)},
                               {static_cast<float>(b.x), static_cast<float>(b.y)});
            const bool vertical =
                std::abs(e.a[0] - e.b[0]) < 1e-9 && std::abs(e.a[2] - e.b[2]) < 1e-9;
            line->SetOrientation(vertical ? Project::Orientation::Vertical
                                          : Project::Orientation::Unfixed);
            set.Add(std::move(line));
        }
        EXPECT_GE(set.Size(), 4u);
        const fs::path p = dir / name;
        EXPECT_TRUE(Project::saveConstraintFile(set, context, dir.path(), name));
        return p;
    }

    fs::path input;
    SampleGen::SceneOptions scene;
};

TEST_F(RealModuleScenario, AMatchingConstraintFileIsAppliedAndRecorded) {
    const fs::path plain = dir / "plain.png", constrained = dir / "constrained.png";
    RunResult r = curvana({"apply", input.string(), "-o", plain.string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;

    const fs::path cvc = constraintFile("room.cvc", kWidth, kHeight);
    r = curvana(
        {"apply", input.string(), "-o", constrained.string(), "--constraints", cvc.string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;

    // The constraints change the correction.
    const Raster a = readWhole(plain), b = readWhole(constrained);
    ASSERT_EQ(b.info.width, kWidth);
    ASSERT_EQ(b.info.height, kHeight);
    size_t different = 0;
    for (size_t i = 0; i < a.data.size(); ++i)
        different += std::abs(int(a.data[i]) - int(b.data[i])) > 8;
    EXPECT_GT(different, a.data.size() / 20);

    // The recorded action carries them, so repeat and --params replay them.
    const auto action = lastAction();
    const DescriptorEntry* data = action->find(cvKeyConstraintData);
    ASSERT_NE(data, nullptr);
    EXPECT_GT(data->data.size(), 100u);
}

// Mean of all samples in rows [top, bottom).
double meanOfRows(const Raster& r, int32_t top, int32_t bottom) {
    double sum = 0;
    size_t n = 0;
    for (int32_t y = top; y < bottom; ++y)
        for (size_t i = 0; i < r.rowBytes(); ++i, ++n)
            sum += r.row(y)[i];
    return sum / static_cast<double>(n);
}

TEST_F(RealModuleScenario, TheCorrectionKeepsThePhotoUpright) {
    // The sample room has a bright ceiling above and a dark floor below; the
    // correction must keep them there, and fill the frame with the photo.
    const fs::path out = dir / "out.png";
    const RunResult r = curvana({"apply", input.string(), "-o", out.string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Raster before = readWhole(input), after = readWhole(out);
    ASSERT_GT(meanOfRows(before, 0, kHeight / 4), meanOfRows(before, 3 * kHeight / 4, kHeight));
    EXPECT_GT(meanOfRows(after, kHeight / 8, kHeight / 4),
              meanOfRows(after, 3 * kHeight / 4, 7 * kHeight / 8) + 20.0);
    // The middle row is covered from edge to edge (no empty margin).
    const uint8_t* middle = after.row(kHeight / 2);
    EXPECT_GT(middle[0] + middle[1] + middle[2], 0);
    const size_t last = after.rowBytes() - 3;
    EXPECT_GT(middle[last] + middle[last + 1] + middle[last + 2], 0);
}

// The planar image the renderer works on, from an interleaved 8-bit raster.
Project::MemoryImage planarImage(const Raster& r) {
    const int32_t planes = r.info.planes();
    Project::MemoryImage image(r.info.width, r.info.height, Project::PixelFormat{planes, 8});
    for (int32_t y = 0; y < r.info.height; ++y)
        for (int32_t x = 0; x < r.info.width; ++x)
            for (int32_t p = 0; p < planes; ++p)
                image.Set(p, x, y, r.row(y)[x * planes + p]);
    return image;
}

TEST_F(RealModuleScenario, AFisheyeCorrectionMatchesAReferenceRenderOfTheSameWarp) {
    // The whole run -- EXIF focal length, projection, mesh solve, GPU render,
    // files -- against the same warp built here and drawn on the CPU: every
    // covered pixel sampled bilinearly through the same triangles.
    const fs::path out = dir / "out.png";
    const RunResult r = curvana({"apply", input.string(), "-o", out.string(), "--projection",
                                 "fisheye", "--regularizer", "stereographic"});
    ASSERT_EQ(r.exitCode, 0) << r.err;

    // The sample's EXIF: 15 mm on a full frame, so f = 15 x 480 / 36 pixels.
    const float focal = 15.0f * kWidth / 36.0f;
    auto mesh = std::make_shared<const Project::OctaMap>(6, false);
    std::shared_ptr<const Project::PhotoToSphere> photo =
        Project::makeProjection(Project::ProjectionModel::Fisheye, focal, kWidth, kHeight,
                                Project::CameraMetadata{}, std::nullopt, 1.0f);
    auto lines = std::make_shared<Project::GeodesicLines>(photo, mesh);
    Project::SolverSettings settings;
    settings.regulariserCode = Project::RegularizerModel::Stereographic;
    settings.storedRegulariserChoice = Project::RegularizerModel::Stereographic;
    Project::Solver solver(mesh, photo, lines, settings);
    ASSERT_TRUE(solver.Run());
    auto renderMesh = std::make_shared<const Project::RenderMesh>(
        Project::BuildRenderMesh(*solver.Warp(), Project::MeshTextureCoordinates(*mesh, *photo)));
    const Project::RenderPlan plan(renderMesh, kWidth, kHeight, kWidth, kHeight,
                                   Project::ViewFraming{});
    const Project::Testing::ReferenceImage reference =
        Project::Testing::RenderReference(plan, planarImage(readWhole(input)));

    const Project::Testing::Comparison c =
        Project::Testing::CompareWithReference(planarImage(readWhole(out)), reference, 1);
    EXPECT_GT(c.compared, int64_t{kWidth} * kHeight * 9 / 10);
    EXPECT_GE(c.Share(), 0.999) << "max difference " << c.maxDifference;
    EXPECT_EQ(c.strictUncovered, 0);
    EXPECT_EQ(c.spuriousCovered, 0);
}

// A batch draws a photo with the renderer (and source texture) of the one
// before when the sizes match, and with a new one when they do not: every
// photo must come out exactly as when it is corrected on its own.
TEST_F(RealModuleScenario, ABatchCorrectsEachPhotoAsOnItsOwn) {
    SampleGen::SampleFileOptions o;
    o.scene = scene;
    o.scene.lens = SampleGen::Lens::Rectilinear;  // same size, other pixels
    const fs::path sameSize = dir / "rectilinear.png";
    SampleGen::writeSampleFile(sameSize, o);
    o.scene = scene;
    o.scene.width = kWidth / 2;
    o.scene.height = kHeight / 2;
    const fs::path smaller = dir / "smaller.png";
    SampleGen::writeSampleFile(smaller, o);

    fs::create_directory(dir / "batch");
    fs::create_directory(dir / "alone");
    const std::vector<fs::path> inputs{input, sameSize, smaller};
    std::vector<std::string> args{"apply"};
    for (const fs::path& in : inputs)
        args.push_back(in.string());
    args.insert(args.end(), {"-o", (dir / "batch").string()});
    const RunResult batch = curvana(args);
    ASSERT_EQ(batch.exitCode, 0) << batch.err;
    for (const fs::path& in : inputs) {
        const fs::path alone = dir / "alone" / in.filename();
        const RunResult r = curvana({"apply", in.string(), "-o", alone.string()});
        ASSERT_EQ(r.exitCode, 0) << r.err;
        const Raster a = readWhole(alone);
        const Raster b = readWhole(dir / "batch" / in.filename());
        EXPECT_EQ(a.info.width, b.info.width) << in;
        EXPECT_TRUE(a.data == b.data) << in.filename() << " differs in the batch";
    }
}

// The filter's own checks reach the user as its message.
TEST_F(RealModuleScenario, AMismatchingConstraintFileIsRefusedWithTheFiltersMessage) {
    const fs::path out = dir / "out.png";
    const RunResult r = curvana({"apply", input.string(), "-o", out.string(), "--constraints",
                                 constraintFile("wide.cvc", kWidth + 8, kHeight).string()});
    EXPECT_NE(r.exitCode, 0);
    expectContains(r.err, {"Image size doesn't match.", "Value in the loaded file: 488x320",
                           "Value of the current image: 480x320"});
    EXPECT_FALSE(fs::exists(out));
}

// Alpha goes through the warp as a plane of its own: the photo stays opaque
// and what it does not cover (zoomed out to the smallest scale) is
// transparent.
TEST_F(RealModuleScenario, CarriesAlphaAndLeavesTheUncoveredAreaTransparent) {
    const Raster rgb = readWhole(input);
    Raster rgba = Raster::allocate(ImageInfo{kWidth, kHeight, Mode::RGB, 8, Alpha::Straight});
    for (size_t i = 0, n = size_t{kWidth} * kHeight; i < n; ++i) {
        std::memcpy(&rgba.data[4 * i], &rgb.data[3 * i], 3);
        rgba.data[4 * i + 3] = 255;
    }
    writePng(dir / "alpha.png", rgba, {});
    const RunResult r =
        curvana({"apply", (dir / "alpha.png").string(), "-o", (dir / "out.png").string(),
                 "--params", paramsFile("imgS", 50).string()});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const Raster out = readWhole(dir / "out.png");
    ASSERT_EQ(out.info.alpha, Alpha::Straight);
    size_t transparent = 0, opaque = 0;
    for (size_t i = 0, n = size_t{kWidth} * kHeight; i < n; ++i) {
        transparent += out.data[4 * i + 3] == 0;
        opaque += out.data[4 * i + 3] == 255;
    }
    // Only the photo's edge is partly covered.
    EXPECT_GT(transparent, size_t{kWidth} * kHeight / 10);
    EXPECT_GT(opaque, size_t{kWidth} * kHeight / 10);
    EXPECT_LT(size_t{kWidth} * kHeight - transparent - opaque, size_t{kWidth} * kHeight / 50);
    EXPECT_EQ(out.data[3], 0);                                                      // a corner
    EXPECT_EQ(out.data[4 * (size_t{kWidth} * kHeight / 2 + kWidth / 2) + 3], 255);  // the middle
}

// Out-of-range settings from every entry path. An action file or a
// constraint file that carries one is refused, naming the key and its range,
// and the photograph (named as the output) stays as it was; saved preferences
// that hold one are set aside for the defaults. Nothing invalid is saved: the
// next run works.
struct BadSetting {
    const char* entry;  // params, constraints or prefs
    const char* key;
    double value;
};

class RealModuleBadSetting : public RealModuleScenario,
                             public ::testing::WithParamInterface<BadSetting> {};

TEST_P(RealModuleBadSetting, IsRefusedAndNeverSaved) {
    const auto [entry, key, value] = GetParam();
    const std::string k = key;
    const fs::path photo = dir / "photo.png";
    fs::copy_file(input, photo);
    std::vector<std::string> args = {"apply", photo.string(), "-o", photo.string()};
    if (std::string(entry) == "params") {
        args.insert(args.end(), {"--params", paramsFile(k, value, k == "imgS").string()});
    } else if (std::string(entry) == "constraints") {
        const auto cvc = constraintFile("bad.cvc", kWidth, kHeight, "Sample Room Camera",
                                        [&](Project::ConstraintFileSettings& s) {
                                            if (k == "imgS")
                                                s.scale = static_cast<int32_t>(value);
                                            if (k == "imgY")
                                                s.offsetY = static_cast<float>(value);
                                            if (k == "CrpF")
                                                s.cropFactor = static_cast<float>(value);
                                            if (k == "focL")
                                                s.focalLength = static_cast<float>(value);
                                        });
        args.insert(args.end(), {"--constraints", cvc.string()});
    } else {
        Project::PPreferences prefs(kWidth);
        if (k == "iterations")
            prefs.settings.iterationCount = static_cast<uint16_t>(value);
        if (k == "focL")
            prefs.settings.focalLength = static_cast<float>(value);
        if (k == "CrpF")
            prefs.settings.cropFactor = static_cast<float>(value);
        const fs::path folder = Project::PreferencesFolder(dir / "xdg");
        fs::create_directories(folder);
        writeBytes(folder / Project::PreferencesFileName(), Project::SerializePreferences(prefs));
        args = {"repeat", photo.string(), "-o", (dir / "out.png").string()};
    }
    const RunResult r = curvana(args, 60);
    EXPECT_NE(r.err.find(k), std::string::npos) << r.err;
    if (std::string(entry) == "prefs") {
        ASSERT_EQ(r.exitCode, 0) << r.err;  // with the defaults: not a black picture
        EXPECT_GT(meanOfRows(readWhole(dir / "out.png"), 0, kHeight), 20.0);
    } else {
        EXPECT_EQ(r.exitCode, kExitFailed) << r.err;
        EXPECT_NE(r.err.find("must lie between"), std::string::npos) << r.err;
        EXPECT_EQ(readWhole(photo).data, readWhole(input).data);
    }
    const RunResult again = curvana({"repeat", input.string(), "-o", (dir / "again.png").string()});
    EXPECT_EQ(again.exitCode, 0) << again.err;
}

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

INSTANTIATE_TEST_SUITE_P(
    EveryEntryPath, RealModuleBadSetting,
    ::testing::Values(BadSetting{"params", "imgS", 0}, BadSetting{"params", "imgX", 1e30},
                      BadSetting{"params", "focL", 1e300}, BadSetting{"params", "imgY", -0.5},
                      BadSetting{"constraints", "imgS", -5},
                      BadSetting{"constraints", "imgY", 1e30},
                      BadSetting{"constraints", "CrpF", kNaN},
                      BadSetting{"constraints", "focL", kNaN}, BadSetting{"params", "focL", -100},
                      BadSetting{"prefs", "iterations", 0},
                      BadSetting{"prefs", "iterations", 65535}, BadSetting{"prefs", "focL", kInf},
                      BadSetting{"prefs", "CrpF", kNaN}));

}  // namespace
}  // namespace Curvana::Host::Test
