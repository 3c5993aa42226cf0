// What the image harnesses share: the limits they open files with, and a
// read of every pixel as the module reads them.
#pragma once

#include <algorithm>
#include <vector>

#include "host/Raster.h"

namespace Curvana::Fuzz {

// Below scripts/fuzz's -malloc_limit_mb, so that a file that gets past the
// budget checks to a larger allocation is a finding.
inline Host::SourceOptions fuzzSourceOptions() {
    Host::SourceOptions o;
    o.cacheBudget = 8 << 20;
    o.memoryLimit = 64 << 20;
    return o;
}

// Every plane of every pixel, in bands of rows. Pictures of more than a few
// megapixels are only opened: reading them costs time and finds nothing more.
inline void readAllPixels(Host::ImageSource& source) {
    const Host::ImageInfo& info = source.info();
    if (static_cast<uint64_t>(info.width) * static_cast<uint64_t>(info.height) > (4u << 20))
        return;
    const int32_t band = 64;
    std::vector<uint8_t> rows(static_cast<size_t>(info.width) * band * info.planes() *
                              info.bytesPerSample());
    for (int32_t top = 0; top < info.height; top += band) {
        const CvRect r{0, top, info.width, std::min(info.height, top + band)};
        source.readInterleaved(r, rows.data(),
                               static_cast<ptrdiff_t>(static_cast<size_t>(info.width) *
                                                      info.planes() * info.bytesPerSample()));
    }
}

}  // namespace Curvana::Fuzz
