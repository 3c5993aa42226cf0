#pragma once

#include <cstdint>
#include <vector>

#include "constraints/ConstraintSet.h"
#include "curvana/CurvanaPlugin.h"
#include "detect/LineSuggestion.h"
#include "session/HostRecord.h"

namespace Project {

class MemoryImage;

// What a scripting descriptor asks of suggested lines ("sugL", "sugV",
// "sugH", "sugO" in curvana/CurvanaScripting.h).
struct SuggestRequest {
    int32_t maxLines = 0;  // > 0 asks for suggestions
    bool verticalsOnly = false;
    bool horizontals = false;
    bool only = false;  // hand the lines back without rendering
    bool Requested() const { return maxLines > 0; }
    SuggestOptions Options() const;
};

// The lines one suggestion added to a constraint set.
struct SuggestionCounts {
    int32_t vertical = 0, horizontal = 0, unfixed = 0;
    std::vector<int32_t> ids;  // identifiers of the added constraints, in order
    int32_t Total() const { return vertical + horizontal + unfixed; }
};

// Reads the request from a descriptor; absent keys ask for nothing.
SuggestRequest ReadSuggestRequest(const CvDescriptorSuite5& suite, CvDescriptor descriptor);
// Puts the counts ("sgnV", "sgnH", "sgnU") into a result descriptor; false
// when the suite reports an error.
bool WriteSuggestionCounts(const CvDescriptorSuite5& suite, CvDescriptor descriptor,
                           const SuggestionCounts& counts);

// Finds the straight scene edges in `picture` (the source in display form,
// four 8-bit planes R, G, B, A, reduced by sourcePerPixel) under `photo`
// and appends them to `set` as line constraints, each Vertical, Horizontal
// or Unfixed as found.
SuggestionCounts AddSuggestedLines(const MemoryImage& picture, double sourcePerPixel,
                                   const PhotoToSphere& photo, ConstraintSet& set,
                                   const SuggestOptions& options);
// The same on the host's source, read at the options' working size.
SuggestionCounts AddSuggestedLines(const HostRecord& host, const PhotoToSphere& photo,
                                   ConstraintSet& set, const SuggestOptions& options);

}  // namespace Project
