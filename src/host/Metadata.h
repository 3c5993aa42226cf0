// The photograph's EXIF and XMP: read with Exiv2, handed to the module as one
// XMP packet, and carried into the output file.
#pragma once

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

// Reads what it can; a photo whose metadata cannot be read gets an empty
// record and a warning, never an error.
PhotoMetadata readMetadata(const std::filesystem::path& path);

// Exiv2 adds EXIF to a TIFF by rewriting the whole file in memory: a TIFF
// output whose pixels pass this size carries its EXIF converted to XMP
// instead (metadata.moduleXmp, embedded when the file is written).
inline constexpr uint64_t kMaxTiffExifRewrite = 512ull << 20;
inline bool tiffExifAsXmp(const ImageInfo& info) {
    return info.byteCount() > kMaxTiffExifRewrite;
}

// Writes EXIF and XMP into an image file already written with the pixels
// and ICC profile of an image described by info. For TIFF (whose XMP was
// embedded when the file was written) only the EXIF is added, and not at
// all when tiffExifAsXmp(info). Returns a warning, empty on success; a full
// disk (the file may then be cut short) throws HostError (kExitOutput). name:
// the output as the user named it, for messages.
std::string writeMetadata(const std::filesystem::path& path, FileFormat format,
                          const ImageInfo& info, const PhotoMetadata& metadata,
                          const std::string& name);

}  // namespace Curvana::Host
