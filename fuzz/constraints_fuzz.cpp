// Feeds arbitrary bytes to the constraint-data parser (constraint files and
// the scripting "Constraint Data" value), as a photo of 4000 x 3000 pixels
// from "Kestrix" "K1" with "Lens 15mm", which the seeds in
// fuzz/corpus/constraints/ match so that mutations reach the records. What
// parses is written back and must parse again to the same bytes, then fitted
// onto a small mesh under a pinhole projection and hit-tested.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "constraints/ConstraintFile.h"
#include "constraints/GeodesicLines.h"
#include "geometry/Projections.h"
#include "warp/OctaMap.h"

namespace {

Project::SimpleConstraintFileContext MakeContext() {
    Project::SimpleConstraintFileContext c;
    c.width = 4000;
    c.height = 3000;
    c.make = "Kestrix";
    c.model = "K1";
    c.lens = "Lens 15mm";
    c.settings.focalLength = 1666.6666f;
    return c;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace Project;
    static const auto photo = std::make_shared<PerspectiveImage>(
        std::make_shared<SourceRaster>(4000, 3000), 2000.0f, 2000.0f, 1500.0f);
    static const auto mesh = std::make_shared<const OctaMap>(3, false);
    static GeodesicLines lines(photo, mesh);

    SimpleConstraintFileContext ctx = MakeContext();
    ConstraintSet set;
    if (!readConstraintData(set, ctx, {data, size})) {
        if (set.Success() || set.Message().empty())
            std::abort();
        return 0;
    }

    // Written back (the settings as read), it parses again to the same bytes.
    const std::vector<uint8_t> again = writeConstraintData(set, ctx);
    SimpleConstraintFileContext ctx2 = MakeContext();
    ctx2.settings = ctx.settings;
    ConstraintSet set2;
    if (!readConstraintData(set2, ctx2, again))
        std::abort();
    if (writeConstraintData(set2, ctx2) != again)
        std::abort();

    fitLoadedConstraints(set, lines);
    const DisplaySpace space{false, Affine2D::Identity()};
    for (const auto& c : set.Constraints()) {
        c->UpdateDisplay(lines, space);
        (void)c->HitTest({2000.0f, 1500.0f}, 3.0f, true);
        (void)c->BoundingRect(true, Affine2D::Identity());
    }
    return 0;
}
