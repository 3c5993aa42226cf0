#include "ImageMetadata.h"

#include <gexiv2/gexiv2.h>
#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <cmath>
#include <mutex>

#include "GLibHandles.h"
#include "hostkit/ExifXmp.h"

namespace Curvana::Gimp {
namespace {

std::string oneLine(std::string s) {
    std::replace(s.begin(), s.end(), '\n', ' ');
    return s;
}

}  // namespace

ImageMetadata readImageMetadata(gint32 image) {
    static std::once_flag quiet;
    std::call_once(quiet, [] { Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute); });

    ImageMetadata out;
    // GIMP's image metadata is an Exiv2 store (through gexiv2).
    const GObjectPtr<GimpMetadata> metadata(gimp_image_get_metadata(image));
    if (!metadata)
        return out;
    auto* store = GEXIV2_METADATA(metadata.get());
    try {
        Exiv2::ExifData exif;
        GErrorHolder error;
        const GBytesPtr exifBytes(
            gexiv2_metadata_get_exif_data(store, GEXIV2_BYTE_ORDER_LITTLE, error.out()));
        if (exifBytes) {
            gsize size = 0;
            const auto* data =
                static_cast<const Exiv2::byte*>(g_bytes_get_data(exifBytes.get(), &size));
            if (size > 0)
                Exiv2::ExifParser::decode(exif, data, static_cast<uint32_t>(size));
        }

        Exiv2::XmpData xmp;
        const std::string packet = takeString(gexiv2_metadata_try_generate_xmp_packet(
            store, GEXIV2_USE_COMPACT_FORMAT, 0, error.out()));
        if (!packet.empty() && Exiv2::XmpParser::decode(xmp, packet) != 0)
            out.warnings.push_back("the image's XMP could not be read; its EXIF is used alone");
        HostKit::addExifToXmp(exif, xmp);
        if (!xmp.empty() && Exiv2::XmpParser::encode(out.xmpPacket, xmp) != 0) {
            out.xmpPacket.clear();
            out.warnings.push_back("the image's metadata could not be encoded as XMP");
        }
    } catch (const std::exception& e) {
        out.xmpPacket.clear();
        out.warnings.push_back("the image's metadata was not read (" + oneLine(e.what()) + ")");
    }
    return out;
}

}  // namespace Curvana::Gimp
