#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "core/Models.h"
#include "geometry/CameraMetadata.h"
#include "geometry/LensProfile.h"
#include "geometry/PhotoToSphere.h"

namespace Project {

// Builds the projection object for a model, from explicit inputs (the caller
// reads them from its settings):
//   model                 the projection model;
//   focalLengthPixels     the session's focal length (Fisheye, Perspective);
//   raster                the source rectangle's raster (width, height; its
//                         pixels may be filled later by the caller);
//   metadata              the photo's camera record (panorama profile);
//   profile               the lens profile found for the photo, if any;
//   focalScaleRatio       focalScaleRatio(metadata.cropFactor(), *profile),
//                         held by the session beside the profile.
// Model table:
//   Fisheye (FisheyeImage), Perspective (PerspectiveImage): f =
//     focalLengthPixels, principal point at the raster centre;
//   FullSpherical (SphericalImage): f = height / pi, principal point at the
//     raster centre;
//   Auto with metadata.isPanorama: by the transformation (Cylindrical,
//     Spherical, Perspective) with f = the virtual focal length; principal
//     point (full image width / 2, virtual centre y) for Cylindrical, (virtual
//     centre x, virtual centre y) otherwise;
//   Auto without: KestrixFisheye for a fisheye profile, KestrixPerspective for a
//     radial one, with S = max(width, height), fx = S R FocalLengthX,
//     fy = S R FocalLengthY, cx = (ImageXCenter - 0.5) S, cy = (0.5 -
//     ImageYCenter) S.
// Returns null when nothing is built (None or an unknown value, or Auto
// without panorama metadata and without a usable profile).
std::shared_ptr<PhotoToSphere> makeProjection(ProjectionModel model, float focalLengthPixels,
                                              std::shared_ptr<const SourceRaster> raster,
                                              const CameraMetadata& metadata,
                                              const std::optional<LensProfile>& profile,
                                              float focalScaleRatio);

// The same over a fresh raster of width x height whose pixels are left empty.
std::shared_ptr<PhotoToSphere> makeProjection(ProjectionModel model, float focalLengthPixels,
                                              int32_t width, int32_t height,
                                              const CameraMetadata& metadata,
                                              const std::optional<LensProfile>& profile,
                                              float focalScaleRatio);

// --- Pure helpers of the projection-model decision.
// Used by the session's chooseProjection (and through it by the editor's
// projection popup, its Default and the constraint-file load).

// Full Spherical needs a 2:1 picture: false when |width - 2 height| / width
// exceeds 0.001 (or width is not positive). The caller then falls back to
// its previous model and, when warnings are on, shows
// kInvalidFullSphericalRatioKey.
bool isFullSphericalAspect(int32_t width, int32_t height);

inline constexpr std::string_view kInvalidFullSphericalRatioKey =
    "$$$/Curvana/Warning/InvalidFullSphericalRatio=The aspect ratio is not 1:2, which is invalid "
    "for Full Spherical.";

// The 16 mm rule that picks Fisheye or Perspective from a focal length in
// millimetres: |f| < 0.01 gives fallback; f - 16 > 0.01 gives Perspective;
// f > 0.01 and 16 - f > 0.01 gives Fisheye; f within 0.01 of 16 gives current.
// The caller picks the value that decides: the session's chooseProjection
// passes the photo's own focal length for a fresh invocation and its 35
// mm-equivalent focal length (CameraMetadata::equivalentFocalLength()) when
// the editor restores the defaults.
ProjectionModel modelForFocalLength(float focalMm, ProjectionModel current,
                                    ProjectionModel fallback);

}  // namespace Project
