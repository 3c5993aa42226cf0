// GIMP's memory setting, which bounds what the filter may hold.
#pragma once

#include <cstdint>

namespace Curvana::Gimp {

// GIMP's tile cache size (its "tile-cache-size" setting) in bytes; 0 when
// GIMP does not say.
uint64_t tileCacheBytes();

}  // namespace Curvana::Gimp
