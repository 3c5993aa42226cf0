#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "constraints/ConstraintSet.h"

namespace Project {

class ConstraintFileContext;

// Constraints on the clipboard are the bytes of a constraint file (header of
// the photo they were drawn on, then their records) under this MIME type, so
// they paste back only onto a photo of the same size and camera, where their
// source-pixel geometry means the same thing.
inline constexpr const char* kConstraintMimeType = "application/x-curvana-constraints";

// The bytes for `constraints` (clones are written; the list is untouched).
std::vector<uint8_t> ConstraintClipboardBytes(const std::vector<const Constraint*>& constraints,
                                              const ConstraintFileContext& photo);

// Reads clipboard bytes for the photo described by `photo` without touching
// any live state (the settings in the bytes are ignored). On success `out`
// holds the constraints in order; on failure it is empty and `message` holds
// the localised reason.
bool ReadConstraintClipboard(std::span<const uint8_t> bytes, const ConstraintFileContext& photo,
                             ConstraintSet::List& out, std::string& message);

}  // namespace Project
