#include "geometry/ProjectionFactory.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "geometry/Projections.h"

namespace Project {

namespace {

constexpr float kPi = 3.1415927f;

std::shared_ptr<PhotoToSphere> makePanorama(std::shared_ptr<const SourceRaster> raster,
                                            const CameraMetadata& metadata) {
    const float f = metadata.virtualFocalLength;
    switch (metadata.transformation) {
        case PanoramaTransformation::Cylindrical:
            return std::make_shared<CylindricalImage>(
                std::move(raster), f, static_cast<float>(metadata.imageWidth) * 0.5f,
                metadata.virtualCenterY);
        case PanoramaTransformation::Spherical:
            return std::make_shared<SphericalImage>(std::move(raster), f, metadata.virtualCenterX,
                                                    metadata.virtualCenterY);
        case PanoramaTransformation::Perspective:
            return std::make_shared<PerspectiveImage>(std::move(raster), f, metadata.virtualCenterX,
                                                      metadata.virtualCenterY);
        case PanoramaTransformation::Other:
            break;
    }
    return nullptr;
}

std::shared_ptr<PhotoToSphere> makeFromProfile(std::shared_ptr<const SourceRaster> raster,
                                               const LensProfile& p, float ratio) {
    const float S = static_cast<float>(std::max(raster->width, raster->height));
    const float fx = S * ratio * p.focalLengthX;
    const float fy = S * ratio * p.focalLengthY;
    const float cx = (p.imageXCenter - 0.5f) * S;
    const float cy = (0.5f - p.imageYCenter) * S;
    switch (p.cameraModel) {
        case LensCameraModel::Fisheye:
            return std::make_shared<KestrixFisheye>(std::move(raster), fx, fy, p.k1, p.k2, cx, cy);
        case LensCameraModel::RadialDistortion:
            return std::make_shared<KestrixPerspective>(std::move(raster), fx, fy, p.k1, p.k2, p.k3,
                                                        p.p1, p.p2, cx, cy);
        case LensCameraModel::None:
            break;
    }
    return nullptr;
}

}  // namespace

std::shared_ptr<PhotoToSphere> makeProjection(ProjectionModel model, float focalLengthPixels,
                                              std::shared_ptr<const SourceRaster> raster,
                                              const CameraMetadata& metadata,
                                              const std::optional<LensProfile>& profile,
                                              float focalScaleRatio) {
    if (!raster)
        return nullptr;
    const float halfW = static_cast<float>(raster->width) * 0.5f;
    const float halfH = static_cast<float>(raster->height) * 0.5f;
    switch (model) {
        case ProjectionModel::Fisheye:
            return std::make_shared<FisheyeImage>(std::move(raster), focalLengthPixels, halfW,
                                                  halfH);
        case ProjectionModel::Perspective:
            return std::make_shared<PerspectiveImage>(std::move(raster), focalLengthPixels, halfW,
                                                      halfH);
        case ProjectionModel::FullSpherical: {
            const float f = static_cast<float>(raster->height) / kPi;
            return std::make_shared<SphericalImage>(std::move(raster), f, halfW, halfH);
        }
        case ProjectionModel::Auto:
            if (metadata.isPanorama)
                return makePanorama(std::move(raster), metadata);
            if (profile && profile->found)
                return makeFromProfile(std::move(raster), *profile, focalScaleRatio);
            return nullptr;
        default:
            return nullptr;
    }
}

std::shared_ptr<PhotoToSphere> makeProjection(ProjectionModel model, float focalLengthPixels,
                                              int32_t width, int32_t height,
                                              const CameraMetadata& metadata,
                                              const std::optional<LensProfile>& profile,
                                              float focalScaleRatio) {
    return makeProjection(model, focalLengthPixels,
                          std::make_shared<const SourceRaster>(width, height), metadata, profile,
                          focalScaleRatio);
}

bool isFullSphericalAspect(int32_t width, int32_t height) {
    if (width <= 0)
        return false;
    const double w = width;
    const double h = height;
    return !(std::fabs(w - 2.0 * h) / w > 0.001);
}

ProjectionModel modelForFocalLength(float focalMm, ProjectionModel current,
                                    ProjectionModel fallback) {
    const double f = focalMm;
    if (std::fabs(f) < 0.01)
        return fallback;
    if (f - 16.0 > 0.01)
        return ProjectionModel::Perspective;
    if (f > 0.01 && 16.0 - f > 0.01)
        return ProjectionModel::Fisheye;
    return current;
}

}  // namespace Project
