#include "samplegen/SampleFiles.h"

#include <exiv2/exiv2.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "host/ImageFiles.h"
#include "host/Metadata.h"
#include "host/TiffFile.h"

namespace Curvana::SampleGen {
namespace {

double srgbToLinear(double v) {
    return v <= 0.04045 ? v / 12.92 : std::pow((v + 0.055) / 1.055, 2.4);
}
double labF(double t) {
    return t > 216.0 / 24389 ? std::cbrt(t) : (24389.0 / 27 * t + 16) / 116;
}

// One pixel in host values of mode (floating, 0 ... 255 scale).
int convertPixel(const uint8_t* rgb, Host::Mode mode, double* out) {
    const double r = rgb[0], g = rgb[1], b = rgb[2];
    switch (mode) {
        case Host::Mode::Gray:
            out[0] = 0.299 * r + 0.587 * g + 0.114 * b;
            return 1;
        case Host::Mode::RGB:
            out[0] = r, out[1] = g, out[2] = b;
            return 3;
        case Host::Mode::CMYK: {
            const double k = 255 - std::max({r, g, b});
            const double scale = k < 255 ? 255 / (255 - k) : 0;
            out[0] = (255 - r - k) * scale, out[1] = (255 - g - k) * scale,
            out[2] = (255 - b - k) * scale;
            out[3] = k;
            return 4;
        }
        case Host::Mode::Lab: {
            const double lr = srgbToLinear(r / 255), lg = srgbToLinear(g / 255),
                         lb = srgbToLinear(b / 255);
            const double x = (0.4124 * lr + 0.3576 * lg + 0.1805 * lb) / 0.95047;
            const double y = 0.2126 * lr + 0.7152 * lg + 0.0722 * lb;
            const double z = (0.0193 * lr + 0.1192 * lg + 0.9505 * lb) / 1.08883;
            const double L = 116 * labF(y) - 16, A = 500 * (labF(x) - labF(y)),
                         B = 200 * (labF(y) - labF(z));
            out[0] = L * 255 / 100, out[1] = std::clamp(A + 128, 0.0, 255.0),
            out[2] = std::clamp(B + 128, 0.0, 255.0);
            return 3;
        }
    }
    return 0;
}

std::shared_ptr<const Exiv2::ExifData> cameraExif(const SceneOptions& scene) {
    auto exif = std::make_shared<Exiv2::ExifData>();
    (*exif)["Exif.Image.Make"] = kSampleMake;
    (*exif)["Exif.Image.Model"] = kSampleModel;
    (*exif)["Exif.Photo.FocalLength"] =
        Exiv2::Rational(static_cast<int32_t>(std::lround(scene.focalMm * 100)), 100);
    (*exif)["Exif.Photo.FocalLengthIn35mmFilm"] =
        static_cast<uint16_t>(std::lround(scene.focalMm * scene.cropFactor));
    (*exif)["Exif.Photo.LensModel"] = sampleLensName(scene.lens);
    return exif;
}

}  // namespace

Host::Raster convertRgb(const uint8_t* rgb, int32_t width, int32_t height, Host::Mode mode,
                        int depth) {
    Host::ImageInfo info{width, height, mode, depth};
    Host::Raster r = Host::Raster::allocate(info);
    const size_t pixels = static_cast<size_t>(width) * height;
    double v[4];
    for (size_t i = 0; i < pixels; ++i) {
        const int n = convertPixel(rgb + 3 * i, mode, v);
        for (int k = 0; k < n; ++k) {
            const double c = std::clamp(v[k], 0.0, 255.0);
            if (depth == 8)
                r.data[i * n + k] = static_cast<uint8_t>(std::lround(c));
            else {
                const auto h = static_cast<uint16_t>(std::lround(c * 32768 / 255));
                std::memcpy(r.data.data() + (i * n + k) * 2, &h, 2);
            }
        }
    }
    return r;
}

void writeSampleFile(const std::filesystem::path& path, const SampleFileOptions& options) {
    const auto format = Host::formatFromExtension(path);
    if (!format)
        throw Host::HostError(Host::kExitOutput,
                              path.string() + ": unknown format (use .tif, .png or .jpg)");
    const SceneOptions& scene = options.scene;
    Host::ImageInfo info{scene.width, scene.height, options.mode, options.depth};
    Host::checkFormatHolds(*format, info, path);
    if (*format == Host::FileFormat::Tiff) {
        Host::TiffWriteOptions w;
        w.bigTiff = options.bigTiff || Host::needsBigTiff(info, w.tileSize, true);
        w.icc = options.icc;
        w.xmpPacket = options.xmpPacket;
        Host::TiffTileWriter writer(path, info, w);
        const uint32_t ts = writer.tileSize();
        std::vector<uint8_t> band(static_cast<size_t>(scene.width) * 3 * ts);
        std::vector<uint8_t> tile(static_cast<size_t>(ts) * ts * info.planes() *
                                  info.bytesPerSample());
        for (uint32_t ty = 0; ty < writer.tilesDown(); ++ty) {
            const int32_t top = static_cast<int32_t>(ty * ts);
            const int32_t rows = std::min<int32_t>(static_cast<int32_t>(ts), scene.height - top);
            renderRoomRegion(scene, 0, top, scene.width, rows, band.data(),
                             static_cast<ptrdiff_t>(scene.width) * 3);
            const Host::Raster converted =
                convertRgb(band.data(), scene.width, rows, options.mode, options.depth);
            for (uint32_t tx = 0; tx < writer.tilesAcross(); ++tx) {
                std::fill(tile.begin(), tile.end(), 0);
                const int32_t left = static_cast<int32_t>(tx * ts);
                const int32_t cols =
                    std::min<int32_t>(static_cast<int32_t>(ts), scene.width - left);
                const size_t px = converted.pixelBytes();
                for (int32_t y = 0; y < rows; ++y)
                    std::memcpy(tile.data() + static_cast<size_t>(y) * ts * px,
                                converted.row(y) + static_cast<size_t>(left) * px,
                                static_cast<size_t>(cols) * px);
                writer.writeTile(tx, ty, tile.data());
            }
        }
        writer.close();
    } else {
        const RenderedScene rendered = renderRoom(scene, 2);
        const Host::Raster raster =
            convertRgb(rendered.rgb.data(), scene.width, scene.height, options.mode, options.depth);
        if (*format == Host::FileFormat::Png)
            Host::writePng(path, raster, options.icc);
        else
            Host::writeJpeg(path, raster, options.icc, 92);
    }
    Host::PhotoMetadata metadata;
    if (options.exif)
        metadata.exif = cameraExif(scene);
    if (*format != Host::FileFormat::Tiff)
        metadata.xmpPacket = options.xmpPacket;
    const std::string warning = Host::writeMetadata(path, *format, info, metadata, path.string());
    if (!warning.empty())
        throw Host::HostError(Host::kExitOutput, warning);
}

}  // namespace Curvana::SampleGen
