#include <fcntl.h>
#include <tiffio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <list>
#include <unordered_map>

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
        if (rectEmpty(rect))
            return;
        anyWritten_ = true;
        const size_t bps = info_.bytesPerSample();
        const int planes = info_.planes();
        const auto* src = static_cast<const uint8_t*>(buffer);
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
                for (int32_t y = area.top; y < area.bottom; ++y) {
                    const uint8_t* s = src + static_cast<ptrdiff_t>(y - rect.top) * rowBytes +
                                       static_cast<ptrdiff_t>(area.left - rect.left) * bps;
                    for (int32_t x = area.left; x < area.right; ++x, s += bps) {
                        const size_t sample = (static_cast<size_t>(y - t.top) * tileSize_ +
                                               static_cast<size_t>(x - t.left)) *
                                                  planes +
                                              static_cast<size_t>(plane);
                        std::memcpy(tile.pixels.data() + sample * bps, s, bps);
                        uint64_t& word = tile.mask[sample / 64];
                        const uint64_t bit = uint64_t{1} << (sample % 64);
                        if (!(word & bit)) {
                            word |= bit;
                            ++tile.covered;
                        }
                    }
                }
                if (tile.covered == validSamples(t)) {
                    writer_.writeTile(tx, ty, tile.pixels.data());
                    drop(index);
                    state_[index] = State::Written;
                }
            }
        }
        trim();
    }

    void finish() override {
        std::vector<uint8_t> fromSource;
        for (uint32_t ty = 0; ty < writer_.tilesDown(); ++ty) {
            for (uint32_t tx = 0; tx < writer_.tilesAcross(); ++tx) {
                const uint32_t index = ty * writer_.tilesAcross() + tx;
                if (state_[index] == State::Written)
                    continue;
                const CvRect t = tileRect(tx, ty);
                const ptrdiff_t rowBytes = static_cast<ptrdiff_t>(tileSize_) * info_.planes() *
                                           static_cast<ptrdiff_t>(info_.bytesPerSample());
                if (state_[index] == State::Untouched) {
                    fromSource.assign(tileBytes_, 0);
                    source_.readInterleaved(t, fromSource.data(), rowBytes);
                    writer_.writeTile(tx, ty, fromSource.data());
                } else {
                    Tile& tile = load(index);
                    fromSource.assign(tileBytes_, 0);
                    source_.readInterleaved(t, fromSource.data(), rowBytes);
                    const size_t bps = info_.bytesPerSample();
                    for (size_t s = 0; s < tileSamples_; ++s)
                        if (!(tile.mask[s / 64] & (uint64_t{1} << (s % 64))))
                            std::memcpy(tile.pixels.data() + s * bps, fromSource.data() + s * bps,
                                        bps);
                    writer_.writeTile(tx, ty, tile.pixels.data());
                    drop(index);
                }
                state_[index] = State::Written;
            }
        }
        writer_.close();
    }

private:
    enum class State : uint8_t { Untouched, Pending, Written };
    struct Tile {
        std::vector<uint8_t> pixels;  // host values, tileSize x tileSize interleaved
        std::vector<uint64_t> mask;   // one bit per written sample
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

    Tile& load(uint32_t index) {
        Tile& tile = tiles_[index];
        state_[index] = State::Pending;
        if (tile.inMemory) {
            lru_.splice(lru_.begin(), lru_, tile.lru);
            return tile;
        }
        tile.pixels.assign(tileBytes_, 0);
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
            std::vector<uint8_t>().swap(tile.pixels);
            std::vector<uint64_t>().swap(tile.mask);
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
};

}  // namespace

std::unique_ptr<ResultImage> makeTiledTiffResult(const std::filesystem::path& path,
                                                 ImageSource& source,
                                                 const ResultOptions& options) {
    return std::make_unique<TiledTiffResult>(path, source, options);
}

}  // namespace Curvana::Host
