#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>

#include "render/gpu/GpuDevice.h"
#include "render/gpu/GpuResult.h"

namespace Project::Gpu {

// The GPU vertex record, 24 bytes: position (x, y, 0, 1) in the
// warp's output plane, then the texture coordinate (u, v), normalised to the
// uploaded source texture ((0, 0) its top-left corner).
struct GpuVertex {
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;
    float w = 1.0f;
    float u = 0.0f;
    float v = 0.0f;
};
static_assert(sizeof(GpuVertex) == 24, "the vertex record is 24 bytes");

// A rectangle of the render target, in target pixels (row 0 at the top).
struct TargetRegion {
    uint32_t x = 0;
    uint32_t y = 0;
    uint32_t width = 0;
    uint32_t height = 0;
};

// The renderer's GPU operations on one GpuDevice, for one pixel depth:
//  - a sampler (bilinear, clamp to edge, no mipmaps);
//  - a 1024 x 1024 render target with four channels (R8G8B8A8_UNORM at 8 bits,
//    R16G16B16A16_UNORM at 16 bits);
//  - vertex, index and constant buffers (host-visible, grown on demand);
//  - the source texture "inputImage" (same format as the target), re-created
//    only when its width or height changes;
//  - upload of texture, vertices, indices and matrix; an indexed draw of a
//    triangle list; readback of a region of the target.
// Every call waits for the GPU before it returns (the renderer is synchronous,
// Overview "Threads"); errors come back as values.
class GpuResampler {
public:
    static constexpr uint32_t kTargetSize = 1024;

    // depth: 8 or 16 bits per channel.
    static Result<std::unique_ptr<GpuResampler>> Create(std::shared_ptr<GpuDevice> device,
                                                        int32_t depth);
    ~GpuResampler();
    GpuResampler(const GpuResampler&) = delete;
    GpuResampler& operator=(const GpuResampler&) = delete;

    int32_t Depth() const;
    // Bytes of one four-channel texel: 4 at 8 bits, 8 at 16 bits.
    uint32_t BytesPerTexel() const;
    const std::shared_ptr<GpuDevice>& Device() const;

    // Makes the source texture width x height: re-creates it only when the
    // requested width or height differs from the current texture's. Returns
    // whether it was (re-)created. Fails when a side exceeds
    // GpuDevice::MaxTextureDimension.
    Result<bool> EnsureSourceTexture(uint32_t width, uint32_t height);
    // Clears the whole source texture to zero and waits for it; it can then
    // be sampled. It also makes the staging memory an upload of the whole
    // texture uses, written through once. On a device that renders in the
    // processor's memory this is where the pages of both are first touched,
    // so a caller can pay for that ahead of the upload, on a thread of its
    // own.
    Status ClearSource();
    uint32_t SourceWidth() const;
    uint32_t SourceHeight() const;
    // Texture re-creations so far (for tests of the size rule).
    uint64_t SourceTextureCreations() const;

    // Writes rows [y0, y0 + rows) of the uploaded region into dst: interleaved
    // four-channel texels (uint8_t or uint16_t per channel, by depth), rows
    // rowPitch bytes apart (at least region width * BytesPerTexel()). Returns
    // false to stop the upload (UploadSource then fails with "source read
    // failed").
    using FillRows = std::function<bool(uint32_t y0, uint32_t rows, void* dst, size_t rowPitch)>;
    // Fills the top-left width x height texels of the source texture (the
    // whole texture, or a source window in a larger texture) band by band:
    // in place where the texture is mapped (GpuOptions::mappedSource), else
    // through two staging buffers, so the host fills one band while the
    // device copies the previous one. Texels outside the region become
    // undefined: the caller must not sample them.
    Status UploadSource(uint32_t width, uint32_t height, const FillRows& fill);

    Status UploadVertices(std::span<const GpuVertex> vertices);
    Status UploadIndices(std::span<const uint32_t> indices);
    // The 4 x 4 matrix of the constant buffer, row-major (m[4 * row + column]),
    // applied to column vectors: clip = M * (x, y, 0, 1).
    Status SetMatrix(const std::array<float, 16>& rowMajor);

    // The value every channel of the target is cleared to, 0 ... 1 of the
    // channel's range (zero until set).
    void SetClearColor(const std::array<float, 4>& color);
    // Draws the first indexCount uploaded indices as a triangle list. clear:
    // the target is first cleared to the clear colour (always so on the
    // first draw); otherwise the draw adds to what the target holds. readback:
    // a region of the target copied afterwards into host memory (ReadbackData).
    Status Draw(uint32_t indexCount, bool clear, std::optional<TargetRegion> readback);
    // The region of the last Draw's readback: rows of region.width texels,
    // tightly packed (pitch region.width * BytesPerTexel()). Valid until the
    // next Draw.
    const void* ReadbackData() const;

private:
    struct Impl;
    explicit GpuResampler(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
};

}  // namespace Project::Gpu
