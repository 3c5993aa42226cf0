#include "ExifXmp.h"

#include <exiv2/exiv2.hpp>

namespace Curvana::HostKit {
namespace {

void copyIfMissing(const Exiv2::ExifData& exif, const char* exifKey, Exiv2::XmpData& xmp,
                   const char* xmpKey) {
    const auto it = exif.findKey(Exiv2::ExifKey(exifKey));
    if (it == exif.end() || xmp.findKey(Exiv2::XmpKey(xmpKey)) != xmp.end())
        return;
    const std::string value = it->toString();
    if (!value.empty())
        xmp[xmpKey] = value;
}

}  // namespace

void addExifToXmp(const Exiv2::ExifData& exif, Exiv2::XmpData& xmp) {
    Exiv2::copyExifToXmp(exif, xmp);
    // The conversion leaves these two out.
    copyIfMissing(exif, "Exif.Photo.LensModel", xmp, "Xmp.aux.Lens");
    copyIfMissing(exif, "Exif.Photo.BodySerialNumber", xmp, "Xmp.aux.SerialNumber");
}

}  // namespace Curvana::HostKit
