#include "ImageTypes.h"

#include <algorithm>
#include <cctype>

namespace Curvana::Host {

int ImageInfo::planes() const {
    switch (mode) {
        case Mode::Gray:
            return 1;
        case Mode::RGB:
            return 3;
        case Mode::CMYK:
            return 4;
        case Mode::Lab:
            return 3;
    }
    return 0;
}

uint64_t ImageInfo::byteCount() const {
    return static_cast<uint64_t>(width) * static_cast<uint64_t>(height) *
           static_cast<uint64_t>(planes()) * bytesPerSample();
}

const char* modeName(Mode mode) {
    switch (mode) {
        case Mode::Gray:
            return "grey";
        case Mode::RGB:
            return "RGB";
        case Mode::CMYK:
            return "CMYK";
        case Mode::Lab:
            return "Lab";
    }
    return "?";
}

const char* formatName(FileFormat format) {
    switch (format) {
        case FileFormat::Tiff:
            return "TIFF";
        case FileFormat::Png:
            return "PNG";
        case FileFormat::Jpeg:
            return "JPEG";
    }
    return "?";
}

std::optional<FileFormat> formatFromExtension(const std::filesystem::path& path) {
    std::string ext = path.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (ext == ".tif" || ext == ".tiff")
        return FileFormat::Tiff;
    if (ext == ".png")
        return FileFormat::Png;
    if (ext == ".jpg" || ext == ".jpeg")
        return FileFormat::Jpeg;
    return std::nullopt;
}

void checkFormatHolds(FileFormat format, const ImageInfo& info, const std::filesystem::path& path) {
    const std::string what =
        std::string(modeName(info.mode)) + " " + std::to_string(info.depth) + "-bit";
    if (format == FileFormat::Png && info.mode != Mode::Gray && info.mode != Mode::RGB)
        throw HostError(path.string() + ": PNG cannot hold a " + what +
                        " image (write .tif instead)");
    if (format == FileFormat::Jpeg && (info.mode == Mode::Lab || info.depth != 8))
        throw HostError(path.string() + ": JPEG cannot hold a " + what +
                        " image (write .tif instead)");
}

}  // namespace Curvana::Host
