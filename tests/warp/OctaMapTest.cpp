#include "warp/OctaMap.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <stdexcept>
#include <tuple>

#include "core/Vector3.h"

namespace Project {
namespace {

double AngleBetween(const MeshVector& a, const MeshVector& b) {
    return std::atan2(Norm(Cross(ToDouble(a), ToDouble(b))), Dot(ToDouble(a), ToDouble(b)));
}

class OctaMapLayout : public ::testing::TestWithParam<std::tuple<int32_t, bool>> {};

TEST_P(OctaMapLayout, ShapeUnitLengthCentreAndHemisphere) {
    const auto [level, flag] = GetParam();
    const OctaMap mesh(level, flag);
    const int32_t n = mesh.Width();
    const int32_t c = mesh.Centre();
    ASSERT_EQ(n, (1 << (level + 1)) + 1);
    EXPECT_EQ(mesh.Height(), n);
    EXPECT_EQ(c, n / 2);
    EXPECT_EQ(mesh.StoredDirections().size(), static_cast<size_t>(n) * n);
    EXPECT_EQ(mesh.StoredDirection(c, c), (MeshVector{1.0f, 0.0f, 0.0f}));
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            const MeshVector& d = mesh.StoredDirection(i, j);
            EXPECT_NEAR(Norm(ToDouble(d)), 1.0, 1e-6) << i << "," << j;
            const int32_t ring = std::abs(i - c) + std::abs(j - c);
            // The inner diamond is the closed hemisphere x >= 0, its rim x = 0 exactly.
            if (ring < c) {
                EXPECT_GT(d[0], 0.0f) << i << "," << j;
            } else if (ring == c) {
                EXPECT_EQ(d[0], 0.0f) << i << "," << j;
            } else {
                EXPECT_LT(d[0], 0.0f) << i << "," << j;
            }
            // Columns run towards +y (image right); rows towards +z (image
            // down) or, with the flag, towards -z.
            // (Rows 0 and N-1 have y = 0, columns 0 and N-1 have z = 0.)
            const int32_t ySign = std::abs(j - c) == c ? 0 : (i > c) - (i < c);
            const int32_t zSign = std::abs(i - c) == c ? 0 : ((j > c) - (j < c)) * (flag ? -1 : 1);
            EXPECT_EQ((d[1] > 0.0f) - (d[1] < 0.0f), ySign) << i << "," << j;
            EXPECT_EQ((d[2] > 0.0f) - (d[2] < 0.0f), zSign) << i << "," << j;
            // The angles rebuild the direction: (cos l cos p, sin l cos p, sin p).
            const SphereDirection a = mesh.UnrotatedAngles(i, j);
            EXPECT_NEAR(std::cos(a.lambda) * std::cos(a.phi), d[0], 2e-6);
            EXPECT_NEAR(std::sin(a.lambda) * std::cos(a.phi), d[1], 2e-6);
            EXPECT_NEAR(std::sin(a.phi), d[2], 2e-6);
        }
    }
}

TEST_P(OctaMapLayout, BorderFoldNamesTheSamePointAndNothingElseCoincides) {
    const auto [level, flag] = GetParam();
    const OctaMap mesh(level, flag);
    const int32_t n = mesh.Width();
    const int32_t c = mesh.Centre();
    std::vector<int32_t> canonical;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            const MeshVertex v = mesh.Fold(i, j);
            EXPECT_EQ(mesh.Fold(v.i, v.j), v) << "not idempotent at " << i << "," << j;
            // Bit-identical, not merely close: the solver shares one unknown.
            EXPECT_EQ(mesh.StoredDirection(i, j), mesh.StoredDirection(v.i, v.j))
                << i << "," << j << " -> " << v.i << "," << v.j;
            EXPECT_EQ(mesh.CanonicalIndex(i, j), v.i + v.j * n);
            if (v.i == i && v.j == j)
                canonical.push_back(mesh.Index(i, j));
        }
    }
    // Every fold pair of the border, spelled out.
    for (int32_t k = c + 1; k < n - 1; ++k) {
        EXPECT_EQ(mesh.Fold(n - 1, k), (MeshVertex{n - 1, 2 * c - k}));
        EXPECT_EQ(mesh.Fold(0, k), (MeshVertex{0, 2 * c - k}));
        EXPECT_EQ(mesh.Fold(k, 0), (MeshVertex{2 * c - k, 0}));
        EXPECT_EQ(mesh.Fold(k, n - 1), (MeshVertex{2 * c - k, n - 1}));
    }
    for (const auto& [i, j] : {std::pair{0, 0}, {0, n - 1}, {n - 1, 0}, {n - 1, n - 1}}) {
        EXPECT_EQ(mesh.Fold(i, j), (MeshVertex{0, 0}));
        EXPECT_EQ(mesh.StoredDirection(i, j), (MeshVector{-1.0f, 0.0f, 0.0f}));
    }
    // 4c - 1 border vertices fold away (level 0 leaves the octahedron's 6), ...
    EXPECT_EQ(static_cast<int32_t>(canonical.size()), n * n - (4 * c - 1));
    // ... and no two canonical vertices name the same direction.
    if (level <= 4) {
        const double step = std::numbers::pi / 2.0 / c;
        for (size_t a = 0; a < canonical.size(); ++a) {
            for (size_t b = a + 1; b < canonical.size(); ++b) {
                const double angle = AngleBetween(mesh.StoredDirections()[canonical[a]],
                                                  mesh.StoredDirections()[canonical[b]]);
                ASSERT_GT(angle, 0.5 * step) << canonical[a] << " vs " << canonical[b];
            }
        }
    }
}

TEST_P(OctaMapLayout, EqualAngleStepsAlongEveryTriangleEdge) {
    const auto [level, flag] = GetParam();
    const OctaMap mesh(level, flag);
    const int32_t n = mesh.Width();
    const int32_t c = mesh.Centre();
    const double step = std::numbers::pi / 2.0 / c;
    auto checkPath = [&](auto vertexAt, const char* what) {
        for (int32_t k = 0; k + 1 < n; ++k) {
            const auto [i0, j0] = vertexAt(k);
            const auto [i1, j1] = vertexAt(k + 1);
            EXPECT_NEAR(AngleBetween(mesh.StoredDirection(i0, j0), mesh.StoredDirection(i1, j1)),
                        step, 2e-6)
                << what << " step " << k;
        }
    };
    // The middle row and column, the outer border, and the diamond rim.
    checkPath([&](int32_t k) { return std::pair{k, c}; }, "row c");
    checkPath([&](int32_t k) { return std::pair{c, k}; }, "column c");
    checkPath([&](int32_t k) { return std::pair{k, 0}; }, "row 0");
    checkPath([&](int32_t k) { return std::pair{n - 1, k}; }, "column N-1");
    checkPath([&](int32_t k) { return std::pair{k, k < c ? c - k : k - c}; }, "upper rim");
    checkPath([&](int32_t k) { return std::pair{k, k < c ? c + k : 3 * c - k}; }, "lower rim");
}

TEST_P(OctaMapLayout, CellsAreNearlyUniform) {
    const auto [level, flag] = GetParam();
    if (level < 2)
        GTEST_SKIP() << "too coarse for a cell-size bound";
    const OctaMap mesh(level, flag);
    const int32_t n = mesh.Width();
    double lo = 1e9;
    double hi = 0.0;
    for (int32_t j = 0; j + 1 < n; ++j) {
        for (int32_t i = 0; i + 1 < n; ++i) {
            const Vec3d a = ToDouble(mesh.StoredDirection(i, j));
            const Vec3d b = ToDouble(mesh.StoredDirection(i + 1, j));
            const Vec3d d = ToDouble(mesh.StoredDirection(i, j + 1));
            const Vec3d e = ToDouble(mesh.StoredDirection(i + 1, j + 1));
            const double area = 0.5 * (Norm(Cross(Difference(b, a), Difference(d, a))) +
                                       Norm(Cross(Difference(b, e), Difference(d, e))));
            lo = std::min(lo, area);
            hi = std::max(hi, area);
        }
    }
    EXPECT_LT(hi / lo, 1.5);
}

TEST(OctaMap, LayoutFlagMirrorsTheRows) {
    const OctaMap plain(3, false);
    const OctaMap flipped(3, true);
    const int32_t n = plain.Width();
    for (int32_t j = 0; j < n; ++j)
        for (int32_t i = 0; i < n; ++i)
            EXPECT_EQ(flipped.StoredDirection(i, j), plain.StoredDirection(i, n - 1 - j));
}

INSTANTIATE_TEST_SUITE_P(Levels, OctaMapLayout,
                         ::testing::Combine(::testing::Values(0, 1, 3, 4, 6), ::testing::Bool()));

TEST(OctaMap, RejectsLevelsOutOfRange) {
    EXPECT_THROW(OctaMap(-1, false), std::invalid_argument);
    EXPECT_THROW(OctaMap(OctaMap::kMaxLevel + 1, false), std::invalid_argument);
}

TEST(OctaMap, AngleRules) {
    // On the z axis (|x|, |y| < 1e-8) the longitude is 0, not atan2 noise.
    for (const MeshVector d : {MeshVector{0.0f, 0.0f, 1.0f}, MeshVector{-5e-9f, 9e-9f, -1.0f}}) {
        const SphereDirection a = OctaMap::AnglesOf(d);
        EXPECT_EQ(a.lambda, 0.0f);
        EXPECT_NEAR(std::fabs(a.phi), std::numbers::pi / 2.0, 1e-7);
    }
    EXPECT_GT(OctaMap::AnglesOf({0.0f, 2e-8f, 1.0f}).lambda, 1.5f);
    // The latitude of the equator is what float acos(0) leaves: -4.37e-8.
    EXPECT_EQ(OctaMap::AnglesOf({1.0f, 0.0f, 0.0f}).phi,
              static_cast<float>(std::numbers::pi / 2.0 - static_cast<double>(std::acos(0.0f))));
    // A rotated vector a rounding step longer than 1 still has angles.
    EXPECT_TRUE(std::isfinite(OctaMap::AnglesOf({0.0f, 0.0f, 1.0000001f}).phi));
    // The mesh's own poles: vertices (c, 0) and (c, N-1).
    const OctaMap mesh(4, false);
    EXPECT_EQ(mesh.UnrotatedAngles(mesh.Centre(), 0).lambda, 0.0f);
    EXPECT_EQ(mesh.UnrotatedAngles(mesh.Centre(), mesh.Width() - 1).lambda, 0.0f);
}

TEST(OctaMap, RotationTurnsDirectionsAndFrames) {
    OctaMap mesh(4, false);
    const int32_t c = mesh.Centre();
    // Turning +y onto +z (a quarter turn about the view axis) moves vertex
    // (c + k, c) onto the former place of (c, c + k).
    mesh.SetRotation({1.0f, 0.0f, 0.0f, 0.0f, 0.0f, -1.0f, 0.0f, 1.0f, 0.0f});
    EXPECT_EQ(mesh.Direction(c + 3, c), mesh.StoredDirection(c + 3, c)) << "still disabled";
    mesh.SetRotationEnabled(true);
    EXPECT_EQ(mesh.Direction(c + 3, c), mesh.StoredDirection(c, c + 3));
    EXPECT_EQ(mesh.Angles(c + 3, c).phi, mesh.UnrotatedAngles(c, c + 3).phi);
    EXPECT_EQ(mesh.Angles(c + 3, c).lambda, mesh.UnrotatedAngles(c, c + 3).lambda);

    // A random rotation: the frame is orthonormal, tangent, and east x north = d.
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> angle(-3.1f, 3.1f);
    const float a = angle(rng), b = angle(rng);
    const float ca = std::cos(a), sa = std::sin(a), cb = std::cos(b), sb = std::sin(b);
    mesh.SetRotation({ca * cb, -sa, ca * sb, sa * cb, ca, sa * sb, -sb, 0.0f, cb});
    std::uniform_int_distribution<int32_t> index(0, mesh.Width() - 1);
    for (int k = 0; k < 200; ++k) {
        const int32_t i = index(rng), j = index(rng);
        const Vec3d d = ToDouble(mesh.Direction(i, j));
        const MeshFrame f = mesh.LocalFrame(i, j);
        EXPECT_NEAR(Dot(f.east, f.east), 1.0, 1e-12);
        EXPECT_NEAR(Dot(f.north, f.north), 1.0, 1e-12);
        EXPECT_NEAR(Dot(f.east, f.north), 0.0, 1e-12);
        const Vec3d up = Cross(f.east, f.north);
        for (int m = 0; m < 3; ++m)
            EXPECT_NEAR(up[m], d[m], 2e-6) << i << "," << j;
    }
}

}  // namespace
}  // namespace Project
