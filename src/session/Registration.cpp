#include "session/Registration.h"

#include <array>

#include "curvana/CurvanaScripting.h"

#ifndef CURVANA_VERSION
#error "CURVANA_VERSION must name the module's version"
#endif

namespace Project {

namespace {

constexpr int32_t kLargestSide = 2000000;

// Only these keys belong to the terminology: the scale, the offsets and the
// action version are carried but not offered to scripting by name.
constexpr std::array<CvTerm, 6> kKeys = {{
    {cvKeyConstraintData, cvTypeRawData, "Constraint Data"},
    {cvKeyProjectionModel, cvTypeEnumerated, "Projection Model"},
    {cvKeyRegularizerModel, cvTypeEnumerated, "Regularizer Model"},
    {cvKeyFocalLength, cvTypeFloat, "Focal Length"},
    {cvKeyPhysicalFocalLength, cvTypeFloat, "Physical Focal Length"},
    {cvKeyCropFactor, cvTypeFloat, "Crop Factor"},
}};

constexpr std::array<CvTerm, 9> kEnumerators = {{
    {cvProjectionFisheye, cvKeyProjectionModel, "Fisheye"},
    {cvProjectionPerspective, cvKeyProjectionModel, "Perspective"},
    {cvProjectionPanorama, cvKeyProjectionModel, "Panorama"},
    {cvProjectionFullSpherical, cvKeyProjectionModel, "Full Spherical"},
    {cvProjectionAuto, cvKeyProjectionModel, "Auto"},
    {cvRegularizerStereographic, cvKeyRegularizerModel, "Stereographic"},
    {cvRegularizerMercator, cvKeyRegularizerModel, "Mercator"},
    {cvRegularizerPanini, cvKeyRegularizerModel, "Panini"},
    {cvRegularizerAuto, cvKeyRegularizerModel, "Auto"},
}};

constexpr CvRegistration kRegistration = {
    CURVANA_ABI_VERSION,
    "Curvana",
    CURVANA_VERSION,
    27,
    (1u << cvModeGray) | (1u << cvModeRGB) | (1u << cvModeCMYK) | (1u << cvModeLab),
    (1u << 8) | (1u << 16),
    kLargestSide,
    kLargestSide,
    cvEventCurvana,
    "Curvana",
    kKeys.data(),
    static_cast<uint32_t>(kKeys.size()),
    kEnumerators.data(),
    static_cast<uint32_t>(kEnumerators.size()),
};

}  // namespace

const CvRegistration& FilterRegistration() {
    return kRegistration;
}

}  // namespace Project
