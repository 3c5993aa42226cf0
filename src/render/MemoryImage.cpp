#include <cstring>

#include "render/ImageAccess.h"

namespace Project {

MemoryImage::MemoryImage(int32_t width, int32_t height, PixelFormat format)
    : width_(width), height_(height), format_(format) {
    const size_t bytes = static_cast<size_t>(width) * static_cast<size_t>(height) *
                         static_cast<size_t>(format.BytesPerValue());
    planes_.assign(static_cast<size_t>(format.planes), std::vector<uint8_t>(bytes, 0));
}

uint32_t MemoryImage::At(int32_t plane, int32_t x, int32_t y) const {
    const size_t index =
        static_cast<size_t>(y) * static_cast<size_t>(width_) + static_cast<size_t>(x);
    const auto& data = planes_[static_cast<size_t>(plane)];
    if (format_.depth > 8) {
        uint16_t value = 0;
        std::memcpy(&value, data.data() + 2 * index, 2);
        return value;
    }
    return data[index];
}

void MemoryImage::Set(int32_t plane, int32_t x, int32_t y, uint32_t value) {
    const size_t index =
        static_cast<size_t>(y) * static_cast<size_t>(width_) + static_cast<size_t>(x);
    auto& data = planes_[static_cast<size_t>(plane)];
    if (format_.depth > 8) {
        const auto narrow = static_cast<uint16_t>(value);
        std::memcpy(data.data() + 2 * index, &narrow, 2);
    } else {
        data[index] = static_cast<uint8_t>(value);
    }
}

bool MemoryImage::Inside(const PixelRect& rect) const {
    return !rect.Empty() && rect.left >= 0 && rect.top >= 0 && rect.right <= width_ &&
           rect.bottom <= height_;
}

bool MemoryImage::ReadWindow(const PixelRect& rect, std::span<void* const> planes,
                             ptrdiff_t rowBytes) {
    if (!Inside(rect) || planes.size() != planes_.size()) {
        return false;
    }
    reads_.push_back(rect);
    const size_t bpv = static_cast<size_t>(format_.BytesPerValue());
    const size_t lineBytes = static_cast<size_t>(rect.Width()) * bpv;
    for (size_t p = 0; p < planes.size(); ++p) {
        auto* out = static_cast<uint8_t*>(planes[p]);
        for (int32_t y = rect.top; y < rect.bottom; ++y) {
            const uint8_t* in =
                planes_[p].data() + (static_cast<size_t>(y) * static_cast<size_t>(width_) +
                                     static_cast<size_t>(rect.left)) *
                                        bpv;
            std::memcpy(out + static_cast<ptrdiff_t>(y - rect.top) * rowBytes, in, lineBytes);
        }
    }
    return true;
}

bool MemoryImage::WriteTile(const PixelRect& rect, std::span<const void* const> planes,
                            ptrdiff_t rowBytes) {
    if (!Inside(rect) || planes.size() != planes_.size()) {
        return false;
    }
    writes_.push_back(rect);
    const size_t bpv = static_cast<size_t>(format_.BytesPerValue());
    const size_t lineBytes = static_cast<size_t>(rect.Width()) * bpv;
    for (size_t p = 0; p < planes.size(); ++p) {
        const auto* in = static_cast<const uint8_t*>(planes[p]);
        for (int32_t y = rect.top; y < rect.bottom; ++y) {
            uint8_t* out =
                planes_[p].data() + (static_cast<size_t>(y) * static_cast<size_t>(width_) +
                                     static_cast<size_t>(rect.left)) *
                                        bpv;
            std::memcpy(out, in + static_cast<ptrdiff_t>(y - rect.top) * rowBytes, lineBytes);
        }
    }
    return true;
}

}  // namespace Project
