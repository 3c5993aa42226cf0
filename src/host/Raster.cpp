#include "Raster.h"

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <new>
#include <optional>
#include <thread>

#include "ImageFiles.h"
#include "SampleMask.h"
#include "TiffFile.h"

namespace Curvana::Host {

Raster Raster::allocate(const ImageInfo& info) {
    if (info.width <= 0 || info.height <= 0)
        throw HostError(kExitInput, "the image has zero size");
    Raster r;
    r.info = info;
    try {
        r.data.resize(static_cast<size_t>(info.byteCount()));
    } catch (const std::bad_alloc&) {
        throw HostError(kExitFailed, "not enough memory for a " + std::to_string(info.width) +
                                         " x " + std::to_string(info.height) + " image");
    }
    return r;
}

void extractPlane(const uint8_t* interleaved, ptrdiff_t srcRowBytes, int planes, int plane,
                  size_t bytesPerSample, int32_t width, int32_t height, uint8_t* dst,
                  ptrdiff_t dstRowBytes) {
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* s =
            interleaved + srcRowBytes * y + static_cast<size_t>(plane) * bytesPerSample;
        uint8_t* d = dst + dstRowBytes * y;
        if (bytesPerSample == 1) {
            for (int32_t x = 0; x < width; ++x)
                d[x] = s[static_cast<size_t>(x) * planes];
        } else {
            for (int32_t x = 0; x < width; ++x)
                std::memcpy(d + 2 * x, s + static_cast<size_t>(x) * planes * 2, 2);
        }
    }
}

namespace {

// One plane's values side by side into pixels dstColumn bytes apart.
void scatterPlane(const uint8_t* src, ptrdiff_t srcRowBytes, size_t bytesPerSample, int32_t width,
                  int32_t height, uint8_t* dst, size_t dstColumn, ptrdiff_t dstRowBytes) {
    for (int32_t y = 0; y < height; ++y) {
        const uint8_t* s = src + srcRowBytes * y;
        uint8_t* d = dst + dstRowBytes * y;
        if (bytesPerSample == 1) {
            for (int32_t x = 0; x < width; ++x)
                d[static_cast<size_t>(x) * dstColumn] = s[x];
        } else {
            for (int32_t x = 0; x < width; ++x)
                std::memcpy(d + static_cast<size_t>(x) * dstColumn, s + 2 * x, 2);
        }
    }
}

template <size_t Value, size_t From, size_t To>
void copyPixelsFixed(const uint8_t* __restrict src, uint8_t* __restrict dst, int32_t n) {
    for (int32_t i = 0; i < n; ++i)
        std::memcpy(dst + static_cast<size_t>(i) * To, src + static_cast<size_t>(i) * From, Value);
}

}  // namespace

void insertPlane(const uint8_t* src, ptrdiff_t srcRowBytes, int planes, int plane,
                 size_t bytesPerSample, int32_t width, int32_t height, uint8_t* interleaved,
                 ptrdiff_t dstRowBytes) {
    scatterPlane(src, srcRowBytes, bytesPerSample, width, height,
                 interleaved + static_cast<size_t>(plane) * bytesPerSample,
                 static_cast<size_t>(planes) * bytesPerSample, dstRowBytes);
}

void copyPixels(const uint8_t* src, size_t srcColumn, uint8_t* dst, size_t dstColumn,
                size_t valueBytes, int32_t n) {
    if (srcColumn == valueBytes && dstColumn == valueBytes) {
        std::memcpy(dst, src, valueBytes * static_cast<size_t>(n));
        return;
    }
    // The layouts the renderer's texels and the planes of RGB files meet,
    // with the sizes known to the compiler, so that each pixel is a move or
    // two rather than a call.
    const auto key = (valueBytes << 16) | (srcColumn << 8) | dstColumn;
    switch (key) {
        case (3 << 16) | (3 << 8) | 4:
            return copyPixelsFixed<3, 3, 4>(src, dst, n);
        case (3 << 16) | (4 << 8) | 3:
            return copyPixelsFixed<3, 4, 3>(src, dst, n);
        case (1 << 16) | (1 << 8) | 4:
            return copyPixelsFixed<1, 1, 4>(src, dst, n);
        case (1 << 16) | (4 << 8) | 1:
            return copyPixelsFixed<1, 4, 1>(src, dst, n);
        case (1 << 16) | (3 << 8) | 1:
            return copyPixelsFixed<1, 3, 1>(src, dst, n);
        case (6 << 16) | (6 << 8) | 8:
            return copyPixelsFixed<6, 6, 8>(src, dst, n);
        case (6 << 16) | (8 << 8) | 6:
            return copyPixelsFixed<6, 8, 6>(src, dst, n);
        default:
            for (int32_t i = 0; i < n; ++i)
                std::memcpy(dst + static_cast<size_t>(i) * dstColumn,
                            src + static_cast<size_t>(i) * srcColumn, valueBytes);
    }
}

void ImageSource::readPixels(const CvRect& rect, uint8_t* dst, ptrdiff_t columnBytes,
                             ptrdiff_t rowBytes) {
    const int32_t w = rect.right - rect.left, h = rect.bottom - rect.top;
    const size_t bps = info_.bytesPerSample();
    std::vector<uint8_t> plane(static_cast<size_t>(w) * h * bps);
    for (int p = 0; p < info_.planes(); ++p) {
        readPlane(rect, p, plane.data(), static_cast<ptrdiff_t>(w * bps));
        scatterPlane(plane.data(), static_cast<ptrdiff_t>(w * bps), bps, w, h,
                     dst + static_cast<size_t>(p) * bps, static_cast<size_t>(columnBytes),
                     rowBytes);
    }
}

MemorySource::MemorySource(std::filesystem::path path, FileFormat format, Raster raster,
                           std::vector<uint8_t> icc)
    : raster_(std::move(raster)) {
    path_ = std::move(path);
    format_ = format;
    info_ = raster_.info;
    icc_ = std::move(icc);
}

MemorySource::MemorySource(std::filesystem::path path, FileFormat format,
                           std::unique_ptr<PixelDecoder> decoder)
    : decoder_(std::move(decoder)) {
    path_ = std::move(path);
    format_ = format;
    info_ = decoder_->info();
    icc_ = decoder_->iccProfile();
    raster_ = Raster::allocate(info_);
    decoding_ = std::thread([this] {
        std::optional<HostError> error;
        try {
            decoder_->decode(raster_.data.data(), [this](int32_t rows) {
                {
                    std::lock_guard lock(mutex_);
                    rowsReady_ = rows;
                }
                progress_.notify_all();
                return !stopping_;
            });
        } catch (const HostError& e) {
            error = e;
        } catch (const std::bad_alloc&) {
            error = HostError(kExitFailed, path_.string() + ": out of memory while decoding");
        } catch (const std::exception& e) {
            error = HostError(kExitInput, path_.string() + ": " + e.what());
        }
        if (error) {
            {
                std::lock_guard lock(mutex_);
                failure_ = std::move(error);
            }
            progress_.notify_all();
        }
    });
}

MemorySource::~MemorySource() {
    stopping_ = true;
    if (decoding_.joinable())
        decoding_.join();
}

void MemorySource::waitForRows(int32_t rows) {
    if (!decoder_)
        return;
    std::unique_lock lock(mutex_);
    progress_.wait(lock, [&] { return rowsReady_ >= rows || failure_; });
    if (rowsReady_ < rows)
        throw *failure_;
}

const Raster& MemorySource::raster() {
    waitForRows(info_.height);
    return raster_;
}

void MemorySource::readPlane(const CvRect& rect, int plane, void* buffer, ptrdiff_t rowBytes) {
    if (plane < 0 || plane >= info_.planes() || !rectInside(rect, info_.bounds()))
        throw HostError(kExitFailed, path_.string() + ": plane request outside the image");
    waitForRows(rect.bottom);
    const size_t bps = info_.bytesPerSample();
    const uint8_t* origin =
        raster_.row(rect.top) + static_cast<size_t>(rect.left) * raster_.pixelBytes();
    extractPlane(origin, static_cast<ptrdiff_t>(raster_.rowBytes()), info_.planes(), plane, bps,
                 rect.right - rect.left, rect.bottom - rect.top, static_cast<uint8_t*>(buffer),
                 rowBytes);
}

void MemorySource::readPixels(const CvRect& rect, uint8_t* dst, ptrdiff_t columnBytes,
                              ptrdiff_t rowBytes) {
    if (!rectInside(rect, info_.bounds()))
        throw HostError(kExitFailed, path_.string() + ": pixel request outside the image");
    waitForRows(rect.bottom);
    const size_t pixel = raster_.pixelBytes();
    for (int32_t y = rect.top; y < rect.bottom; ++y)
        copyPixels(raster_.row(y) + static_cast<size_t>(rect.left) * pixel, pixel,
                   dst + rowBytes * (y - rect.top), static_cast<size_t>(columnBytes), pixel,
                   rect.right - rect.left);
}

std::unique_ptr<ImageSource> openImage(const std::filesystem::path& path,
                                       const SourceOptions& options) {
    std::error_code ec;
    if (!std::filesystem::exists(path, ec))
        throw HostError(kExitInput, path.string() + ": no such file");
    if (std::filesystem::is_directory(path, ec))
        throw HostError(kExitInput, path.string() + ": is a folder, not an image");
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw HostError(kExitInput, path.string() + ": cannot open (" + std::strerror(errno) + ")");
    unsigned char magic[8] = {};
    in.read(reinterpret_cast<char*>(magic), sizeof magic);
    const std::streamsize got = in.gcount();
    in.close();
    if (got == 0)
        throw HostError(kExitInput, path.string() + ": empty file");
    auto starts = [&](const char* bytes, int n) {
        return got >= n && std::memcmp(magic, bytes, n) == 0;
    };
    if (starts("II*\0", 4) || starts("MM\0*", 4) || starts("II+\0", 4) || starts("MM\0+", 4))
        return std::make_unique<TiffSource>(path, options);
    // The header now, the pixels on a thread of their own while the filter
    // starts (it solves before it reads a pixel).
    if (starts("\x89PNG\r\n\x1a\n", 8))
        return std::make_unique<MemorySource>(path, FileFormat::Png, openPng(path, options));
    if (starts("\xff\xd8\xff", 3))
        return std::make_unique<MemorySource>(path, FileFormat::Jpeg, openJpeg(path, options));
    throw HostError(kExitInput,
                    path.string() + ": unsupported image format (TIFF, PNG and JPEG are read)");
}

namespace {

// JPEG and PNG results: the image in memory, encoded on a thread of its own
// row by row as rows become final (complete in every plane), so that the
// encoding runs beside the filter's work rather than after it.
class MemoryResult final : public ResultImage {
public:
    MemoryResult(FileFormat format, std::filesystem::path path, ImageSource& source,
                 const ResultOptions& options)
        : format_(format),
          path_(std::move(path)),
          name_(options.name.empty() ? path_.string() : options.name),
          options_(options),
          source_(source) {
        checkFormatHolds(format_, source.info(), name_);
        const ImageInfo& info = source.info();
        checkMemoryBudget(name_,
                          std::string("a ") + formatName(format_) + " result of " +
                              std::to_string(info.width) + " x " + std::to_string(info.height) +
                              " pixels",
                          info.byteCount(), options.memoryLimit);
        // Not a copy of the source: what the filter writes is tracked, and
        // only what it left unwritten is read from the source at the end.
        raster_ = Raster::allocate(info);
        pixels_ = static_cast<size_t>(info.width) * static_cast<size_t>(info.height);
        written_.assign((pixels_ * static_cast<size_t>(info.planes()) + 63) / 64, 0);
        encoder_ = std::thread([this] { encode(); });
    }

    ~MemoryResult() override {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        ready_.notify_all();
        if (encoder_.joinable())
            encoder_.join();
    }
    MemoryResult(const MemoryResult&) = delete;
    MemoryResult& operator=(const MemoryResult&) = delete;

    void writePlane(const CvRect& rect, int plane, const void* buffer,
                    ptrdiff_t rowBytes) override {
        if (plane < 0 || plane >= raster_.info.planes() || !rectInside(rect, raster_.info.bounds()))
            throw HostError(kExitFailed, name_ + ": result plane outside the image");
        const int32_t top = firstOpenRow(rect);
        if (top < rect.bottom) {
            uint8_t* origin =
                raster_.row(top) + static_cast<size_t>(rect.left) * raster_.pixelBytes();
            insertPlane(static_cast<const uint8_t*>(buffer) + rowBytes * (top - rect.top), rowBytes,
                        raster_.info.planes(), plane, raster_.info.bytesPerSample(),
                        rect.right - rect.left, rect.bottom - top, origin,
                        static_cast<ptrdiff_t>(raster_.rowBytes()));
        }
        wrote(rect, top, plane, plane + 1);
    }

    void writePixels(const CvRect& rect, const uint8_t* src, ptrdiff_t columnBytes,
                     ptrdiff_t rowBytes) override {
        if (!rectInside(rect, raster_.info.bounds()))
            throw HostError(kExitFailed, name_ + ": result pixels outside the image");
        const size_t pixel = raster_.pixelBytes();
        const int32_t top = firstOpenRow(rect);
        for (int32_t y = top; y < rect.bottom; ++y)
            copyPixels(src + rowBytes * (y - rect.top), static_cast<size_t>(columnBytes),
                       raster_.row(y) + static_cast<size_t>(rect.left) * pixel, pixel, pixel,
                       rect.right - rect.left);
        wrote(rect, top, 0, raster_.info.planes());
    }

    void finish() override {
        fillUnwritten();
        {
            std::lock_guard lock(mutex_);
            final_ = raster_.info.height;
        }
        ready_.notify_all();
        encoder_.join();
        if (failure_)
            throw *failure_;
    }

private:
    // Rows above final_ belong to the encoder: a write that reaches into
    // them (the filter writing a finished part again) leaves them alone.
    int32_t firstOpenRow(const CvRect& rect) {
        std::lock_guard lock(mutex_);
        return std::max(rect.top, final_);
    }

    // Marks planes [first, last) of rect's rows from top as written and
    // hands the rows that are now final to the encoder.
    void wrote(const CvRect& rect, int32_t top, int first, int last) {
        const auto width = static_cast<size_t>(raster_.info.width);
        const auto n = static_cast<size_t>(rect.right - rect.left);
        for (int32_t y = top; y < rect.bottom; ++y)
            for (int p = first; p < last; ++p)
                written_.mark(static_cast<size_t>(p) * pixels_ + static_cast<size_t>(y) * width +
                                  static_cast<size_t>(rect.left),
                              n);
        anyWritten_ = true;
        int32_t final = top;
        const int planes = raster_.info.planes();
        auto complete = [&](int32_t y) {
            for (int p = 0; p < planes; ++p)
                if (!written_.all(static_cast<size_t>(p) * pixels_ + static_cast<size_t>(y) * width,
                                  width))
                    return false;
            return true;
        };
        {
            std::lock_guard lock(mutex_);
            if (top > final_)
                return;
            final = final_;
        }
        while (final < raster_.info.height && complete(final))
            ++final;
        {
            std::lock_guard lock(mutex_);
            final_ = std::max(final_, final);
        }
        ready_.notify_all();
    }

    void encode() {
        const WaitForRows wait = [this](int32_t rows) {
            std::unique_lock lock(mutex_);
            ready_.wait(lock, [&] { return final_ >= rows || stopping_; });
            if (final_ < rows)
                throw HostError(kExitFailed, name_ + ": not finished");
        };
        try {
            if (format_ == FileFormat::Png)
                writePng(path_, raster_, options_.icc, name_, wait);
            else
                writeJpeg(path_, raster_, options_.icc, options_.jpegQuality, name_, wait);
        } catch (const HostError& e) {
            failure_ = e;
        } catch (const std::bad_alloc&) {
            failure_ = HostError(kExitFailed, name_ + ": out of memory while encoding");
        } catch (const std::exception& e) {
            failure_ = HostError(kExitFailed, name_ + ": " + e.what());
        }
    }

    // Samples the filter never wrote keep the source's values: copied band by
    // band where a band has any (usually none: the filter writes everything).
    void fillUnwritten() {
        const ImageInfo& info = raster_.info;
        const size_t planes = static_cast<size_t>(info.planes());
        const size_t bps = info.bytesPerSample();
        const auto width = static_cast<size_t>(info.width);
        PixelBytes band;
        for (int32_t top = 0; top < info.height; top += 256) {
            const int32_t bottom = std::min(info.height, top + 256);
            const size_t first = static_cast<size_t>(top) * width;
            const size_t count = static_cast<size_t>(bottom - top) * width;
            bool complete = true;
            for (size_t p = 0; p < planes && complete; ++p)
                complete = written_.all(p * pixels_ + first, count);
            if (complete)
                continue;
            band.resize(count * planes * bps);
            source_.readInterleaved(CvRect{0, top, info.width, bottom}, band.data(),
                                    static_cast<ptrdiff_t>(raster_.rowBytes()));
            uint8_t* out = raster_.row(top);
            for (size_t i = 0; i < count; ++i)
                for (size_t p = 0; p < planes; ++p)
                    if (!written_.test(p * pixels_ + first + i))
                        std::memcpy(out + (i * planes + p) * bps,
                                    band.data() + (i * planes + p) * bps, bps);
        }
    }

    FileFormat format_;
    std::filesystem::path path_;
    std::string name_;
    ResultOptions options_;
    ImageSource& source_;
    Raster raster_;
    size_t pixels_ = 0;
    SampleMask written_;  // plane by plane, row by row
    std::mutex mutex_;
    std::condition_variable ready_;
    int32_t final_ = 0;  // rows [0, final_) are complete and may be encoded
    bool stopping_ = false;
    std::optional<HostError> failure_;  // the encoder's; read after it ended
    std::thread encoder_;               // last: starts once the rest is made
};

}  // namespace

std::unique_ptr<ResultImage> createResult(FileFormat format, const std::filesystem::path& path,
                                          ImageSource& source, const ResultOptions& options) {
    if (format == FileFormat::Tiff)
        return makeTiledTiffResult(path, source, options);
    return std::make_unique<MemoryResult>(format, path, source, options);
}

}  // namespace Curvana::Host
