// Suggested lines end to end: `curvana apply --auto-lines` on generated
// photographs of the sample room, the warp it applied rebuilt here from the
// constraints it recorded, and the room's own edges measured through it.
// `curvana suggest` writes the same lines as a constraint file.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>

#include "RealModuleTest.h"
#include "constraints/ConstraintFile.h"
#include "curvana/CurvanaScripting.h"
#include "geometry/ProjectionFactory.h"
#include "host/Descriptor.h"
#include "samplegen/SampleFiles.h"
#include "samplegen/SampleScene.h"
#include "session/PSettings.h"
#include "session/ScriptParameters.h"
#include "session/SessionWarp.h"
#include "solver/Solver.h"
#include "solver/WarpTestSupport.h"

namespace Curvana::Host::Test {
namespace {

using Project::test::DegreesFromVertical;
using Project::test::FitLine;
using Project::test::NominalScale;
using Project::test::OutputOfPixel;

struct Scene {
    const char* name;
    SampleGen::Lens lens;
    double focalMm, yawDeg, pitchDeg;
    int minStraightPercent;  // of the room's long edges, after the warp
};

class SuggestedLinesScenario : public RealModuleTest, public ::testing::WithParamInterface<Scene> {
protected:
    void SetUp() override {
        RealModuleTest::SetUp();
        if (IsSkipped())
            return;
        const Scene& s = GetParam();
        file.scene.width = 2400;
        file.scene.height = 1600;
        file.scene.samples = 1;
        file.scene.lens = s.lens;
        file.scene.focalMm = s.focalMm;
        file.scene.yawDeg = s.yawDeg;
        file.scene.pitchDeg = s.pitchDeg;
        input = dir / "room.png";
        SampleGen::writeSampleFile(input, file);
    }

    RunResult run(std::vector<std::string> args) {
        args.insert(args.end(),
                    {"--projection",
                     GetParam().lens == SampleGen::Lens::Equisolid ? "fisheye" : "perspective"});
        return curvana(args, 300);
    }

    // Constraint data read back as the filter reads it.
    Project::SimpleConstraintFileContext readLines(const std::vector<uint8_t>& bytes,
                                                   Project::ConstraintSet& set) const {
        Project::SimpleConstraintFileContext context;
        context.width = file.scene.width;
        context.height = file.scene.height;
        context.make = SampleGen::kSampleMake;
        context.model = SampleGen::kSampleModel;
        context.lens = SampleGen::sampleLensName(file.scene.lens);
        EXPECT_TRUE(Project::readConstraintData(set, context, bytes)) << set.Message();
        return context;
    }

    fs::path input;
    SampleGen::SampleFileOptions file;
};

// `apply --auto-lines`, the warp it applied rebuilt and the room's long
// edges measured through it: enough of them come out straight within 1.5 px,
// the verticals upright within 0.2 degrees, and every suggestion
// lies on a line straight in the scene.
TEST_P(SuggestedLinesScenario, AutoLinesStraightenTheRoomsLongEdges) {
    const fs::path output = dir / "out.png";
    const RunResult r = run({"apply", input.string(), "-o", output.string(), "--auto-lines"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find("room.png: found "), std::string::npos) << r.err;
    ASSERT_TRUE(fs::exists(output));

    // What was applied: the recorded action's constraints and settings.
    const auto action = lastAction();
    const DescriptorEntry* data = action->find(cvKeyConstraintData);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(action->find(cvKeySuggestedVertical), nullptr);  // counts are no settings
    Project::ConstraintSet set;
    const Project::SimpleConstraintFileContext context = readLines(data->data, set);
    ASSERT_GE(set.Size(), 6u);

    const int32_t w = file.scene.width, h = file.scene.height;
    Project::PSettings settings(w);
    settings.projectionModel = context.settings.projectionModel;
    settings.focalLength = context.settings.focalLength;
    if (const DescriptorEntry* reg = action->find(cvKeyRegularizerModel))
        settings.regularizerModel = Project::RegularizerFromEnum(reg->enumValue);
    auto photo = Project::makeProjection(settings.projectionModel, settings.focalLength, w, h,
                                         Project::CameraMetadata{}, std::nullopt, 1.0f);
    ASSERT_NE(photo, nullptr);
    auto mesh = std::make_shared<const Project::OctaMap>(settings.meshLevel, false);
    auto lines = std::make_shared<Project::GeodesicLines>(photo, mesh);
    lines->FitAll(set);
    Project::Solver solver(mesh, photo, lines, Project::solverSettingsFrom(settings));
    ASSERT_TRUE(solver.Run());
    const Project::LineSolve& warp = *solver.Warp();
    const double scale = NominalScale(warp, lines->Locator(), *photo, w, h);

    // The long edges: at least a sixth of the width of them in the picture.
    int longEdges = 0, straight = 0, verticals = 0, upright = 0;
    for (const SampleGen::SceneEdge& e : SampleGen::roomEdges(file.scene, 400)) {
        std::vector<Eigen::Vector2d> out;
        double length = 0;
        for (size_t k = 0; k < e.points.size(); ++k) {
            const SampleGen::Point& p = e.points[k];
            if (p.x < 20 || p.y < 20 || p.x > w - 21 || p.y > h - 21)
                continue;
            if (const auto o = OutputOfPixel(warp, lines->Locator(), *photo, p.x, p.y)) {
                out.push_back(*o);
                if (k > 0)
                    length += std::hypot(p.x - e.points[k - 1].x, p.y - e.points[k - 1].y);
            }
        }
        if (length < w / 6.0)
            continue;
        ++longEdges;
        const Project::test::LineFit fit = FitLine(out);
        const bool isStraight = fit.maxDeviation * scale <= 1.5;
        straight += isStraight;
        const bool isVertical =
            std::abs(e.a[0] - e.b[0]) < 1e-9 && std::abs(e.a[2] - e.b[2]) < 1e-9;
        if (isVertical) {
            ++verticals;
            upright += DegreesFromVertical(fit.direction) <= 0.2;
        }
    }
    std::printf(
        "[ rate     ] %s: %d of %d long edges straight within 1.5 px; %d of %d long "
        "verticals upright within 0.2 degrees; %zu lines suggested\n",
        GetParam().name, straight, longEdges, upright, verticals, set.Size());
    ASSERT_GE(longEdges, 6);
    EXPECT_GE(100 * straight, GetParam().minStraightPercent * longEdges);
    EXPECT_GE(verticals, 1);
    EXPECT_EQ(upright, verticals);

    // Every suggestion lies on a line that is straight in the scene.
    for (const auto& c : set.Constraints()) {
        const auto* line = Project::AsLine(*c);
        ASSERT_NE(line, nullptr);
        for (int k = 0; k <= 20; ++k) {
            const double t = k / 20.0;
            // Between the ends along the great circle: through the sphere.
            Project::SphereDirection a, b;
            const auto& raster = photo->Raster();
            ASSERT_TRUE(photo->ToSphere(
                {line->First().x - raster.halfWidth, line->First().y - raster.halfHeight}, a));
            ASSERT_TRUE(photo->ToSphere(
                {line->Second().x - raster.halfWidth, line->Second().y - raster.halfHeight}, b));
            const Project::Vec3d p =
                Project::Sum(Project::Scaled(Project::PhotoFrameVector(a), 1 - t),
                             Project::Scaled(Project::PhotoFrameVector(b), t));
            const Project::ImagePoint ip =
                photo->ToImagePoint(static_cast<float>(std::atan2(p[0], p[2])),
                                    static_cast<float>(std::asin(p[1] / Project::Norm(p))));
            const auto d = SampleGen::distanceToStraightFeature(
                file.scene, {ip.x + raster.halfWidth, ip.y + raster.halfHeight});
            ASSERT_TRUE(d);
            EXPECT_LT(*d, 0.03) << "suggested line " << line->GetId() << " at " << t;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rooms, SuggestedLinesScenario,
    ::testing::Values(Scene{"Fisheye", SampleGen::Lens::Equisolid, 15, 0, 0, 80},
                      Scene{"Rectilinear", SampleGen::Lens::Rectilinear, 16, 0, 0, 80},
                      Scene{"TiltedFisheye", SampleGen::Lens::Equisolid, 12, 25, 15, 80}),
    [](const auto& p) { return std::string(p.param.name); });

// `suggest` writes a constraint file that `apply --constraints` takes; only
// upright edges with --verticals-only; at most --max lines.
TEST_P(SuggestedLinesScenario, SuggestWritesAConstraintFileOfTheLines) {
    if (GetParam().lens != SampleGen::Lens::Equisolid || GetParam().yawDeg != 0)
        GTEST_SKIP() << "one scene is enough";
    const fs::path cvc = dir / "lines.cvc";
    RunResult r =
        run({"suggest", input.string(), "-o", cvc.string(), "--verticals-only", "--max", "4"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find("found 4 lines (4 vertical, 0 horizontal, 0 unfixed)"), std::string::npos)
        << r.err;
    Project::ConstraintSet set;
    readLines(readBytes(cvc), set);
    ASSERT_EQ(set.Size(), 4u);
    for (const auto& c : set.Constraints())
        EXPECT_EQ(Project::AsLine(*c)->GetOrientation(), Project::Orientation::Vertical);

    r = run(
        {"apply", input.string(), "-o", (dir / "out.png").string(), "--constraints", cvc.string()});
    EXPECT_EQ(r.exitCode, 0) << r.err;
}

}  // namespace
}  // namespace Curvana::Host::Test
