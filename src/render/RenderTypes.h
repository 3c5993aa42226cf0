#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace Project {

// A rectangle of pixels, half-open: [left, right) x [top, bottom), row 0 at
// the top.
struct PixelRect {
    int32_t left = 0;
    int32_t top = 0;
    int32_t right = 0;
    int32_t bottom = 0;

    int32_t Width() const { return right - left; }
    int32_t Height() const { return bottom - top; }
    bool Empty() const { return right <= left || bottom <= top; }
    friend bool operator==(const PixelRect&, const PixelRect&) = default;
};

// The pixel layout the renderer reads and writes: `planes` planes of one
// channel each (grey 1, RGB and Lab 3, CMYK 4; the host's plane order), at
// `depth` bits per channel: 8 (uint8_t values) or 16 (uint16_t values in the
// host range 0 ... 32768).
struct PixelFormat {
    int32_t planes = 3;
    int32_t depth = 8;

    int32_t BytesPerValue() const { return depth > 8 ? 2 : 1; }
    bool Valid() const { return planes >= 1 && planes <= 4 && (depth == 8 || depth == 16); }
};

// 16-bit values between the host range 0 ... 32768 and the GPU's 0 ... 65535.
// Upload: min(2 v, 65535). Readback: 65535 -> 32768, else v / 2
// with the remainder dropped. Readback(Upload(v)) == v for every host value.
constexpr uint16_t HostToGpu16(uint16_t v) {
    const uint32_t doubled = 2u * v;
    return static_cast<uint16_t>(doubled < 65535u ? doubled : 65535u);
}
constexpr uint16_t GpuToHost16(uint16_t v) {
    return v > 65534 ? uint16_t{32768} : static_cast<uint16_t>(v / 2);
}

// The outcome of a render call.
enum class RenderCode {
    Ok,
    Cancelled,        // abort was requested; some tiles may have been written
    SourceFailed,     // RenderSource::ReadWindow returned false
    SinkFailed,       // RenderSink::WriteTile returned false
    GpuFailed,        // a GPU operation failed; message has the details
    InvalidArgument,  // a request outside the image, or sizes that do not match
};

struct RenderStatus {
    RenderCode code = RenderCode::Ok;
    std::string message;

    bool ok() const { return code == RenderCode::Ok; }
    static RenderStatus Ok() { return {}; }
};

// Progress and abort for a whole render. progress(done, total) is called
// after every tile (total = tile columns x rows); abortRequested is polled
// before every tile, and a true answer ends the render with
// RenderCode::Cancelled. Both may be empty.
struct RenderControl {
    std::function<void(int64_t done, int64_t total)> progress;
    std::function<bool()> abortRequested;
};

}  // namespace Project
