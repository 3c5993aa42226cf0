// The photo's EXIF as the filter reads it: in XMP.
#pragma once

namespace Exiv2 {
class ExifData;
class XmpData;
}  // namespace Exiv2

namespace Curvana::HostKit {

// Adds the EXIF the XMP lacks to it, the lens and the body's serial number
// included (the filter matches constraint files and lens profiles on them).
void addExifToXmp(const Exiv2::ExifData& exif, Exiv2::XmpData& xmp);

}  // namespace Curvana::HostKit
