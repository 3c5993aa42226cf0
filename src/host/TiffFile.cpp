#include "TiffFile.h"

#include <tiffio.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace Curvana::Host {
namespace {

thread_local std::string tiffLastError;

void tiffErrorHandler(const char* module, const char* fmt, va_list ap) {
    char buffer[512];
    std::vsnprintf(buffer, sizeof buffer, fmt, ap);
    tiffLastError = buffer;
    (void)module;
}
void tiffWarningHandler(const char*, const char*, va_list) {}

}  // namespace

void installTiffHandlers() {
    static std::once_flag once;
    std::call_once(once, [] {
        TIFFSetErrorHandler(tiffErrorHandler);
        TIFFSetWarningHandler(tiffWarningHandler);
    });
}

std::string takeTiffError() {
    // libtiff reads beyond the end of a mapped file without a message.
    std::string message =
        tiffLastError.empty() ? std::string("its data is missing") : tiffLastError;
    tiffLastError.clear();
    // libtiff messages may span lines; the host's errors are one line.
    std::replace(message.begin(), message.end(), '\n', ' ');
    return message;
}

bool tiffErrorReported() {
    return !tiffLastError.empty();
}

namespace {

// Decoded bytes per file byte at best, by compression; 0: no useful bound
// (the memory budget alone decides).
double maxCompressionRatio(uint16_t compression, uint32_t bytesPerPixel) {
    switch (compression) {
        case COMPRESSION_NONE:
            return 1;
        case COMPRESSION_PACKBITS:
            return 64;  // 128 repeated bytes in a 2-byte run
        case COMPRESSION_LZW:
            return 2048;  // codes of 9 to 12 bits for strings up to 4096 bytes
        case COMPRESSION_ADOBE_DEFLATE:
        case COMPRESSION_DEFLATE:
            return 1100;  // Deflate's 1032:1, rounded up
        case COMPRESSION_JPEG:
            return 64.0 * 8.0 * bytesPerPixel;  // at least a bit per 8 x 8 block
        default:
            return 0;
    }
}

}  // namespace

TiffSource::TiffSource(const std::filesystem::path& path, const SourceOptions& options)
    : budget_(options.cacheBudget) {
    installTiffHandlers();
    path_ = path;
    format_ = FileFormat::Tiff;
    const std::string name = path.string();
    memoryLimit_ = options.memoryLimit;
    tif_ = openHandle();
    if (!tif_)
        throw HostError(kExitInput, name + ": not a readable TIFF (" + takeTiffError() + ")");
    TIFF* tif = tif_.get();

    uint32_t width = 0, height = 0;
    uint16_t bits = 8, photometric = PHOTOMETRIC_MINISBLACK, planar = PLANARCONFIG_CONTIG;
    uint16_t sampleFormat = SAMPLEFORMAT_UINT, inkSet = INKSET_CMYK;
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &samplesPerPixel_);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &sampleFormat);
    TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression_);
    if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric))
        throw HostError(kExitInput, name + ": TIFF without a photometric interpretation");
    if (width == 0 || height == 0)
        throw HostError(kExitInput, name + ": the image has zero size");
    if (width > 0x7fffffffu || height > 0x7fffffffu)
        throw HostError(kExitInput, name + ": the image is too large");
    if (bits != 8 && bits != 16)
        throw HostError(kExitInput, name + ": " + std::to_string(bits) +
                                        "-bit TIFF samples are not supported (8 or 16 bits)");
    if (photometric == PHOTOMETRIC_PALETTE && bits != 8)
        throw HostError(kExitInput, name + ": " + std::to_string(bits) +
                                        "-bit palette TIFF is not supported (8-bit palettes are)");
    if (sampleFormat != SAMPLEFORMAT_UINT && sampleFormat != SAMPLEFORMAT_INT)
        throw HostError(kExitInput, name + ": floating-point TIFF samples are not supported");
    separate_ = planar == PLANARCONFIG_SEPARATE;

    Mode mode;
    int basePlanes;
    Convert chroma = Convert::Copy;
    Convert first = Convert::Copy;
    switch (photometric) {
        case PHOTOMETRIC_MINISBLACK:
            mode = Mode::Gray;
            basePlanes = 1;
            break;
        case PHOTOMETRIC_MINISWHITE:
            mode = Mode::Gray;
            basePlanes = 1;
            first = Convert::Invert;
            break;
        case PHOTOMETRIC_RGB:
            mode = Mode::RGB;
            basePlanes = 3;
            break;
        case PHOTOMETRIC_YCBCR:
            if (compression_ != COMPRESSION_JPEG)
                throw HostError(kExitInput,
                                name + ": YCbCr TIFF is supported only with JPEG compression");
            TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
            mode = Mode::RGB;
            basePlanes = 3;
            break;
        case PHOTOMETRIC_SEPARATED:
            TIFFGetFieldDefaulted(tif, TIFFTAG_INKSET, &inkSet);
            if (inkSet != INKSET_CMYK || samplesPerPixel_ < 4)
                throw HostError(kExitInput,
                                name + ": separated TIFF other than CMYK is not supported");
            mode = Mode::CMYK;
            basePlanes = 4;
            break;
        case PHOTOMETRIC_CIELAB:
            mode = Mode::Lab;
            basePlanes = 3;
            chroma = Convert::SignedOffset;
            break;
        case PHOTOMETRIC_ICCLAB:
            mode = Mode::Lab;
            basePlanes = 3;
            break;
        case PHOTOMETRIC_PALETTE: {
            uint16_t *red = nullptr, *green = nullptr, *blue = nullptr;
            if (!TIFFGetField(tif, TIFFTAG_COLORMAP, &red, &green, &blue))
                throw HostError(kExitInput, name + ": palette TIFF without a colour map");
            // Expanded to 8-bit RGB: the map's 16-bit entries rounded.
            palette_.resize(3 * 256);
            for (size_t i = 0; i < 256; ++i) {
                palette_[3 * i] = static_cast<uint8_t>((red[i] + 128u) / 257u);
                palette_[3 * i + 1] = static_cast<uint8_t>((green[i] + 128u) / 257u);
                palette_[3 * i + 2] = static_cast<uint8_t>((blue[i] + 128u) / 257u);
            }
            mode = Mode::RGB;
            basePlanes = 1;
            break;
        }
        default:
            throw HostError(kExitInput, name + ": TIFF photometric " + std::to_string(photometric) +
                                            " is not supported");
    }
    if (samplesPerPixel_ < basePlanes)
        throw HostError(kExitInput, name + ": TIFF has too few samples per pixel");
    // One extra sample is taken as alpha (associated: premultiplied); more
    // extra samples, or alpha beside CMYK's four planes, are not.
    Alpha alpha = Alpha::None;
    if (samplesPerPixel_ == basePlanes + 1 && photometric != PHOTOMETRIC_PALETTE &&
        mode != Mode::CMYK) {
        uint16_t extraCount = 0;
        uint16_t* extraTypes = nullptr;
        TIFFGetFieldDefaulted(tif, TIFFTAG_EXTRASAMPLES, &extraCount, &extraTypes);
        alpha = extraCount == 1 && extraTypes && extraTypes[0] == EXTRASAMPLE_ASSOCALPHA
                    ? Alpha::Premultiplied
                    : Alpha::Straight;
    } else if (samplesPerPixel_ > basePlanes) {
        throw HostError(kExitInput,
                        name + ": TIFF with " + std::to_string(samplesPerPixel_ - basePlanes) +
                            " extra samples" + (mode == Mode::CMYK ? " beside CMYK" : "") +
                            " is not supported (one alpha sample is)");
    }
    convert_[0] = first;
    for (int p = 1; p < basePlanes; ++p)
        convert_[p] = chroma;  // the alpha plane after them is copied

    info_.width = static_cast<int32_t>(width);
    info_.height = static_cast<int32_t>(height);
    info_.mode = mode;
    info_.depth = bits;
    info_.alpha = alpha;

    tiled_ = TIFFIsTiled(tif) != 0;
    const uint32_t samplesInBlock = separate_ ? 1u : samplesPerPixel_;
    if (tiled_) {
        TIFFGetField(tif, TIFFTAG_TILEWIDTH, &blockWidth_);
        TIFFGetField(tif, TIFFTAG_TILELENGTH, &blockHeight_);
        if (blockWidth_ == 0 || blockHeight_ == 0)
            throw HostError(kExitInput, name + ": TIFF tiles of zero size");
    } else {
        uint32_t rowsPerStrip = height;
        TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
        blockWidth_ = width;
        blockHeight_ = std::clamp<uint32_t>(rowsPerStrip, 1u, height);
    }
    blockRowBytes_ = static_cast<uint64_t>(blockWidth_) * samplesInBlock * (bits / 8);

    // The header's sizes against the file and the budget, before any block
    // is allocated.
    const uint64_t blockBytes =
        static_cast<uint64_t>(tiled_ ? TIFFTileSize64(tif) : TIFFStripSize64(tif));
    if (blockBytes == 0)
        throw HostError(kExitInput, name + ": " + takeTiffError());
    const uint64_t imageBytes = uint64_t{width} * height * samplesPerPixel_ * (bits / 8);
    std::error_code ec;
    const double ratio = maxCompressionRatio(compression_, samplesPerPixel_ * (bits / 8u));
    if (ratio > 0)
        checkFileCanHold(name, width, height, imageBytes,
                         static_cast<uint64_t>(std::filesystem::file_size(path, ec)), ratio);
    checkMemoryBudget(name,
                      std::string("a TIFF ") + (tiled_ ? "tile" : "strip") + " of " +
                          std::to_string(blockWidth_) + " x " + std::to_string(blockHeight_) +
                          " pixels",
                      blockBytes, options.memoryLimit);

    uint32_t count = 0;
    const void* data = nullptr;
    if (TIFFGetField(tif, TIFFTAG_ICCPROFILE, &count, &data) && data && count > 0) {
        const auto* bytes = static_cast<const uint8_t*>(data);
        icc_.assign(bytes, bytes + count);
    }

    blockCount_ = tiled_ ? TIFFNumberOfTiles(tif) : TIFFNumberOfStrips(tif);
    // Not for a block larger than the cache (one huge strip): that one is
    // decoded once, on demand.
    if (blockCount_ > 1 && blockBytes <= budget_) {
        const unsigned threads = std::clamp(std::thread::hardware_concurrency(), 1u, 2u);
        for (unsigned i = 0; i < threads; ++i)
            prefetchers_.emplace_back([this] { prefetch(); });
    }
}

TiffHandle TiffSource::openHandle() const {
    // libtiff's own buffers (tag arrays, strip tables, compressed data) stay
    // within the memory budget too.
    std::unique_ptr<TIFFOpenOptions, decltype(&TIFFOpenOptionsFree)> openOptions(
        TIFFOpenOptionsAlloc(), TIFFOpenOptionsFree);
    if (!openOptions)
        throw HostError(kExitFailed, "out of memory");
    TIFFOpenOptionsSetMaxSingleMemAlloc(openOptions.get(), static_cast<tmsize_t>(std::min<uint64_t>(
                                                               memoryLimit_, uint64_t{1} << 62)));
    // "m": no memory mapping. Touched pages of a mapped file count as resident
    // memory, which would grow with the image instead of the cache budget.
    return TiffHandle(TIFFOpenExt(path_.c_str(), "rm", openOptions.get()));
}

TiffSource::~TiffSource() {
    stopPrefetch();
}

void TiffSource::stopPrefetch() {
    stopping_ = true;
    for (auto& t : prefetchers_)
        if (t.joinable())
            t.join();
    prefetchers_.clear();
}

// One prefetch thread: claims blocks in file order and decodes them into the
// cache while it has room. A block that fails to decode is left to block(),
// which reports it.
void TiffSource::prefetch() {
    TiffHandle handle;
    try {
        handle = openHandle();
    } catch (...) {
        return;
    }
    if (!handle)
        return;
    TIFF* tif = handle.get();
    const tmsize_t size = tiled_ ? TIFFTileSize(tif) : TIFFStripSize(tif);
    if (size <= 0)
        return;
    while (!stopping_) {
        const uint32_t index = nextPrefetch_++;
        if (index >= blockCount_)
            return;
        {
            std::lock_guard lock(mutex_);
            if (cache_.count(index))
                continue;
            if (cacheBytes_ + inFlight_.size() * static_cast<uint64_t>(size) +
                    static_cast<uint64_t>(size) >
                budget_)
                return;  // full: the rest is decoded on demand
            inFlight_.insert(index);
        }
        Block b;
        bool decoded = false;
        try {
            decoded = decodeBlock(tif, index, size, b);
        } catch (...) {
        }
        std::lock_guard lock(mutex_);
        inFlight_.erase(index);
        // Short blocks (the last strip) are kept whole: block() checks rows.
        if (decoded && !cache_.count(index))
            keepLocked(index, std::move(b));
        decoded_.notify_all();
        if (!decoded)
            return;
    }
}

void TiffCloser::operator()(TIFF* tif) const {
    if (tif)
        TIFFClose(tif);
}

const TiffSource::Block& TiffSource::block(uint32_t index, uint32_t expectedRows) {
    TIFF* tif = tif_.get();
    const tmsize_t size = tiled_ ? TIFFTileSize(tif) : TIFFStripSize(tif);
    const uint64_t needed = blockRowBytes_ * expectedRows;
    if (size <= 0 || static_cast<uint64_t>(size) < needed)
        throw HostError(kExitInput, path_.string() + ": inconsistent TIFF block size");
    {
        std::unique_lock lock(mutex_);
        decoded_.wait(lock, [&] { return !inFlight_.count(index); });
        auto found = cache_.find(index);
        if (found != cache_.end() && found->second.decoded >= needed) {
            lru_.splice(lru_.begin(), lru_, found->second.lru);
            return found->second;
        }
        if (found != cache_.end())  // prefetched short: decoded again below, and reported
            dropLocked(found);
        // Make room first so that peak memory stays within budget plus one block.
        while (!lru_.empty() && cacheBytes_ + static_cast<uint64_t>(size) > budget_)
            dropLocked(cache_.find(lru_.back()));
    }
    Block b;
    if (!decodeBlock(tif, index, size, b) || b.decoded < needed) {
        stopPrefetch();  // a damaged file: stop before reporting it
        throw HostError(kExitInput, path_.string() + ": cannot decode " +
                                        (tiled_ ? "tile " : "strip ") + std::to_string(index) +
                                        " (truncated or corrupt file: " + takeTiffError() + ")");
    }
    std::lock_guard lock(mutex_);
    if (auto raced = cache_.find(index); raced != cache_.end()) {
        // A prefetch thread claimed it after the check.
        if (raced->second.decoded >= needed)
            return raced->second;
        dropLocked(raced);
    }
    return keepLocked(index, std::move(b));
}

bool TiffSource::decodeBlock(TIFF* tif, uint32_t index, int64_t size, Block& b) const {
    b.data.resize(static_cast<size_t>(size));  // not zeroed: libtiff fills it or fails
    const auto n = static_cast<tmsize_t>(size);
    const tmsize_t got = tiled_ ? TIFFReadEncodedTile(tif, index, b.data.data(), n)
                                : TIFFReadEncodedStrip(tif, index, b.data.data(), n);
    b.decoded = got < 0 ? 0 : static_cast<uint64_t>(got);
    return got >= 0;
}

const TiffSource::Block& TiffSource::keepLocked(uint32_t index, Block&& b) {
    ++blocksDecoded_;
    lru_.push_front(index);
    b.lru = lru_.begin();
    cacheBytes_ += b.data.size();
    peakCacheBytes_ = std::max(peakCacheBytes_, cacheBytes_);
    return cache_.emplace(index, std::move(b)).first->second;
}

void TiffSource::dropLocked(std::unordered_map<uint32_t, Block>::iterator it) {
    cacheBytes_ -= it->second.data.size();
    lru_.erase(it->second.lru);
    cache_.erase(it);
}

template <class Visit>
void TiffSource::visitRows(const CvRect& rect, uint32_t fileSample, Visit&& visit) {
    const uint32_t bps = info_.depth == 16 ? 2 : 1;
    const uint32_t stride = separate_ ? 1u : samplesPerPixel_;
    const uint32_t sampleInBlock = separate_ ? 0u : fileSample;
    const uint32_t bx0 = static_cast<uint32_t>(rect.left) / blockWidth_;
    const uint32_t bx1 = static_cast<uint32_t>(rect.right - 1) / blockWidth_;
    const uint32_t by0 = static_cast<uint32_t>(rect.top) / blockHeight_;
    const uint32_t by1 = static_cast<uint32_t>(rect.bottom - 1) / blockHeight_;
    for (uint32_t by = by0; by <= by1; ++by) {
        for (uint32_t bx = bx0; bx <= bx1; ++bx) {
            const uint32_t x0 = bx * blockWidth_, y0 = by * blockHeight_;
            const uint32_t rows =
                std::min<uint32_t>(blockHeight_, static_cast<uint32_t>(info_.height) - y0);
            uint32_t index;
            if (tiled_)
                index = TIFFComputeTile(tif_.get(), x0, y0, 0,
                                        separate_ ? static_cast<uint16_t>(fileSample) : 0);
            else
                index = TIFFComputeStrip(tif_.get(), y0,
                                         separate_ ? static_cast<uint16_t>(fileSample) : 0);
            // Tiles are always stored whole; strips only down to the last row.
            const Block& b = block(index, tiled_ ? blockHeight_ : rows);
            const CvRect area =
                intersect(rect, CvRect{static_cast<int32_t>(x0), static_cast<int32_t>(y0),
                                       static_cast<int32_t>(x0 + blockWidth_),
                                       static_cast<int32_t>(y0 + rows)});
            for (int32_t y = area.top; y < area.bottom; ++y) {
                const uint8_t* src =
                    b.data.data() + (static_cast<uint64_t>(y) - y0) * blockRowBytes_ +
                    (static_cast<uint64_t>(area.left - x0) * stride + sampleInBlock) * bps;
                visit(src, stride, y - rect.top, area.left - rect.left, area.right - area.left);
            }
        }
    }
}

void TiffSource::readPlane(const CvRect& rect, int plane, void* buffer, ptrdiff_t rowBytes) {
    if (plane < 0 || plane >= info_.planes() || !rectInside(rect, info_.bounds()))
        throw HostError(kExitFailed, path_.string() + ": plane request outside the image");
    const bool sixteen = info_.depth == 16;
    const bool palette = !palette_.empty();
    const uint32_t bps = sixteen ? 2 : 1;
    // A palette file has one index sample; every plane looks it up.
    const uint32_t fileSample = palette ? 0u : static_cast<uint32_t>(plane);
    const Convert convert = convert_[plane];
    auto* out = static_cast<uint8_t*>(buffer);
    visitRows(rect, fileSample,
              [&](const uint8_t* src, uint32_t stride, int32_t row, int32_t column, int32_t n) {
                  uint8_t* dst = out + static_cast<ptrdiff_t>(row) * rowBytes +
                                 static_cast<ptrdiff_t>(column) * bps;
                  if (palette) {
                      const uint8_t* map = palette_.data() + plane;
                      for (int32_t i = 0; i < n; ++i, src += stride)
                          dst[i] = map[3 * size_t{*src}];
                  } else if (!sixteen && convert == Convert::Copy) {
                      copyPixels(src, stride, dst, 1, 1, n);
                  } else if (!sixteen) {
                      for (int32_t i = 0; i < n; ++i, src += stride) {
                          const uint8_t v = *src;
                          dst[i] = convert == Convert::Invert
                                       ? static_cast<uint8_t>(255 - v)
                                       : static_cast<uint8_t>(v ^ 0x80);  // int8 + 128
                      }
                  } else {
                      auto* d = reinterpret_cast<uint16_t*>(dst);
                      for (int32_t i = 0; i < n; ++i, src += 2 * stride) {
                          uint16_t v;
                          std::memcpy(&v, src, 2);
                          if (convert == Convert::Invert)
                              v = static_cast<uint16_t>(65535 - v);
                          else if (convert == Convert::SignedOffset)
                              v = static_cast<uint16_t>(v ^ 0x8000);
                          d[i] = hostFromFile16(v);
                      }
                  }
              });
}

void TiffSource::readPixels(const CvRect& rect, uint8_t* dst, ptrdiff_t columnBytes,
                            ptrdiff_t rowBytes) {
    const int planes = info_.planes();
    const bool plain =
        !separate_ && palette_.empty() &&
        std::all_of(convert_, convert_ + planes, [](Convert c) { return c == Convert::Copy; });
    if (!plain) {
        ImageSource::readPixels(rect, dst, columnBytes, rowBytes);
        return;
    }
    if (!rectInside(rect, info_.bounds()))
        throw HostError(kExitFailed, path_.string() + ": pixel request outside the image");
    const bool sixteen = info_.depth == 16;
    const auto column = static_cast<size_t>(columnBytes);
    visitRows(rect, 0, [&](const uint8_t* src, uint32_t stride, int32_t row, int32_t x, int32_t n) {
        uint8_t* out =
            dst + static_cast<ptrdiff_t>(row) * rowBytes + static_cast<ptrdiff_t>(x) * columnBytes;
        if (!sixteen) {
            copyPixels(src, stride, out, column, static_cast<size_t>(planes), n);
            return;
        }
        for (int32_t i = 0; i < n; ++i, src += 2 * stride, out += column)
            for (int p = 0; p < planes; ++p) {
                uint16_t v;
                std::memcpy(&v, src + 2 * p, 2);
                v = hostFromFile16(v);
                std::memcpy(out + 2 * p, &v, 2);
            }
    });
}

bool needsBigTiff(const ImageInfo& info, uint32_t tileSize, bool compressed) {
    const uint64_t across = (static_cast<uint64_t>(info.width) + tileSize - 1) / tileSize;
    const uint64_t down = (static_cast<uint64_t>(info.height) + tileSize - 1) / tileSize;
    const uint64_t pixels = across * down * tileSize * tileSize;
    uint64_t bytes = pixels * static_cast<uint64_t>(info.planes()) * info.bytesPerSample();
    if (compressed)
        bytes += bytes / 2;
    return bytes + (64ull << 20) > 0xFFFFFFFFull;
}

uint16_t outputCompression(uint16_t inputCompression) {
    switch (inputCompression) {
        case kTiffNone:
        case kTiffLzw:
        case kTiffDeflate:
        case kTiffPackBits:
            return inputCompression;
        case COMPRESSION_DEFLATE:  // the old private code of Deflate
            return kTiffDeflate;
        default:
            return kTiffLzw;
    }
}

TiffTileWriter::TiffTileWriter(const std::filesystem::path& path, const ImageInfo& info,
                               const TiffWriteOptions& options)
    : path_(path),
      name_(options.name.empty() ? path.string() : options.name),
      info_(info),
      tileSize_(options.tileSize) {
    installTiffHandlers();
    errno = 0;
    tif_.reset(TIFFOpen(path.c_str(), options.bigTiff ? "w8" : "w"));
    if (!tif_)
        throw failure("cannot create");
    TIFF* tif = tif_.get();
    const uint16_t planes = static_cast<uint16_t>(info.planes());
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(info.width));
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(info.height));
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, static_cast<uint16_t>(info.depth));
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, planes);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    if (info.alpha != Alpha::None) {
        const uint16_t extra =
            info.alpha == Alpha::Premultiplied ? EXTRASAMPLE_ASSOCALPHA : EXTRASAMPLE_UNASSALPHA;
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &extra);
    }
    TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
    switch (info.mode) {
        case Mode::Gray:
            TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
            break;
        case Mode::RGB:
            TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
            break;
        case Mode::CMYK:
            TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_SEPARATED);
            TIFFSetField(tif, TIFFTAG_INKSET, INKSET_CMYK);
            break;
        case Mode::Lab:
            TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_CIELAB);
            break;
    }
    TIFFSetField(tif, TIFFTAG_COMPRESSION, options.compression);
    if (options.compression == kTiffLzw || options.compression == kTiffDeflate)
        TIFFSetField(tif, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
    TIFFSetField(tif, TIFFTAG_TILEWIDTH, tileSize_);
    TIFFSetField(tif, TIFFTAG_TILELENGTH, tileSize_);
    TIFFSetField(tif, TIFFTAG_SOFTWARE, "Curvana");
    if (!options.icc.empty())
        TIFFSetField(tif, TIFFTAG_ICCPROFILE, static_cast<uint32_t>(options.icc.size()),
                     options.icc.data());
    if (!options.xmpPacket.empty())
        TIFFSetField(tif, TIFFTAG_XMLPACKET, static_cast<uint32_t>(options.xmpPacket.size()),
                     options.xmpPacket.data());
    tilesAcross_ = (static_cast<uint32_t>(info.width) + tileSize_ - 1) / tileSize_;
    tilesDown_ = (static_cast<uint32_t>(info.height) + tileSize_ - 1) / tileSize_;
    scratch_.resize(static_cast<size_t>(tileSize_) * tileSize_ * planes * info.bytesPerSample());
}

TiffTileWriter::~TiffTileWriter() = default;

HostError TiffTileWriter::failure(const char* what) const {
    // libtiff keeps the system's reason only in errno.
    if (errno == ENOSPC || errno == EDQUOT)
        return writeError(name_, errno);
    return HostError(kExitOutput, name_ + ": " + what + " (" + takeTiffError() + ")");
}

void TiffTileWriter::writeTile(uint32_t tx, uint32_t ty, const uint8_t* host) {
    if (!tif_)
        throw HostError(kExitFailed, name_ + ": write after close");
    const size_t samples =
        static_cast<size_t>(tileSize_) * tileSize_ * static_cast<size_t>(info_.planes());
    const int planes = info_.planes();
    // Lab's a and b are signed in the file; alpha after them is not.
    const bool lab = info_.mode == Mode::Lab;
    auto chroma = [&](size_t i) { return lab && i % planes != 0 && i % planes < 3; };
    if (info_.depth == 8) {
        for (size_t i = 0; i < samples; ++i) {
            const uint8_t v = host[i];
            scratch_[i] = chroma(i) ? static_cast<uint8_t>(v ^ 0x80) : v;
        }
    } else {
        const auto* src = reinterpret_cast<const uint16_t*>(host);
        auto* dst = reinterpret_cast<uint16_t*>(scratch_.data());
        for (size_t i = 0; i < samples; ++i) {
            uint16_t v = fileFromHost16(src[i]);
            if (chroma(i))
                v = static_cast<uint16_t>(v ^ 0x8000);
            dst[i] = v;
        }
    }
    const uint32_t index = TIFFComputeTile(tif_.get(), tx * tileSize_, ty * tileSize_, 0, 0);
    errno = 0;
    if (TIFFWriteEncodedTile(tif_.get(), index, scratch_.data(),
                             static_cast<tmsize_t>(scratch_.size())) < 0)
        throw failure("cannot write tile");
}

void TiffTileWriter::close() {
    if (!tif_)
        return;
    errno = 0;
    const bool ok = TIFFWriteDirectory(tif_.get()) != 0;
    int error = errno;
    // TIFFClose flushes; its failure shows only in the error handler.
    if (ok)
        tiffLastError.clear();
    errno = 0;
    tif_.reset();
    if (!ok || !tiffLastError.empty()) {
        errno = ok ? errno : error;
        throw failure("cannot finish the file");
    }
}

}  // namespace Curvana::Host
