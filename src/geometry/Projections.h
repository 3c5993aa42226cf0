#pragma once

#include <array>
#include <memory>

#include "geometry/PhotoToSphere.h"

namespace Project {

// The six concrete photo-to-sphere models. Each maps a sphere direction
// (lambda, phi) to an image point, and back. Every per-pixel query
// (SampleColor, IsVisible, ToTexture, ToImagePoint) runs in single precision
// and allocates nothing; ToSphere works in double and is meant for geometry
// (constraints, calibration), not for the per-pixel path.
//
// Sign conventions kept on purpose: the three simple models with an offset
// store cx = px - width / 2 and cy = height / 2 - py and add both; the lens-
// profile fisheye adds its centre offsets, the lens-profile perspective model
// subtracts them.

// Equisolid-angle fisheye r = 2 f sin(theta / 2). Only the front hemisphere
// (theta < 90 degrees, strictly) is visible: rMax = f * sqrt(2).
class FisheyeImage final : public PhotoToSphere {
public:
    // f: focal length in pixels; (px, py): principal point, stored only.
    FisheyeImage(std::shared_ptr<const SourceRaster> raster, float f, float px, float py);

    std::array<float, 3> SampleColor(float lambda, float phi) const override;
    bool IsVisible(float lambda, float phi) const override;
    bool QueryFlag3() const override { return true; }
    void ToTexture(float lambda, float phi, float& u, float& v) const override;
    ImagePoint ToImagePoint(float lambda, float phi) const override;
    bool ToSphere(ImagePoint point, SphereDirection& out) const override;

    float FocalLength() const { return f_; }
    float RadiusLimit() const { return rMax_; }
    // The principal point given to the constructor (the mapping ignores it).
    ImagePoint PrincipalPoint() const { return {px_, py_}; }

private:
    float f_;
    float rMax_;
    float px_;
    float py_;
};

// Rectilinear (pinhole): x = f tan(lambda) + cx, y = f tan(phi) / cos(lambda) + cy.
// Visible when |lambda| < 1.57 whatever the latitude, so visible points may
// lie far outside the raster.
class PerspectiveImage final : public PhotoToSphere {
public:
    PerspectiveImage(std::shared_ptr<const SourceRaster> raster, float f, float px, float py);

    std::array<float, 3> SampleColor(float lambda, float phi) const override;
    bool IsVisible(float lambda, float phi) const override;
    bool QueryFlag3() const override { return true; }
    void ToTexture(float lambda, float phi, float& u, float& v) const override;
    ImagePoint ToImagePoint(float lambda, float phi) const override;
    bool ToSphere(ImagePoint point, SphereDirection& out) const override;

private:
    float f_;
    float cx_;
    float cy_;
};

// Cylindrical panorama around a vertical axis: x = f lambda + cx,
// y = f tan(phi) + cy. Visible where the point falls on the raster.
class CylindricalImage final : public PhotoToSphere {
public:
    CylindricalImage(std::shared_ptr<const SourceRaster> raster, float f, float px, float py);

    std::array<float, 3> SampleColor(float lambda, float phi) const override;
    bool IsVisible(float lambda, float phi) const override;
    bool QueryFlag3() const override { return true; }
    void ToTexture(float lambda, float phi, float& u, float& v) const override;
    bool QueryFlag6() const override { return false; }
    ImagePoint ToImagePoint(float lambda, float phi) const override;
    bool ToSphere(ImagePoint point, SphereDirection& out) const override;

private:
    float f_;
    float cx_;
    float cy_;
};

// Equirectangular: x = f lambda + cx, y = f phi + cy. Visible where the point
// falls on the raster.
class SphericalImage final : public PhotoToSphere {
public:
    SphericalImage(std::shared_ptr<const SourceRaster> raster, float f, float px, float py);

    std::array<float, 3> SampleColor(float lambda, float phi) const override;
    bool IsVisible(float lambda, float phi) const override;
    bool QueryFlag3() const override { return true; }
    void ToTexture(float lambda, float phi, float& u, float& v) const override;
    bool QueryFlag6() const override { return false; }
    ImagePoint ToImagePoint(float lambda, float phi) const override;
    bool ToSphere(ImagePoint point, SphereDirection& out) const override;

private:
    float f_;
    float cx_;
    float cy_;
};

// Fisheye from a lens profile: theta_d = theta + k1 theta^3 + k2 theta^5 lands
// at (theta_d fx A / rho + cx, theta_d fy B / rho + cy), where (A, B) are the
// pinhole coordinates of the ray at the focal length sqrt(fx fy). Visible when
// |lambda| < 1.57 and |phi| < 1.57. The inverse solves the polynomial by
// Newton's method.
class KestrixFisheye final : public PhotoToSphere {
public:
    // fx, fy: focal lengths in pixels; cx, cy: centre offsets in pixels.
    KestrixFisheye(std::shared_ptr<const SourceRaster> raster, float fx, float fy, float k1,
                   float k2, float cx, float cy);

    std::array<float, 3> SampleColor(float lambda, float phi) const override;
    bool IsVisible(float lambda, float phi) const override;
    bool QueryFlag3() const override { return true; }
    void ToTexture(float lambda, float phi, float& u, float& v) const override;
    ImagePoint ToImagePoint(float lambda, float phi) const override;
    bool ToSphere(ImagePoint point, SphereDirection& out) const override;

private:
    float fMean_;
    float fx_;
    float fy_;
    float k1_;
    float k2_;
    float cx_;
    float cy_;
};

// Rectilinear with Brown-Conrady distortion from a lens profile: pinhole
// coordinates a = tan(lambda), b = tan(phi) / cos(lambda) are distorted
// (radial k1, k2, k3; tangential p1, p2) and land at (xd fx - cx, yd fy - cy).
// Visible when |lambda| < 1.57 and |phi| < 1.57. The inverse solves the
// distortion by two-dimensional Newton iteration and fails beyond the radius
// where the distortion folds back.
class KestrixPerspective final : public PhotoToSphere {
public:
    KestrixPerspective(std::shared_ptr<const SourceRaster> raster, float fx, float fy, float k1,
                       float k2, float k3, float p1, float p2, float cx, float cy);

    std::array<float, 3> SampleColor(float lambda, float phi) const override;
    bool IsVisible(float lambda, float phi) const override;
    bool QueryFlag3() const override { return true; }
    void ToTexture(float lambda, float phi, float& u, float& v) const override;
    bool QueryFlag5() const override { return false; }
    ImagePoint ToImagePoint(float lambda, float phi) const override;
    bool ToSphere(ImagePoint point, SphereDirection& out) const override;

private:
    float fx_;
    float fy_;
    float k1_;
    float k2_;
    float k3_;
    float p1_;
    float p2_;
    float cx_;
    float cy_;
};

namespace detail {

// Bilinear sample of the raster at an image point: the pixel (c, r) =
// (trunc(halfWidth + x), trunc(halfHeight + y)) and its right and lower
// neighbours, skipping the neighbours past the last column or row. There is
// no clamping at the left and top edges (a fraction may be negative there).
// A point whose pixel lies off the raster, or a raster whose pixels are not
// filled, gives black rather than an out-of-bounds read.
std::array<float, 3> sampleBilinear(const SourceRaster& raster, ImagePoint p);

// trunc(halfWidth + x) in [0, width) and trunc(halfHeight + y) in [0, height).
bool rasterContains(const SourceRaster& raster, ImagePoint p);

// (x / width + 0.5, y / height + 0.5).
void textureOf(const SourceRaster& raster, ImagePoint p, float& u, float& v);

// Smallest theta in [0, thetaMax) with theta + k1 theta^3 + k2 theta^5 = thetaD
// on the rising branch of the polynomial, by Newton's method (at most 50
// steps). False when there is none or the iteration does not converge.
bool invertOddPolynomial(double thetaD, double k1, double k2, double thetaMax, double& theta);

}  // namespace detail

}  // namespace Project
