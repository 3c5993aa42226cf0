#include "DrawablePixels.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace Curvana::Gimp {
namespace {

bool sameRect(const CvRect& a, const CvRect& b) {
    return a.left == b.left && a.top == b.top && a.right == b.right && a.bottom == b.bottom;
}

int32_t rectWidth(const CvRect& r) {
    return r.right - r.left;
}
int32_t rectHeight(const CvRect& r) {
    return r.bottom - r.top;
}

GeglRectangle toGegl(const CvRect& r) {
    return GeglRectangle{r.left, r.top, rectWidth(r), rectHeight(r)};
}

// Planes [first, first + count) of GIMP's interleaved pixels out to the
// interface's layout (a pixel's values side by side, pixels columnBytes
// apart, rows rowBytes apart), and back, converting 16-bit values between
// the two ranges. One plane is the case count 1, columnBytes one value.
template <class Sample>
void pixelsOut(const uint8_t* interleaved, int32_t planes, int32_t first, int32_t count,
               int32_t width, int32_t height, uint8_t* out, size_t columnBytes, int32_t rowBytes) {
    const auto stride = static_cast<size_t>(planes);
    for (int32_t y = 0; y < height; ++y) {
        const auto* packed = reinterpret_cast<const Sample*>(interleaved) +
                             static_cast<size_t>(y) * static_cast<size_t>(width) * stride +
                             static_cast<size_t>(first);
        uint8_t* row = out + static_cast<ptrdiff_t>(y) * rowBytes;
        for (int32_t x = 0; x < width; ++x, packed += stride, row += columnBytes)
            for (int32_t p = 0; p < count; ++p) {
                Sample v = packed[p];
                if constexpr (sizeof(Sample) == 2)
                    v = toHostRange(v);
                std::memcpy(row + p * sizeof(Sample), &v, sizeof v);
            }
    }
}

template <class Sample>
void pixelsIn(uint8_t* interleaved, int32_t planes, int32_t first, int32_t count, int32_t width,
              int32_t height, const uint8_t* in, size_t columnBytes, int32_t rowBytes) {
    const auto stride = static_cast<size_t>(planes);
    for (int32_t y = 0; y < height; ++y) {
        auto* packed = reinterpret_cast<Sample*>(interleaved) +
                       static_cast<size_t>(y) * static_cast<size_t>(width) * stride +
                       static_cast<size_t>(first);
        const uint8_t* row = in + static_cast<ptrdiff_t>(y) * rowBytes;
        for (int32_t x = 0; x < width; ++x, packed += stride, row += columnBytes)
            for (int32_t p = 0; p < count; ++p) {
                Sample v;
                std::memcpy(&v, row + p * sizeof(Sample), sizeof v);
                if constexpr (sizeof(Sample) == 2)
                    v = fromHostRange(v);
                packed[p] = v;
            }
    }
}

}  // namespace

DrawableLayout layoutFor(bool rgb, bool gray, bool alpha, GimpPrecision precision, int32_t width,
                         int32_t height) {
    DrawableLayout l;
    if (!rgb && !gray)
        throw std::runtime_error(
            "Curvana works on RGB and grayscale layers; convert an indexed image to RGB first "
            "(Image > Mode > RGB)");
    l.mode = rgb ? cvModeRGB : cvModeGray;
    l.alpha = alpha;
    l.planes = (rgb ? 3 : 1) + (alpha ? 1 : 0);
    l.width = width;
    l.height = height;

    bool linear = false;
    switch (precision) {
        case GIMP_PRECISION_U8_LINEAR:
            linear = true;
            [[fallthrough]];
        case GIMP_PRECISION_U8_GAMMA:
            l.depth = 8;
            break;
        case GIMP_PRECISION_U16_LINEAR:
            linear = true;
            [[fallthrough]];
        case GIMP_PRECISION_U16_GAMMA:
            l.depth = 16;
            break;
        case GIMP_PRECISION_U32_LINEAR:
        case GIMP_PRECISION_HALF_LINEAR:
        case GIMP_PRECISION_FLOAT_LINEAR:
        case GIMP_PRECISION_DOUBLE_LINEAR:
            linear = true;
            [[fallthrough]];
        default:
            l.depth = 16;
            l.narrowed = true;
            break;
    }

    const char* model = nullptr;
    if (rgb)
        model = alpha ? (linear ? "RaGaBaA" : "R'aG'aB'aA") : (linear ? "RGB" : "R'G'B'");
    else
        model = alpha ? (linear ? "YaA" : "Y'aA") : (linear ? "Y" : "Y'");
    l.formatName = std::string(model) + (l.depth == 8 ? " u8" : " u16");
    return l;
}

DrawablePixels::DrawablePixels(gint32 drawable) : drawable_(drawable) {
    const gint32 image = gimp_item_get_image(drawable);
    layout_ = layoutFor(gimp_drawable_is_rgb(drawable), gimp_drawable_is_gray(drawable),
                        gimp_drawable_has_alpha(drawable), gimp_image_get_precision(image),
                        gimp_drawable_width(drawable), gimp_drawable_height(drawable));
    // The drawable's own format names its colour space; the pixels stay in it.
    format_ =
        babl_format_with_space(layout_.formatName.c_str(), gimp_drawable_get_format(drawable));
    source_.reset(gimp_drawable_get_buffer(drawable));
    shadow_.reset(gimp_drawable_get_shadow_buffer(drawable));
    if (!format_ || !source_ || !shadow_)
        throw std::runtime_error("GIMP did not hand out the layer's pixels");

    gint x = 0;
    gint y = 0;
    gint w = 0;
    gint h = 0;
    if (gimp_drawable_mask_intersect(drawable, &x, &y, &w, &h))
        maskBounds_ = GeglRectangle{x, y, w, h};
}

void DrawablePixels::fetch(const CvRect& rect) {
    if (!readPixels_.empty() && sameRect(rect, readRect_))
        return;
    readPixels_.resize(static_cast<size_t>(rectWidth(rect)) *
                       static_cast<size_t>(rectHeight(rect)) * pixelBytes());
    const GeglRectangle r = toGegl(rect);
    gegl_buffer_get(source_.get(), &r, 1.0, format_, readPixels_.data(), GEGL_AUTO_ROWSTRIDE,
                    GEGL_ABYSS_NONE);
    readRect_ = rect;
}

void DrawablePixels::readPlane(const CvRect& rect, int32_t plane, void* buffer, int32_t rowBytes) {
    readPixels(rect, plane, 1, buffer, sampleBytes(), rowBytes);
}

void DrawablePixels::readPixels(const CvRect& rect, void* buffer, int32_t columnBytes,
                                int32_t rowBytes) {
    readPixels(rect, 0, layout_.planes, buffer, static_cast<size_t>(columnBytes), rowBytes);
}

void DrawablePixels::readPixels(const CvRect& rect, int32_t first, int32_t count, void* buffer,
                                size_t columnBytes, int32_t rowBytes) {
    const std::lock_guard lock(mutex_);
    fetch(rect);
    const int32_t w = rectWidth(rect);
    const int32_t h = rectHeight(rect);
    auto* out = static_cast<uint8_t*>(buffer);
    if (layout_.depth == 8)
        pixelsOut<uint8_t>(readPixels_.data(), layout_.planes, first, count, w, h, out, columnBytes,
                           rowBytes);
    else
        pixelsOut<uint16_t>(readPixels_.data(), layout_.planes, first, count, w, h, out,
                            columnBytes, rowBytes);
}

void DrawablePixels::writePlane(const CvRect& rect, int32_t plane, const void* buffer,
                                int32_t rowBytes) {
    writePixels(rect, plane, 1, buffer, sampleBytes(), rowBytes);
}

void DrawablePixels::writePixels(const CvRect& rect, const void* buffer, int32_t columnBytes,
                                 int32_t rowBytes) {
    writePixels(rect, 0, layout_.planes, buffer, static_cast<size_t>(columnBytes), rowBytes);
}

void DrawablePixels::writePixels(const CvRect& rect, int32_t first, int32_t count,
                                 const void* buffer, size_t columnBytes, int32_t rowBytes) {
    const std::lock_guard lock(mutex_);
    if (pendingPlanes_ != 0 && !sameRect(rect, pendingRect_))
        flushPending();
    const int32_t w = rectWidth(rect);
    const int32_t h = rectHeight(rect);
    if (pendingPlanes_ == 0) {
        pendingRect_ = rect;
        pendingPixels_.resize(static_cast<size_t>(w) * static_cast<size_t>(h) * pixelBytes());
    }
    const auto* in = static_cast<const uint8_t*>(buffer);
    if (layout_.depth == 8)
        pixelsIn<uint8_t>(pendingPixels_.data(), layout_.planes, first, count, w, h, in,
                          columnBytes, rowBytes);
    else
        pixelsIn<uint16_t>(pendingPixels_.data(), layout_.planes, first, count, w, h, in,
                           columnBytes, rowBytes);
    pendingPlanes_ |= ((1u << count) - 1) << first;
    if (pendingPlanes_ == (1u << layout_.planes) - 1)
        flushPending();
}

void DrawablePixels::flushPending() {
    if (pendingPlanes_ == 0)
        return;
    const GeglRectangle whole = toGegl(pendingRect_);
    const size_t rowStride = static_cast<size_t>(whole.width) * pixelBytes();
    if (pendingPlanes_ != (1u << layout_.planes) - 1) {
        // Planes that never came keep what the shadow buffer holds there.
        std::vector<uint8_t> base(pendingPixels_.size());
        gegl_buffer_get(shadow_.get(), &whole, 1.0, format_, base.data(), GEGL_AUTO_ROWSTRIDE,
                        GEGL_ABYSS_NONE);
        const size_t sample = sampleBytes();
        for (size_t at = 0; at < base.size(); at += sample) {
            const auto p =
                static_cast<uint32_t>((at / sample) % static_cast<size_t>(layout_.planes));
            if (!(pendingPlanes_ & (1u << p)))
                std::memcpy(&pendingPixels_[at], &base[at], sample);
        }
    }
    GeglRectangle part{};
    if (gegl_rectangle_intersect(&part, &whole, &maskBounds_)) {
        const uint8_t* first = pendingPixels_.data() +
                               static_cast<size_t>(part.y - whole.y) * rowStride +
                               static_cast<size_t>(part.x - whole.x) * pixelBytes();
        gegl_buffer_set(shadow_.get(), &part, 0, format_, first, static_cast<gint>(rowStride));
        written_ = true;
    }
    pendingPlanes_ = 0;
}

void DrawablePixels::commit() {
    {
        const std::lock_guard lock(mutex_);
        flushPending();
    }
    gegl_buffer_flush(shadow_.get());
    shadow_.reset();
    source_.reset();
    if (!gimp_drawable_merge_shadow(drawable_, TRUE))
        throw std::runtime_error("GIMP did not take the corrected pixels; the layer is unchanged");
    gimp_drawable_update(drawable_, 0, 0, layout_.width, layout_.height);
}

}  // namespace Curvana::Gimp
