// Feeds arbitrary bytes to the preferences-file reader. Whatever it accepts
// must survive a write and a read in either byte order unchanged.
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

#include "session/PreferencesFile.h"

namespace {

bool SameStored(const Project::PPreferences& a, const Project::PPreferences& b) {
    const Project::PSettings& x = a.settings;
    const Project::PSettings& y = b.settings;
    const auto sameFloat = [](float p, float q) {
        return std::bit_cast<uint32_t>(p) == std::bit_cast<uint32_t>(q);
    };
    return a.flags == b.flags && a.dialogPlacement == b.dialogPlacement && x.s1 == y.s1 &&
           x.s2 == y.s2 && x.s3 == y.s3 && x.s4 == y.s4 && x.s5 == y.s5 && x.s6 == y.s6 &&
           x.s7 == y.s7 && x.colors == y.colors && x.s8 == y.s8 && x.s9 == y.s9 &&
           x.iterationCount == y.iterationCount && sameFloat(x.focalLength, y.focalLength) &&
           sameFloat(x.physicalFocalLength, y.physicalFocalLength) &&
           sameFloat(x.cropFactor, y.cropFactor) && x.projectionModel == y.projectionModel &&
           x.s10 == y.s10 && x.s11 == y.s11 && x.s12 == y.s12 && x.s13 == y.s13 &&
           x.path == y.path && x.showLoupeWhenDragging == y.showLoupeWhenDragging &&
           x.loupeSize == y.loupeSize && x.settingsVersion == y.settingsVersion;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Project::PPreferences prefs;
    if (!Project::ParsePreferences(std::span<const uint8_t>(data, size), prefs))
        return 0;
    // The writer always writes settings version 1.
    prefs.settings.settingsVersion = 1;
    for (std::endian order : {std::endian::little, std::endian::big}) {
        Project::PPreferences again;
        if (!Project::ParsePreferences(Project::SerializePreferences(prefs, order), again) ||
            !SameStored(prefs, again))
            __builtin_trap();
    }
    return 0;
}
