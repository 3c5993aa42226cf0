#include "session/XmpToolkit.h"

#include <exiv2/xmp_exiv2.hpp>

namespace Project::XmpToolkit {

bool Start() {
    return Exiv2::XmpParser::initialize();
}

void Stop() noexcept {
    try {
        Exiv2::XmpParser::terminate();
    } catch (...) {
        // Nothing to recover: the toolkit is gone either way.
    }
}

}  // namespace Project::XmpToolkit
