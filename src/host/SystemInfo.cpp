#include "SystemInfo.h"

#include <cstdlib>

namespace Curvana::Host {

std::string preferencesBase() {
    std::string base;
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg)
        base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = std::string(home) + "/.config";
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    return base;
}

}  // namespace Curvana::Host
