#include "ImageFiles.h"

#include <jpeglib.h>
#include <png.h>
// jerror.h after jpeglib.h: the message codes, for the end-of-data warning.
#include <jerror.h>

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace Curvana::Host {
namespace {

struct FileCloser {
    void operator()(std::FILE* f) const {
        if (f)
            // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): a unique_ptr deleter
            std::fclose(f);
    }
};
using FileHandle = std::unique_ptr<std::FILE, FileCloser>;

FileHandle openFile(const std::filesystem::path& path, const char* mode, const std::string& name) {
    FileHandle f(std::fopen(path.c_str(), mode));
    if (!f)
        throw HostError(mode[0] == 'r' ? kExitInput : kExitOutput,
                        name + ": cannot " + (mode[0] == 'r' ? "open" : "create") + " (" +
                            std::strerror(errno) + ")");
    return f;
}

// Closes a written file and reports a failed flush (a full disk) as an error.
void closeWritten(FileHandle& f, const std::string& name) {
    std::FILE* raw = f.release();
    // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): released to be closed once
    if (std::fclose(raw) != 0)
        throw writeError(name, errno);
}

// A library's write failure: the disk when errno says so, else its message.
HostError encodeError(const std::string& name, const char* format, const char* message) {
    if (errno == ENOSPC || errno == EDQUOT)
        return writeError(name, errno);
    return HostError(kExitOutput, name + ": cannot write " + format + " (" + message + ")");
}

uint64_t fileSize(const std::filesystem::path& path) {
    std::error_code ec;
    const uintmax_t size = std::filesystem::file_size(path, ec);
    return ec ? 0 : static_cast<uint64_t>(size);
}

// The host's largest image side, and more than any PNG or JPEG can claim.
constexpr uint32_t kMaxSide = 2000000;
// PNG: ancillary chunks (an ICC profile, text) are kept up to this size, and
// at most this many of them.
constexpr size_t kMaxPngChunkBytes = size_t{32} << 20;
constexpr uint32_t kMaxPngChunks = 256;
// Deflate's best ratio is 1032:1; rounded up.
constexpr double kDeflateMaxRatio = 1100;

// ---- PNG --------------------------------------------------------------------

struct PngContext {
    png_structp png = nullptr;
    png_infop info = nullptr;
    bool writing = false;
    char message[256] = {};
    ~PngContext() {
        if (writing)
            png_destroy_write_struct(&png, &info);
        else
            png_destroy_read_struct(&png, &info, nullptr);
    }
};

void pngError(png_structp png, png_const_charp message) {
    auto* ctx = static_cast<PngContext*>(png_get_error_ptr(png));
    std::snprintf(ctx->message, sizeof ctx->message, "%s", message);
    png_longjmp(png, 1);
}
void pngWarning(png_structp, png_const_charp) {}

struct PngHeader {
    uint32_t width, height;
    int bitDepth, colorType, channels, passes;
    png_size_t rowBytes;
    png_bytep icc;
    png_uint_32 iccLength;
};

// The functions that call setjmp hold only plain C values in their frames.
bool pngReadHeader(PngContext* ctx, std::FILE* file, PngHeader* header) {
    if (setjmp(png_jmpbuf(ctx->png)))
        return false;
    png_set_user_limits(ctx->png, kMaxSide, kMaxSide);
    png_set_chunk_malloc_max(ctx->png, kMaxPngChunkBytes);
    png_set_chunk_cache_max(ctx->png, kMaxPngChunks);
    // Ancillary chunks the host does not use are skipped unread: libpng
    // allocates a text chunk's claimed length before reading it. (Exiv2
    // reads the metadata.)
    static const png_byte kSkipped[] =
        "tEXt\0zTXt\0iTXt\0eXIf\0sPLT\0hIST\0pCAL\0sCAL\0"
        "oFFs\0tIME\0bKGD\0sBIT\0cHRM\0gAMA\0sRGB\0pHYs";
    png_set_keep_unknown_chunks(ctx->png, PNG_HANDLE_CHUNK_NEVER, nullptr, 0);
    png_set_keep_unknown_chunks(ctx->png, PNG_HANDLE_CHUNK_NEVER, kSkipped,
                                static_cast<int>(sizeof kSkipped / 5));
#ifdef CURVANA_FUZZING
    // Fuzzed bytes rarely carry right checksums: let them reach the decoder.
    png_set_crc_action(ctx->png, PNG_CRC_QUIET_USE, PNG_CRC_QUIET_USE);
#ifdef PNG_IGNORE_ADLER32
    png_set_option(ctx->png, PNG_IGNORE_ADLER32, PNG_OPTION_ON);
#endif
#endif
    png_init_io(ctx->png, file);
    png_read_info(ctx->png, ctx->info);
    header->width = png_get_image_width(ctx->png, ctx->info);
    header->height = png_get_image_height(ctx->png, ctx->info);
    header->bitDepth = png_get_bit_depth(ctx->png, ctx->info);
    header->colorType = png_get_color_type(ctx->png, ctx->info);
    header->icc = nullptr;
    header->iccLength = 0;
    png_charp name = nullptr;
    int compression = 0;
    if (png_get_valid(ctx->png, ctx->info, PNG_INFO_iCCP))
        png_get_iCCP(ctx->png, ctx->info, &name, &compression, &header->icc, &header->iccLength);
    return true;
}

// Every layout becomes grey, grey + alpha, RGB or RGB + alpha at 8 or 16
// bits; what came out is read back from libpng, not assumed.
bool pngSetupTransforms(PngContext* ctx, PngHeader* header) {
    if (setjmp(png_jmpbuf(ctx->png)))
        return false;
    if (header->colorType == PNG_COLOR_TYPE_PALETTE)
        png_set_palette_to_rgb(ctx->png);
    if (png_get_valid(ctx->png, ctx->info, PNG_INFO_tRNS))
        png_set_tRNS_to_alpha(ctx->png);
    if (header->colorType == PNG_COLOR_TYPE_GRAY && header->bitDepth < 8)
        png_set_expand_gray_1_2_4_to_8(ctx->png);
    if (header->bitDepth == 16)
        png_set_swap(ctx->png);  // native order on little-endian machines
    header->passes = png_set_interlace_handling(ctx->png);
    png_read_update_info(ctx->png, ctx->info);
    header->channels = png_get_channels(ctx->png, ctx->info);
    header->bitDepth = png_get_bit_depth(ctx->png, ctx->info);
    header->rowBytes = png_get_rowbytes(ctx->png, ctx->info);
    return true;
}

// Rows [y0, y1) of every pass (an interlaced file is read whole, one call).
bool pngReadRows(PngContext* ctx, uint8_t* data, size_t rowBytes, uint32_t y0, uint32_t y1,
                 int passes) {
    if (setjmp(png_jmpbuf(ctx->png)))
        return false;
    for (int pass = 0; pass < passes; ++pass)
        for (uint32_t y = y0; y < y1; ++y)
            png_read_row(ctx->png, data + rowBytes * y, nullptr);
    return true;
}

bool pngReadEnd(PngContext* ctx) {
    if (setjmp(png_jmpbuf(ctx->png)))
        return false;
    png_read_end(ctx->png, nullptr);
    return true;
}

struct PngWriteJob {
    uint32_t width, height;
    int bitDepth, colorType;
    const Raster* raster;
    const uint8_t* icc;
    uint32_t iccLength;
    const WaitForRows* waitForRows;
    uint8_t* rowScratch;  // one row, for 16-bit values in file order
};

bool pngWriteAll(PngContext* ctx, std::FILE* file, const PngWriteJob* job) {
    if (setjmp(png_jmpbuf(ctx->png)))
        return false;
    // libpng checks ICC profiles against the image (colour space, D50 white):
    // one that does not fit is left out rather than failing the whole file.
    png_set_benign_errors(ctx->png, 1);
    png_init_io(ctx->png, file);
    // zlib's fastest level: several times faster than its default, the
    // pixels the same, the file somewhat larger.
    png_set_compression_level(ctx->png, 1);
    png_set_IHDR(ctx->png, ctx->info, job->width, job->height, job->bitDepth, job->colorType,
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (job->icc)
        png_set_iCCP(ctx->png, ctx->info, "ICC profile", PNG_COMPRESSION_TYPE_BASE, job->icc,
                     job->iccLength);
    png_write_info(ctx->png, ctx->info);
    if (job->bitDepth == 16)
        png_set_swap(ctx->png);
    const size_t rowBytes = job->raster->rowBytes();
    for (uint32_t y = 0; y < job->height; ++y) {
        if (*job->waitForRows)
            (*job->waitForRows)(static_cast<int32_t>(y + 1));
        const uint8_t* row = job->raster->row(static_cast<int32_t>(y));
        if (job->bitDepth == 16) {
            // libpng takes file values.
            const auto* src = reinterpret_cast<const uint16_t*>(row);
            auto* dst = reinterpret_cast<uint16_t*>(job->rowScratch);
            for (size_t i = 0; i < rowBytes / 2; ++i)
                dst[i] = fileFromHost16(src[i]);
            row = job->rowScratch;
        }
        png_write_row(ctx->png, const_cast<png_bytep>(row));
    }
    png_write_end(ctx->png, nullptr);
    return true;
}

// ---- JPEG -------------------------------------------------------------------

struct JpegError {
    jpeg_error_mgr pub;
    std::jmp_buf jump;
    char message[JMSG_LENGTH_MAX];
};

void jpegErrorExit(j_common_ptr cinfo) {
    auto* err = reinterpret_cast<JpegError*>(cinfo->err);
    (*cinfo->err->format_message)(cinfo, err->message);
    std::longjmp(err->jump, 1);
}

// libjpeg decodes damaged data "successfully", with grey or repeated blocks,
// after a warning (data that ends early, a marker inside the data, a bad
// Huffman code). Every warning but those about metadata ends the decode at
// once, before more of the image is filled.
void jpegEmitMessage(j_common_ptr cinfo, int level) {
    if (level >= 0)
        return;  // trace messages
    switch (cinfo->err->msg_code) {
        case JWRN_ADOBE_XFORM:
        case JWRN_BOGUS_ICC:
        case JWRN_JFIF_MAJOR:
            return;
        default:
            jpegErrorExit(cinfo);
    }
}

// The APP14 colour-transform marker: CMYK files that carry it store inverted
// ink values (libjpeg writes it, and inverted values, for CMYK too).
bool hasApp14(const jpeg_decompress_struct& cinfo) {
    for (jpeg_saved_marker_ptr m = cinfo.marker_list; m; m = m->next)
        if (m->marker == JPEG_APP0 + 14)
            return true;
    return false;
}

struct JpegDecompress {
    jpeg_decompress_struct cinfo{};
    JpegError error{};
    bool created = false;
    bool app14 = false;  // read with the header: finishing frees the saved markers
    ~JpegDecompress() {
        if (created)
            jpeg_destroy_decompress(&cinfo);
    }
};

struct JpegCompress {
    jpeg_compress_struct cinfo{};
    JpegError error{};
    bool created = false;
    ~JpegCompress() {
        if (created)
            jpeg_destroy_compress(&cinfo);
    }
};

bool jpegReadHeader(JpegDecompress* d, std::FILE* file, long memoryLimit, JOCTET** icc,
                    unsigned int* iccLength) {
    d->cinfo.err = jpeg_std_error(&d->error.pub);
    d->error.pub.error_exit = jpegErrorExit;
    d->error.pub.emit_message = jpegEmitMessage;
    if (setjmp(d->error.jump))
        return false;
    jpeg_create_decompress(&d->cinfo);
    d->created = true;
    // Progressive files keep every coefficient in memory: a frame that asks
    // for more than the budget fails here, not in the allocator.
    d->cinfo.mem->max_memory_to_use = memoryLimit;
    jpeg_stdio_src(&d->cinfo, file);
    jpeg_save_markers(&d->cinfo, JPEG_APP0 + 2, 0xFFFF);
    jpeg_save_markers(&d->cinfo, JPEG_APP0 + 14, 16);
    jpeg_read_header(&d->cinfo, TRUE);
    d->app14 = hasApp14(d->cinfo);
    if (!jpeg_read_icc_profile(&d->cinfo, icc, iccLength)) {
        *icc = nullptr;
        *iccLength = 0;
    }
    switch (d->cinfo.jpeg_color_space) {
        case JCS_GRAYSCALE:
            d->cinfo.out_color_space = JCS_GRAYSCALE;
            break;
        case JCS_CMYK:
        case JCS_YCCK:
            d->cinfo.out_color_space = JCS_CMYK;
            break;
        default:
            d->cinfo.out_color_space = JCS_RGB;
            break;
    }
    return true;
}

bool jpegStart(JpegDecompress* d) {
    if (setjmp(d->error.jump))
        return false;
    jpeg_start_decompress(&d->cinfo);
    return true;
}

// Rows up to `until`; the last call finishes the decode.
bool jpegReadRows(JpegDecompress* d, uint8_t* data, size_t rowBytes, JDIMENSION until) {
    if (setjmp(d->error.jump))
        return false;
    while (d->cinfo.output_scanline < until) {
        JSAMPROW row = data + rowBytes * d->cinfo.output_scanline;
        jpeg_read_scanlines(&d->cinfo, &row, 1);
    }
    if (d->cinfo.output_scanline >= d->cinfo.output_height)
        jpeg_finish_decompress(&d->cinfo);
    return true;
}

struct JpegWriteJob {
    const Raster* raster;
    J_COLOR_SPACE colorSpace;
    int components;
    int quality;
    const uint8_t* icc;
    unsigned int iccLength;
    uint8_t* rowScratch;  // one row, for CMYK inversion
    const WaitForRows* waitForRows;
};

bool jpegWriteAll(JpegCompress* c, std::FILE* file, const JpegWriteJob* job) {
    c->cinfo.err = jpeg_std_error(&c->error.pub);
    c->error.pub.error_exit = jpegErrorExit;
    if (setjmp(c->error.jump))
        return false;
    jpeg_create_compress(&c->cinfo);
    c->created = true;
    jpeg_stdio_dest(&c->cinfo, file);
    c->cinfo.image_width = static_cast<JDIMENSION>(job->raster->info.width);
    c->cinfo.image_height = static_cast<JDIMENSION>(job->raster->info.height);
    c->cinfo.input_components = job->components;
    c->cinfo.in_color_space = job->colorSpace;
    jpeg_set_defaults(&c->cinfo);
    jpeg_set_quality(&c->cinfo, job->quality, TRUE);
    // The standard Huffman tables: one pass over the image instead of two.
    // The pixels are the same; the file is a few per cent larger.
    c->cinfo.optimize_coding = FALSE;
    jpeg_start_compress(&c->cinfo, TRUE);
    if (job->icc)
        jpeg_write_icc_profile(&c->cinfo, job->icc, job->iccLength);
    const size_t rowBytes = job->raster->rowBytes();
    while (c->cinfo.next_scanline < c->cinfo.image_height) {
        if (*job->waitForRows)
            (*job->waitForRows)(static_cast<int32_t>(c->cinfo.next_scanline + 1));
        const uint8_t* src = job->raster->row(static_cast<int32_t>(c->cinfo.next_scanline));
        JSAMPROW row = const_cast<JSAMPROW>(src);
        if (job->colorSpace == JCS_CMYK) {
            for (size_t i = 0; i < rowBytes; ++i)
                job->rowScratch[i] = static_cast<uint8_t>(255 - src[i]);
            row = job->rowScratch;
        }
        jpeg_write_scanlines(&c->cinfo, &row, 1);
    }
    jpeg_finish_compress(&c->cinfo);
    return true;
}

struct MallocFree {
    // Frees what a C library allocated.
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
    void operator()(void* p) const { std::free(p); }
};

}  // namespace

namespace {

// Rows decoded in bands, so that a reader can start on the first ones.
constexpr uint32_t kDecodeBand = 64;

class PngDecoder final : public PixelDecoder {
public:
    PngDecoder(const std::filesystem::path& path, const SourceOptions& options)
        : name_(path.string()), file_(openFile(path, "rb", name_)) {
        ctx_.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &ctx_, pngError, pngWarning);
        if (!ctx_.png)
            throw HostError(kExitFailed, "out of memory");
        ctx_.info = png_create_info_struct(ctx_.png);
        if (!ctx_.info)
            throw HostError(kExitFailed, "out of memory");
        if (!pngReadHeader(&ctx_, file_.get(), &header_))
            throw HostError(kExitInput, name_ + ": not a readable PNG (" + ctx_.message + ")");
        if (header_.width == 0 || header_.height == 0)
            throw HostError(kExitInput, name_ + ": the image has zero size");
        // The compressed rows (a filter byte each) against what the file can hold.
        const int sourceChannels = png_get_channels(ctx_.png, ctx_.info);
        const uint64_t rowBits = uint64_t{header_.width} * static_cast<uint64_t>(sourceChannels) *
                                 static_cast<uint64_t>(header_.bitDepth);
        checkFileCanHold(name_, header_.width, header_.height,
                         uint64_t{header_.height} * (1 + (rowBits + 7) / 8), fileSize(path),
                         kDeflateMaxRatio);
        if (header_.icc)
            icc_.assign(header_.icc, header_.icc + header_.iccLength);
        if (!pngSetupTransforms(&ctx_, &header_))
            throw HostError(kExitInput, name_ + ": not a readable PNG (" + ctx_.message + ")");
        if (header_.channels < 1 || header_.channels > 4 ||
            (header_.bitDepth != 8 && header_.bitDepth != 16))
            throw HostError(kExitInput, name_ + ": unsupported PNG layout (" +
                                            std::to_string(header_.channels) + " channels of " +
                                            std::to_string(header_.bitDepth) + " bits)");
        info_.width = static_cast<int32_t>(header_.width);
        info_.height = static_cast<int32_t>(header_.height);
        info_.mode = header_.channels <= 2 ? Mode::Gray : Mode::RGB;
        info_.alpha = header_.channels % 2 == 0 ? Alpha::Straight : Alpha::None;
        info_.depth = header_.bitDepth;
        checkMemoryBudget(name_,
                          "a " + std::to_string(info_.width) + " x " +
                              std::to_string(info_.height) + " " + describe(info_) + " image",
                          info_.byteCount(), options.memoryLimit);
        const size_t rowBytes =
            static_cast<size_t>(info_.width) * info_.planes() * info_.bytesPerSample();
        if (header_.rowBytes != rowBytes)
            throw HostError(kExitInput, name_ + ": unsupported PNG layout (rows of " +
                                            std::to_string(header_.rowBytes) + " bytes)");
    }

    bool decode(uint8_t* data, const std::function<bool(int32_t)>& done) override {
        const size_t rowBytes = header_.rowBytes;
        // An interlaced file is complete only after its last pass: one band.
        const uint32_t band = header_.passes > 1 ? header_.height : kDecodeBand;
        for (uint32_t y0 = 0; y0 < header_.height; y0 += band) {
            const uint32_t y1 = std::min(header_.height, y0 + band);
            if (!pngReadRows(&ctx_, data, rowBytes, y0, y1, header_.passes))
                throw HostError(kExitInput, name_ + ": cannot decode (truncated or corrupt PNG: " +
                                                ctx_.message + ")");
            if (info_.depth == 16) {
                auto* v = reinterpret_cast<uint16_t*>(data + rowBytes * y0);
                for (size_t i = 0, n = rowBytes * (y1 - y0) / 2; i < n; ++i)
                    v[i] = hostFromFile16(v[i]);
            }
            if (y1 == header_.height && !pngReadEnd(&ctx_))
                throw HostError(kExitInput, name_ + ": cannot decode (truncated or corrupt PNG: " +
                                                ctx_.message + ")");
            if (!done(static_cast<int32_t>(y1)))
                return false;
        }
        return true;
    }

private:
    std::string name_;
    FileHandle file_;
    PngContext ctx_;
    PngHeader header_{};
};

}  // namespace

std::unique_ptr<PixelDecoder> openPng(const std::filesystem::path& path,
                                      const SourceOptions& options) {
    return std::make_unique<PngDecoder>(path, options);
}

DecodedImage decodeWhole(PixelDecoder& decoder) {
    DecodedImage out;
    out.raster = Raster::allocate(decoder.info());
    decoder.decode(out.raster.data.data(), [](int32_t) { return true; });
    out.icc = decoder.iccProfile();
    return out;
}

DecodedImage readPng(const std::filesystem::path& path, const SourceOptions& options) {
    PngDecoder decoder(path, options);
    return decodeWhole(decoder);
}

void writePng(const std::filesystem::path& path, const Raster& raster,
              const std::vector<uint8_t>& icc, const std::string& shownName,
              const WaitForRows& waitForRows) {
    const std::string name = shownName.empty() ? path.string() : shownName;
    checkFormatHolds(FileFormat::Png, raster.info, name);
    std::vector<uint8_t> scratch(raster.info.depth == 16 ? raster.rowBytes() : 0);
    FileHandle file = openFile(path, "wb", name);
    PngContext ctx;
    ctx.writing = true;
    ctx.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, &ctx, pngError, pngWarning);
    if (!ctx.png)
        throw HostError(kExitFailed, "out of memory");
    ctx.info = png_create_info_struct(ctx.png);
    if (!ctx.info)
        throw HostError(kExitFailed, "out of memory");
    const PngWriteJob job{
        static_cast<uint32_t>(raster.info.width),
        static_cast<uint32_t>(raster.info.height),
        raster.info.depth,
        (raster.info.mode == Mode::Gray ? PNG_COLOR_TYPE_GRAY : PNG_COLOR_TYPE_RGB) |
            (raster.info.alpha == Alpha::None ? 0 : PNG_COLOR_MASK_ALPHA),
        &raster,
        icc.empty() ? nullptr : icc.data(),
        static_cast<uint32_t>(icc.size()),
        &waitForRows,
        scratch.data()};
    errno = 0;
    if (!pngWriteAll(&ctx, file.get(), &job))
        throw encodeError(name, "PNG", ctx.message);
    closeWritten(file, name);
}

namespace {

class JpegDecoder final : public PixelDecoder {
public:
    JpegDecoder(const std::filesystem::path& path, const SourceOptions& options)
        : name_(path.string()), file_(openFile(path, "rb", name_)) {
        JOCTET* iccRaw = nullptr;
        unsigned int iccLength = 0;
        const long memoryLimit =
            static_cast<long>(std::min<uint64_t>(options.memoryLimit, uint64_t{1} << 62));
        const bool headerOk = jpegReadHeader(&d_, file_.get(), memoryLimit, &iccRaw, &iccLength);
        const std::unique_ptr<JOCTET, MallocFree> iccOwner(iccRaw);
        if (!headerOk)
            throw HostError(kExitInput, name_ + ": not a readable JPEG (" + d_.error.message + ")");
        const jpeg_decompress_struct& c = d_.cinfo;
        if (c.image_width == 0 || c.image_height == 0)
            throw HostError(kExitInput, name_ + ": the image has zero size");
        // Huffman coding spends at least one bit on every block of every
        // component; the component with the fewest blocks bounds the frame.
        // (Arithmetic coding can spend less; there the memory budget decides.)
        if (!c.arith_code) {
            const uint64_t across =
                (c.image_width + 8u * c.max_h_samp_factor - 1) / (8u * c.max_h_samp_factor);
            const uint64_t down =
                (c.image_height + 8u * c.max_v_samp_factor - 1) / (8u * c.max_v_samp_factor);
            checkFileCanHold(name_, c.image_width, c.image_height, across * down, fileSize(path),
                             8.0);
        }
        info_.width = static_cast<int32_t>(c.image_width);
        info_.height = static_cast<int32_t>(c.image_height);
        info_.depth = 8;
        info_.mode = c.out_color_space == JCS_GRAYSCALE ? Mode::Gray
                     : c.out_color_space == JCS_CMYK    ? Mode::CMYK
                                                        : Mode::RGB;
        checkMemoryBudget(name_,
                          "a " + std::to_string(info_.width) + " x " +
                              std::to_string(info_.height) + " " + describe(info_) + " image",
                          info_.byteCount(), options.memoryLimit);
        if (!jpegStart(&d_))
            throw HostError(kExitInput,
                            name_ + ": cannot decode (corrupt JPEG: " + d_.error.message + ")");
        if (c.output_width != c.image_width || c.output_height != c.image_height ||
            c.output_components != info_.planes())
            throw HostError(kExitInput, name_ + ": unsupported JPEG layout");
        if (iccRaw)
            icc_.assign(iccRaw, iccRaw + iccLength);
    }

    bool decode(uint8_t* data, const std::function<bool(int32_t)>& done) override {
        const size_t rowBytes = static_cast<size_t>(info_.width) * info_.planes();
        const JDIMENSION height = d_.cinfo.output_height;
        for (JDIMENSION y0 = 0; y0 < height; y0 += kDecodeBand) {
            const JDIMENSION y1 = std::min<JDIMENSION>(height, y0 + kDecodeBand);
            if (!jpegReadRows(&d_, data, rowBytes, y1))
                throw HostError(kExitInput,
                                name_ + ": cannot decode (corrupt JPEG: " + d_.error.message + ")");
            if (info_.mode == Mode::CMYK && d_.app14)
                for (uint8_t *v = data + rowBytes * y0, *end = data + rowBytes * y1; v < end; ++v)
                    *v = static_cast<uint8_t>(255 - *v);
            if (!done(static_cast<int32_t>(y1)))
                return false;
        }
        return true;
    }

private:
    std::string name_;
    FileHandle file_;
    JpegDecompress d_;
};

}  // namespace

std::unique_ptr<PixelDecoder> openJpeg(const std::filesystem::path& path,
                                       const SourceOptions& options) {
    return std::make_unique<JpegDecoder>(path, options);
}

DecodedImage readJpeg(const std::filesystem::path& path, const SourceOptions& options) {
    JpegDecoder decoder(path, options);
    return decodeWhole(decoder);
}

void writeJpeg(const std::filesystem::path& path, const Raster& raster,
               const std::vector<uint8_t>& icc, int quality, const std::string& shownName,
               const WaitForRows& waitForRows) {
    const std::string name = shownName.empty() ? path.string() : shownName;
    checkFormatHolds(FileFormat::Jpeg, raster.info, name);
    std::vector<uint8_t> scratch(raster.rowBytes());
    FileHandle file = openFile(path, "wb", name);
    JpegCompress c;
    const JpegWriteJob job{&raster,
                           raster.info.mode == Mode::Gray   ? JCS_GRAYSCALE
                           : raster.info.mode == Mode::CMYK ? JCS_CMYK
                                                            : JCS_RGB,
                           raster.info.planes(),
                           quality,
                           icc.empty() ? nullptr : icc.data(),
                           static_cast<unsigned int>(icc.size()),
                           scratch.data(),
                           &waitForRows};
    errno = 0;
    if (!jpegWriteAll(&c, file.get(), &job))
        throw encodeError(name, "JPEG", c.error.message);
    closeWritten(file, name);
}

}  // namespace Curvana::Host
