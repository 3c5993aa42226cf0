#include <fcntl.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <list>
#include <mutex>
#include <optional>
#include <thread>
#include <unordered_map>

#include "SampleMask.h"
#include "TiffFile.h"

namespace Curvana::Host {
namespace {

// An unlinked temporary file of fixed-size slots, one per tile.
class SpillFile {
public:
    explicit SpillFile(std::filesystem::path folder) : folder_(std::move(folder)) {}
    ~SpillFile() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    SpillFile(const SpillFile&) = delete;
    SpillFile& operator=(const SpillFile&) = delete;

    void write(uint64_t offset, const void* data, size_t size) {
        open();
        const auto* p = static_cast<const uint8_t*>(data);
        while (size > 0) {
            const ssize_t n = ::pwrite(fd_, p, size, static_cast<off_t>(offset));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                throw writeError("the temporary tile store in " + folder_.string(), errno);
            p += n, offset += static_cast<uint64_t>(n), size -= static_cast<size_t>(n);
        }
    }
    void read(uint64_t offset, void* data, size_t size) {
        auto* p = static_cast<uint8_t*>(data);
        while (size > 0) {
            const ssize_t n = ::pread(fd_, p, size, static_cast<off_t>(offset));
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                throw HostError(kExitOutput,
                                "temporary tile store in " + folder_.string() + ": read failed");
            p += n, offset += static_cast<uint64_t>(n), size -= static_cast<size_t>(n);
        }
    }

private:
    void open() {
        if (fd_ >= 0)
            return;
        fd_ = ::open(folder_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
        if (fd_ < 0) {  // file systems without O_TMPFILE: create and unlink at once
            std::string name = (folder_ / ".curvana-tiles-XXXXXX").string();
            fd_ = ::mkstemp(name.data());
            if (fd_ >= 0)
                ::unlink(name.c_str());
        }
        if (fd_ < 0)
            throw HostError(kExitOutput,
                            "cannot create a temporary tile store in " + folder_.string());
    }
    std::filesystem::path folder_;
    int fd_ = -1;
};

// Encodes complete tiles on a thread of its own, in the order they were
// handed over (so the file is the same as when encoded inline), while the
// filter goes on rendering. The queue is bounded; its buffers return to the
// caller's pool for the next tiles.
class TileEncoder {
public:
    static constexpr size_t kMaxQueued = 32;

    explicit TileEncoder(TiffTileWriter& writer) : writer_(writer), thread_([this] { work(); }) {}
    ~TileEncoder() { stop(); }
    TileEncoder(const TileEncoder&) = delete;
    TileEncoder& operator=(const TileEncoder&) = delete;

    // Queues a tile; rethrows the encoder's first failure.
    void push(uint32_t tx, uint32_t ty, PixelBytes pixels) {
        std::unique_lock lock(mutex_);
        space_.wait(lock, [this] { return queue_.size() < kMaxQueued || failure_; });
        if (failure_)
            throw *failure_;
        queue_.push_back({tx, ty, std::move(pixels)});
        ready_.notify_one();
    }
    // A buffer the encoder is done with, if any.
    std::optional<PixelBytes> takeFree() {
        std::lock_guard lock(mutex_);
        if (free_.empty())
            return std::nullopt;
        PixelBytes b = std::move(free_.back());
        free_.pop_back();
        return b;
    }
    // Waits for every queued tile; rethrows the first failure.
    void drain() {
        std::unique_lock lock(mutex_);
        space_.wait(lock, [this] { return (queue_.empty() && !busy_) || failure_; });
        if (failure_)
            throw *failure_;
    }
    // Ends the thread; tiles still queued (a run that failed) are dropped.
    void stop() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
            queue_.clear();
        }
        ready_.notify_all();
        if (thread_.joinable())
            thread_.join();
    }

private:
    struct Job {
        uint32_t tx, ty;
        PixelBytes pixels;
    };

    void work() {
        std::unique_lock lock(mutex_);
        for (;;) {
            ready_.wait(lock, [this] { return !queue_.empty() || stopping_; });
            if (queue_.empty() || failure_)
                return;
            Job job = std::move(queue_.front());
            queue_.pop_front();
            busy_ = true;
            lock.unlock();
            std::optional<HostError> error;
            try {
                writer_.writeTile(job.tx, job.ty, job.pixels.data());
            } catch (const HostError& e) {
                error = e;
            } catch (const std::exception& e) {
                error = HostError(kExitFailed, e.what());
            }
            lock.lock();
            busy_ = false;
            if (error && !failure_)
                failure_ = std::move(error);
            if (free_.size() < kMaxQueued)
                free_.push_back(std::move(job.pixels));
            space_.notify_all();
        }
    }

    TiffTileWriter& writer_;
    std::mutex mutex_;
    std::condition_variable ready_, space_;
    std::deque<Job> queue_;
    std::vector<PixelBytes> free_;
    std::optional<HostError> failure_;
    bool busy_ = false;
    bool stopping_ = false;
    std::thread thread_;  // last: starts once the rest is made
};

class TiledTiffResult final : public ResultImage {
public:
    TiledTiffResult(const std::filesystem::path& path, ImageSource& source,
                    const ResultOptions& options)
        : source_(source),
          info_(source.info()),
          budget_(options.budget),
          spill_(spillFolder(path, options)),
          writer_(path, info_, writeOptions(source, options)) {
        tileSize_ = writer_.tileSize();
        tileSamples_ =
            static_cast<size_t>(tileSize_) * tileSize_ * static_cast<size_t>(info_.planes());
        tileBytes_ = tileSamples_ * info_.bytesPerSample();
        maskWords_ = (tileSamples_ + 63) / 64;
        state_.assign(static_cast<size_t>(writer_.tilesAcross()) * writer_.tilesDown(),
                      State::Untouched);
    }

    void writePlane(const CvRect& rect, int plane, const void* buffer,
                    ptrdiff_t rowBytes) override {
        if (plane < 0 || plane >= info_.planes() || !rectInside(rect, info_.bounds()))
            throw HostError(kExitFailed, "result plane outside the image");
        const size_t bps = info_.bytesPerSample();
        const size_t pixelBytes = bps * static_cast<size_t>(info_.planes());
        const auto* src = static_cast<const uint8_t*>(buffer);
        place(rect, plane, plane + 1, [&](int32_t row, int32_t column, uint8_t* d, size_t n) {
            const uint8_t* s = src + static_cast<ptrdiff_t>(row) * rowBytes +
                               static_cast<ptrdiff_t>(column) * static_cast<ptrdiff_t>(bps);
            d += static_cast<size_t>(plane) * bps;
            if (bps == 1) {
                for (size_t x = 0; x < n; ++x)
                    d[x * pixelBytes] = s[x];
            } else {
                for (size_t x = 0; x < n; ++x)
                    std::memcpy(d + x * pixelBytes, s + x * 2, 2);
            }
        });
    }

    void writePixels(const CvRect& rect, const uint8_t* src, ptrdiff_t columnBytes,
                     ptrdiff_t rowBytes) override {
        if (!rectInside(rect, info_.bounds()))
            throw HostError(kExitFailed, "result pixels outside the image");
        const size_t pixelBytes = info_.bytesPerSample() * static_cast<size_t>(info_.planes());
        place(rect, 0, info_.planes(), [&](int32_t row, int32_t column, uint8_t* d, size_t n) {
            copyPixels(src + static_cast<ptrdiff_t>(row) * rowBytes +
                           static_cast<ptrdiff_t>(column) * columnBytes,
                       static_cast<size_t>(columnBytes), d, pixelBytes, pixelBytes,
                       static_cast<int32_t>(n));
        });
    }

    void finish() override {
        const ptrdiff_t rowBytes = static_cast<ptrdiff_t>(tileSize_) * info_.planes() *
                                   static_cast<ptrdiff_t>(info_.bytesPerSample());
        const size_t planes = static_cast<size_t>(info_.planes());
        const size_t tilePixels = static_cast<size_t>(tileSize_) * tileSize_;
        const size_t bps = info_.bytesPerSample();
        for (uint32_t ty = 0; ty < writer_.tilesDown(); ++ty) {
            for (uint32_t tx = 0; tx < writer_.tilesAcross(); ++tx) {
                const uint32_t index = ty * writer_.tilesAcross() + tx;
                if (state_[index] == State::Written)
                    continue;
                const CvRect t = tileRect(tx, ty);
                PixelBytes fromSource = takeBuffer(true);
                source_.readInterleaved(t, fromSource.data(), rowBytes);
                if (state_[index] == State::Untouched) {
                    state_[index] = State::Written;
                    encoder().push(tx, ty, std::move(fromSource));
                    continue;
                }
                Tile& tile = load(index);
                for (size_t pixel = 0; pixel < tilePixels; ++pixel)
                    for (size_t p = 0; p < planes; ++p) {
                        const size_t bit = p * tilePixels + pixel;
                        if (!tile.mask.test(bit)) {
                            const size_t at = (pixel * planes + p) * bps;
                            std::memcpy(tile.pixels.data() + at, fromSource.data() + at, bps);
                        }
                    }
                complete(tx, ty, index);
            }
        }
        encoder().drain();
        encoder_->stop();
        writer_.close();
    }

private:
    enum class State : uint8_t { Untouched, Pending, Written };

    // Puts planes [first, last) of rect into the tiles it meets:
    // copy(row and column in rect, the first of n tile pixels, n) copies one
    // row's part; the tiles this completes are encoded.
    template <class Copy>
    void place(const CvRect& rect, int first, int last, Copy&& copy) {
        if (rectEmpty(rect))
            return;
        anyWritten_ = true;
        const size_t pixelBytes = info_.bytesPerSample() * static_cast<size_t>(info_.planes());
        const size_t tilePixels = static_cast<size_t>(tileSize_) * tileSize_;
        for (uint32_t ty = rect.top / tileSize_;
             ty <= static_cast<uint32_t>(rect.bottom - 1) / tileSize_; ++ty) {
            for (uint32_t tx = rect.left / tileSize_;
                 tx <= static_cast<uint32_t>(rect.right - 1) / tileSize_; ++tx) {
                const uint32_t index = ty * writer_.tilesAcross() + tx;
                if (state_[index] == State::Written)
                    continue;  // a second write of a finished tile is dropped
                Tile& tile = load(index);
                const CvRect t = tileRect(tx, ty);
                const CvRect area = intersect(rect, t);
                const auto n = static_cast<size_t>(area.right - area.left);
                for (int32_t y = area.top; y < area.bottom; ++y) {
                    const size_t pixel = static_cast<size_t>(y - t.top) * tileSize_ +
                                         static_cast<size_t>(area.left - t.left);
                    copy(y - rect.top, area.left - rect.left,
                         tile.pixels.data() + pixel * pixelBytes, n);
                    // The mask is plane by plane, so a row's samples are one
                    // run of bits per plane.
                    for (int p = first; p < last; ++p)
                        tile.covered +=
                            tile.mask.mark(static_cast<size_t>(p) * tilePixels + pixel, n);
                }
                if (tile.covered == validSamples(t))
                    complete(tx, ty, index);
            }
        }
        trim();
    }
    struct Tile {
        PixelBytes pixels;  // host values, tileSize x tileSize interleaved
        SampleMask mask;    // one bit per written sample, plane by plane
        size_t covered = 0;
        bool inMemory = false;
        bool spilled = false;
        std::list<uint32_t>::iterator lru;
    };

    static std::filesystem::path spillFolder(const std::filesystem::path& path,
                                             const ResultOptions& options) {
        if (!options.spillFolder.empty())
            return options.spillFolder;
        return path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    }

    static TiffWriteOptions writeOptions(ImageSource& source, const ResultOptions& options) {
        TiffWriteOptions w;
        const auto* tiff = dynamic_cast<const TiffSource*>(&source);
        w.compression = tiff ? outputCompression(tiff->compression()) : COMPRESSION_LZW;
        w.bigTiff = needsBigTiff(source.info(), w.tileSize, w.compression != COMPRESSION_NONE);
        w.icc = options.icc;
        w.xmpPacket = options.xmpPacket;
        w.name = options.name;
        return w;
    }

    CvRect tileRect(uint32_t tx, uint32_t ty) const {
        const int32_t x = static_cast<int32_t>(tx * tileSize_),
                      y = static_cast<int32_t>(ty * tileSize_);
        return CvRect{x, y, std::min<int32_t>(x + static_cast<int32_t>(tileSize_), info_.width),
                      std::min<int32_t>(y + static_cast<int32_t>(tileSize_), info_.height)};
    }
    size_t validSamples(const CvRect& t) const {
        return static_cast<size_t>(t.right - t.left) * static_cast<size_t>(t.bottom - t.top) *
               static_cast<size_t>(info_.planes());
    }
    uint64_t slotOffset(uint32_t index) const {
        return static_cast<uint64_t>(index) * (tileBytes_ + maskWords_ * 8);
    }

    TileEncoder& encoder() {
        if (!encoder_)
            encoder_ = std::make_unique<TileEncoder>(writer_);
        return *encoder_;
    }

    // A tile buffer, from those the encoder is done with when it can: a
    // fresh one would pay a page fault per 4 KiB. Zeroed only when asked.
    PixelBytes takeBuffer(bool zeroed) {
        PixelBytes b;
        if (encoder_)
            if (auto reused = encoder_->takeFree())
                b = std::move(*reused);
        b.resize(tileBytes_);
        if (zeroed)
            std::memset(b.data(), 0, tileBytes_);
        return b;
    }

    // Every sample of the tile is known: off to the encoder.
    void complete(uint32_t tx, uint32_t ty, uint32_t index) {
        PixelBytes pixels = std::move(tiles_[index].pixels);
        drop(index);
        state_[index] = State::Written;
        encoder().push(tx, ty, std::move(pixels));
    }

    Tile& load(uint32_t index) {
        Tile& tile = tiles_[index];
        state_[index] = State::Pending;
        if (tile.inMemory) {
            lru_.splice(lru_.begin(), lru_, tile.lru);
            return tile;
        }
        // Samples past the image's edge are written as zero; the rest are
        // written by the filter or filled from the source at the end.
        const CvRect t = tileRect(index % writer_.tilesAcross(), index / writer_.tilesAcross());
        const bool edge = static_cast<uint32_t>(t.right - t.left) < tileSize_ ||
                          static_cast<uint32_t>(t.bottom - t.top) < tileSize_;
        tile.pixels = takeBuffer(edge);
        tile.mask.assign(maskWords_, 0);
        if (tile.spilled) {
            spill_.read(slotOffset(index), tile.pixels.data(), tileBytes_);
            spill_.read(slotOffset(index) + tileBytes_, tile.mask.data(), maskWords_ * 8);
        }
        tile.inMemory = true;
        lru_.push_front(index);
        tile.lru = lru_.begin();
        inMemoryBytes_ += tileBytes_ + maskWords_ * 8;
        return tile;
    }

    void drop(uint32_t index) {
        auto it = tiles_.find(index);
        if (it == tiles_.end())
            return;
        if (it->second.inMemory) {
            lru_.erase(it->second.lru);
            inMemoryBytes_ -= tileBytes_ + maskWords_ * 8;
        }
        tiles_.erase(it);
    }

    // Moves the least recently used incomplete tiles to disk until the rest fit the budget.
    void trim() {
        while (inMemoryBytes_ > budget_ && lru_.size() > 1) {
            const uint32_t index = lru_.back();
            Tile& tile = tiles_[index];
            spill_.write(slotOffset(index), tile.pixels.data(), tileBytes_);
            spill_.write(slotOffset(index) + tileBytes_, tile.mask.data(), maskWords_ * 8);
            tile.spilled = true;
            tile.inMemory = false;
            PixelBytes().swap(tile.pixels);
            tile.mask.release();
            lru_.pop_back();
            inMemoryBytes_ -= tileBytes_ + maskWords_ * 8;
            ++spilledTiles_;
        }
    }

    ImageSource& source_;
    ImageInfo info_;
    uint64_t budget_;
    SpillFile spill_;
    TiffTileWriter writer_;
    uint32_t tileSize_ = 0;
    size_t tileSamples_ = 0, tileBytes_ = 0, maskWords_ = 0;
    std::vector<State> state_;
    std::unordered_map<uint32_t, Tile> tiles_;
    std::list<uint32_t> lru_;
    uint64_t inMemoryBytes_ = 0;
    uint64_t spilledTiles_ = 0;
    std::unique_ptr<TileEncoder> encoder_;  // last: stopped before the rest goes
};

}  // namespace

std::unique_ptr<ResultImage> makeTiledTiffResult(const std::filesystem::path& path,
                                                 ImageSource& source,
                                                 const ResultOptions& options) {
    return std::make_unique<TiledTiffResult>(path, source, options);
}

}  // namespace Curvana::Host
