#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <numbers>
#include <ostream>
#include <random>
#include <string>

#include "geometry/Projections.h"

namespace Project {
namespace {

constexpr float kPiF = 3.14159265f;

std::shared_ptr<const SourceRaster> raster(int32_t w, int32_t h) {
    return std::make_shared<const SourceRaster>(w, h);
}

// One model under test and the box its directions are drawn from (the
// sweep keeps what IsVisible accepts).
struct ModelCase {
    std::string name;
    std::shared_ptr<PhotoToSphere> photo;
    float maxLambda;
    float maxPhi;
};

std::vector<ModelCase> modelCases() {
    const auto wide = raster(6000, 4000);
    return {
        {"Fisheye", std::make_shared<FisheyeImage>(wide, 1800.0f, 3000.0f, 2000.0f), 1.55f, 1.45f},
        {"Perspective", std::make_shared<PerspectiveImage>(wide, 3500.0f, 3100.0f, 1950.0f), 1.56f,
         1.45f},
        {"Cylindrical",
         std::make_shared<CylindricalImage>(raster(12000, 3000), 1900.0f, 6000.0f, 1400.0f), 3.2f,
         1.4f},
        {"Spherical",
         std::make_shared<SphericalImage>(raster(8000, 4000), 4000.0f / kPiF, 4000.0f, 2000.0f),
         3.14f, 1.55f},
        {"KestrixFisheye",
         std::make_shared<KestrixFisheye>(wide, 1650.0f, 1660.0f, -0.045f, 0.002f, 12.0f, -7.0f),
         1.5f, 1.45f},
        {"KestrixPerspective",
         std::make_shared<KestrixPerspective>(wide, 3000.0f, 3010.0f, -0.08f, 0.01f, -0.0005f,
                                              0.0005f, -0.0003f, 20.0f, -15.0f),
         1.0f, 0.8f},
    };
}

void PrintTo(const ModelCase& c, std::ostream* os) {
    *os << c.name;
}

class ProjectionModelTest : public ::testing::TestWithParam<ModelCase> {};

TEST_P(ProjectionModelTest, ForwardThenInverseReturnsTheDirection) {
    const auto& p = GetParam().photo;
    std::mt19937 rng(20261122);
    std::uniform_real_distribution<float> lambdaDist(-GetParam().maxLambda, GetParam().maxLambda);
    std::uniform_real_distribution<float> phiDist(-GetParam().maxPhi, GetParam().maxPhi);
    int checked = 0;
    for (int i = 0; i < 20000; ++i) {
        const float lambda = lambdaDist(rng);
        const float phi = phiDist(rng);
        if (!p->IsVisible(lambda, phi))
            continue;
        const ImagePoint q = p->ToImagePoint(lambda, phi);
        SphereDirection back;
        ASSERT_TRUE(p->ToSphere(q, back)) << lambda << ", " << phi;
        ASSERT_NEAR(back.lambda, lambda, 1e-5f) << "phi " << phi;
        ASSERT_NEAR(back.phi, phi, 1e-5f) << "lambda " << lambda;
        ++checked;
    }
    EXPECT_GT(checked, 2000);
    // The axis itself, where several models divide by the radius.
    SphereDirection axis;
    const ImagePoint centre = p->ToImagePoint(0.0f, 0.0f);
    ASSERT_TRUE(std::isfinite(centre.x) && std::isfinite(centre.y));
    ASSERT_TRUE(p->ToSphere(centre, axis));
    EXPECT_NEAR(axis.lambda, 0.0f, 1e-6f);
    EXPECT_NEAR(axis.phi, 0.0f, 1e-6f);
}

TEST_P(ProjectionModelTest, TextureCoordinateIsTheNormalisedForwardPoint) {
    const auto& p = GetParam().photo;
    EXPECT_TRUE(p->QueryFlag3());
    for (float lambda : {-0.3f, 0.0f, 0.2f}) {
        for (float phi : {-0.25f, 0.1f}) {
            const ImagePoint q = p->ToImagePoint(lambda, phi);
            float u = -1.0f, v = -1.0f;
            p->ToTexture(lambda, phi, u, v);
            EXPECT_FLOAT_EQ(u, q.x / static_cast<float>(p->Raster().width) + 0.5f);
            EXPECT_FLOAT_EQ(v, q.y / static_cast<float>(p->Raster().height) + 0.5f);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllModels, ProjectionModelTest, ::testing::ValuesIn(modelCases()),
                         [](const ::testing::TestParamInfo<ModelCase>& tpi) {
                             return tpi.param.name;
                         });

TEST(FisheyeImage, DirectionsAtNinetyDegreesAreNotVisible) {
    const float halfPi = static_cast<float>(std::numbers::pi / 2.0);
    for (float f : {100.0f, 523.7f, 1000.0f, 1800.0f, 2345.6f, 4000.0f}) {
        const FisheyeImage p(raster(6000, 4000), f, 3000.0f, 2000.0f);
        EXPECT_FLOAT_EQ(p.RadiusLimit(), static_cast<float>(f * 1.4142135623730951)) << f;
        EXPECT_FALSE(p.IsVisible(halfPi, 0.0f)) << f;
        EXPECT_FALSE(p.IsVisible(-halfPi, 0.0f)) << f;
        EXPECT_FALSE(p.IsVisible(0.0f, halfPi)) << f;
        EXPECT_FALSE(p.IsVisible(0.0f, -halfPi)) << f;
        EXPECT_FALSE(p.IsVisible(2.0f, 0.3f)) << f;
        EXPECT_TRUE(p.IsVisible(1.56f, 0.0f)) << f;
        EXPECT_TRUE(p.IsVisible(0.9f, -1.0f)) << f;
        EXPECT_TRUE(p.IsVisible(std::nextafter(halfPi, 0.0f), 0.0f)) << f;
    }
}

TEST(FisheyeImage, MappingIsEquisolid) {
    const FisheyeImage p(raster(6000, 4000), 1000.0f, 3000.0f, 2000.0f);
    // theta = 60 degrees straight to the right and straight down.
    const float theta = kPiF / 3.0f;
    const ImagePoint right = p.ToImagePoint(theta, 0.0f);
    EXPECT_NEAR(right.x, 2000.0f * std::sin(theta / 2.0f), 1e-3f);
    EXPECT_NEAR(right.y, 0.0f, 1e-4f);
    const ImagePoint down = p.ToImagePoint(0.0f, theta);
    EXPECT_NEAR(down.y, 2000.0f * std::sin(theta / 2.0f), 1e-3f);
    // Nothing maps beyond twice the focal length.
    SphereDirection d;
    EXPECT_FALSE(p.ToSphere({2000.0f, 1.0f}, d));
}

TEST(PerspectiveImage, VisibilityTestsLongitudeOnlyInDouble) {
    const PerspectiveImage p(raster(6000, 4000), 2000.0f, 3000.0f, 2000.0f);
    const float justInside = std::nextafter(1.57f, 0.0f);
    for (float phi : {-1.5707f, -1.0f, 0.0f, 0.7f, 1.5707f, 3.0f}) {
        EXPECT_TRUE(p.IsVisible(justInside, phi)) << phi;
        EXPECT_TRUE(p.IsVisible(-justInside, phi)) << phi;
        // 1.57f is 1.5700000524 as a double, so it is outside.
        EXPECT_FALSE(p.IsVisible(1.57f, phi)) << phi;
        EXPECT_FALSE(p.IsVisible(-1.57f, phi)) << phi;
    }
    // Visible, and far outside the picture: the caller's raster checks must cope.
    const ImagePoint far = p.ToImagePoint(justInside, 1.5f);
    EXPECT_GT(far.x, 1e6f);
    EXPECT_EQ(p.SampleColor(justInside, 1.5f), (std::array<float, 3>{0.0f, 0.0f, 0.0f}));
    // The principal-point offsets: cx = px - w / 2 added to x, cy = h / 2 - py added to y.
    const PerspectiveImage shifted(raster(6000, 4000), 2000.0f, 3010.0f, 1980.0f);
    const ImagePoint c = shifted.ToImagePoint(0.0f, 0.0f);
    EXPECT_FLOAT_EQ(c.x, 10.0f);
    EXPECT_FLOAT_EQ(c.y, 20.0f);
}

TEST(ProfileModels, VisibilityBoundsBothAngles) {
    const KestrixFisheye fish(raster(600, 400), 200.0f, 200.0f, 0.0f, 0.0f, 0.0f, 0.0f);
    const KestrixPerspective persp(raster(600, 400), 200.0f, 200.0f, 0, 0, 0, 0, 0, 0, 0);
    const float in = std::nextafter(1.57f, 0.0f);
    for (const PhotoToSphere* p : std::initializer_list<const PhotoToSphere*>{&fish, &persp}) {
        EXPECT_TRUE(p->IsVisible(in, -in));
        EXPECT_FALSE(p->IsVisible(1.57f, 0.0f));
        EXPECT_FALSE(p->IsVisible(0.0f, -1.57f));
    }
    EXPECT_TRUE(fish.QueryFlag5());
    EXPECT_FALSE(persp.QueryFlag5());
    EXPECT_TRUE(fish.QueryFlag6());
    EXPECT_TRUE(persp.QueryFlag6());
    // Offsets: the fisheye adds its centre, the perspective model subtracts it.
    const KestrixFisheye fishShifted(raster(600, 400), 200.0f, 200.0f, 0.0f, 0.0f, 5.0f, -3.0f);
    const KestrixPerspective perspShifted(raster(600, 400), 200.0f, 200.0f, 0, 0, 0, 0, 0, 5.0f,
                                          -3.0f);
    EXPECT_FLOAT_EQ(fishShifted.ToImagePoint(0.0f, 0.0f).x, 5.0f);
    EXPECT_FLOAT_EQ(fishShifted.ToImagePoint(0.0f, 0.0f).y, -3.0f);
    EXPECT_FLOAT_EQ(perspShifted.ToImagePoint(0.0f, 0.0f).x, -5.0f);
    EXPECT_FLOAT_EQ(perspShifted.ToImagePoint(0.0f, 0.0f).y, 3.0f);
}

TEST(ProfileModels, InverseFailsPastTheFoldOfTheDistortion) {
    // Strong barrel distortion: r (1 - 0.3 r^2) peaks at r = 1/sqrt(0.9), xd = 0.703.
    const KestrixPerspective persp(raster(600, 400), 100.0f, 100.0f, -0.3f, 0, 0, 0, 0, 0, 0);
    SphereDirection d;
    EXPECT_TRUE(persp.ToSphere({60.0f, 0.0f}, d));
    EXPECT_FALSE(persp.ToSphere({80.0f, 0.0f}, d));
    // theta - 0.3 theta^3 peaks at theta = 1.054, theta_d = 0.703.
    const KestrixFisheye fish(raster(600, 400), 100.0f, 100.0f, -0.3f, 0.0f, 0.0f, 0.0f);
    EXPECT_TRUE(fish.ToSphere({60.0f, 0.0f}, d));
    EXPECT_FALSE(fish.ToSphere({80.0f, 0.0f}, d));
    EXPECT_FALSE(fish.ToSphere({NAN, 0.0f}, d));
}

TEST(CylindricalAndSpherical, VisibleExactlyWhereThePixelIsOnTheRaster) {
    // 100 x 50, f = 10, principal point at the centre: x = 10 lambda.
    const SphericalImage sph(raster(100, 50), 10.0f, 50.0f, 25.0f);
    EXPECT_TRUE(sph.IsVisible(-5.0f, 0.0f));    // column 0
    EXPECT_TRUE(sph.IsVisible(-5.05f, 0.0f));   // -0.5 truncates to column 0
    EXPECT_FALSE(sph.IsVisible(-5.11f, 0.0f));  // -1.1 truncates to -1
    EXPECT_TRUE(sph.IsVisible(4.99f, 0.0f));    // column 99.9
    EXPECT_FALSE(sph.IsVisible(5.0f, 0.0f));    // column 100
    EXPECT_FALSE(sph.IsVisible(0.0f, 2.5f));    // row 50
    EXPECT_FALSE(sph.QueryFlag6());
    const CylindricalImage cyl(raster(100, 50), 10.0f, 50.0f, 25.0f);
    EXPECT_TRUE(cyl.IsVisible(0.0f, std::atan(2.4f)));
    EXPECT_FALSE(cyl.IsVisible(0.0f, std::atan(2.6f)));
    EXPECT_FALSE(cyl.QueryFlag6());
}

// A 4 x 3 raster whose pixel (c, r) has channels (10 c + r, 100 + 10 c + r, 200 - r).
std::shared_ptr<SourceRaster> gradientRaster() {
    auto r = std::make_shared<SourceRaster>(4, 3);
    r->pixels.resize(4 * 3 * 3);  // exactly the picture: a read past it is a fault
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 4; ++x) {
            uint8_t* p = &r->pixels[static_cast<size_t>((y * 4 + x) * 3)];
            p[0] = static_cast<uint8_t>(10 * x + y);
            p[1] = static_cast<uint8_t>(100 + 10 * x + y);
            p[2] = static_cast<uint8_t>(200 - y);
        }
    return r;
}

TEST(SampleColor, BilinearAndNothingPastTheLastColumnOrRow) {
    // Spherical with f = 1 and a centred principal point: image point = (lambda, phi);
    // halfWidth = 2, halfHeight = 1.
    const SphericalImage p(gradientRaster(), 1.0f, 2.0f, 1.5f);
    // Interior: column 1.25, row 0.5 -> channel 0 = 10 * 1.25 + 0.5.
    auto c = p.SampleColor(-0.75f, -0.5f);
    EXPECT_NEAR(c[0], 13.0f, 1e-4f);
    EXPECT_NEAR(c[1], 113.0f, 1e-4f);
    EXPECT_NEAR(c[2], 199.5f, 1e-4f);
    // Column 3.6 is the last column: only column 3 contributes (a blend with
    // the next row's first pixel would pull channel 0 towards 0).
    c = p.SampleColor(1.6f, -0.5f);
    EXPECT_NEAR(c[0], 30.5f, 1e-4f);
    EXPECT_NEAR(c[1], 130.5f, 1e-4f);
    // Last row and last column: exactly pixel (3, 2).
    c = p.SampleColor(1.9f, 1.9f);
    EXPECT_NEAR(c[0], 32.0f, 1e-4f);
    EXPECT_NEAR(c[2], 198.0f, 1e-4f);
    // Left edge between -1 and 0 truncates to column 0 and extrapolates.
    c = p.SampleColor(-2.5f, -1.0f);
    EXPECT_NEAR(c[0], -5.0f, 1e-4f);
    // Off the raster: black, never a read out of bounds.
    c = p.SampleColor(3.0f, 0.0f);
    EXPECT_EQ(c, (std::array<float, 3>{0.0f, 0.0f, 0.0f}));
}

TEST(SampleColor, UnfilledRasterIsBlack) {
    const SphericalImage p(raster(4, 3), 1.0f, 2.0f, 1.5f);
    EXPECT_EQ(p.SampleColor(0.0f, 0.0f), (std::array<float, 3>{0.0f, 0.0f, 0.0f}));
}

}  // namespace
}  // namespace Project
