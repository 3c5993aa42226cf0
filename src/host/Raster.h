// An image held whole in memory, and the pixel-source and result-image
// interfaces through which the module's plane requests reach the files.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ImageTypes.h"

namespace Curvana::Host {

// An allocator that leaves new elements uninitialised: pixel buffers that
// the decoder fills next are not zeroed first (zeroing would touch every page
// of an image that a damaged file may never fill).
template <class T>
struct UninitializedAllocator : std::allocator<T> {
    template <class U>
    struct rebind {
        using other = UninitializedAllocator<U>;
    };
    UninitializedAllocator() = default;
    template <class U>
    UninitializedAllocator(const UninitializedAllocator<U>&) noexcept {}
    template <class U>
    void construct(U* p) noexcept {
        ::new (static_cast<void*>(p)) U;
    }
    template <class U, class... Args>
    void construct(U* p, Args&&... args) {
        ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
    }
};
using PixelBytes = std::vector<uint8_t, UninitializedAllocator<uint8_t>>;

// Interleaved host values (uint8_t at depth 8, native uint16_t at depth 16),
// rows top to bottom without padding.
struct Raster {
    ImageInfo info;
    PixelBytes data;

    // Uninitialised pixels. Throws HostError when the image is empty or
    // cannot be allocated; the caller checks the memory budget first.
    static Raster allocate(const ImageInfo& info);
    size_t pixelBytes() const { return static_cast<size_t>(info.planes()) * info.bytesPerSample(); }
    size_t rowBytes() const { return pixelBytes() * static_cast<size_t>(info.width); }
    uint8_t* row(int32_t y) { return data.data() + rowBytes() * static_cast<size_t>(y); }
    const uint8_t* row(int32_t y) const {
        return data.data() + rowBytes() * static_cast<size_t>(y);
    }
};

// Copies one plane of an interleaved block into a plane buffer, or back.
// Samples are bytesPerSample wide; strides are in bytes.
void extractPlane(const uint8_t* interleaved, ptrdiff_t srcRowBytes, int planes, int plane,
                  size_t bytesPerSample, int32_t width, int32_t height, uint8_t* dst,
                  ptrdiff_t dstRowBytes);
void insertPlane(const uint8_t* src, ptrdiff_t srcRowBytes, int planes, int plane,
                 size_t bytesPerSample, int32_t width, int32_t height, uint8_t* interleaved,
                 ptrdiff_t dstRowBytes);

// Copies n pixels of valueBytes each from src (pixels srcColumn bytes
// apart) to dst (dstColumn apart); the bytes between pixels are not touched.
void copyPixels(const uint8_t* src, size_t srcColumn, uint8_t* dst, size_t dstColumn,
                size_t valueBytes, int32_t n);

// The source photograph as the module reads it. readPlane copies plane
// `plane` of rect (inside bounds()) into buffer as host values. Errors
// (a strip that cannot be decoded) throw HostError naming the file.
class ImageSource {
public:
    virtual ~ImageSource() = default;
    const ImageInfo& info() const { return info_; }
    FileFormat format() const { return format_; }
    const std::filesystem::path& path() const { return path_; }
    const std::vector<uint8_t>& iccProfile() const { return icc_; }
    virtual void readPlane(const CvRect& rect, int plane, void* buffer, ptrdiff_t rowBytes) = 0;
    // Every plane of rect into dst, a pixel's values in plane order, pixels
    // columnBytes apart (at least a pixel), rows rowBytes apart; the bytes
    // between pixels keep their values. Sources that hold their pixels
    // interleaved copy them straight; this one goes plane by plane.
    virtual void readPixels(const CvRect& rect, uint8_t* dst, ptrdiff_t columnBytes,
                            ptrdiff_t rowBytes);
    // Reads every plane of rect interleaved into dst (rowBytes stride).
    void readInterleaved(const CvRect& rect, uint8_t* dst, ptrdiff_t rowBytes) {
        readPixels(rect, dst, static_cast<ptrdiff_t>(info_.planes() * info_.bytesPerSample()),
                   rowBytes);
    }

protected:
    ImageInfo info_;
    FileFormat format_ = FileFormat::Tiff;
    std::filesystem::path path_;
    std::vector<uint8_t> icc_;
};

class PixelDecoder;

// A decoded JPEG or PNG, held whole in memory. Made from a decoder, it
// decodes on a thread of its own from the start, and a read waits only for
// the rows it needs; a decode error reaches the read that needs its rows.
class MemorySource final : public ImageSource {
public:
    MemorySource(std::filesystem::path path, FileFormat format, Raster raster,
                 std::vector<uint8_t> icc);
    MemorySource(std::filesystem::path path, FileFormat format,
                 std::unique_ptr<PixelDecoder> decoder);
    ~MemorySource() override;
    MemorySource(const MemorySource&) = delete;
    MemorySource& operator=(const MemorySource&) = delete;
    void readPlane(const CvRect& rect, int plane, void* buffer, ptrdiff_t rowBytes) override;
    void readPixels(const CvRect& rect, uint8_t* dst, ptrdiff_t columnBytes,
                    ptrdiff_t rowBytes) override;
    // Every row (waits for the decode; throws its error).
    const Raster& raster();

private:
    void waitForRows(int32_t rows);

    Raster raster_;
    std::unique_ptr<PixelDecoder> decoder_;
    std::mutex mutex_;
    std::condition_variable progress_;
    int32_t rowsReady_ = 0;
    std::optional<HostError> failure_;
    std::atomic<bool> stopping_{false};
    std::thread decoding_;
};

// The default memory budget of one image when the caller sets none.
inline constexpr uint64_t kDefaultMemoryLimit = uint64_t{4} << 30;

struct SourceOptions {
    // How much memory the source may keep decoded (strips or tiles of a TIFF).
    uint64_t cacheBudget = 256ull << 20;
    // The most one image may take: a PNG or JPEG decoded whole, one TIFF
    // strip or tile. A file that asks for more is refused before allocating.
    uint64_t memoryLimit = kDefaultMemoryLimit;
};

// Opens a photograph by its content (not its extension). Throws HostError
// (kExitInput) with a one-line reason: missing, empty, unsupported format or
// mode, corrupt, or larger than its file or the memory budget allows.
std::unique_ptr<ImageSource> openImage(const std::filesystem::path& path,
                                       const SourceOptions& options = {});

// The image the module writes its result into. Pixels it never writes keep
// the source's values (the filter works in place). finish() writes the file.
class ResultImage {
public:
    virtual ~ResultImage() = default;
    // rect must lie inside the image; throws HostError otherwise.
    virtual void writePlane(const CvRect& rect, int plane, const void* buffer,
                            ptrdiff_t rowBytes) = 0;
    // Every plane of rect at once, laid out as ImageSource::readPixels
    // gives them.
    virtual void writePixels(const CvRect& rect, const uint8_t* src, ptrdiff_t columnBytes,
                             ptrdiff_t rowBytes) = 0;
    virtual void finish() = 0;
    bool anyWritten() const { return anyWritten_; }

protected:
    bool anyWritten_ = false;
};

struct ResultOptions {
    // The output as the user named it, for messages (the path written may be
    // a temporary one); empty: the path.
    std::string name;
    // Memory for result tiles not yet complete; beyond it they go to a
    // temporary file in spillFolder (TIFF only; default: the path's folder).
    uint64_t budget = 256ull << 20;
    std::filesystem::path spillFolder;
    // The most a JPEG or PNG result may hold in memory (a copy of the image).
    uint64_t memoryLimit = kDefaultMemoryLimit;
    std::vector<uint8_t> icc;
    std::string xmpPacket;  // embedded by TIFF output; JPEG and PNG get theirs from Exiv2
    int jpegQuality = 95;
};

// A result for source written as format to path. TIFF results are written
// tile by tile as tiles complete (memory bounded by options.budget); JPEG and
// PNG results are held whole in memory.
std::unique_ptr<ResultImage> createResult(FileFormat format, const std::filesystem::path& path,
                                          ImageSource& source, const ResultOptions& options);

}  // namespace Curvana::Host
