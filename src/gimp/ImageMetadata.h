// The image's EXIF and XMP as GIMP keeps them (its image metadata), turned
// into the one XMP packet the filter reads.
#pragma once

#include <libgimp/gimp.h>

#include <string>
#include <vector>

namespace Curvana::Gimp {

struct ImageMetadata {
    // The image's XMP with its EXIF converted to XMP; empty when the image
    // carries neither.
    std::string xmpPacket;
    // Problems that did not stop the run, one line each.
    std::vector<std::string> warnings;
};

// Reads what it can; metadata that cannot be read gives an empty record and
// a warning, never an error.
ImageMetadata readImageMetadata(gint32 image);

}  // namespace Curvana::Gimp
