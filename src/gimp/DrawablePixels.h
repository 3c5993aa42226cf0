// A GIMP drawable as the filter's image: its layout in the C interface's
// terms, source planes read from its GEGL buffer, and result planes written
// to its shadow buffer, which is merged through the selection as one undo
// step at the end.
#pragma once

#include <libgimp/gimp.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "GLibHandles.h"
#include "curvana/CurvanaPlugin.h"

namespace Curvana::Gimp {

// How a drawable is handed to the filter. The pixels travel in a babl
// format of the drawable's colour space: the drawable's own tone curve
// (perceptual or linear), colour premultiplied by alpha when there is alpha
// (so that resampling does not bleed the colour of transparent pixels), u8
// for 8-bit images and u16 for every deeper precision.
struct DrawableLayout {
    int32_t mode = cvModeRGB;  // cvModeRGB or cvModeGray
    int32_t depth = 8;         // 8 or 16
    int32_t planes = 3;        // the mode's planes, plus one for alpha
    bool alpha = false;
    bool narrowed = false;  // a precision deeper than 16-bit integer, carried at 16 bits
    int32_t width = 0;
    int32_t height = 0;
    std::string formatName;  // e.g. "R'aG'aB'aA u16"
};

// The layout for a drawable of the given kind and image precision. Throws
// std::runtime_error for kinds the filter does not take (indexed colour).
DrawableLayout layoutFor(bool rgb, bool gray, bool alpha, GimpPrecision precision, int32_t width,
                         int32_t height);

// GIMP's 16-bit values (0 ... 65535) to the interface's (0 ... 32768) and
// back, rounded to nearest.
constexpr uint16_t toHostRange(uint16_t v) {
    return static_cast<uint16_t>((uint32_t{v} * 32768u + 32767u) / 65535u);
}
constexpr uint16_t fromHostRange(uint16_t v) {
    const uint32_t scaled = (uint32_t{v} * 65535u + 16384u) / 32768u;
    return static_cast<uint16_t>(scaled > 65535u ? 65535u : scaled);
}

class DrawablePixels {
public:
    // Opens the drawable's buffer and its shadow buffer. Throws
    // std::runtime_error when GIMP hands out neither.
    explicit DrawablePixels(gint32 drawable);
    DrawablePixels(const DrawablePixels&) = delete;
    DrawablePixels& operator=(const DrawablePixels&) = delete;

    const DrawableLayout& layout() const { return layout_; }
    // False when the selection and the drawable do not meet.
    bool selectionReaches() const { return maskBounds_.width > 0 && maskBounds_.height > 0; }

    // One plane of a rectangle (inside the drawable) in host values; the
    // module asks plane by plane, so the interleaved rectangle is fetched
    // once and kept for the planes that follow. Safe from any thread.
    void readPlane(const CvRect& rect, int32_t plane, void* buffer, int32_t rowBytes);
    // Collects the planes of a rectangle and stores it in the shadow buffer
    // when all have arrived (or when another rectangle begins).
    void writePlane(const CvRect& rect, int32_t plane, const void* buffer, int32_t rowBytes);
    // Every plane at once, interleaved as the interface lays them out.
    void readPixels(const CvRect& rect, void* buffer, int32_t columnBytes, int32_t rowBytes);
    void writePixels(const CvRect& rect, const void* buffer, int32_t columnBytes, int32_t rowBytes);
    bool anyWritten() const { return written_; }
    // Held around every conversation with GIMP while pixels may be moving
    // on another thread: libgimp has one pipe to GIMP.
    std::mutex& wire() { return mutex_; }

    // Stores what is pending, releases both buffers, merges the shadow
    // buffer into the drawable through the selection as one undo step and
    // marks the drawable for redrawing. Without it nothing reaches the image.
    // Throws std::runtime_error when GIMP refuses the merge.
    void commit();

private:
    size_t sampleBytes() const { return layout_.depth == 8 ? 1 : 2; }
    size_t pixelBytes() const { return sampleBytes() * static_cast<size_t>(layout_.planes); }
    void flushPending();
    // Fetches rect into readPixels_ unless it holds it already; mutex_ held.
    void fetch(const CvRect& rect);
    void readPixels(const CvRect& rect, int32_t first, int32_t count, void* buffer,
                    size_t columnBytes, int32_t rowBytes);
    void writePixels(const CvRect& rect, int32_t first, int32_t count, const void* buffer,
                     size_t columnBytes, int32_t rowBytes);

    gint32 drawable_;
    DrawableLayout layout_;
    const Babl* format_ = nullptr;
    GObjectPtr<GeglBuffer> source_;
    GObjectPtr<GeglBuffer> shadow_;
    // The part of the drawable that the selection reaches: result pixels
    // outside it are never sent to GIMP, which would discard them anyway.
    GeglRectangle maskBounds_{};

    std::mutex mutex_;
    CvRect readRect_{};
    std::vector<uint8_t> readPixels_;
    CvRect pendingRect_{};
    std::vector<uint8_t> pendingPixels_;
    uint32_t pendingPlanes_ = 0;  // bit p: plane p has arrived
    bool written_ = false;
};

}  // namespace Curvana::Gimp
