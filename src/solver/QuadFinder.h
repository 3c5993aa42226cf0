#pragma once

#include <span>

#include "geometry/PhotoToSphere.h"
#include "warp/MeshLocator.h"

namespace Project {

// Finds, for many sphere directions at once, the mesh quad that holds each,
// as a parallel loop (oneTBB, a blocked range with the automatic
// partitioner). A direction that no quad holds gets i = j = -1.
class QuadFinder {
public:
    explicit QuadFinder(const MeshLocator& locator) : locator_(locator) {}

    // out[k] for directions[k]; the spans must have the same length.
    void Find(std::span<const SphereDirection> directions, std::span<QuadLocation> out) const;

private:
    const MeshLocator& locator_;
};

}  // namespace Project
