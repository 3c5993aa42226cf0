#include "session/LineSuggestions.h"

#include <algorithm>

#include "curvana/CurvanaScripting.h"
#include "render/ImageAccess.h"
#include "session/PPreview.h"

namespace Project {

SuggestOptions SuggestRequest::Options() const {
    SuggestOptions o;
    o.maxLines = maxLines;
    o.verticalsOnly = verticalsOnly;
    o.horizontals = horizontals;
    return o;
}

SuggestRequest ReadSuggestRequest(const CvDescriptorSuite5& suite, CvDescriptor descriptor) {
    SuggestRequest r;
    if (!descriptor)
        return r;
    int32_t count = 0;
    if (suite.getInteger(descriptor, cvKeySuggestLines, &count) == cvNoErr)
        r.maxLines = std::clamp(count, 0, 1000);
    const auto flag = [&](uint32_t key) {
        uint8_t value = 0;
        return suite.getBoolean(descriptor, key, &value) == cvNoErr && value != 0;
    };
    r.verticalsOnly = flag(cvKeySuggestVerticalsOnly);
    r.horizontals = flag(cvKeySuggestHorizontals);
    r.only = flag(cvKeySuggestOnly);
    return r;
}

bool WriteSuggestionCounts(const CvDescriptorSuite5& suite, CvDescriptor descriptor,
                           const SuggestionCounts& counts) {
    return suite.putInteger(descriptor, cvKeySuggestedVertical, counts.vertical) == cvNoErr &&
           suite.putInteger(descriptor, cvKeySuggestedHorizontal, counts.horizontal) == cvNoErr &&
           suite.putInteger(descriptor, cvKeySuggestedUnfixed, counts.unfixed) == cvNoErr;
}

SuggestionCounts AddSuggestedLines(const MemoryImage& picture, double sourcePerPixel,
                                   const PhotoToSphere& photo, ConstraintSet& set,
                                   const SuggestOptions& options) {
    const int32_t w = picture.Width(), h = picture.Height();
    std::vector<uint8_t> grey(static_cast<size_t>(w) * static_cast<size_t>(h));
    const uint8_t *r = picture.PlaneData(0), *g = picture.PlaneData(1), *b = picture.PlaneData(2);
    for (size_t i = 0; i < grey.size(); ++i)
        grey[i] = static_cast<uint8_t>((299 * r[i] + 587 * g[i] + 114 * b[i] + 500) / 1000);
    const LineSuggestion found =
        SuggestLines({w, h, grey.data(), w, sourcePerPixel}, photo, options);

    SuggestionCounts counts;
    for (const SuggestedLine& line : found.lines) {
        Orientation orientation = Orientation::Unfixed;
        switch (line.kind) {
            case SuggestedKind::Vertical:
                orientation = Orientation::Vertical;
                ++counts.vertical;
                break;
            case SuggestedKind::Horizontal:
                orientation = Orientation::Horizontal;
                ++counts.horizontal;
                break;
            case SuggestedKind::Unfixed:
                ++counts.unfixed;
                break;
        }
        counts.ids.push_back(set.Add(std::make_unique<LineConstraint>(
            static_cast<float>(line.x1), static_cast<float>(line.y1), static_cast<float>(line.x2),
            static_cast<float>(line.y2), orientation)));
    }
    return counts;
}

SuggestionCounts AddSuggestedLines(const HostRecord& host, const PhotoToSphere& photo,
                                   ConstraintSet& set, const SuggestOptions& options) {
    const ImageRect area = host.FilterRect();
    const int32_t longSide = std::max(area.Width(), area.Height());
    // Read at up to twice the working size (whole blocks), so that the
    // detection's own area filter makes the working copy: the block means
    // alone would leave it up to half as large as asked.
    const int32_t side = std::max(2 * options.workingSide, 1);
    const std::shared_ptr<MemoryImage> picture = ReadPreviewSource(host, side);
    // ReadPreviewSource takes whole blocks of this many pixels.
    const int32_t factor = std::max(1, (longSide + side - 1) / side);
    return AddSuggestedLines(*picture, factor, photo, set, options);
}

}  // namespace Project
