// Feeds arbitrary bytes to the camera-metadata reader as an XMP packet; the
// first two bytes pick the image size so the derived fields are exercised too.
// The seeds name the standard namespaces by tokens ({ns:tiff}, {ns:exif},
// {ns:aux}; see tests/data/xmp/README.md), expanded here so that mutations
// still reach the property readers.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include <exiv2/exiv2.hpp>

#include "geometry/CameraMetadata.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Every malformed packet would otherwise print the parser's warning.
    static const bool muted = (Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute), true);
    (void)muted;
    uint32_t width = 6000;
    uint32_t height = 4000;
    if (size >= 2) {
        width = 1u + data[0] * 97u;
        height = 1u + data[1] * 61u;
    }
    std::string packet(reinterpret_cast<const char*>(data), size);
    for (const char* prefix : {"tiff", "exif", "aux"}) {
        const std::string token = std::string("{ns:") + prefix + "}";
        const std::string uri = Exiv2::XmpProperties::ns(prefix);
        for (size_t at = packet.find(token); at != std::string::npos;
             at = packet.find(token, at + uri.size()))
            packet.replace(at, token.size(), uri);
    }
    const Project::CameraMetadata m = Project::readCameraMetadata(packet, width, height);
    volatile float sink = m.cropFactor() + m.equivalentFocalLength() + m.virtualFocalLength;
    (void)sink;
    return 0;
}
