// A photograph end to end as the host takes it in before the filter runs:
// openImage (format by content), its EXIF and XMP read with Exiv2 (BigTIFF's
// with libtiff), and every pixel read as the module reads them. Failures are a HostError or
// metadata warnings; anything else escaping is a finding.
#include "FuzzFile.h"
#include "FuzzImage.h"
#include "host/Metadata.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Curvana::Fuzz::FuzzFile file;
    const std::string& path = file.assign(data, size);
    try {
        const auto source = Curvana::Host::openImage(path, Curvana::Fuzz::fuzzSourceOptions());
        (void)Curvana::Host::readMetadata(path);
        Curvana::Fuzz::readAllPixels(*source);
    } catch (const Curvana::Host::HostError&) {
    }
    return 0;
}
