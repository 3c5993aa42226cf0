#include "warp/OctaMap.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>
#include <string>

namespace Project {

namespace {

int32_t Sign(int32_t v) {
    return (v > 0) - (v < 0);
}

// s * v without a negative zero, so that mirrored border vertices (one
// weight zero) are bit-identical, not merely equal.
double Signed(double v, int32_t s) {
    return v == 0.0 ? 0.0 : s * v;
}

}  // namespace

OctaMap::OctaMap(int32_t level, bool layoutFlag) : level_(level), n_(0), layoutFlag_(layoutFlag) {
    if (level < 0 || level > kMaxLevel) {
        throw std::invalid_argument("OctaMap: mesh level " + std::to_string(level) +
                                    " outside [0, " + std::to_string(kMaxLevel) + "]");
    }
    const int32_t m = int32_t{1} << level;  // triangle size, also the centre index
    n_ = 2 * m + 1;

    // Tangent-spaced weight g(w / M) for every integer weight w; with
    // tau = tan(pi/4 t), tau / (1 + tau) makes the two weights of an edge
    // point satisfy g(t) / g(1 - t) = tan(pi/2 t): equal angles per index step.
    std::vector<double> g(static_cast<size_t>(m) + 1);
    for (int32_t w = 0; w <= m; ++w) {
        const double tau = std::tan(std::numbers::pi / 4.0 * w / m);
        g[w] = tau / (1.0 + tau);
    }
    g[m] = 0.5;  // tan(pi/4) is not exactly 1 in double

    const int32_t zSign = layoutFlag ? -1 : 1;
    dirs_.resize(static_cast<size_t>(n_) * n_);
    for (int32_t j = 0; j < n_; ++j) {
        for (int32_t i = 0; i < n_; ++i) {
            // Only |i - c| and |j - c| enter the weights, so the border fold
            // (mirror pairs with one weight zero) gives bit-identical vectors.
            const int32_t p = std::abs(i - m);
            const int32_t q = std::abs(j - m);
            double x, y, z;
            if (p + q <= m) {
                x = g[m - p - q];
                y = g[p];
                z = g[q];
            } else {
                x = -g[p + q - m];
                y = g[m - q];
                z = g[m - p];
            }
            y = Signed(y, Sign(i - m));
            z = Signed(z, zSign * Sign(j - m));
            const double len = std::sqrt(x * x + y * y + z * z);
            dirs_[Index(i, j)] = {static_cast<float>(x / len), static_cast<float>(y / len),
                                  static_cast<float>(z / len)};
        }
    }
}

MeshVector OctaMap::Direction(int32_t i, int32_t j) const {
    const MeshVector& d = dirs_[Index(i, j)];
    if (!rotationEnabled_) {
        return d;
    }
    const MeshRotation& r = rotation_;
    return {r[0] * d[0] + r[1] * d[1] + r[2] * d[2], r[3] * d[0] + r[4] * d[1] + r[5] * d[2],
            r[6] * d[0] + r[7] * d[1] + r[8] * d[2]};
}

SphereDirection OctaMap::AnglesOf(const MeshVector& d) {
    // Clamped: a rotated unit vector may exceed 1 by a rounding step, and acos
    // would turn that into NaN. Identical for every in-range value.
    const float z = std::clamp(d[2], -1.0f, 1.0f);
    SphereDirection out;
    out.phi = static_cast<float>(std::numbers::pi / 2.0 - static_cast<double>(std::acos(z)));
    if (std::fabs(d[0]) < 1e-8 && std::fabs(d[1]) < 1e-8) {
        out.lambda = 0.0f;
    } else {
        out.lambda = std::atan2(d[1], d[0]);
    }
    return out;
}

SphereDirection OctaMap::UnrotatedAngles(int32_t i, int32_t j) const {
    return AnglesOf(dirs_[Index(i, j)]);
}

SphereDirection OctaMap::Angles(int32_t i, int32_t j) const {
    return AnglesOf(Direction(i, j));
}

MeshFrame OctaMap::LocalFrame(int32_t i, int32_t j) const {
    const SphereDirection a = Angles(i, j);
    const double sl = std::sin(static_cast<double>(a.lambda));
    const double cl = std::cos(static_cast<double>(a.lambda));
    const double sp = std::sin(static_cast<double>(a.phi));
    const double cp = std::cos(static_cast<double>(a.phi));
    MeshFrame f;
    f.east = {-sl, cl, 0.0};
    f.north = {-sp * cl, -sp * sl, cp};
    return f;
}

MeshVertex OctaMap::Fold(int32_t n, int32_t i, int32_t j) {
    const int32_t c = n / 2;
    if (i == n - 1 && j > c) {
        j = 2 * c - j;
    }
    if (j == n - 1 && i > c) {
        i = 2 * c - i;
    }
    if (j == 0 && i > c) {
        i = 2 * c - i;
    }
    if (i == 0 && j > c) {
        j = 2 * c - j;
    }
    return {i, j};
}

}  // namespace Project
