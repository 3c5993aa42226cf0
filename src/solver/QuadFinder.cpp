#include "solver/QuadFinder.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>

namespace Project {

void QuadFinder::Find(std::span<const SphereDirection> directions,
                      std::span<QuadLocation> out) const {
    tbb::parallel_for(
        tbb::blocked_range<size_t>(0, directions.size()),
        [&](const tbb::blocked_range<size_t>& range) {
            for (size_t k = range.begin(); k != range.end(); ++k) {
                out[k] = locator_.Locate(directions[k]).value_or(QuadLocation{});
            }
        },
        tbb::auto_partitioner());
}

}  // namespace Project
