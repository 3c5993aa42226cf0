#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "plugin/CurvanaPlugin.h"
#include "session/FourCC.h"
#include "session/PSettings.h"

namespace Project {

class ConstraintSet;

// The constraint set as scripting sees it: the bytes of the "cnsD" value go
// in and come out through this interface. The constraints layer implements
// it; the session owns one for the plug-in instance.
class PConstraintData {
public:
    virtual ~PConstraintData() = default;
    // Replaces the set with the one serialised in the bytes, applying the
    // settings the bytes carry to `settings` (the record being read); false
    // when they do not hold a valid set or do not match the image, and then
    // neither the set nor the settings change and FailureMessage() says why.
    virtual bool Parse(const uint8_t* data, size_t size, PSettings& settings) = 0;
    // Why the last Parse failed, as localisable keys joined with "\n", and
    // forgets it; empty when nothing failed since the last call.
    virtual std::string TakeFailureMessage() { return {}; }
    // Bytes that Serialize writes; 0 when there is nothing to write.
    virtual size_t SerializedSize() const = 0;
    // Writes exactly SerializedSize() bytes.
    virtual void Serialize(uint8_t* out) const = 0;
    // The session's focal length in pixels changed under a fisheye or
    // perspective model; constraints fitted on the sphere need re-fitting.
    virtual void FocalLengthChanged() {}
    // The live constraint list itself, for the editor that edits it; null
    // when this implementation keeps none.
    virtual ConstraintSet* LiveSet() { return nullptr; }
};

// The scripting vocabulary: the event and class id, the keys and the
// enumerators.
namespace ScriptKey {
inline constexpr uint32_t kEvent = FourCC("cvnC");
inline constexpr uint32_t kConstraintData = FourCC("cnsD");       // raw data
inline constexpr uint32_t kProjectionModel = FourCC("prjM");      // enumerated, type "prjM"
inline constexpr uint32_t kRegularizerModel = FourCC("regM");     // enumerated, type "regM"
inline constexpr uint32_t kFocalLength = FourCC("focL");          // double, pixels
inline constexpr uint32_t kPhysicalFocalLength = FourCC("PhyF");  // double, mm
inline constexpr uint32_t kCropFactor = FourCC("CrpF");           // double
inline constexpr uint32_t kScale = FourCC("imgS");                // integer
inline constexpr uint32_t kOffsetX = FourCC("imgX");              // double
inline constexpr uint32_t kOffsetY = FourCC("imgY");              // double
inline constexpr uint32_t kActionVersion = FourCC("actV");        // integer, written as 0, ignored
}  // namespace ScriptKey

namespace ScriptEnum {
inline constexpr uint32_t kFisheye = FourCC("fisP");
inline constexpr uint32_t kPerspective = FourCC("perP");
inline constexpr uint32_t kPanorama = FourCC("panP");  // read as Fisheye, never written
inline constexpr uint32_t kFullSpherical = FourCC("fusP");
inline constexpr uint32_t kAutoProjection = FourCC("autP");
inline constexpr uint32_t kStereographic = FourCC("steR");
inline constexpr uint32_t kMercator = FourCC("merR");
inline constexpr uint32_t kPanini = FourCC("panR");
inline constexpr uint32_t kAutoRegularizer = FourCC("autR");
}  // namespace ScriptEnum

// Enumerator mappings, reading and writing. Reading: "fisP" 1, "perP" 2,
// "autP" 3, "fusP" 4, anything else (also "panP") 1; "steR" 1, "merR" 2,
// "panR" 3, anything else 4. Writing: 1 "fisP", 2 "perP", 4 "fusP", 3 and any
// other value "autP"; 1 "steR", 2 "merR", 3 "panR", any other value "autR".
ProjectionModel ProjectionFromEnum(uint32_t value);
RegularizerModel RegularizerFromEnum(uint32_t value);
uint32_t EnumFromProjection(ProjectionModel model);
uint32_t EnumFromRegularizer(RegularizerModel model);

// Every function of the suite is present.
bool IsCompleteSuite(const CvDescriptorSuite5& suite);

// Reads every key of the descriptor, in the descriptor's order, into the
// settings; "cnsD" bytes go to constraints (when not null). Absent keys,
// unknown keys and values of an unexpected type leave fields as they were. A
// "cnsD" of length zero or less, or one whose buffer cannot be allocated, is
// skipped.
void ReadScriptDescriptor(const CvDescriptorSuite5& suite, CvDescriptor descriptor,
                          PSettings& settings, PConstraintData* constraints);

// Puts the settings into an empty descriptor in this key order: "actV" 0,
// "cnsD" (only when the set serialises to some bytes that can be allocated),
// "prjM", "regM", "focL", "PhyF", "CrpF", "imgS", "imgX", "imgY". False when
// the suite reports an error.
bool WriteScriptDescriptor(const CvDescriptorSuite5& suite, CvDescriptor descriptor,
                           const PSettings& settings, const PConstraintData* constraints);

}  // namespace Project
