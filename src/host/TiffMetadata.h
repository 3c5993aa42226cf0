// EXIF and XMP of BigTIFF files, which Exiv2 0.27 cannot open, through
// libtiff: read into and written from the same Exiv2 records as every other
// file's, so that what follows (the carried tags, the EXIF-to-XMP
// conversion) is the same for all.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace Exiv2 {
class ExifData;
}

namespace Curvana::Host {

// True when the file begins as a BigTIFF (version 43).
bool isBigTiff(const std::filesystem::path& path);

// Adds the TIFF file's EXIF to exif (the base directory's kCarriedImageTags
// as group Image, the EXIF and GPS directories as groups Photo and GPSInfo;
// never sub-directory offsets or the maker note) and sets xmpPacket to its
// XMP packet as stored. A damaged directory adds a warning and is left out.
// Throws HostError (kExitInput, a reason without the file's name) when the
// file cannot be opened as TIFF.
void readTiffMetadata(const std::filesystem::path& path, Exiv2::ExifData& exif,
                      std::string& xmpPacket, std::vector<std::string>& warnings);

// Adds exif's groups Image (kCarriedImageTags only), Photo and GPSInfo to
// the first image of a TIFF file in place: new EXIF and GPS directories at
// the end of the file and the image's directory written again after them.
// Returns a warning when nothing was changed but for unreferenced bytes at
// the end, empty on success; throws HostError (kExitOutput) when the disk is
// full or the file may have lost its directory. name: for messages.
std::string addTiffExif(const std::filesystem::path& path, const Exiv2::ExifData& exif,
                        const std::string& name);

}  // namespace Curvana::Host
