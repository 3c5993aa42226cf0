#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <optional>

#include "geometry/ProjectionFactory.h"
#include "geometry/Projections.h"

namespace Project {
namespace {

CameraMetadata panorama(PanoramaTransformation t) {
    CameraMetadata m;
    m.imageWidth = 10000, m.imageHeight = 2500;
    m.isPanorama = true, m.transformation = t;
    m.virtualFocalLength = 1500.0f, m.virtualCenterX = 5100.0f, m.virtualCenterY = 1200.0f;
    return m;
}

LensProfile profile(LensCameraModel model) {
    LensProfile p;
    p.found = true, p.cameraModel = model;
    p.focalLengthX = 0.3f, p.focalLengthY = 0.31f, p.imageXCenter = 0.51f, p.imageYCenter = 0.48f;
    p.k1 = -0.02f, p.sensorFormatFactor = 1.5f;
    return p;
}

TEST(MakeProjection, ModelTableWithoutMetadata) {
    const auto make = [](ProjectionModel model, int32_t w = 6000, int32_t h = 4000,
                         std::optional<LensProfile> lens = std::nullopt) {
        return makeProjection(model, 1200.0f, w, h, CameraMetadata{}, lens, 1.0f);
    };
    auto fish = make(ProjectionModel::Fisheye);
    ASSERT_TRUE(dynamic_cast<FisheyeImage*>(fish.get()));
    EXPECT_FLOAT_EQ(static_cast<FisheyeImage*>(fish.get())->FocalLength(), 1200.0f);
    EXPECT_EQ(fish->Raster().width, 6000);
    EXPECT_EQ(fish->Raster().halfHeight, 2000);

    auto persp = make(ProjectionModel::Perspective);
    ASSERT_TRUE(dynamic_cast<PerspectiveImage*>(persp.get()));
    EXPECT_NEAR(persp->ToImagePoint(0.5f, 0.0f).x, 1200.0f * std::tan(0.5f), 1e-3f);
    EXPECT_FLOAT_EQ(persp->ToImagePoint(0.0f, 0.0f).y, 0.0f);

    // Full Spherical: f = height / pi, centred, so lambda = pi lands on the right edge.
    auto sph = make(ProjectionModel::FullSpherical, 4000, 2000);
    ASSERT_TRUE(dynamic_cast<SphericalImage*>(sph.get()));
    float u = 0.0f, v = 0.0f;
    sph->ToTexture(3.1415927f, -1.5707964f, u, v);
    EXPECT_NEAR(u, 1.0f, 1e-6f);
    EXPECT_NEAR(v, 0.0f, 1e-6f);

    EXPECT_EQ(make(ProjectionModel::None), nullptr);
    EXPECT_EQ(make(ProjectionModel{7}), nullptr);
    // Auto without panorama metadata and without a usable profile builds nothing.
    EXPECT_EQ(make(ProjectionModel::Auto), nullptr);
    EXPECT_EQ(make(ProjectionModel::Auto, 6000, 4000, profile(LensCameraModel::None)), nullptr);
}

TEST(MakeProjection, PanoramaByTransformation) {
    // The source rectangle may be smaller than the full image the metadata describes.
    auto cyl = makeProjection(ProjectionModel::Auto, 999.0f, 8000, 2000,
                              panorama(PanoramaTransformation::Cylindrical), std::nullopt, 1.0f);
    ASSERT_TRUE(dynamic_cast<CylindricalImage*>(cyl.get()));
    // Principal point (full width / 2, virtual centre y): cx = 5000 - 4000, cy = 1000 - 1200.
    EXPECT_FLOAT_EQ(cyl->ToImagePoint(0.0f, 0.0f).x, 1000.0f);
    EXPECT_FLOAT_EQ(cyl->ToImagePoint(0.0f, 0.0f).y, -200.0f);
    EXPECT_NEAR(cyl->ToImagePoint(0.5f, 0.0f).x, 1000.0f + 750.0f, 1e-3f);

    auto sph = makeProjection(ProjectionModel::Auto, 999.0f, 8000, 2000,
                              panorama(PanoramaTransformation::Spherical), std::nullopt, 1.0f);
    ASSERT_TRUE(dynamic_cast<SphericalImage*>(sph.get()));
    EXPECT_FLOAT_EQ(sph->ToImagePoint(0.0f, 0.0f).x, 1100.0f);
    EXPECT_FLOAT_EQ(sph->ToImagePoint(0.0f, 0.0f).y, -200.0f);

    auto persp = makeProjection(ProjectionModel::Auto, 999.0f, 8000, 2000,
                                panorama(PanoramaTransformation::Perspective),
                                profile(LensCameraModel::Fisheye), 1.0f);
    ASSERT_TRUE(dynamic_cast<PerspectiveImage*>(persp.get()))
        << "panorama metadata wins over a profile";
    EXPECT_NEAR(persp->ToImagePoint(0.25f, 0.0f).x, 1100.0f + 1500.0f * std::tan(0.25f), 1e-2f);

    CameraMetadata notPano = panorama(PanoramaTransformation::Spherical);
    notPano.isPanorama = false;
    EXPECT_EQ(
        makeProjection(ProjectionModel::Auto, 999.0f, 8000, 2000, notPano, std::nullopt, 1.0f),
        nullptr);
}

TEST(MakeProjection, ProfileModelsScaleByTheLargerSideAndTheRatio) {
    const CameraMetadata none;
    // S = 6000, R = 1.2: fx = 6000 * 1.2 * 0.3 = 2160, fy = 2232;
    // cx = 0.01 * 6000 = 60, cy = 0.02 * 6000 = 120 (centres not scaled by R).
    auto fish = makeProjection(ProjectionModel::Auto, 1.0f, 6000, 4000, none,
                               profile(LensCameraModel::Fisheye), 1.2f);
    ASSERT_TRUE(dynamic_cast<KestrixFisheye*>(fish.get()));
    EXPECT_NEAR(fish->ToImagePoint(0.0f, 0.0f).x, 60.0f, 1e-3f);
    EXPECT_NEAR(fish->ToImagePoint(0.0f, 0.0f).y, 120.0f, 1e-3f);
    // Near the axis theta_d ~ theta, so x - cx ~ fx * lambda.
    EXPECT_NEAR((fish->ToImagePoint(1e-3f, 0.0f).x - 60.0f) / 1e-3f, 2160.0f, 0.5f);
    EXPECT_NEAR((fish->ToImagePoint(0.0f, 1e-3f).y - 120.0f) / 1e-3f, 2232.0f, 0.5f);

    auto persp = makeProjection(ProjectionModel::Auto, 1.0f, 4000, 6000, none,
                                profile(LensCameraModel::RadialDistortion), 1.2f);
    ASSERT_TRUE(dynamic_cast<KestrixPerspective*>(persp.get()));
    EXPECT_FALSE(persp->QueryFlag5());
    EXPECT_NEAR(persp->ToImagePoint(0.0f, 0.0f).x, -60.0f, 1e-3f);
    EXPECT_NEAR(persp->ToImagePoint(0.0f, 0.0f).y, -120.0f, 1e-3f);
    EXPECT_NEAR((persp->ToImagePoint(1e-3f, 0.0f).x + 60.0f) / 1e-3f, 2160.0f, 0.5f);
}

TEST(FocalScaleRatio, OnlyWhenASelectionCheckHoldsAndTheFactorsDiffer) {
    LensProfile p = profile(LensCameraModel::Fisheye);
    EXPECT_FLOAT_EQ(focalScaleRatio(1.0f, p), 1.0f) << "no check holds";
    p.matchedOtherCamera = true;
    EXPECT_FLOAT_EQ(focalScaleRatio(1.0f, p), 1.0f / 1.5f);
    EXPECT_FLOAT_EQ(focalScaleRatio(1.505f, p), 1.0f) << "within 0.01";
    EXPECT_FLOAT_EQ(focalScaleRatio(0.0f, p), 1.0f) << "unknown camera crop";
    p.matchedOtherCamera = false;
    p.matchedOtherSensorFormat = true;
    EXPECT_FLOAT_EQ(focalScaleRatio(2.0f, p), 2.0f / 1.5f);
    p.sensorFormatFactor = 0.0f;
    EXPECT_FLOAT_EQ(focalScaleRatio(2.0f, p), 1.0f) << "unknown profile format";
}

TEST(ProjectionDecision, FullSphericalNeedsTwoToOne) {
    EXPECT_TRUE(isFullSphericalAspect(4000, 2000));
    EXPECT_TRUE(isFullSphericalAspect(4000, 2001));   // 0.0005
    EXPECT_FALSE(isFullSphericalAspect(4000, 2010));  // 0.005
    EXPECT_FALSE(isFullSphericalAspect(4000, 1990));
    EXPECT_TRUE(isFullSphericalAspect(4000, 1998));  // exactly 0.001 is not above it
    EXPECT_FALSE(isFullSphericalAspect(0, 0));
    EXPECT_FALSE(isFullSphericalAspect(3000, 2000));
}

TEST(ProjectionDecision, SixteenMillimetreRule) {
    constexpr ProjectionModel current = ProjectionModel::Auto;
    constexpr ProjectionModel fallback = ProjectionModel::Fisheye;
    EXPECT_EQ(modelForFocalLength(16.0f, current, ProjectionModel::Perspective), current);
    EXPECT_EQ(modelForFocalLength(16.005f, current, ProjectionModel::Perspective), current);
    EXPECT_EQ(modelForFocalLength(15.98f, current, ProjectionModel::Perspective),
              ProjectionModel::Fisheye);
    EXPECT_EQ(modelForFocalLength(15.9f, current, ProjectionModel::Perspective),
              ProjectionModel::Fisheye);
    EXPECT_EQ(modelForFocalLength(16.02f, current, fallback), ProjectionModel::Perspective);
    EXPECT_EQ(modelForFocalLength(24.0f, current, fallback), ProjectionModel::Perspective);
    EXPECT_EQ(modelForFocalLength(0.0f, current, fallback), fallback);
    EXPECT_EQ(modelForFocalLength(-0.005f, current, fallback), fallback);
    EXPECT_EQ(modelForFocalLength(0.0101f, current, fallback), ProjectionModel::Fisheye);
    EXPECT_EQ(modelForFocalLength(-24.0f, current, fallback), current);
}

}  // namespace
}  // namespace Project
