// Value types shared by the host program's image files, pixel sources and
// result images: the image facts, the file formats and the host's sample
// conventions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "HostError.h"
#include "curvana/CurvanaPlugin.h"

namespace Curvana::Host {

enum class Mode { Gray = cvModeGray, RGB = cvModeRGB, CMYK = cvModeCMYK, Lab = cvModeLab };

enum class FileFormat { Tiff, Png, Jpeg };

// Transparency: a plane after the mode's colour planes. Straight alpha
// leaves the colours as they are; premultiplied (TIFF's associated alpha)
// has them multiplied by it. The module warps it like any other plane, so
// the area the photo does not cover comes out transparent.
enum class Alpha : uint8_t { None, Straight, Premultiplied };

// The facts of an image as the module sees them: mode planes (and an alpha
// plane) of 8-bit or 16-bit samples. Host values are 0 ... 255 at depth 8 and
// 0 ... 32768 at depth 16 (the files' 0 ... 65535 are converted on reading and
// writing).
struct ImageInfo {
    int32_t width = 0;
    int32_t height = 0;
    Mode mode = Mode::RGB;
    int depth = 8;
    Alpha alpha = Alpha::None;

    int colorPlanes() const;
    int planes() const { return colorPlanes() + (alpha == Alpha::None ? 0 : 1); }
    size_t bytesPerSample() const { return depth == 16 ? 2 : 1; }
    // Bytes of the whole image at host depth, all planes.
    uint64_t byteCount() const;
    CvRect bounds() const { return CvRect{0, 0, width, height}; }
};

const char* modeName(Mode mode);
const char* formatName(FileFormat format);
// "RGB 16-bit", "grey + alpha 8-bit": for messages.
std::string describe(const ImageInfo& info);
// "512 MiB", "1.1 GiB".
std::string byteText(uint64_t bytes);

// The memory budget of one image, checked before anything is allocated:
// throws HostError (kExitInput) naming the image, what it needs and the limit
// when `bytes` pass `limit`. `what` says what the memory is for.
void checkMemoryBudget(const std::string& name, const std::string& what, uint64_t bytes,
                       uint64_t limit);
// Headers are checked against the file before they are trusted: throws
// HostError (kExitInput) when `decodedBytes` of a width x height image
// cannot come from `fileBytes` at the format's best compression ratio
// (`maxRatio` decoded bytes per file byte).
void checkFileCanHold(const std::string& name, int64_t width, int64_t height, uint64_t decodedBytes,
                      uint64_t fileBytes, double maxRatio);

// The format a file name asks for, from its extension (case-insensitive):
// .tif/.tiff, .png, .jpg/.jpeg. Empty when the extension is none of these.
std::optional<FileFormat> formatFromExtension(const std::filesystem::path& path);

// Throws HostError (kExitOutput) when format cannot hold mode and depth (for
// instance Lab or CMYK as PNG, 16 bits or alpha as JPEG).
void checkFormatHolds(FileFormat format, const ImageInfo& info, const std::filesystem::path& path);

// 16-bit conversions between the files' 0 ... 65535 and the host's 0 ... 32768.
// hostFrom16(fileFrom16(h)) == h for every host value.
inline uint16_t hostFromFile16(uint32_t v) {
    return static_cast<uint16_t>((v * 32768u + 32767u) / 65535u);
}
inline uint16_t fileFromHost16(uint32_t h) {
    if (h > 32768u)
        h = 32768u;
    return static_cast<uint16_t>((h * 65535u + 16384u) / 32768u);
}

// Rectangles: half-open, as in the C interface.
inline bool rectEmpty(const CvRect& r) {
    return r.right <= r.left || r.bottom <= r.top;
}
inline CvRect intersect(const CvRect& a, const CvRect& b) {
    CvRect r{a.left > b.left ? a.left : b.left, a.top > b.top ? a.top : b.top,
             a.right < b.right ? a.right : b.right, a.bottom < b.bottom ? a.bottom : b.bottom};
    if (rectEmpty(r))
        r = CvRect{0, 0, 0, 0};
    return r;
}
inline bool rectInside(const CvRect& inner, const CvRect& outer) {
    return inner.left >= outer.left && inner.top >= outer.top && inner.right <= outer.right &&
           inner.bottom <= outer.bottom;
}

}  // namespace Curvana::Host
