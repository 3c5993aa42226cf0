#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "curvana/CurvanaPlugin.h"
#include "curvana/CurvanaScripting.h"
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
    // Records of the last successful Parse that made no constraint (a record
    // of an unknown kind, and the ones misread after it), and forgets them.
    virtual uint32_t TakeUnreadRecords() { return 0; }
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

// Enumerator mappings (curvana/CurvanaScripting.h), reading and writing.
// Reading: an unknown projection enumerator (Panorama too) reads as Fisheye,
// an unknown regulariser as Auto. Writing: a model without an enumerator
// (None, unknown values, Equirectangular) is written as Auto.
ProjectionModel ProjectionFromEnum(uint32_t value);
RegularizerModel RegularizerFromEnum(uint32_t value);
uint32_t EnumFromProjection(ProjectionModel model);
uint32_t EnumFromRegularizer(RegularizerModel model);

// Every function of the suite is present.
bool IsCompleteSuite(const CvDescriptorSuite5& suite);

// The keys a read took a value from.
struct ScriptKeysRead {
    bool projection = false;
    bool focalLength = false;
    bool physicalFocalLength = false;
    bool cropFactor = false;
    bool constraintData = false;  // parsed and applied
};

// Reads every key of the descriptor, in the descriptor's order, into the
// settings; "cnsD" bytes go to constraints (when not null). Absent keys,
// unknown keys and values of an unexpected type leave fields as they were. A
// "cnsD" of length zero or less, or one whose buffer cannot be allocated, is
// skipped.
ScriptKeysRead ReadScriptDescriptor(const CvDescriptorSuite5& suite, CvDescriptor descriptor,
                                    PSettings& settings, PConstraintData* constraints);

// Puts the settings into an empty descriptor in this key order: "actV" 0,
// "cnsD" (only when the set serialises to some bytes that can be allocated),
// "prjM", "regM", "focL", "PhyF", "CrpF", "imgS", "imgX", "imgY", "imgC". False when
// the suite reports an error.
bool WriteScriptDescriptor(const CvDescriptorSuite5& suite, CvDescriptor descriptor,
                           const PSettings& settings, const PConstraintData* constraints);

}  // namespace Project
