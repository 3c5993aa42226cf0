#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "render/RenderTypes.h"

namespace Project {

// Where the renderer reads the source picture. The session adapts the host's
// tile callbacks to it; tests use MemoryImage. Coordinates are relative to
// the source's own top-left corner (the session adds its filter rectangle).
// A source or sink may also fail by throwing: the exception leaves the render
// call unchanged, and the renderer's GPU work is waited for as its objects go.
class RenderSource {
public:
    virtual ~RenderSource() = default;
    // Copies rect (inside the source) of every plane: planes[p] receives
    // rect.Height() rows of rect.Width() values (uint8_t or uint16_t in
    // 0 ... 32768, by the format's depth), rowBytes apart. planes.size() is
    // the format's plane count. Returns false on failure.
    virtual bool ReadWindow(const PixelRect& rect, std::span<void* const> planes,
                            ptrdiff_t rowBytes) = 0;
    // Sources that hold their pixels interleaved may offer them so: every
    // plane of rect, a pixel's values one after another in plane order,
    // pixels columnBytes apart, rows rowBytes apart; the bytes between
    // pixels are left as they are. The renderer then reads straight into
    // its texels instead of through planes.
    virtual bool OffersPixels() const { return false; }
    virtual bool ReadPixels(const PixelRect& /*rect*/, void* /*pixels*/, ptrdiff_t /*columnBytes*/,
                            ptrdiff_t /*rowBytes*/) {
        return false;
    }

protected:
    RenderSource() = default;
    RenderSource(const RenderSource&) = default;
    RenderSource& operator=(const RenderSource&) = default;
};

// Where the renderer writes result tiles. Coordinates are relative to the
// result's top-left corner.
class RenderSink {
public:
    virtual ~RenderSink() = default;
    // rect lies inside the result; planes[p] holds rect.Height() rows of
    // rect.Width() values, rowBytes apart, valid only during the call.
    // Returns false on failure.
    virtual bool WriteTile(const PixelRect& rect, std::span<const void* const> planes,
                           ptrdiff_t rowBytes) = 0;
    // As RenderSource::ReadPixels, the other way: the renderer hands its
    // read-back texels over as they are (the bytes between pixels are
    // ignored).
    virtual bool TakesPixels() const { return false; }
    virtual bool WritePixels(const PixelRect& /*rect*/, const void* /*pixels*/,
                             ptrdiff_t /*columnBytes*/, ptrdiff_t /*rowBytes*/) {
        return false;
    }

protected:
    RenderSink() = default;
    RenderSink(const RenderSink&) = default;
    RenderSink& operator=(const RenderSink&) = default;
};

// A planar image in memory, both a source and a sink: `planes` planes of
// width x height values (uint8_t at depth 8, uint16_t in 0 ... 32768 at depth
// 16), rows packed. New images are zero. Counts its reads for tests.
class MemoryImage final : public RenderSource, public RenderSink {
public:
    MemoryImage() = default;
    MemoryImage(int32_t width, int32_t height, PixelFormat format);

    int32_t Width() const { return width_; }
    int32_t Height() const { return height_; }
    const PixelFormat& Format() const { return format_; }

    // The value of plane p at (x, y), widened to 32 bits.
    uint32_t At(int32_t plane, int32_t x, int32_t y) const;
    void Set(int32_t plane, int32_t x, int32_t y, uint32_t value);
    // Raw bytes of plane p (width * height values).
    uint8_t* PlaneData(int32_t plane) { return planes_[static_cast<size_t>(plane)].data(); }
    const uint8_t* PlaneData(int32_t plane) const {
        return planes_[static_cast<size_t>(plane)].data();
    }
    ptrdiff_t RowBytes() const { return static_cast<ptrdiff_t>(width_) * format_.BytesPerValue(); }

    bool ReadWindow(const PixelRect& rect, std::span<void* const> planes,
                    ptrdiff_t rowBytes) override;
    bool WriteTile(const PixelRect& rect, std::span<const void* const> planes,
                   ptrdiff_t rowBytes) override;

    // Windows read so far, and their rectangles (for tests of the window path).
    const std::vector<PixelRect>& Reads() const { return reads_; }
    void ClearReads() { reads_.clear(); }
    // Tiles written so far.
    const std::vector<PixelRect>& Writes() const { return writes_; }

private:
    bool Inside(const PixelRect& rect) const;

    int32_t width_ = 0;
    int32_t height_ = 0;
    PixelFormat format_;
    std::vector<std::vector<uint8_t>> planes_;
    std::vector<PixelRect> reads_;
    std::vector<PixelRect> writes_;
};

}  // namespace Project
