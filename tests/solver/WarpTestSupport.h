#pragma once

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <memory>
#include <optional>
#include <vector>

#include "constraints/GeodesicLines.h"
#include "geometry/Projections.h"
#include "solver/LineSolve.h"
#include "warp/MeshLocator.h"

namespace Project::test {

// An equisolid fisheye photo of width x height pixels with focal length f (px).
inline std::shared_ptr<const PhotoToSphere> Fisheye(int32_t width, int32_t height, float f) {
    auto raster = std::make_shared<SourceRaster>(width, height);
    return std::make_shared<FisheyeImage>(raster, f, width * 0.5f, height * 0.5f);
}

// A solved line solve with the solver's defaults (stereographic, eight
// iterations, every latitude and longitude) over the mesh of `lines`, or
// without lines over a new mesh of `level`.
inline std::shared_ptr<LineSolve> SolveLines(const std::shared_ptr<const PhotoToSphere>& photo,
                                             const std::shared_ptr<const GeodesicLines>& lines,
                                             int32_t level = 0) {
    auto mesh = lines ? lines->Locator().MeshRef() : std::make_shared<const OctaMap>(level, false);
    auto solver = std::make_shared<LineSolve>(
        mesh, photo, lines, 0.001f, 8, false, RegularizerModel::Stereographic, 1, true, false,
        AngleRange{-1.6f, 1.6f}, AngleRange{-3.2f, 3.2f}, 10.0, 1.0, 3.0);
    solver->Solve();
    return solver;
}

// The photo direction of a point of the camera frame (x right, y down, z forward).
inline SphereDirection DirectionOf(const Eigen::Vector3d& p) {
    return {static_cast<float>(std::atan2(p.x(), p.z())),
            static_cast<float>(std::asin(p.y() / p.norm()))};
}

// The source pixel (from the top-left corner) where a camera-frame point lands.
inline PointF SourcePixelOf(const PhotoToSphere& photo, const Eigen::Vector3d& p) {
    const SphereDirection d = DirectionOf(p);
    const ImagePoint ip = photo.ToImagePoint(d.lambda, d.phi);
    return {ip.x + static_cast<float>(photo.Raster().halfWidth),
            ip.y + static_cast<float>(photo.Raster().halfHeight)};
}

// The output position of a sphere direction under the solved warp.
inline std::optional<Eigen::Vector2d> OutputOf(const LineSolve& warp, const MeshLocator& locator,
                                               SphereDirection d) {
    const auto quad = locator.Locate(d);
    double x, y;
    if (!quad || !warp.SamplePosition(*quad, x, y))
        return std::nullopt;
    return Eigen::Vector2d(x, y);
}

// Output position of a source pixel.
inline std::optional<Eigen::Vector2d> OutputOfPixel(const LineSolve& warp,
                                                    const MeshLocator& locator,
                                                    const PhotoToSphere& photo, double px,
                                                    double py) {
    SphereDirection d;
    const ImagePoint ip{static_cast<float>(px - photo.Raster().halfWidth),
                        static_cast<float>(py - photo.Raster().halfHeight)};
    if (!photo.ToSphere(ip, d))
        return std::nullopt;
    return OutputOf(warp, locator, d);
}

// Pixels per output unit when the photo's frame, taken through the warp, is
// fitted into a nominal width x height output.
inline double NominalScale(const LineSolve& warp, const MeshLocator& locator,
                           const PhotoToSphere& photo, double width, double height) {
    Eigen::Vector2d lo(1e300, 1e300), hi(-1e300, -1e300);
    const int32_t w = photo.Raster().width, h = photo.Raster().height;
    for (int k = 0; k <= 100; ++k) {
        const double t = k / 100.0;
        for (const auto& [px, py] :
             {std::pair{t * (w - 1), 0.0}, std::pair{t * (w - 1), h - 1.0},
              std::pair{0.0, t * (h - 1)}, std::pair{w - 1.0, t * (h - 1)}}) {
            if (const auto o = OutputOfPixel(warp, locator, photo, px, py)) {
                lo = lo.cwiseMin(*o);
                hi = hi.cwiseMax(*o);
            }
        }
    }
    const Eigen::Vector2d extent = hi - lo;
    return std::min(width / extent.x(), height / extent.y());
}

// Output positions of count + 1 evenly spaced points of a camera-frame
// segment (those the warp covers).
inline std::vector<Eigen::Vector2d> MapSegment(const LineSolve& warp, const MeshLocator& locator,
                                               const Eigen::Vector3d& a, const Eigen::Vector3d& b,
                                               int count = 200) {
    std::vector<Eigen::Vector2d> out;
    for (int k = 0; k <= count; ++k)
        if (const auto o = OutputOf(warp, locator, DirectionOf(a + (b - a) * (double(k) / count))))
            out.push_back(*o);
    return out;
}

// How straight a polyline is: the largest distance of a point from the
// least-squares line, and that line's direction (unit).
struct LineFit {
    double maxDeviation = 0.0;
    Eigen::Vector2d direction = Eigen::Vector2d::UnitX();
};

inline LineFit FitLine(const std::vector<Eigen::Vector2d>& points) {
    Eigen::Vector2d mean = Eigen::Vector2d::Zero();
    for (const auto& p : points)
        mean += p;
    mean /= static_cast<double>(points.size());
    Eigen::Matrix2d scatter = Eigen::Matrix2d::Zero();
    for (const auto& p : points)
        scatter += (p - mean) * (p - mean).transpose();
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix2d> eig(scatter);
    LineFit fit;
    fit.direction = eig.eigenvectors().col(1);
    const Eigen::Vector2d normal = eig.eigenvectors().col(0);
    for (const auto& p : points)
        fit.maxDeviation = std::max(fit.maxDeviation, std::abs((p - mean).dot(normal)));
    return fit;
}

// Degrees between a direction and the output's vertical axis.
inline double DegreesFromVertical(const Eigen::Vector2d& direction) {
    return std::atan2(std::abs(direction.x()), std::abs(direction.y())) * 180.0 / 3.14159265358979;
}

}  // namespace Project::test
