// Whole-image JPEG and PNG files. Both libraries report errors by longjmp:
// every setjmp sits in a small function whose frame holds no C++ object, and
// the library handles are released by RAII owners outside that frame.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Raster.h"

namespace Curvana::Host {

struct DecodedImage {
    Raster raster;
    std::vector<uint8_t> icc;
};

// A PNG or JPEG whose header has been read and checked (size, layout, the
// memory budget); its rows are decoded by decode(), which may run on another
// thread.
class PixelDecoder {
public:
    virtual ~PixelDecoder() = default;
    const ImageInfo& info() const { return info_; }
    const std::vector<uint8_t>& iccProfile() const { return icc_; }
    // Decodes into data (info().byteCount() bytes, rows without padding) top
    // to bottom in bands, calling done(rows complete) after each; done
    // returning false stops it (returns false). Throws HostError (kExitInput).
    virtual bool decode(uint8_t* data, const std::function<bool(int32_t)>& done) = 0;

protected:
    ImageInfo info_;
    std::vector<uint8_t> icc_;
};

// The decoders behind readPng and readJpeg; they throw as those do for a
// bad header.
std::unique_ptr<PixelDecoder> openPng(const std::filesystem::path& path,
                                      const SourceOptions& options = {});
std::unique_ptr<PixelDecoder> openJpeg(const std::filesystem::path& path,
                                       const SourceOptions& options = {});
// Every row of a decoder into a new raster.
DecodedImage decodeWhole(PixelDecoder& decoder);

// PNG: grey or RGB, with or without alpha, 8 or 16 bits. Palettes become RGB
// (RGB + alpha with a tRNS chunk), grey below 8 bits becomes 8 bits, a tRNS
// colour key becomes alpha. Throws HostError (kExitInput); sizes are checked
// against the file and options.memoryLimit before the pixels are allocated.
DecodedImage readPng(const std::filesystem::path& path, const SourceOptions& options = {});
// Called by a writer before it takes row y with y + 1: returns once the
// rows above are final (a writer then encodes while they are still being
// made); throws to stop the writer.
using WaitForRows = std::function<void(int32_t rows)>;

// name: the output as the user named it, for messages (empty: path).
void writePng(const std::filesystem::path& path, const Raster& raster,
              const std::vector<uint8_t>& icc, const std::string& name = {},
              const WaitForRows& waitForRows = {});

// JPEG: grey, RGB (YCbCr) or CMYK (inverted when the file carries the APP14
// colour-transform marker, as image editors write it: the file stores 255 -
// ink). 8 bits. Throws HostError (kExitInput); any corrupt-data warning of
// the decoder (data that ends early, a marker inside the data) is an error,
// never grey fill.
DecodedImage readJpeg(const std::filesystem::path& path, const SourceOptions& options = {});
void writeJpeg(const std::filesystem::path& path, const Raster& raster,
               const std::vector<uint8_t>& icc, int quality, const std::string& name = {},
               const WaitForRows& waitForRows = {});

}  // namespace Curvana::Host
