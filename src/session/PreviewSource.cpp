// The host's source image in the preview's display form (see PPreview.h).
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <vector>

#include "session/PPreview.h"

namespace Project {

namespace {

double LinearToSrgb(double v) {
    v = std::clamp(v, 0.0, 1.0);
    return v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1.0 / 2.4) - 0.055;
}

double LabFInverse(double t) {
    return t > 6.0 / 29 ? t * t * t : 3 * (6.0 / 29) * (6.0 / 29) * (t - 4.0 / 29);
}

// One pixel of the host's values (each scaled to 0 ... 255) as sRGB 0 ... 255.
std::array<double, 3> ToRgb(int32_t mode, int32_t planes, const double* v) {
    if (mode == cvModeLab) {
        // L 0 ... 100 and a, b about 128, D65 white.
        const double fy = (v[0] * 100.0 / 255.0 + 16) / 116;
        const double fx = fy + (v[1] - 128) / 500, fz = fy - (v[2] - 128) / 200;
        const double x = 0.95047 * LabFInverse(fx), y = LabFInverse(fy),
                     z = 1.08883 * LabFInverse(fz);
        return {255 * LinearToSrgb(3.2406 * x - 1.5372 * y - 0.4986 * z),
                255 * LinearToSrgb(-0.9689 * x + 1.8758 * y + 0.0415 * z),
                255 * LinearToSrgb(0.0557 * x - 0.2040 * y + 1.0570 * z)};
    }
    if (mode == cvModeCMYK || planes == 4) {
        // Ink amounts: none is white.
        const double k = v[3];
        const auto channel = [k](double c) {
            return 255 - std::min(255.0, c * (255 - k) / 255 + k);
        };
        return {channel(v[0]), channel(v[1]), channel(v[2])};
    }
    if (planes < 3)
        return {v[0], v[0], v[0]};
    return {v[0], v[1], v[2]};
}

}  // namespace

std::shared_ptr<MemoryImage> ReadPreviewSource(const HostRecord& host, int32_t maxSide) {
    const ImageRect area = host.FilterRect();
    const int32_t width = area.Width(), height = area.Height();
    if (width <= 0 || height <= 0)
        throw HostError("the image to preview is empty", cvErrParam);
    const int32_t longSide = std::max(width, height);
    const int32_t factor =
        std::max(1, (longSide + std::max(maxSide, 1) - 1) / std::max(maxSide, 1));
    const int32_t outWidth = (width + factor - 1) / factor;
    const int32_t outHeight = (height + factor - 1) / factor;
    auto out = std::make_shared<MemoryImage>(outWidth, outHeight, PixelFormat{4, 8});

    const int32_t planes = std::clamp(host.Planes(), 1, 4);
    const int32_t mode = host.Raw() ? host.Raw()->mode : 0;
    const bool wide = host.Depth() > 8;
    const int32_t bytes = wide ? 2 : 1;
    const double toByte = wide ? 255.0 / 32768.0 : 1.0;
    const auto rowBytes = static_cast<size_t>(width) * bytes;

    // Whole output rows at a time: `factor` source rows each.
    const int32_t outRowsPerStrip = std::max(1, 256 / factor);
    std::vector<std::vector<uint8_t>> strip(static_cast<size_t>(planes));
    std::vector<std::array<double, 3>> sums(static_cast<size_t>(outWidth));
    std::vector<int32_t> counts(static_cast<size_t>(outWidth));
    for (int32_t outTop = 0; outTop < outHeight; outTop += outRowsPerStrip) {
        const int32_t top = outTop * factor;
        const int32_t rows = std::min(outRowsPerStrip * factor, height - top);
        const ImageRect rect{area.left, area.top + top, area.right, area.top + top + rows};
        for (int32_t p = 0; p < planes; ++p) {
            strip[static_cast<size_t>(p)].resize(rowBytes * static_cast<size_t>(rows));
            host.ReadSourcePlane(rect, p, strip[static_cast<size_t>(p)].data(),
                                 static_cast<int32_t>(rowBytes));
        }
        for (int32_t oy = outTop; oy < std::min(outHeight, outTop + outRowsPerStrip); ++oy) {
            std::fill(sums.begin(), sums.end(), std::array<double, 3>{});
            std::fill(counts.begin(), counts.end(), 0);
            for (int32_t y = oy * factor - top; y < std::min((oy + 1) * factor - top, rows); ++y) {
                for (int32_t x = 0; x < width; ++x) {
                    double v[4] = {0, 0, 0, 0};
                    const size_t at =
                        static_cast<size_t>(y) * rowBytes + static_cast<size_t>(x) * bytes;
                    for (int32_t p = 0; p < planes; ++p) {
                        const uint8_t* s = strip[static_cast<size_t>(p)].data() + at;
                        if (wide) {
                            uint16_t value = 0;
                            std::memcpy(&value, s, 2);
                            v[p] = value * toByte;
                        } else {
                            v[p] = *s;
                        }
                    }
                    const std::array<double, 3> rgb = ToRgb(mode, planes, v);
                    auto& sum = sums[static_cast<size_t>(x / factor)];
                    for (int c = 0; c < 3; ++c)
                        sum[static_cast<size_t>(c)] += rgb[static_cast<size_t>(c)];
                    ++counts[static_cast<size_t>(x / factor)];
                }
            }
            for (int32_t ox = 0; ox < outWidth; ++ox) {
                const auto n = std::max(counts[static_cast<size_t>(ox)], 1);
                for (int32_t c = 0; c < 3; ++c)
                    out->Set(c, ox, oy,
                             static_cast<uint32_t>(std::lround(std::clamp(
                                 sums[static_cast<size_t>(ox)][static_cast<size_t>(c)] / n, 0.0,
                                 255.0))));
                out->Set(3, ox, oy, 255);
            }
        }
    }
    return out;
}

}  // namespace Project
