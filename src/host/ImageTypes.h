// Value types shared by the host program's image files, pixel sources and
// result images: the image facts, the file formats and the host's sample
// conventions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include "curvana/CurvanaPlugin.h"

namespace Curvana::Host {

// One-line, user-facing failure of the host program (file, metadata, module).
// The message names the file or option it is about; it never ends in a newline.
class HostError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A HostError about the input photograph itself (it cannot be decoded).
class InputError : public HostError {
public:
    using HostError::HostError;
};

enum class Mode { Gray = cvModeGray, RGB = cvModeRGB, CMYK = cvModeCMYK, Lab = cvModeLab };

enum class FileFormat { Tiff, Png, Jpeg };

// The facts of an image as the module sees them: mode planes of 8-bit or
// 16-bit samples. Host values are 0 ... 255 at depth 8 and 0 ... 32768 at
// depth 16 (the files' 0 ... 65535 are converted on reading and writing).
struct ImageInfo {
    int32_t width = 0;
    int32_t height = 0;
    Mode mode = Mode::RGB;
    int depth = 8;

    int planes() const;
    size_t bytesPerSample() const { return depth == 16 ? 2 : 1; }
    // Bytes of the whole image at host depth, all planes.
    uint64_t byteCount() const;
    CvRect bounds() const { return CvRect{0, 0, width, height}; }
};

const char* modeName(Mode mode);
const char* formatName(FileFormat format);

// The format a file name asks for, from its extension (case-insensitive):
// .tif/.tiff, .png, .jpg/.jpeg. Empty when the extension is none of these.
std::optional<FileFormat> formatFromExtension(const std::filesystem::path& path);

// Throws HostError when format cannot hold mode and depth (for instance Lab
// or CMYK as PNG, 16 bits as JPEG).
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
