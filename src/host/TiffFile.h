// TIFF files read strip by strip or tile by tile through a bounded cache of
// decoded blocks, and written tile by tile, so that images far larger than
// memory pass through.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "Raster.h"

typedef struct tiff TIFF;

namespace Curvana::Host {

struct TiffCloser {
    void operator()(TIFF* tif) const;
};
using TiffHandle = std::unique_ptr<TIFF, TiffCloser>;

// libtiff reports through process-wide handlers, installed once: the last
// error of each thread is kept for the message that follows, and warnings
// (unknown tags and the like) are silenced.
void installTiffHandlers();
// The last libtiff error of this thread on one line, forgotten once taken.
std::string takeTiffError();
// Whether libtiff reported an error on this thread since the last take.
bool tiffErrorReported();

// TIFF compression codes the host writes.
inline constexpr uint16_t kTiffNone = 1, kTiffLzw = 5, kTiffDeflate = 8, kTiffPackBits = 32773;

// A TIFF photograph: grey (min-is-black or min-is-white), RGB (also
// JPEG-compressed YCbCr, decoded to RGB, and 8-bit palettes, expanded to
// RGB), CMYK, CIE Lab or ICC Lab; 8 or 16 bits; with one alpha sample (not
// beside CMYK); contiguous or separate planes; strips or tiles; classic or
// BigTIFF. Blocks (strips or tiles) are decoded on demand and kept in an LRU
// within the cache budget; one block is always kept, so a file stored as one
// huge strip needs that strip's memory, which the memory budget bounds.
// From the moment it is opened, threads with handles of their own decode
// blocks in file order into the cache until it is full, so that decoding
// overlaps whatever comes before the first read (the filter's solve) and
// uses every core.
class TiffSource final : public ImageSource {
public:
    TiffSource(const std::filesystem::path& path, const SourceOptions& options);
    ~TiffSource() override;
    void readPlane(const CvRect& rect, int plane, void* buffer, ptrdiff_t rowBytes) override;
    void readPixels(const CvRect& rect, uint8_t* dst, ptrdiff_t columnBytes,
                    ptrdiff_t rowBytes) override;

    bool tiled() const { return tiled_; }
    uint16_t compression() const { return compression_; }
    uint64_t blocksDecoded() const { return blocksDecoded_; }
    uint64_t peakCacheBytes() const { return peakCacheBytes_; }

private:
    enum class Convert { Copy, Invert, SignedOffset };
    struct Block {
        PixelBytes data;
        uint64_t decoded = 0;  // bytes libtiff produced
        std::list<uint32_t>::iterator lru;
    };
    const Block& block(uint32_t index, uint32_t expectedRows);
    // Calls visit(first sample, samples per pixel, row and column in rect,
    // pixels) for each block's part of each row of rect, in the blocks that
    // hold file sample fileSample.
    template <class Visit>
    void visitRows(const CvRect& rect, uint32_t fileSample, Visit&& visit);
    // Decodes block index into b (b.decoded: the bytes libtiff produced);
    // false when libtiff fails.
    bool decodeBlock(TIFF* tif, uint32_t index, int64_t size, Block& b) const;
    // The cache's only ways in and out; mutex_ held.
    const Block& keepLocked(uint32_t index, Block&& b);
    void dropLocked(std::unordered_map<uint32_t, Block>::iterator it);
    TiffHandle openHandle() const;
    void prefetch();
    void stopPrefetch();

    TiffHandle tif_;
    bool tiled_ = false;
    bool separate_ = false;
    uint16_t samplesPerPixel_ = 1;
    uint16_t compression_ = 1;
    uint32_t blockWidth_ = 0, blockHeight_ = 0;  // tile size, or image width x rows per strip
    uint64_t blockRowBytes_ = 0;
    Convert convert_[4] = {};
    std::vector<uint8_t> palette_;  // 256 RGB entries of a palette file, else empty
    uint64_t budget_;
    uint64_t cacheBytes_ = 0, peakCacheBytes_ = 0, blocksDecoded_ = 0;
    std::list<uint32_t> lru_;  // most recent first
    std::unordered_map<uint32_t, Block> cache_;
    uint64_t memoryLimit_ = 0;
    uint32_t blockCount_ = 0;
    // The cache, the LRU and the counters above are shared with the
    // prefetch threads under mutex_. They only add blocks; only block()
    // evicts, so a block it returned stays valid until its next call.
    std::mutex mutex_;
    std::condition_variable decoded_;
    std::unordered_set<uint32_t> inFlight_;  // being decoded by a prefetch thread
    std::atomic<uint32_t> nextPrefetch_{0};
    std::atomic<bool> stopping_{false};
    std::vector<std::thread> prefetchers_;
};

struct TiffWriteOptions {
    std::string name;  // the output as the user named it, for messages (empty: the path)
    uint16_t compression = kTiffLzw;
    bool bigTiff = false;
    uint32_t tileSize = 256;
    std::vector<uint8_t> icc;
    std::string xmpPacket;
};

// True when a tiled file of this image could pass the 4 GiB limit of classic
// TIFF: the padded tiles at file depth, times 1.5 when compressed (the worst
// case growth of LZW or Deflate on noise), plus 64 MiB for the directory.
bool needsBigTiff(const ImageInfo& info, uint32_t tileSize, bool compressed);

// Compression for an output: the input's own when it is one we write well
// (none, LZW, Deflate, PackBits), else LZW.
uint16_t outputCompression(uint16_t inputCompression);

// Writes a tiled, contiguous TIFF tile by tile in any order. Photometric:
// min-is-black, RGB, separated (CMYK ink set) or CIE Lab.
class TiffTileWriter {
public:
    TiffTileWriter(const std::filesystem::path& path, const ImageInfo& info,
                   const TiffWriteOptions& options);
    ~TiffTileWriter();
    uint32_t tileSize() const { return tileSize_; }
    uint32_t tilesAcross() const { return tilesAcross_; }
    uint32_t tilesDown() const { return tilesDown_; }
    // host: tileSize x tileSize interleaved host values (padding beyond the
    // image edge is written as given). Each tile once. Throws HostError.
    void writeTile(uint32_t tx, uint32_t ty, const uint8_t* host);
    // Writes the directory and closes the file. Throws HostError.
    void close();

private:
    HostError failure(const char* what) const;

    std::filesystem::path path_;
    std::string name_;
    ImageInfo info_;
    TiffHandle tif_;
    uint32_t tileSize_, tilesAcross_, tilesDown_;
    std::vector<uint8_t> scratch_;
};

// The TIFF result: tiles collect the module's plane writes in memory and are
// encoded as soon as all their samples are written. Incomplete tiles beyond
// options.budget move to an unlinked temporary file in options.spillFolder.
// finish() fills what was never written from the source and closes the file.
std::unique_ptr<ResultImage> makeTiledTiffResult(const std::filesystem::path& path,
                                                 ImageSource& source, const ResultOptions& options);

}  // namespace Curvana::Host
