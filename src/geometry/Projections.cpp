#include "geometry/Projections.h"

#include <cmath>
#include <cstddef>
#include <utility>

namespace Project {

namespace {

constexpr double kSqrt2 = 1.4142135623730951;
constexpr double kHalfPi = 1.5707963267948966;
// The latitude and longitude bound of the perspective and profile models.
constexpr double kVisibleBound = 1.57;

bool withinVisibleBound(float angle) {
    return std::fabs(static_cast<double>(angle)) < kVisibleBound;
}

// The direction whose unit vector points along (X, Y, Z), Z > -1.
SphereDirection directionOf(double X, double Y, double Z) {
    SphereDirection d;
    d.lambda = static_cast<float>(std::atan2(X, Z));
    d.phi = static_cast<float>(std::atan2(Y, std::hypot(X, Z)));
    return d;
}

bool finite(ImagePoint p) {
    return std::isfinite(p.x) && std::isfinite(p.y);
}

}  // namespace

namespace detail {

std::array<float, 3> sampleBilinear(const SourceRaster& raster, ImagePoint p) {
    std::array<float, 3> out{0.0f, 0.0f, 0.0f};
    const float fx = static_cast<float>(raster.halfWidth) + p.x;
    const float fy = static_cast<float>(raster.halfHeight) + p.y;
    // A point that truncates off the raster (or is not a number) has no pixel;
    // the comparison form also rejects NaN.
    if (!(fx > -1.0f && fx < static_cast<float>(raster.width) && fy > -1.0f &&
          fy < static_cast<float>(raster.height)))
        return out;
    const int32_t c = static_cast<int32_t>(fx);
    const int32_t r = static_cast<int32_t>(fy);
    const size_t rowBytes = static_cast<size_t>(raster.width) * 3;
    if (raster.pixels.size() < rowBytes * static_cast<size_t>(raster.height))
        return out;

    const bool lastColumn = c == raster.width - 1;
    const bool lastRow = r == raster.height - 1;
    const float a = lastColumn ? 0.0f : fx - static_cast<float>(c);
    const float b = lastRow ? 0.0f : fy - static_cast<float>(r);

    const uint8_t* p00 =
        raster.pixels.data() + static_cast<size_t>(r) * rowBytes + static_cast<size_t>(c) * 3;
    const uint8_t* p10 = p00 + 3;         // (c + 1, r)
    const uint8_t* p01 = p00 + rowBytes;  // (c, r + 1)
    const uint8_t* p11 = p01 + 3;         // (c + 1, r + 1)
    const float w00 = (1.0f - a) * (1.0f - b);
    const float w10 = a * (1.0f - b);
    const float w11 = a * b;
    const float w01 = (1.0f - a) * b;
    for (int ch = 0; ch < 3; ++ch) {
        float v = w00 * static_cast<float>(p00[ch]);
        if (!lastColumn)
            v += w10 * static_cast<float>(p10[ch]);
        if (!lastColumn && !lastRow)
            v += w11 * static_cast<float>(p11[ch]);
        if (!lastRow)
            v += w01 * static_cast<float>(p01[ch]);
        out[static_cast<size_t>(ch)] = v;
    }
    return out;
}

bool rasterContains(const SourceRaster& raster, ImagePoint p) {
    const float fx = static_cast<float>(raster.halfWidth) + p.x;
    const float fy = static_cast<float>(raster.halfHeight) + p.y;
    // trunc(v) in [0, n) is v in (-1, n); NaN fails both comparisons.
    return fx > -1.0f && fx < static_cast<float>(raster.width) && fy > -1.0f &&
           fy < static_cast<float>(raster.height);
}

void textureOf(const SourceRaster& raster, ImagePoint p, float& u, float& v) {
    u = p.x / static_cast<float>(raster.width) + 0.5f;
    v = p.y / static_cast<float>(raster.height) + 0.5f;
}

bool invertOddPolynomial(double thetaD, double k1, double k2, double thetaMax, double& theta) {
    if (!(thetaD >= 0.0) || !std::isfinite(thetaD))
        return false;
    theta = thetaD;
    if (theta >= thetaMax)
        theta = 0.5 * thetaMax;
    for (int i = 0; i < 50; ++i) {
        const double t2 = theta * theta;
        const double g = theta * (1.0 + t2 * (k1 + t2 * k2)) - thetaD;
        const double dg = 1.0 + t2 * (3.0 * k1 + 5.0 * k2 * t2);
        if (!(dg > 0.0))
            return false;  // past the fold: no unique ray
        double next = theta - g / dg;
        if (next < 0.0)
            next = 0.5 * theta;
        if (next >= thetaMax)
            next = 0.5 * (theta + thetaMax);
        const bool done = std::fabs(next - theta) <= 1e-14 * (1.0 + theta);
        theta = next;
        if (done) {
            const double t2n = theta * theta;
            return std::fabs(theta * (1.0 + t2n * (k1 + t2n * k2)) - thetaD) <=
                       1e-9 * (1.0 + thetaD) &&
                   1.0 + t2n * (3.0 * k1 + 5.0 * k2 * t2n) > 0.0 && theta < thetaMax;
        }
    }
    return false;
}

}  // namespace detail

// ---------------------------------------------------------------- FisheyeImage

FisheyeImage::FisheyeImage(std::shared_ptr<const SourceRaster> raster, float f, float px, float py)
    : PhotoToSphere(std::move(raster)),
      f_(f),
      rMax_(static_cast<float>(static_cast<double>(f) * kSqrt2)),
      px_(px),
      py_(py) {}

ImagePoint FisheyeImage::ToImagePoint(float lambda, float phi) const {
    // r = 2 f sin(theta / 2) along (X, Y) / |(X, Y)|, and |(X, Y)| = sin(theta),
    // so the scale is f / cos(theta / 2) = f sqrt(2 / (1 + Z)): the same
    // mapping without the 0 / 0 on the axis and without acos losing its
    // precision for small theta.
    const float cosPhi = std::cos(phi);
    const float X = std::sin(lambda) * cosPhi;
    const float Y = std::sin(phi);
    const float Z = std::cos(lambda) * cosPhi;
    const float s = f_ * std::sqrt(2.0f / (1.0f + Z));
    return {s * X, s * Y};
}

bool FisheyeImage::IsVisible(float lambda, float phi) const {
    // 2 f sin(theta / 2) < rMax = f sqrt(2) holds exactly when theta < 90
    // degrees, i.e. cos(theta) = cos(lambda) cos(phi) > 0. Comparing the two
    // radii in float lets the rounding of rMax admit a direction at exactly
    // 90 degrees for some focal lengths; the sign of the cosine cannot.
    return f_ > 0.0f && std::cos(lambda) * std::cos(phi) > 0.0f;
}

std::array<float, 3> FisheyeImage::SampleColor(float lambda, float phi) const {
    return detail::sampleBilinear(Raster(), ToImagePoint(lambda, phi));
}

void FisheyeImage::ToTexture(float lambda, float phi, float& u, float& v) const {
    detail::textureOf(Raster(), ToImagePoint(lambda, phi), u, v);
}

bool FisheyeImage::ToSphere(ImagePoint point, SphereDirection& out) const {
    if (!finite(point) || !(f_ > 0.0f))
        return false;
    const double x = point.x;
    const double y = point.y;
    const double r = std::hypot(x, y);
    const double half = r / (2.0 * static_cast<double>(f_));  // sin(theta / 2)
    if (half >= 1.0)
        return false;  // beyond theta = 180 degrees
    if (r == 0.0) {
        out = {};
        return true;
    }
    const double theta = 2.0 * std::asin(half);
    const double sinTheta = std::sin(theta);
    out = directionOf(sinTheta * x / r, sinTheta * y / r, std::cos(theta));
    return true;
}

// ------------------------------------------------------------ PerspectiveImage

PerspectiveImage::PerspectiveImage(std::shared_ptr<const SourceRaster> raster, float f, float px,
                                   float py)
    : PhotoToSphere(std::move(raster)), f_(f) {
    cx_ = px - static_cast<float>(Raster().width) * 0.5f;
    cy_ = static_cast<float>(Raster().height) * 0.5f - py;
}

ImagePoint PerspectiveImage::ToImagePoint(float lambda, float phi) const {
    return {f_ * std::tan(lambda) + cx_, f_ * std::tan(phi) / std::cos(lambda) + cy_};
}

bool PerspectiveImage::IsVisible(float lambda, float phi) const {
    (void)phi;
    return withinVisibleBound(lambda);
}

std::array<float, 3> PerspectiveImage::SampleColor(float lambda, float phi) const {
    return detail::sampleBilinear(Raster(), ToImagePoint(lambda, phi));
}

void PerspectiveImage::ToTexture(float lambda, float phi, float& u, float& v) const {
    detail::textureOf(Raster(), ToImagePoint(lambda, phi), u, v);
}

bool PerspectiveImage::ToSphere(ImagePoint point, SphereDirection& out) const {
    if (!finite(point) || f_ == 0.0f)
        return false;
    const double f = f_;
    // The ray through the pinhole image point, as the vector (a, b, 1).
    const double a = (static_cast<double>(point.x) - cx_) / f;
    const double b = (static_cast<double>(point.y) - cy_) / f;
    out = directionOf(a, b, 1.0);
    return true;
}

// ------------------------------------------------------------ CylindricalImage

CylindricalImage::CylindricalImage(std::shared_ptr<const SourceRaster> raster, float f, float px,
                                   float py)
    : PhotoToSphere(std::move(raster)), f_(f) {
    cx_ = px - static_cast<float>(Raster().width) * 0.5f;
    cy_ = static_cast<float>(Raster().height) * 0.5f - py;
}

ImagePoint CylindricalImage::ToImagePoint(float lambda, float phi) const {
    return {f_ * lambda + cx_, f_ * std::tan(phi) + cy_};
}

bool CylindricalImage::IsVisible(float lambda, float phi) const {
    return detail::rasterContains(Raster(), ToImagePoint(lambda, phi));
}

std::array<float, 3> CylindricalImage::SampleColor(float lambda, float phi) const {
    return detail::sampleBilinear(Raster(), ToImagePoint(lambda, phi));
}

void CylindricalImage::ToTexture(float lambda, float phi, float& u, float& v) const {
    detail::textureOf(Raster(), ToImagePoint(lambda, phi), u, v);
}

bool CylindricalImage::ToSphere(ImagePoint point, SphereDirection& out) const {
    if (!finite(point) || f_ == 0.0f)
        return false;
    const double f = f_;
    out.lambda = static_cast<float>((static_cast<double>(point.x) - cx_) / f);
    out.phi = static_cast<float>(std::atan((static_cast<double>(point.y) - cy_) / f));
    return true;
}

// -------------------------------------------------------------- SphericalImage

SphericalImage::SphericalImage(std::shared_ptr<const SourceRaster> raster, float f, float px,
                               float py)
    : PhotoToSphere(std::move(raster)), f_(f) {
    cx_ = px - static_cast<float>(Raster().width) * 0.5f;
    cy_ = static_cast<float>(Raster().height) * 0.5f - py;
}

ImagePoint SphericalImage::ToImagePoint(float lambda, float phi) const {
    return {f_ * lambda + cx_, f_ * phi + cy_};
}

bool SphericalImage::IsVisible(float lambda, float phi) const {
    return detail::rasterContains(Raster(), ToImagePoint(lambda, phi));
}

std::array<float, 3> SphericalImage::SampleColor(float lambda, float phi) const {
    return detail::sampleBilinear(Raster(), ToImagePoint(lambda, phi));
}

void SphericalImage::ToTexture(float lambda, float phi, float& u, float& v) const {
    detail::textureOf(Raster(), ToImagePoint(lambda, phi), u, v);
}

bool SphericalImage::ToSphere(ImagePoint point, SphereDirection& out) const {
    if (!finite(point) || f_ == 0.0f)
        return false;
    const double f = f_;
    const double phi = (static_cast<double>(point.y) - cy_) / f;
    if (std::fabs(phi) > kHalfPi)
        return false;  // beyond a pole
    out.lambda = static_cast<float>((static_cast<double>(point.x) - cx_) / f);
    out.phi = static_cast<float>(phi);
    return true;
}

// -------------------------------------------------------------- KestrixFisheye

KestrixFisheye::KestrixFisheye(std::shared_ptr<const SourceRaster> raster, float fx, float fy,
                               float k1, float k2, float cx, float cy)
    : PhotoToSphere(std::move(raster)),
      fMean_(std::sqrt(fx * fy)),
      fx_(fx),
      fy_(fy),
      k1_(k1),
      k2_(k2),
      cx_(cx),
      cy_(cy) {}

ImagePoint KestrixFisheye::ToImagePoint(float lambda, float phi) const {
    const float A = fMean_ * std::tan(lambda);
    const float B = fMean_ * std::tan(phi) / std::cos(lambda);
    const float rho = std::sqrt(A * A + B * B);
    if (rho == 0.0f)
        return {cx_, cy_};  // the axis: A / rho and B / rho tend to 0 with theta_d
    const float theta = std::atan2(rho, fMean_);
    const float theta2 = theta * theta;
    const float thetaD = theta + k1_ * theta2 * theta + k2_ * theta2 * theta2 * theta;
    return {thetaD * fx_ * A / rho + cx_, thetaD * fy_ * B / rho + cy_};
}

bool KestrixFisheye::IsVisible(float lambda, float phi) const {
    return withinVisibleBound(lambda) && withinVisibleBound(phi);
}

std::array<float, 3> KestrixFisheye::SampleColor(float lambda, float phi) const {
    return detail::sampleBilinear(Raster(), ToImagePoint(lambda, phi));
}

void KestrixFisheye::ToTexture(float lambda, float phi, float& u, float& v) const {
    detail::textureOf(Raster(), ToImagePoint(lambda, phi), u, v);
}

bool KestrixFisheye::ToSphere(ImagePoint point, SphereDirection& out) const {
    if (!finite(point) || fx_ == 0.0f || fy_ == 0.0f || !(fMean_ > 0.0f))
        return false;
    // (u, v) = theta_d (A, B) / rho: its length is theta_d, its direction (A, B)'s.
    const double u = (static_cast<double>(point.x) - cx_) / fx_;
    const double v = (static_cast<double>(point.y) - cy_) / fy_;
    const double thetaD = std::hypot(u, v);
    if (thetaD == 0.0) {
        out = {};
        return true;
    }
    double theta = 0.0;
    if (!detail::invertOddPolynomial(thetaD, k1_, k2_, kHalfPi, theta))
        return false;
    // The ray (A, B, fMean) with |(A, B)| = fMean tan(theta), i.e. the
    // direction (sin theta * (u, v) / theta_d, cos theta).
    const double s = std::sin(theta) / thetaD;
    out = directionOf(s * u, s * v, std::cos(theta));
    return true;
}

// ---------------------------------------------------------- KestrixPerspective

KestrixPerspective::KestrixPerspective(std::shared_ptr<const SourceRaster> raster, float fx,
                                       float fy, float k1, float k2, float k3, float p1, float p2,
                                       float cx, float cy)
    : PhotoToSphere(std::move(raster)),
      fx_(fx),
      fy_(fy),
      k1_(k1),
      k2_(k2),
      k3_(k3),
      p1_(p1),
      p2_(p2),
      cx_(cx),
      cy_(cy) {}

ImagePoint KestrixPerspective::ToImagePoint(float lambda, float phi) const {
    const float a = std::tan(lambda);
    const float b = std::tan(phi) / std::cos(lambda);
    const float r2 = a * a + b * b;
    const float r4 = r2 * r2;
    const double radial = 1.0 + static_cast<double>(k1_ * r2) + static_cast<double>(k2_ * r4) +
                          static_cast<double>(k3_ * r4 * r2);
    const float tangential = p2_ * a + p1_ * b;
    const float xd = static_cast<float>(a * radial) + 2.0f * a * tangential + p2_ * r2;
    const float yd = static_cast<float>(b * radial) + 2.0f * b * tangential + p1_ * r2;
    return {xd * fx_ - cx_, yd * fy_ - cy_};
}

bool KestrixPerspective::IsVisible(float lambda, float phi) const {
    return withinVisibleBound(lambda) && withinVisibleBound(phi);
}

std::array<float, 3> KestrixPerspective::SampleColor(float lambda, float phi) const {
    return detail::sampleBilinear(Raster(), ToImagePoint(lambda, phi));
}

void KestrixPerspective::ToTexture(float lambda, float phi, float& u, float& v) const {
    detail::textureOf(Raster(), ToImagePoint(lambda, phi), u, v);
}

bool KestrixPerspective::ToSphere(ImagePoint point, SphereDirection& out) const {
    if (!finite(point) || fx_ == 0.0f || fy_ == 0.0f)
        return false;
    const double xd = (static_cast<double>(point.x) + cx_) / fx_;
    const double yd = (static_cast<double>(point.y) + cy_) / fy_;
    const double k1 = k1_, k2 = k2_, k3 = k3_, p1 = p1_, p2 = p2_;

    // Newton's method on (a, b) -> (xd, yd), started at the distorted point.
    // It is accepted only where the Jacobian stays positive, i.e. on the
    // branch that contains the centre: past the fold of a strong barrel
    // distortion two rays share an image point and none is returned.
    double a = xd;
    double b = yd;
    for (int i = 0; i < 50; ++i) {
        const double r2 = a * a + b * b;
        const double radial = 1.0 + r2 * (k1 + r2 * (k2 + r2 * k3));
        const double dRadial = k1 + r2 * (2.0 * k2 + 3.0 * k3 * r2);  // d radial / d r2
        const double tangential = p2 * a + p1 * b;
        const double fx = a * radial + 2.0 * a * tangential + p2 * r2 - xd;
        const double fy = b * radial + 2.0 * b * tangential + p1 * r2 - yd;
        const double jxa =
            radial + 2.0 * a * a * dRadial + 2.0 * tangential + 2.0 * a * p2 + 2.0 * p2 * a;
        const double jxb = 2.0 * a * b * dRadial + 2.0 * a * p1 + 2.0 * p2 * b;
        const double jya = 2.0 * a * b * dRadial + 2.0 * b * p2 + 2.0 * p1 * a;
        const double jyb =
            radial + 2.0 * b * b * dRadial + 2.0 * tangential + 2.0 * b * p1 + 2.0 * p1 * b;
        const double det = jxa * jyb - jxb * jya;
        if (!(det > 0.0) || !(radial > 0.0))
            return false;
        const double da = (fx * jyb - fy * jxb) / det;
        const double db = (fy * jxa - fx * jya) / det;
        a -= da;
        b -= db;
        if (!std::isfinite(a) || !std::isfinite(b))
            return false;
        if (std::fabs(da) + std::fabs(db) <= 1e-13 * (1.0 + std::fabs(a) + std::fabs(b))) {
            const double r2n = a * a + b * b;
            // Radial monotonicity at the solution: d(r radial)/dr > 0.
            const double slope = 1.0 + r2n * (3.0 * k1 + r2n * (5.0 * k2 + 7.0 * k3 * r2n));
            if (!(slope > 0.0))
                return false;
            out = directionOf(a, b, 1.0);
            return true;
        }
    }
    return false;
}

}  // namespace Project
