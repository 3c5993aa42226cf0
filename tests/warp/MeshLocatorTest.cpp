#include "warp/MeshLocator.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>

#include "core/SphereFrames.h"
#include "warp/OctaMap.h"

namespace Project {
namespace {

TEST(MeshLocator, FindsTheQuadAndWeightsOfEveryDirection) {
    for (bool layout : {false, true}) {
        auto mesh = std::make_shared<const OctaMap>(4, layout);
        const MeshLocator locator(mesh);
        // Every vertex is found at itself (a corner of a quad, weight 1).
        for (int32_t j = 0; j < mesh->Size(); ++j) {
            for (int32_t i = 0; i < mesh->Size(); ++i) {
                const SphereDirection d = mesh->UnrotatedAngles(i, j);
                const auto loc = locator.Locate(d);
                ASSERT_TRUE(loc.has_value()) << i << "," << j;
                // The weighted corners reproduce the direction.
                Vec3d sum{0, 0, 0};
                const int32_t ci[4] = {loc->i, loc->i + 1, loc->i, loc->i + 1};
                const int32_t cj[4] = {loc->j, loc->j, loc->j + 1, loc->j + 1};
                for (int k = 0; k < 4; ++k) {
                    const MeshVector& v = mesh->StoredDirection(ci[k], cj[k]);
                    for (int c = 0; c < 3; ++c)
                        sum[c] += loc->weights[k] * v[c];
                }
                const Vec3d q = MeshFrameVector(d);
                const double n = Norm(sum);
                EXPECT_GT(Dot(sum, q) / n, 1.0 - 1e-6) << i << "," << j;
            }
        }
        // Random directions over the whole sphere.
        std::mt19937 rng(7);
        std::uniform_real_distribution<float> lon(-3.14159f, 3.14159f), lat(-1.5707f, 1.5707f);
        for (int k = 0; k < 5000; ++k) {
            const SphereDirection d{lon(rng), lat(rng)};
            const auto loc = locator.Locate(d);
            ASSERT_TRUE(loc.has_value()) << d.lambda << "," << d.phi;
            float sumW = 0.0f;
            for (float w : loc->weights) {
                EXPECT_GE(w, 0.0f);
                sumW += w;
            }
            EXPECT_NEAR(sumW, 1.0f, 1e-5f);
        }
    }
    EXPECT_FALSE(
        MeshLocator(std::make_shared<const OctaMap>(2, false)).Locate({NAN, 0.0f}).has_value());
}

}  // namespace
}  // namespace Project
