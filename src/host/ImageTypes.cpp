#include "ImageTypes.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace Curvana::Host {

int ImageInfo::colorPlanes() const {
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

std::string describe(const ImageInfo& info) {
    return std::string(modeName(info.mode)) + (info.alpha == Alpha::None ? " " : " + alpha ") +
           std::to_string(info.depth) + "-bit";
}

std::string byteText(uint64_t bytes) {
    char text[32];
    if (bytes >= (uint64_t{1} << 30))
        std::snprintf(text, sizeof text, "%.1f GiB", static_cast<double>(bytes) / (1 << 30));
    else if (bytes >= (uint64_t{1} << 20))
        std::snprintf(text, sizeof text, "%.0f MiB", static_cast<double>(bytes) / (1 << 20));
    else
        std::snprintf(text, sizeof text, "%llu bytes", static_cast<unsigned long long>(bytes));
    return text;
}

void checkMemoryBudget(const std::string& name, const std::string& what, uint64_t bytes,
                       uint64_t limit) {
    if (bytes > limit)
        throw HostError(kExitInput, name + ": " + what + " needs " + byteText(bytes) +
                                        ", more than the " + byteText(limit) +
                                        " allowed (raise it with --memory-mb)");
}

void checkFileCanHold(const std::string& name, int64_t width, int64_t height, uint64_t decodedBytes,
                      uint64_t fileBytes, double maxRatio) {
    // A little slack for headers and the last partial block.
    if (static_cast<double>(decodedBytes) <= static_cast<double>(fileBytes) * maxRatio + 65536.0)
        return;
    throw HostError(kExitInput, name + ": the file claims " + std::to_string(width) + " x " +
                                    std::to_string(height) + " pixels, more than its " +
                                    std::to_string(fileBytes) +
                                    " bytes can hold (a damaged or crafted file)");
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
    const std::string what = describe(info);
    if (format == FileFormat::Png &&
        ((info.mode != Mode::Gray && info.mode != Mode::RGB) || info.alpha == Alpha::Premultiplied))
        throw HostError(kExitOutput,
                        path.string() + ": PNG cannot hold a " + what +
                            (info.alpha == Alpha::Premultiplied ? " premultiplied" : "") +
                            " image (write .tif instead)");
    if (format == FileFormat::Jpeg &&
        (info.mode == Mode::Lab || info.depth != 8 || info.alpha != Alpha::None))
        throw HostError(kExitOutput, path.string() + ": JPEG cannot hold a " + what +
                                         " image (write .tif instead)");
}

HostError writeError(const std::string& name, int error) {
    if (error == ENOSPC || error == EDQUOT)
        return HostError(kExitOutput, name + ": cannot write, the disk is full");
    return HostError(kExitOutput, name + ": cannot write (" +
                                      (error ? std::strerror(error) : "I/O error") + ")");
}

}  // namespace Curvana::Host
