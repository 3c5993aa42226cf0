// The photograph's EXIF and XMP: read with Exiv2 (libtiff for BigTIFF),
// handed to the module as one XMP packet, and carried into the output file.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "ImageTypes.h"

namespace Exiv2 {
class ExifData;
}

namespace Curvana::Host {

struct PhotoMetadata {
    // The packet the module reads: the photo's XMP with its EXIF converted
    // to XMP (Exiv2's copyExifToXmp). Empty when the photo has neither.
    std::string moduleXmp;
    // The photo's own XMP packet, carried into the output as it is.
    std::string xmpPacket;
    // The EXIF entries carried into the output: the camera, exposure, GPS
    // and interoperability tags and a few descriptive image tags; never the
    // tags that describe the file's own layout, thumbnails or maker notes.
    std::shared_ptr<const Exiv2::ExifData> exif;
    // Lens facts the host needs for the focal length in pixels (0 if absent).
    double focalLengthMm = 0;
    double focalLength35mm = 0;
    // Problems that did not stop the run (unreadable metadata), one line each.
    std::vector<std::string> warnings;
};

// The base directory's tags carried with the EXIF (Make, Model,
// Orientation, DateTime, Artist, Copyright, ImageDescription, XResolution,
// YResolution, ResolutionUnit, Software); the others describe the file.
inline constexpr std::array<uint16_t, 11> kCarriedImageTags = {
    0x010f, 0x0110, 0x0112, 0x0132, 0x013b, 0x8298, 0x010e, 0x011a, 0x011b, 0x0128, 0x0131};

// Reads what it can (BigTIFF, which Exiv2 cannot open, through libtiff); a
// photo whose metadata cannot be read gets an empty record and a warning,
// never an error. A damaged XMP packet is left out with a warning.
PhotoMetadata readMetadata(const std::filesystem::path& path);

// Exiv2 adds EXIF to a classic TIFF by rewriting the whole file in memory: a
// TIFF output whose pixels pass this size carries its EXIF converted to XMP
// (metadata.moduleXmp, embedded when the file is written). A BigTIFF output
// gets the EXIF itself as well, added in place by libtiff.
inline constexpr uint64_t kMaxTiffExifRewrite = 512ull << 20;
inline bool tiffExifAsXmp(const ImageInfo& info) {
    return info.byteCount() > kMaxTiffExifRewrite;
}

// Writes EXIF and XMP into an image file already written with the pixels
// and ICC profile of an image described by info. For TIFF (whose XMP was
// embedded when the file was written) only the EXIF is added: to a BigTIFF
// by libtiff, to a classic TIFF by Exiv2 and not at all when
// tiffExifAsXmp(info). Returns a warning, empty on success; a full disk (the
// file may then be cut short) or a BigTIFF left without its directory throws
// HostError (kExitOutput). name: the output as the user named it, for messages.
std::string writeMetadata(const std::filesystem::path& path, FileFormat format,
                          const ImageInfo& info, const PhotoMetadata& metadata,
                          const std::string& name);

}  // namespace Curvana::Host
