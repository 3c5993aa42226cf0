#include "solver/FocalSolver.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace Project {

namespace {

struct Ray {
    double x, y, z;
};

double Det(Ray a, Ray b, Ray c) {
    return a.x * (b.y * c.z - b.z * c.y) - a.y * (b.x * c.z - b.z * c.x) +
           a.z * (b.x * c.y - b.y * c.x);
}

}  // namespace

bool FocalSolver::PolarAngle(double radius, double f, double& theta) const {
    // The Fisheye model sees the front hemisphere only: r < f sqrt(2).
    const double s = radius / (2.0 * f);
    if (!(f > 0.0) || !(s < std::sqrt(0.5)))
        return false;
    theta = 2.0 * std::asin(s);
    return true;
}

double FocalSolver::ShortestFocal(double radius) const {
    return radius / std::sqrt(2.0);
}

bool PerspectiveFocalSolver::PolarAngle(double radius, double f, double& theta) const {
    if (!(f > 0.0))
        return false;
    theta = std::atan(radius / f);
    return true;
}

double PerspectiveFocalSolver::ShortestFocal(double) const {
    return 0.0;
}

bool FocalSolver::Rays(CalibrationPoint centre, const std::array<CalibrationPoint, 3>& points,
                       double f, std::array<std::array<double, 3>, 3>& rays) const {
    for (size_t k = 0; k < 3; ++k) {
        const double x = points[k].x - centre.x;
        const double y = points[k].y - centre.y;
        const double r = std::hypot(x, y);
        double theta = 0.0;
        if (!PolarAngle(r, f, theta))
            return false;
        const double s = r > 0.0 ? std::sin(theta) / r : 0.0;
        rays[k] = {x * s, y * s, std::cos(theta)};
    }
    return true;
}

double FocalSolver::Residual(CalibrationPoint centre, CalibrationPoint first,
                             CalibrationPoint second, CalibrationPoint fitPoint, double f) const {
    std::array<std::array<double, 3>, 3> r{};
    if (!Rays(centre, {first, second, fitPoint}, f, r))
        return std::numeric_limits<double>::quiet_NaN();
    return Det({r[0][0], r[0][1], r[0][2]}, {r[1][0], r[1][1], r[1][2]},
               {r[2][0], r[2][1], r[2][2]});
}

bool FocalSolver::FitPointBetween(CalibrationPoint centre, CalibrationPoint first,
                                  CalibrationPoint second, CalibrationPoint fitPoint,
                                  double f) const {
    std::array<std::array<double, 3>, 3> r{};
    if (!Rays(centre, {first, second, fitPoint}, f, r))
        return false;
    const auto cross = [](const std::array<double, 3>& a, const std::array<double, 3>& b) {
        return std::array<double, 3>{a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2],
                                     a[0] * b[1] - a[1] * b[0]};
    };
    const auto dot = [](const std::array<double, 3>& a, const std::array<double, 3>& b) {
        return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
    };
    const auto n = cross(r[0], r[1]);
    return dot(cross(r[0], r[2]), n) > 0.0 && dot(cross(r[2], r[1]), n) > 0.0;
}

double FocalSolver::Solve(CalibrationPoint centre, CalibrationPoint first, CalibrationPoint second,
                          CalibrationPoint fitPoint, double minimum, double maximum) const {
    const double dx = second.x - first.x, dy = second.y - first.y;
    const double chord = std::hypot(dx, dy);
    if (!(chord >= 1.0))
        return -1.0;
    // Distance of the fit point from the chord's line.
    const double off = std::abs(dx * (fitPoint.y - first.y) - dy * (fitPoint.x - first.x)) / chord;
    if (off <= std::max(0.5, 1e-3 * chord))
        return -1.0;

    double reach = 0.0;
    for (const CalibrationPoint& p : {first, second, fitPoint})
        reach = std::max(reach, std::hypot(p.x - centre.x, p.y - centre.y));
    const double low = std::max(minimum, ShortestFocal(reach) * (1.0 + 1e-9));
    if (!(low > 0.0) || !(maximum > low))
        return -1.0;

    const auto g = [&](double f) { return Residual(centre, first, second, fitPoint, f); };
    const auto accept = [&](double f) {
        return FitPointBetween(centre, first, second, fitPoint, f) ? f : -1.0;
    };
    // From the long end down: the first bracket whose root keeps the fit
    // point between the ends.
    const double step = std::log(maximum / low) / (kSamples - 1);
    double hi = maximum;
    double gHi = g(hi);
    for (int k = kSamples - 2; k >= 0; --k) {
        const double lo = k == 0 ? low : low * std::exp(step * k);
        const double gLo = g(lo);
        if (std::isnan(gLo) || std::isnan(gHi))
            break;
        if ((gLo < 0.0) != (gHi < 0.0) || gLo == 0.0) {
            double a = lo, b = hi, ga = gLo;
            while (ga != 0.0 && b - a > 1e-7 * b) {
                const double m = 0.5 * (a + b);
                const double gm = g(m);
                if ((gm < 0.0) == (ga < 0.0) && gm != 0.0) {
                    a = m;
                    ga = gm;
                } else {
                    b = m;
                }
            }
            const double root = accept(ga == 0.0 ? a : 0.5 * (a + b));
            if (root > 0.0)
                return root;
        }
        hi = lo;
        gHi = gLo;
    }
    return -1.0;
}

}  // namespace Project
