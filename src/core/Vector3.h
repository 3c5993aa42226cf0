#pragma once

#include <array>
#include <cmath>

namespace Project {

// A 3-vector in double precision, for the geometry of the view sphere. Plain
// arrays rather than a linear-algebra type: the order of every sum is fixed
// here, so results do not depend on how a library vectorises them.
using Vec3d = std::array<double, 3>;

constexpr double Dot(const Vec3d& a, const Vec3d& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
constexpr Vec3d Cross(const Vec3d& a, const Vec3d& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
inline double Norm(const Vec3d& a) {
    return std::sqrt(Dot(a, a));
}
constexpr Vec3d Scaled(const Vec3d& a, double s) {
    return {a[0] * s, a[1] * s, a[2] * s};
}
constexpr Vec3d Sum(const Vec3d& a, const Vec3d& b) {
    return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}
constexpr Vec3d Difference(const Vec3d& a, const Vec3d& b) {
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}
// A single-precision vector (a mesh direction) widened.
constexpr Vec3d ToDouble(const std::array<float, 3>& v) {
    return {v[0], v[1], v[2]};
}

}  // namespace Project
