// The closed forms over the real projection models: the mesh's frame lines
// up with the photo's, and validity is the model's visibility.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <memory>
#include <string>

#include "geometry/Projections.h"
#include "warp/ClosedFormWarp.h"

namespace Project {
namespace {

std::shared_ptr<const SourceRaster> Raster(int32_t w, int32_t h) {
    return std::make_shared<SourceRaster>(w, h);
}

TEST(WarpPhotoModels, MeshCentreIsThePhotoCentreAndAxesMatch) {
    const auto photo =
        std::make_shared<FisheyeImage>(Raster(4000, 3000), 1200.0f, 2000.0f, 1500.0f);
    for (bool flag : {false, true}) {
        const OctaMap mesh(5, flag);
        const int32_t c = mesh.Centre();
        auto at = [&](int32_t i, int32_t j) {
            const SphereDirection a = mesh.UnrotatedAngles(i, j);
            return photo->ToImagePoint(a.lambda, a.phi);
        };
        const ImagePoint centre = at(c, c);
        EXPECT_NEAR(centre.x, 0.0f, 1e-3f);
        EXPECT_NEAR(centre.y, 0.0f, 1e-3f);
        // One column right is image right; one row down is image down
        // (image up with the layout flag).
        const ImagePoint right = at(c + 1, c);
        EXPECT_GT(right.x, 10.0f);
        EXPECT_NEAR(right.y, 0.0f, 1e-3f);
        const ImagePoint below = at(c, c + 1);
        EXPECT_NEAR(below.x, 0.0f, 1e-3f);
        EXPECT_GT(flag ? -below.y : below.y, 10.0f);
    }
}

struct ModelCase {
    std::string name;
    std::shared_ptr<const PhotoToSphere> photo;
    // Expected validity from the vertex's place alone (ring = |i - c| + |j - c|),
    // or null when only the model's own answer can be compared.
    std::function<bool(int32_t i, int32_t ring, int32_t c)> expected;
};

class WarpPhotoModelValidity : public ::testing::TestWithParam<ModelCase> {};

TEST_P(WarpPhotoModelValidity, VertexValidityFollowsTheModel) {
    const ModelCase& mc = GetParam();
    auto mesh = std::make_shared<OctaMap>(5, false);
    const int32_t n = mesh->Width();
    const int32_t c = mesh->Centre();
    const std::shared_ptr<const PhotoToSphere>& photo = mc.photo;
    // Validity is the closed forms' common part: one of them stands for all.
    const auto warp = MakeClosedForm(RegularizerModel::Stereographic, mesh, photo);
    int32_t valid = 0;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            const SphereDirection a = mesh->UnrotatedAngles(i, j);
            const bool v = warp->IsVertexValid(i, j);
            EXPECT_EQ(v, photo->IsVisible(a.lambda, a.phi)) << i << "," << j;
            if (mc.expected) {
                const int32_t ring = std::abs(i - c) + std::abs(j - c);
                EXPECT_EQ(v, mc.expected(i, ring, c)) << mc.name << " " << i << "," << j;
            }
            valid += v ? 1 : 0;
        }
    }
    EXPECT_GT(valid, n * n / 3) << mc.name;
}

INSTANTIATE_TEST_SUITE_P(
    Models, WarpPhotoModelValidity,
    ::testing::Values(
        // Equisolid fisheye: the open front hemisphere, i.e. strictly inside
        // the diamond (its rim is exactly 90 degrees off the axis).
        ModelCase{"Fisheye",
                  std::make_shared<FisheyeImage>(Raster(3000, 2000), 900.0f, 1500.0f, 1000.0f),
                  [](int32_t, int32_t ring, int32_t c) { return ring < c; }},
        // Pinhole: |lambda| < 1.57 at any latitude, so the centre column up
        // to both poles (lambda = 0 there) counts too.
        ModelCase{"Perspective",
                  std::make_shared<PerspectiveImage>(Raster(3000, 2000), 1500.0f, 1500.0f, 1000.0f),
                  [](int32_t i, int32_t ring, int32_t c) { return ring < c || i == c; }},
        ModelCase{"KestrixFisheye",
                  std::make_shared<KestrixFisheye>(Raster(3000, 2000), 800.0f, 810.0f, 0.01f,
                                                   -0.002f, 3.0f, -2.0f),
                  [](int32_t, int32_t ring, int32_t c) { return ring < c; }},
        ModelCase{"KestrixPerspective",
                  std::make_shared<KestrixPerspective>(Raster(3000, 2000), 1400.0f, 1400.0f, -0.05f,
                                                       0.01f, 0.0f, 0.001f, -0.001f, 2.0f, 1.0f),
                  [](int32_t, int32_t ring, int32_t c) { return ring < c; }},
        // Full spherical 2:1 and a cylindrical strip: raster containment only.
        ModelCase{"Spherical",
                  std::make_shared<SphericalImage>(Raster(2000, 1000), 1000.0f / 3.1415927f,
                                                   1000.0f, 500.0f),
                  nullptr},
        ModelCase{"Cylindrical",
                  std::make_shared<CylindricalImage>(Raster(4000, 1000), 636.6f, 2000.0f, 500.0f),
                  nullptr}),
    [](const ::testing::TestParamInfo<ModelCase>& p) { return p.param.name; });

}  // namespace
}  // namespace Project
