#include "warp/ClosedFormWarp.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numbers>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "FakePhoto.h"

namespace Project {
namespace {

using testing::FakePhoto;

std::shared_ptr<FakePhoto> AllVisible() {
    return std::make_shared<FakePhoto>([](float, float) { return true; });
}

TEST(ClosedFormWarp, FactoryByRegulariserCode) {
    auto mesh = std::make_shared<OctaMap>(3, false);
    auto photo = AllVisible();
    auto make = [&](uint32_t code) { return MakeClosedForm(RegularizerModel{code}, mesh, photo); };
    EXPECT_NE(dynamic_cast<StereographicClosedForm*>(make(1).get()), nullptr);
    EXPECT_NE(dynamic_cast<MercatorClosedForm*>(make(2).get()), nullptr);
    EXPECT_NE(dynamic_cast<PaniniProjection*>(make(3).get()), nullptr);
    EXPECT_NE(dynamic_cast<EquirectangularClosedForm*>(make(1000).get()), nullptr);
    for (uint32_t unknown : {0u, 4u, 5u, 999u, 1001u, 0xFFFFFFFFu})
        EXPECT_NE(dynamic_cast<StereographicClosedForm*>(make(unknown).get()), nullptr) << unknown;
    EXPECT_THROW(MakeClosedForm(RegularizerModel::Stereographic, nullptr, photo),
                 std::invalid_argument);
}

TEST(ClosedFormWarp, DomainEdges) {
    auto mesh = std::make_shared<OctaMap>(4, false);
    const int32_t n = mesh->Width();
    const int32_t c = mesh->Centre();
    auto photo = AllVisible();
    const StereographicClosedForm stereo(mesh, photo);
    const MercatorClosedForm mercator(mesh, photo);
    const PaniniProjection panini(mesh, photo);
    const EquirectangularClosedForm equirect(mesh, photo);
    float x = 0.0f, y = 0.0f;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            const std::string at = std::to_string(i) + "," + std::to_string(j);
            // Stereographic: the diamond (hemisphere) only; its rim at radius 2.
            const int32_t ring = std::abs(i - c) + std::abs(j - c);
            EXPECT_EQ(stereo.InDomain(i, j), ring <= c) << at;
            stereo.GetVertexPosition(i, j, x, y);
            if (ring > c) {
                EXPECT_EQ(x, 0.0f) << at;
                EXPECT_EQ(y, 0.0f) << at;
            } else {
                EXPECT_LE(std::hypot(x, y), 2.0f + 1e-5f) << at;
                if (ring == c) {
                    EXPECT_NEAR(std::hypot(x, y), 2.0f, 1e-5f) << at;
                }
            }
            // Mercator: the first and last rows report (0, 0), whatever latitude.
            EXPECT_EQ(mercator.InDomain(i, j), j != 0 && j != n - 1) << at;
            mercator.GetVertexPosition(i, j, x, y);
            if (j == 0 || j == n - 1) {
                EXPECT_EQ(x, 0.0f) << at;
                EXPECT_EQ(y, 0.0f) << at;
            } else {
                EXPECT_TRUE(std::isfinite(x) && std::isfinite(y)) << at;
            }
            // Panini and equirectangular: everything, finite.
            EXPECT_TRUE(panini.InDomain(i, j) && equirect.InDomain(i, j));
            panini.GetVertexPosition(i, j, x, y);
            EXPECT_TRUE(std::isfinite(x) && std::isfinite(y)) << at;
        }
    }
    // The far point (all four corners, (-1, 0, 0)) with the view axis on it
    // would divide by zero in the stereographic formula; Mercator's polar
    // rows would take ln(0) or ln(inf). Both are refused above.
    // Panini at lambda = +-pi (row 0, left of the centre column): denominator
    // 0.001, so m is about 2001 and y follows m tan(phi).
    const SphereDirection back = mesh->Angles(c - 3, 0);
    ASSERT_NEAR(std::fabs(back.lambda), std::numbers::pi, 1e-6);
    panini.GetVertexPosition(c - 3, 0, x, y);
    EXPECT_NEAR(y / std::tan(back.phi), 2.001 / (1.001 + std::cos(std::numbers::pi)), 2.0);
    // The poles of the mesh (on the z axis) have lambda = 0: well defined.
    equirect.GetVertexPosition(c, 0, x, y);
    EXPECT_EQ(x, 0.0f);
    EXPECT_NEAR(y, -std::numbers::pi / 2.0, 1e-6);
    panini.GetVertexPosition(c, n - 1, x, y);
    EXPECT_EQ(x, 0.0f);
    // The view centre: every projection puts it at the origin.
    for (const ClosedFormWarp* w :
         std::initializer_list<const ClosedFormWarp*>{&stereo, &mercator, &panini, &equirect}) {
        w->GetVertexPosition(c, c, x, y);
        EXPECT_NEAR(x, 0.0f, 1e-7f);
        EXPECT_NEAR(y, 0.0f, 1e-7f);
    }
}

// The four formulas again, from the 3-D direction (x, y, z) in double, with
// no angles: stereographic from the antipode, Mercator y = atanh(z), Panini
// through the horizontal radius, equirectangular y = asin(z). The third value
// is how much a float rounding inside the closed form's own arithmetic is
// magnified (the small denominators of the stereographic and Panini scales).
using Reference = std::function<std::array<double, 3>(double x, double y, double z)>;

struct FormulaCase {
    RegularizerModel model;
    Reference reference;
    bool angularX;  // x is a longitude: compare modulo 2 pi
};

std::array<double, 3> StereoRef(double x, double y, double z) {
    return {2.0 * y / (1.0 + x), 2.0 * z / (1.0 + x), 1.0 / (1.0 + x)};
}
std::array<double, 3> MercatorRef(double x, double y, double z) {
    return {std::atan2(y, x), std::atanh(z), 1.0};
}
std::array<double, 3> PaniniRef(double x, double y, double z) {
    const double rho = std::hypot(x, y);
    const double denominator = static_cast<double>(1.001f) + x / rho;
    const double m = static_cast<double>(2.001f) / denominator;
    return {m * y / rho, m * z / rho, 1.0 / denominator};
}
std::array<double, 3> EquirectRef(double x, double y, double z) {
    return {std::atan2(y, x), std::asin(z), 1.0};
}

class ClosedFormFormula : public ::testing::TestWithParam<FormulaCase> {};

TEST_P(ClosedFormFormula, AgreesWithTheDirectionFormulaAtRandomDirections) {
    const FormulaCase& fc = GetParam();
    auto mesh = std::make_shared<OctaMap>(6, false);
    const auto warp = MakeClosedForm(fc.model, mesh, AllVisible());
    const int32_t n = mesh->Width();
    std::mt19937 rng(1234 + static_cast<uint32_t>(fc.model));
    std::normal_distribution<float> gauss;
    std::uniform_int_distribution<int32_t> index(0, n - 1);
    int tested = 0;
    for (int rotation = 0; rotation < 4; ++rotation) {
        // Identity first, then random rotations from random unit quaternions.
        float qw = 1.0f, qx = 0.0f, qy = 0.0f, qz = 0.0f;
        if (rotation > 0) {
            qw = gauss(rng), qx = gauss(rng), qy = gauss(rng), qz = gauss(rng);
            const float len = std::sqrt(qw * qw + qx * qx + qy * qy + qz * qz);
            qw /= len, qx /= len, qy /= len, qz /= len;
        }
        const MeshRotation r{
            1 - 2 * (qy * qy + qz * qz), 2 * (qx * qy - qz * qw),     2 * (qx * qz + qy * qw),
            2 * (qx * qy + qz * qw),     1 - 2 * (qx * qx + qz * qz), 2 * (qy * qz - qx * qw),
            2 * (qx * qz - qy * qw),     2 * (qy * qz + qx * qw),     1 - 2 * (qx * qx + qy * qy)};
        mesh->SetRotation(r);
        mesh->SetRotationEnabled(true);
        for (int sample = 0; sample < 500; ++sample) {
            const int32_t i = index(rng);
            const int32_t j = index(rng);
            if (!warp->InDomain(i, j))
                continue;
            const MeshVector& s = mesh->StoredDirection(i, j);
            std::array<double, 3> d{};
            for (int row = 0; row < 3; ++row) {
                d[row] = r[3 * row] * double{s[0]} + r[3 * row + 1] * double{s[1]} +
                         r[3 * row + 2] * double{s[2]};
            }
            const auto ref = fc.reference(d[0], d[1], d[2]);
            // How far the reference moves when the direction moves by float
            // rounding: the tolerance follows the formula's own conditioning.
            // The angles are taken from z alone (latitude) and from (x, y)
            // (longitude), so besides each component, move z along the
            // sphere and turn the longitude by the rounding of (x, y).
            const double rho = std::hypot(d[0], d[1]);
            std::vector<std::array<double, 3>> moved;
            for (double sign : {-1.0, 1.0}) {
                for (int k = 0; k < 3; ++k) {
                    std::array<double, 3> e = d;
                    e[k] += sign * 2.4e-7;
                    moved.push_back(e);
                }
                const double z = std::clamp(d[2] + sign * 2.4e-7, -1.0, 1.0);
                const double scale = rho > 0.0 ? std::sqrt(1.0 - z * z) / rho : 0.0;
                moved.push_back({d[0] * scale, d[1] * scale, z});
                const double turn = sign * 2.4e-7 / std::max(rho, 1e-12);
                moved.push_back({d[0] * std::cos(turn) - d[1] * std::sin(turn),
                                 d[0] * std::sin(turn) + d[1] * std::cos(turn), d[2]});
            }
            double sensitivity = 0.0;
            for (const auto& e : moved) {
                const auto there = fc.reference(e[0], e[1], e[2]);
                for (int a = 0; a < 2; ++a) {
                    double diff = there[a] - ref[a];
                    if (a == 0 && fc.angularX)
                        diff = std::remainder(diff, 2.0 * std::numbers::pi);
                    sensitivity = std::max(sensitivity, std::fabs(diff));
                }
            }
            if (!(sensitivity < 1e-2)) {
                continue;  // at a singular point (far point, pole, seam)
            }
            float x = 0.0f, y = 0.0f;
            warp->GetVertexPosition(i, j, x, y);
            double dx = x - ref[0];
            if (fc.angularX)
                dx = std::remainder(dx, 2.0 * std::numbers::pi);
            const double dy = y - ref[1];
            auto tolerance = [&](double value) {
                return 4.0 * sensitivity + 1e-6 * (1.0 + std::fabs(value)) +
                       5e-7 * ref[2] * std::fabs(value);
            };
            EXPECT_LE(std::fabs(dx), tolerance(ref[0]))
                << "x at " << i << "," << j << " rotation " << rotation;
            EXPECT_LE(std::fabs(dy), tolerance(ref[1]))
                << "y at " << i << "," << j << " rotation " << rotation;
            ++tested;
        }
    }
    EXPECT_GT(tested, 800);
}

INSTANTIATE_TEST_SUITE_P(
    AllProjections, ClosedFormFormula,
    ::testing::Values(FormulaCase{RegularizerModel::Stereographic, StereoRef, false},
                      FormulaCase{RegularizerModel::Mercator, MercatorRef, true},
                      FormulaCase{RegularizerModel::Panini, PaniniRef, false},
                      FormulaCase{RegularizerModel::Equirectangular, EquirectRef, true}),
    [](const ::testing::TestParamInfo<FormulaCase>& p) {
        return "Code" + std::to_string(static_cast<uint32_t>(p.param.model));
    });

TEST(ClosedFormWarp, ValidityFollowsThePhotoInItsOwnFrame) {
    auto mesh = std::make_shared<OctaMap>(4, false);
    const int32_t n = mesh->Width();
    const int32_t c = mesh->Centre();
    // Asymmetric in lambda and phi, so swapped arguments would show.
    auto visible = [](float lambda, float phi) { return lambda > 0.3f && phi < 0.2f; };
    auto photo = std::make_shared<FakePhoto>(visible);
    const auto warp = MakeClosedForm(RegularizerModel::Stereographic, mesh, photo);

    std::vector<bool> before;
    std::vector<std::array<float, 2>> positionsBefore;
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            const SphereDirection a = mesh->UnrotatedAngles(i, j);
            photo->calls.clear();
            EXPECT_EQ(warp->IsVertexValid(i, j), visible(a.lambda, a.phi));
            ASSERT_EQ(photo->calls.size(), 1u);
            EXPECT_EQ(photo->calls[0].lambda, a.lambda);  // longitude first
            EXPECT_EQ(photo->calls[0].phi, a.phi);
            before.push_back(warp->IsVertexValid(i, j));
            float x = 0.0f, y = 0.0f;
            warp->GetVertexPosition(i, j, x, y);
            positionsBefore.push_back({x, y});
        }
    }
    // A quarter turn about the view axis turns the stereographic output by a
    // quarter turn and leaves validity alone.
    mesh->SetRotation({1.0f, 0.0f, 0.0f, 0.0f, 0.0f, -1.0f, 0.0f, 1.0f, 0.0f});
    mesh->SetRotationEnabled(true);
    for (int32_t j = 0; j < n; ++j) {
        for (int32_t i = 0; i < n; ++i) {
            EXPECT_EQ(warp->IsVertexValid(i, j), before[mesh->Index(i, j)]);
            float x = 0.0f, y = 0.0f;
            warp->GetVertexPosition(i, j, x, y);
            const auto& p = positionsBefore[mesh->Index(i, j)];
            EXPECT_NEAR(x, -p[1], 1e-6f);
            EXPECT_NEAR(y, p[0], 1e-6f);
        }
    }
    float x = 0.0f, y = 0.0f;
    warp->GetVertexPosition(c + 4, c, x, y);
    EXPECT_GT(std::fabs(y), 0.1f) << "the output did not turn";
}

TEST(ClosedFormWarp, QuadValidityTestsCornersInOrderAndStopsEarly) {
    auto mesh = std::make_shared<OctaMap>(3, false);
    const int32_t c = mesh->Centre();
    bool answer = true;
    auto photo = std::make_shared<FakePhoto>([&answer](float, float) { return answer; });
    const auto warp = MakeClosedForm(RegularizerModel::Panini, mesh, photo);
    EXPECT_TRUE(warp->IsQuadValid(c, c));
    ASSERT_EQ(photo->calls.size(), 4u);
    const std::array<std::pair<int32_t, int32_t>, 4> corners{
        {{c, c}, {c + 1, c}, {c, c + 1}, {c + 1, c + 1}}};
    for (size_t k = 0; k < corners.size(); ++k) {
        const SphereDirection a = mesh->UnrotatedAngles(corners[k].first, corners[k].second);
        EXPECT_EQ(photo->calls[k].lambda, a.lambda) << k;
        EXPECT_EQ(photo->calls[k].phi, a.phi) << k;
    }
    photo->calls.clear();
    answer = false;
    EXPECT_FALSE(warp->IsQuadValid(c, c));
    EXPECT_EQ(photo->calls.size(), 1u);

    // Without a photo nothing is valid.
    const auto blind = MakeClosedForm(RegularizerModel::Stereographic, mesh, nullptr);
    EXPECT_FALSE(blind->IsVertexValid(c, c));
    EXPECT_FALSE(blind->IsQuadValid(c, c));
}

}  // namespace
}  // namespace Project
