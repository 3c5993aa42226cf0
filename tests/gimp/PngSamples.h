// PNG files read as they are stored: every channel (alpha included) at the
// file's own depth, 16-bit values in the file's 0 ... 65535.
#pragma once

#include <png.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <vector>

namespace Curvana::Gimp::Test {

struct PngSamples {
    int width = 0;
    int height = 0;
    int channels = 0;
    int depth = 0;
    std::vector<uint16_t> values;  // row by row, channels interleaved

    uint16_t at(int x, int y, int channel) const {
        return values[(static_cast<size_t>(y) * static_cast<size_t>(width) +
                       static_cast<size_t>(x)) *
                          static_cast<size_t>(channels) +
                      static_cast<size_t>(channel)];
    }
};

// libpng reports an error by longjmp: the calls that may jump run in these
// two functions, which hold no C++ object that a jump would skip.
inline bool readPngHeader(png_structp png, png_infop info, FILE* file) {
    if (setjmp(png_jmpbuf(png)))
        return false;
    png_init_io(png, file);
    png_read_info(png, info);
    png_set_expand(png);  // palette and low-bit grey to whole bytes
    png_set_interlace_handling(png);
    png_read_update_info(png, info);
    return true;
}

inline bool readPngRows(png_structp png, png_bytepp rows) {
    if (setjmp(png_jmpbuf(png)))
        return false;
    png_read_image(png, rows);
    return true;
}

inline PngSamples readPng(const std::filesystem::path& path) {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(path.c_str(), "rb"), std::fclose);
    if (!file)
        throw std::runtime_error(path.string() + ": cannot open");
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png ? png_create_info_struct(png) : nullptr;
    struct Release {
        png_structp* png;
        png_infop* info;
        ~Release() { png_destroy_read_struct(png, info, nullptr); }
    } release{&png, &info};
    if (!info || !readPngHeader(png, info, file.get()))
        throw std::runtime_error(path.string() + ": not a readable PNG");

    PngSamples s;
    s.width = static_cast<int>(png_get_image_width(png, info));
    s.height = static_cast<int>(png_get_image_height(png, info));
    s.channels = png_get_channels(png, info);
    s.depth = png_get_bit_depth(png, info);
    const size_t rowBytes = png_get_rowbytes(png, info);
    std::vector<uint8_t> bytes(rowBytes * static_cast<size_t>(s.height));
    std::vector<png_bytep> rows(static_cast<size_t>(s.height));
    for (size_t y = 0; y < rows.size(); ++y)
        rows[y] = bytes.data() + y * rowBytes;
    if (!readPngRows(png, rows.data()))
        throw std::runtime_error(path.string() + ": a damaged PNG");

    const size_t count = static_cast<size_t>(s.width) * static_cast<size_t>(s.height) *
                         static_cast<size_t>(s.channels);
    s.values.resize(count);
    for (size_t y = 0; y < rows.size(); ++y) {
        const uint8_t* row = rows[y];
        const size_t n = static_cast<size_t>(s.width) * static_cast<size_t>(s.channels);
        uint16_t* out = s.values.data() + y * n;
        for (size_t i = 0; i < n; ++i)
            out[i] =
                s.depth == 16 ? static_cast<uint16_t>(row[2 * i] << 8 | row[2 * i + 1]) : row[i];
    }
    return s;
}

}  // namespace Curvana::Gimp::Test
