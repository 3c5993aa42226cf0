#include "Metadata.h"

#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <mutex>

#include "TiffMetadata.h"
#include "hostkit/ExifXmp.h"

namespace Curvana::Host {
namespace {

// Mutes Exiv2's log, once. Reading XMP registers the namespaces a file
// brings in a registry Exiv2 frees only when its XMP toolkit is terminated:
// that is done at exit, after the filter module's own use of it has ended.
void quietExiv2() {
    static std::once_flag once;
    std::call_once(once, [] {
        Exiv2::LogMsg::setLevel(Exiv2::LogMsg::mute);
        std::atexit([] {
            try {
                Exiv2::XmpParser::terminate();
            } catch (...) {
                // Nothing is left to do at exit.
            }
        });
    });
}

bool carried(const Exiv2::Exifdatum& datum) {
    const std::string group = datum.groupName();
    if (group == "Photo")
        return datum.tagName() != "MakerNote";
    if (group == "GPSInfo" || group == "Iop")
        return true;
    if (group == "Image")
        return std::find(kCarriedImageTags.begin(), kCarriedImageTags.end(), datum.tag()) !=
               kCarriedImageTags.end();
    return false;
}

double rationalValue(const Exiv2::ExifData& exif, const char* key) {
    auto it = exif.findKey(Exiv2::ExifKey(key));
    if (it == exif.end() || it->count() == 0)
        return 0;
    const double v = it->toFloat(0);
    return std::isfinite(v) && v > 0 ? v : 0;
}

std::string oneLine(std::string s) {
    std::replace(s.begin(), s.end(), '\n', ' ');
    return s;
}

// The record of a photo's EXIF and XMP packet, whichever library read them.
void describe(PhotoMetadata& out, const Exiv2::ExifData& exif, std::string packet,
              const std::string& name) {
    auto carriedExif = std::make_shared<Exiv2::ExifData>();
    for (const auto& datum : exif)
        if (carried(datum))
            carriedExif->add(datum);
    out.focalLengthMm = rationalValue(exif, "Exif.Photo.FocalLength");
    out.focalLength35mm = rationalValue(exif, "Exif.Photo.FocalLengthIn35mmFilm");
    // Bytes before the XML are dropped, as Exiv2 does when it reads a TIFF.
    if (const size_t xml = packet.find('<'); xml != std::string::npos)
        packet.erase(0, xml);
    Exiv2::XmpData xmp;
    if (!packet.empty() && Exiv2::XmpParser::decode(xmp, packet) != 0) {
        // Carried on, it would give the output the same damage.
        out.warnings.push_back(name + ": its XMP packet is damaged and was left out");
        packet.clear();
        xmp.clear();
    }
    out.xmpPacket = std::move(packet);
    HostKit::addExifToXmp(exif, xmp);
    if (!xmp.empty() && Exiv2::XmpParser::encode(out.moduleXmp, xmp) != 0) {
        out.moduleXmp.clear();
        out.warnings.push_back(name + ": cannot encode its metadata as XMP");
    }
    out.exif = std::move(carriedExif);
}

}  // namespace

PhotoMetadata readMetadata(const std::filesystem::path& path) {
    quietExiv2();
    PhotoMetadata out;
    const std::string name = path.string();
    try {
        if (isBigTiff(path)) {
            Exiv2::ExifData exif;
            std::string packet;
            readTiffMetadata(path, exif, packet, out.warnings);
            describe(out, exif, std::move(packet), name);
        } else {
            auto image = Exiv2::ImageFactory::open(name);
            image->readMetadata();
            describe(out, image->exifData(), image->xmpPacket(), name);
        }
    } catch (const Exiv2::AnyError& e) {
        out.warnings.push_back(path.string() + ": metadata not read (" + oneLine(e.what()) + ")");
    } catch (const std::exception& e) {
        out.warnings.push_back(path.string() + ": metadata not read (" + oneLine(e.what()) + ")");
    }
    return out;
}

std::string writeMetadata(const std::filesystem::path& path, FileFormat format,
                          const ImageInfo& info, const PhotoMetadata& metadata,
                          const std::string& name) {
    quietExiv2();
    const bool hasExif = metadata.exif && !metadata.exif->empty();
    if (format == FileFormat::Tiff) {
        if (!hasExif)
            return {};
        if (isBigTiff(path))  // which Exiv2 cannot write; libtiff adds to it in place
            return addTiffExif(path, *metadata.exif, name);
        if (tiffExifAsXmp(info))
            return {};
    } else if (!hasExif && metadata.xmpPacket.empty()) {
        return {};
    }
    errno = 0;
    try {
        auto image = Exiv2::ImageFactory::open(path.string());
        image->readMetadata();  // keeps the ICC profile and the file's own tags
        Exiv2::ExifData& exif = image->exifData();
        if (hasExif)
            for (const auto& datum : *metadata.exif)
                exif[datum.key()] = datum.value();
        if (format != FileFormat::Tiff && !metadata.xmpPacket.empty())
            image->setXmpPacket(metadata.xmpPacket);
        image->writeXmpFromPacket(true);
        image->writeMetadata();
    } catch (const std::exception& e) {
        // Exiv2 rewrites the whole file: a full disk leaves it cut short.
        if (errno == ENOSPC || errno == EDQUOT)
            throw writeError(name, errno);
        return name + ": metadata not written (" + oneLine(e.what()) + ")";
    }
    return {};
}

}  // namespace Curvana::Host
