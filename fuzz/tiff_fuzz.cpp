// The TIFF reader over arbitrary bytes: opened as openImage opens it, then
// every strip or tile decoded through the block cache as the module's plane
// requests decode them. A HostError is the only way it may fail.
#include "FuzzFile.h"
#include "FuzzImage.h"
#include "host/TiffFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Curvana::Fuzz::FuzzFile file;
    try {
        Curvana::Host::TiffSource source(file.assign(data, size),
                                         Curvana::Fuzz::fuzzSourceOptions());
        Curvana::Fuzz::readAllPixels(source);
    } catch (const Curvana::Host::HostError&) {
    }
    return 0;
}
