// Whole-image JPEG and PNG files. Both libraries report errors by longjmp:
// every setjmp sits in a small function whose frame holds no C++ object, and
// the library handles are released by RAII owners outside that frame.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

#include "Raster.h"

namespace Curvana::Host {

struct DecodedImage {
    Raster raster;
    std::vector<uint8_t> icc;
};

// PNG: grey or RGB, 8 or 16 bits (grey below 8 bits and palettes are
// expanded to 8 bits; alpha is refused). Throws HostError.
DecodedImage readPng(const std::filesystem::path& path);
void writePng(const std::filesystem::path& path, const Raster& raster,
              const std::vector<uint8_t>& icc);

// JPEG: grey, RGB (YCbCr) or CMYK (inverted when the file carries the APP14
// colour-transform marker, as image editors write it: the file stores 255 - ink). 8 bits. Throws
// HostError; a file that ends early is an error, not grey fill.
DecodedImage readJpeg(const std::filesystem::path& path);
void writeJpeg(const std::filesystem::path& path, const Raster& raster,
               const std::vector<uint8_t>& icc, int quality);

}  // namespace Curvana::Host
