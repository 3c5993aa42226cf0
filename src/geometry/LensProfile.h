#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "geometry/CameraMetadata.h"

namespace Project {

// The class of a lens profile's camera model. A tangential-distortion model
// counts as RadialDistortion (it carries p1, p2 beside the radial terms).
enum class LensCameraModel : uint32_t { None = 0, Fisheye = 1, RadialDistortion = 2 };

// One lens profile, reduced to what the two profile projections need
// (KestrixFisheye for Fisheye, KestrixPerspective for RadialDistortion).
//
// Normalisation: the focal lengths are the focal length in pixels divided by
// the larger image side S of the camera the profile was measured on; the
// centres are 0.5 plus an offset divided by S (0.5, 0.5: centred). A
// projection multiplies the focal lengths by S and by the focal scale ratio
// below, and takes the centre offsets cx = (imageXCenter - 0.5) S and
// cy = (0.5 - imageYCenter) S, which the fisheye model adds to its image
// points and the radial model subtracts from them.
//
// Fisheye model: a ray at angle theta from the axis lands at radius
// fx * theta_d (x) and fy * theta_d (y) with theta_d = theta + k1 theta^3 + k2 theta^5.
// Radial model (Brown-Conrady): pinhole coordinates (a, b) of the ray land at
// fx * xd, fy * yd with xd = a (1 + k1 r^2 + k2 r^4 + k3 r^6) + 2a(p2 a + p1 b) + p2 r^2
// and yd likewise with p1.
struct LensProfile {
    bool found = false;
    LensCameraModel cameraModel = LensCameraModel::None;

    float focalLengthX = 0.0f;  // focal length / S
    float focalLengthY = 0.0f;  // focal length / S
    float imageXCenter = 0.5f;  // 0.5 + principal-point offset / S
    float imageYCenter = 0.5f;  // 0.5 + principal-point offset / S

    float k1 = 0.0f;  // fisheye: theta^3 term; radial: r^2 term
    float k2 = 0.0f;  // fisheye: theta^5 term; radial: r^4 term
    float k3 = 0.0f;  // radial only: r^6 term
    float p1 = 0.0f;  // radial only: tangential terms
    float p2 = 0.0f;

    // Crop factor of the camera the profile was measured on; 0 when unknown.
    float sensorFormatFactor = 0.0f;

    // The two checks of the profile selection that allow the focal lengths
    // to be rescaled for the photo's camera (see focalScaleRatio):
    // the profile was measured on another camera body than the photo's ...
    bool matchedOtherCamera = false;
    // ... or on a sensor format other than the photo's.
    bool matchedOtherSensorFormat = false;

    // Human-readable name of the matched lens and its model, for logs.
    std::string description;
};

// The ratio that multiplies a profile's focal lengths (not its centres) for a
// photo whose crop factor is cameraCropFactor: cameraCropFactor /
// sensorFormatFactor when either check of the selection holds, both factors
// are positive and they differ by more than 0.01; 1.0 in every other case.
float focalScaleRatio(float cameraCropFactor, const LensProfile& profile);

// Message keys a lookup reports. The caller shows them only when warnings
// are on.
inline constexpr std::string_view kNoMatchedProfileKey =
    "$$$/Curvana/LensProfileWarning/NoMatchedProfile=No matching lens profile found.";

struct LensProfileLookupResult {
    std::optional<LensProfile> profile;  // set (and found) on success
    std::string messageKey;              // empty on success, else a key above
};

// Finds the lens profile for a photo. A lookup without a match returns no
// profile and the key kNoMatchedProfileKey ("$$$/Curvana/LensProfileWarning/
// NoMatchedProfile=No matching lens profile found.") for the caller to show
// when warnings are on. Implementations are safe to call from several threads.
class LensProfileLookup {
public:
    virtual ~LensProfileLookup() = default;
    // metadata: the photo's camera record (make, model, lens, focal length
    // and crop factor are the keys); width, height: the photo's pixel size.
    virtual LensProfileLookupResult Find(const CameraMetadata& metadata, uint32_t width,
                                         uint32_t height) const = 0;
};

// The lookup over lensfun's system database (loaded once per process, on the
// first call; a database that cannot be loaded makes every Find fail with
// kNoMatchedProfileKey). Matches the camera by make and model and the lens by
// its name (a camera with a fixed lens needs no lens name), prefers a lens
// whose focal range holds the photo's focal length, and interpolates the
// calibration there with the photo's crop factor (else the camera's from the
// database). A lens needs a distortion calibration to count as a match.
// Fisheye lenses (equidistant, equisolid, orthographic, stereographic, Thoby;
// also a lens stored as rectilinear whose name says fisheye) give a Fisheye
// profile, rectilinear lenses a RadialDistortion one; lensfun's poly3, poly5
// and ptlens distortion are converted by a fit over the photo's field (see
// LensfunLookup.cpp): poly3 and poly5 convert within a fraction of a pixel,
// ptlens fisheyes keep a residual of a few pixels at 6000 pixels (their even
// powers have no counterpart in the fisheye form).
std::shared_ptr<const LensProfileLookup> lensfunProfileLookup();

}  // namespace Project
