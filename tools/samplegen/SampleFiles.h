// The sample room written as an image file of any mode and depth the host
// reads, with the EXIF of the camera that "took" it (make, model, focal
// length and its 35 mm equivalent).
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "host/Raster.h"
#include "samplegen/SampleScene.h"

namespace Curvana::SampleGen {

struct SampleFileOptions {
    SceneOptions scene;
    Host::Mode mode = Host::Mode::RGB;
    int depth = 8;
    bool exif = true;
    bool bigTiff = false;      // a TIFF as BigTIFF even when classic TIFF would do
    std::vector<uint8_t> icc;  // embedded as given when not empty
    std::string xmpPacket;     // embedded as given when not empty
};

// Converts interleaved 8-bit RGB into host values of mode and depth (grey by
// Rec. 601 luma, CMYK by grey-component replacement, Lab from sRGB under D65).
Host::Raster convertRgb(const uint8_t* rgb, int32_t width, int32_t height, Host::Mode mode,
                        int depth);

// Writes the scene to path, in the format its extension names. TIFF is
// rendered and written band by band (tiled), so any size fits in memory;
// JPEG and PNG are rendered whole. Throws Host::HostError.
void writeSampleFile(const std::filesystem::path& path, const SampleFileOptions& options);

}  // namespace Curvana::SampleGen
