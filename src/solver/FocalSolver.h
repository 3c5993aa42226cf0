#pragma once

#include <array>

namespace Project {

// A point in source pixels (double).
struct CalibrationPoint {
    double x = 0.0;
    double y = 0.0;
};

// Focal-length calibration from one drawn line: the user places the line's
// two endpoints on a straight edge of the scene and a third point (the fit
// point, dragged from the line's middle handle) on the same edge. A straight
// edge lies on a great circle of the view sphere, so the focal length sought
// is the one for which the three points' sphere directions are coplanar with
// the centre of the sphere.
//
// Points are source pixels; the centre is the image centre in source pixels.
// Focal lengths are in pixels.
//
// Method: the residual g(f) = det[d1 d2 d3] of the three unit directions
// under the lens model at focal length f. g is sampled at kSamples focal
// lengths spaced evenly in log f over [minimum, maximum] (the lower end
// raised to where the model still reaches every point), the first sign
// change met from the long end whose root puts the fit point between the
// two ends on the arc is refined by bisection to a relative width of 1e-7.
// (Three points of a strongly bent edge can lie on a great circle at two
// focal lengths; at the wrong one the circle runs through them in another
// order.)
//
// Solve reports -1 when
//  - the three points are collinear in the image (the fit point within half a
//    pixel, or a thousandth of the chord's length, of the chord's line) or the
//    chord is shorter than a pixel: such points hold no focal information
//    (any radial model keeps a straight image line through the centre
//    straight, and a point on the chord of a curved edge lies off it);
//  - no sign change of g exists in the range (the points are not on one
//    great circle for any focal length there).
class FocalSolver {
public:
    static constexpr int kSamples = 240;

    virtual ~FocalSolver() = default;

    double Solve(CalibrationPoint centre, CalibrationPoint first, CalibrationPoint second,
                 CalibrationPoint fitPoint, double minimum, double maximum) const;

    // The model's polar angle (radians from the optical axis) of a point at
    // `radius` pixels from the centre under focal length f; false where the
    // model does not reach.
    virtual bool PolarAngle(double radius, double f, double& theta) const;
    // The shortest focal length for which the model reaches `radius`.
    virtual double ShortestFocal(double radius) const;

    // The residual g(f) (see above); NaN where a point is out of reach.
    double Residual(CalibrationPoint centre, CalibrationPoint first, CalibrationPoint second,
                    CalibrationPoint fitPoint, double f) const;
    // At focal length f the fit point's direction lies on the shorter arc
    // between the ends' directions (a root where it does not is a great
    // circle through the three points the wrong way round).
    bool FitPointBetween(CalibrationPoint centre, CalibrationPoint first, CalibrationPoint second,
                         CalibrationPoint fitPoint, double f) const;

private:
    bool Rays(CalibrationPoint centre, const std::array<CalibrationPoint, 3>& points, double f,
              std::array<std::array<double, 3>, 3>& rays) const;
};

// The equisolid fisheye of the Fisheye model: r = 2 f sin(theta / 2), seen
// over the front hemisphere only (r < f sqrt(2)), as the model shows it.
// FocalSolver itself is that model; this name says so where it is chosen.
using FisheyeFocalSolver = FocalSolver;

// The rectilinear model of the Perspective projection: r = f tan(theta).
//
// A rectilinear lens maps every straight edge of the scene onto a straight
// image line whatever its focal length: g(f) is f times twice the signed
// area of the image triangle over the norms of the three rays, so it never
// changes sign for f > 0 and is zero for every f when the points are
// collinear. One line therefore cannot calibrate a rectilinear photograph:
// Solve reports -1 for every input, and the editor shows the calibration
// alert. The class exists so that the editor hands the Perspective model's
// geometry to the same search rather than the fisheye's, which would find
// a spurious focal length for points that are merely slightly misplaced.
class PerspectiveFocalSolver final : public FocalSolver {
public:
    bool PolarAngle(double radius, double f, double& theta) const override;
    double ShortestFocal(double radius) const override;
};

}  // namespace Project
