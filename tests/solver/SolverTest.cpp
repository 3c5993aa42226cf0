#include "solver/Solver.h"

#include "WarpTestSupport.h"

#include <gtest/gtest.h>

#include <functional>

namespace Project {
namespace {

using test::Fisheye;

// A photo that sees a given window of directions.
class WindowPhoto final : public PhotoToSphere {
public:
    WindowPhoto(float halfLambda, float halfPhi)
        : PhotoToSphere(std::make_shared<SourceRaster>(100, 100)),
          halfLambda_(halfLambda),
          halfPhi_(halfPhi) {}
    std::array<float, 3> SampleColor(float, float) const override { return {0, 0, 0}; }
    bool IsVisible(float lambda, float phi) const override {
        return std::abs(lambda) <= halfLambda_ && std::abs(phi) <= halfPhi_;
    }
    bool QueryFlag3() const override { return true; }
    ImagePoint ToImagePoint(float lambda, float phi) const override {
        return {100 * lambda, 100 * phi};
    }
    bool ToSphere(ImagePoint p, SphereDirection& out) const override {
        out = {p.x / 100, p.y / 100};
        return true;
    }

private:
    float halfLambda_, halfPhi_;
};

constexpr RegularizerModel Stereo = RegularizerModel::Stereographic;
constexpr RegularizerModel Mercator = RegularizerModel::Mercator;
constexpr RegularizerModel Panini = RegularizerModel::Panini;
constexpr RegularizerModel Auto = RegularizerModel::Auto;

SolverSettings Settings(RegularizerModel regulariserCode, RegularizerModel storedChoice,
                        bool explicitChoice) {
    SolverSettings s;
    s.meshLevel = 3;
    s.regulariserCode = regulariserCode;
    s.storedRegulariserChoice = storedChoice;
    s.explicitRegulariserChoice = explicitChoice;
    return s;
}

Solver MakeSolver(std::shared_ptr<const PhotoToSphere> photo, const SolverSettings& s) {
    auto mesh = std::make_shared<const OctaMap>(s.meshLevel, false);
    return Solver(mesh, photo, std::make_shared<GeodesicLines>(photo, mesh), s);
}

struct FallbackCase {
    const char* name;
    RegularizerModel code;
    RegularizerModel stored;
    bool explicitChoice;
    bool wideField;
    RegularizerModel expectedCode;
    RegularizerModel expectedStored;
};

class SolverFallbackTest : public ::testing::TestWithParam<FallbackCase> {};

TEST_P(SolverFallbackTest, WideFieldsFallBackToStereographicOnce) {
    const FallbackCase& c = GetParam();
    std::shared_ptr<const PhotoToSphere> photo =
        c.wideField ? Fisheye(1200, 800, 380.0f)  // the whole front hemisphere: 180 degrees
                    : std::make_shared<WindowPhoto>(0.6f, 0.4f);
    Solver solver = MakeSolver(photo, Settings(c.code, c.stored, c.explicitChoice));
    const auto warp = solver.Build();
    EXPECT_EQ(solver.RegulariserCode(), c.expectedCode);
    EXPECT_EQ(warp->RegulariserCode(), c.expectedCode);
    EXPECT_EQ(solver.StoredRegulariserChoice(), c.expectedStored);
    const bool fellBack = c.expectedCode != c.code;
    EXPECT_EQ(solver.FellBack(), fellBack);
    EXPECT_EQ(solver.Passes(), fellBack ? 2 : 1);
    EXPECT_FALSE(solver.TwoPass());
    // The measured extent is kept for the next warp.
    EXPECT_LT(solver.LatitudeRange().first, solver.LatitudeRange().second);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, SolverFallbackTest,
    ::testing::Values(
        FallbackCase{"MercatorWide", Mercator, Mercator, false, true, Stereo, Stereo},
        FallbackCase{"PaniniWide", Panini, Panini, false, true, Stereo, Stereo},
        FallbackCase{"AutoWideKeepsAuto", Panini, Auto, false, true, Stereo, Auto},
        FallbackCase{"StereographicWide", Stereo, Stereo, false, true, Stereo, Stereo},
        FallbackCase{"ExplicitMercatorWideStays", Mercator, Mercator, true, true, Mercator,
                     Mercator},
        FallbackCase{"ExplicitAutoWide", Mercator, Auto, true, true, Stereo, Auto},
        FallbackCase{"MercatorNarrow", Mercator, Mercator, false, false, Mercator, Mercator}),
    [](const ::testing::TestParamInfo<FallbackCase>& caseInfo) { return caseInfo.param.name; });

TEST(SolverTest, HostStateSuppressesTheFallback) {
    SolverSettings s = Settings(Mercator, Mercator, false);
    s.suppressWideFieldFallback = true;
    Solver solver = MakeSolver(Fisheye(1200, 800, 380.0f), s);
    solver.Build();
    EXPECT_EQ(solver.RegulariserCode(), Mercator);
    EXPECT_EQ(solver.Passes(), 1);
}

TEST(SolverTest, FullSphericalRunsTwoPassesWithFixedRanges) {
    auto raster = std::make_shared<SourceRaster>(2000, 1000);
    auto photo = std::make_shared<SphericalImage>(raster, 1000.0f / 3.1415927f, 1000.0f, 500.0f);
    SolverSettings s = Settings(Mercator, Mercator, false);
    s.meshLevel = 4;
    s.projectionModel = ProjectionModel::FullSpherical;
    auto mesh = std::make_shared<const OctaMap>(s.meshLevel, false);
    auto lines = std::make_shared<GeodesicLines>(photo, mesh);
    Solver solver(mesh, photo, lines, s);
    ASSERT_TRUE(solver.Run());
    EXPECT_EQ(solver.Passes(), 2);
    EXPECT_TRUE(solver.TwoPass());
    EXPECT_FALSE(solver.FellBack());  // the full sphere never counts as wide
    EXPECT_EQ(solver.RegulariserCode(), Mercator);
    const auto warp = solver.Warp();
    EXPECT_TRUE(warp->TwoPass());
    EXPECT_FLOAT_EQ(warp->LatitudeRange().first, -1.2915437f);
    EXPECT_FLOAT_EQ(warp->LatitudeRange().second, 1.2915437f);
    EXPECT_FLOAT_EQ(warp->LongitudeRange().first, -3.0717797f);
    EXPECT_FLOAT_EQ(warp->LongitudeRange().second, 3.0717797f);
    // Vertices beyond the ranges are used only next to one inside them (the
    // quads across the edges stay, to be clipped at the ranges when drawn),
    // so never across the back seam.
    const int32_t n = mesh->Size();
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            if (warp->IsVertexValid(i, j)) {
                const SphereDirection a = mesh->UnrotatedAngles(i, j);
                EXPECT_LE(std::abs(a.phi), 1.2915437f + 0.2f);
                EXPECT_LT(std::abs(a.lambda), 3.14f);
            }
        }
    }
    EXPECT_EQ(lines->Warp(), warp.get());
}

TEST(SolverTest, AFailedSolveIsAFlagAndNoPositionIsRead) {
    // A photo that sees nothing: no term, an empty system, a failed solve.
    auto photo = std::make_shared<WindowPhoto>(-1.0f, -1.0f);
    auto mesh = std::make_shared<const OctaMap>(3, false);
    auto lines = std::make_shared<GeodesicLines>(photo, mesh);
    Solver solver(mesh, photo, lines, Settings(Stereo, Stereo, false));
    EXPECT_FALSE(solver.Run());
    ASSERT_NE(solver.Warp(), nullptr);
    EXPECT_FALSE(solver.Warp()->IsSolved());
    float x = 0.0f, y = 0.0f;
    EXPECT_FALSE(lines->DirectionToOutput({0.0f, 0.0f}, x, y));  // the constraints do not read it
    EXPECT_STREQ(Solver::kSolveFailedMessage, "$$$/Curvana/Warning/SolveFailed=Solve failed");
}

}  // namespace
}  // namespace Project
