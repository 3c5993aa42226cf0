#include "TileCache.h"

#include <libgimp/gimp.h>

#include <string>

#include "GLibHandles.h"

namespace Curvana::Gimp {

uint64_t tileCacheBytes() {
    const std::string setting = takeString(gimp_gimprc_query("tile-cache-size"));
    guint64 bytes = 0;
    if (setting.empty() || !gimp_memsize_deserialize(setting.c_str(), &bytes))
        return 0;
    return bytes;
}

}  // namespace Curvana::Gimp
