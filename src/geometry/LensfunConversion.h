#pragma once

#include <cstdint>
#include <optional>

#include "geometry/LensProfile.h"

// lensfun's records (lensfun.h); only the lookup and its tests see them.
struct lfLens;
struct lfDatabase;

namespace Project::detail {

// Loads the installed lensfun database (or a newer update of it) and the
// user's additions into db, as lensfun's own Load() would, without its leak.
// False when nothing could be loaded.
bool loadLensfunDatabase(lfDatabase& db);

// How lensfun places a ray on the photo, reduced to one radial function:
// a ray at angle theta from the axis lands at pixel distance radius(theta)
// from the distortion centre (centreX, centreY), an image point in pixels.
//
// lensfun's chain: the lens type's projection gives the undistorted radius
// rho_u = dist * g(theta) in its normalised units (g = tan for rectilinear,
// theta for the equidistant fisheye, 2 sin(theta / 2) equisolid, sin
// orthographic, 2 tan(theta / 2) stereographic, 1.47 sin(0.713 theta) Thoby);
// the distortion model gives rho_d = rho_u * D(rho_u) (poly3, poly5, ptlens);
// pixels are rho_d * pixelsPerUnit.
struct LensfunRadialModel {
    int lensType = 0;             // lfLensType after the fisheye-name correction
    int distortionModel = 0;      // lfDistortionModel
    double terms[3] = {0, 0, 0};  // the model's coefficients at the focal length
    double dist = 0.0;            // focal length in normalised units
    double pixelsPerUnit = 0.0;   // pixels per normalised unit (lensfun's NormUnScale)
    double centreX = 0.0;         // image point of the distortion centre
    double centreY = 0.0;

    bool isFisheye() const;
    // Pixel distance from the centre of a ray at theta radians from the axis.
    double radius(double theta) const;
};

// The lens type to trust: lensfun's own, except that a lens stored as
// rectilinear (or unknown) whose name says it is a fisheye is taken as an
// equidistant fisheye (some database entries have their type commented out).
int effectiveLensType(const lfLens& lens);

// lensfun's radial model for a lens at a focal length on a photo of
// width x height pixels taken with a camera of crop factor cameraCrop.
// Empty when the lens has no distortion calibration or an unusable type.
std::optional<LensfunRadialModel> lensfunRadialModel(const lfLens& lens, float focalMm,
                                                     float cameraCrop, uint32_t width,
                                                     uint32_t height);

// Converts the radial model into a profile by a least-squares fit (see the
// implementation). metadataCrop is the crop factor the caller will feed to
// focalScaleRatio (the photo's CameraMetadata::cropFactor()); the focal
// lengths are normalised so that the projection built from the profile and
// that ratio reproduces the fitted focal length in pixels.
std::optional<LensProfile> profileFromRadialModel(const LensfunRadialModel& model, float lensCrop,
                                                  float cameraCrop, float metadataCrop,
                                                  uint32_t width, uint32_t height);

}  // namespace Project::detail
