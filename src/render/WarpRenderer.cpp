#include "render/WarpRenderer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>
#include <string>

namespace Project {

namespace {

constexpr int32_t kTile = RenderPlan::kTileSize;
// The smallest window side the window mode works with (a budget smaller than
// this many texels squared is raised to it).
constexpr uint32_t kMinWindowSide = 64;
// Texels beyond the bilinear footprint kept in a window, against rounding of
// the interpolated texture coordinates.
constexpr int32_t kWindowMargin = 1;
// Subdivision depth after which a triangle that still does not fit is an error
// (each level halves the triangle's texture extent).
constexpr int32_t kMaxSplitDepth = 24;

PixelRect Union(const PixelRect& a, const PixelRect& b) {
    return {std::min(a.left, b.left), std::min(a.top, b.top), std::max(a.right, b.right),
            std::max(a.bottom, b.bottom)};
}

PixelRect Intersect(const PixelRect& a, const PixelRect& b) {
    return {std::max(a.left, b.left), std::max(a.top, b.top), std::min(a.right, b.right),
            std::min(a.bottom, b.bottom)};
}

// Adds the wall-clock time of its scope to a counter.
class PhaseTimer {
public:
    explicit PhaseTimer(double& total) : total_(total), start_(std::chrono::steady_clock::now()) {}
    ~PhaseTimer() {
        total_ += std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    }
    PhaseTimer(const PhaseTimer&) = delete;
    PhaseTimer& operator=(const PhaseTimer&) = delete;

private:
    double& total_;
    std::chrono::steady_clock::time_point start_;
};

double Finite(double value) {
    return std::isfinite(value) ? value : 0.0;
}

int32_t FloorClamped(double value) {
    return static_cast<int32_t>(std::floor(std::clamp(Finite(value), -1.0e9, 1.0e9)));
}

RenderStatus GpuFailure(const Gpu::GpuError& error) {
    return {RenderCode::GpuFailed, error.message};
}

template <typename T>
T ToGpu(T value) {
    if constexpr (sizeof(T) == 2) {
        return HostToGpu16(value);
    } else {
        return value;
    }
}

template <typename T>
T ToHost(T value) {
    if constexpr (sizeof(T) == 2) {
        return GpuToHost16(value);
    } else {
        return value;
    }
}

// Interleaves Planes planes of w x rows values into four-channel texels.
// Channels the image lacks are 0. 16-bit host values (0 ... 32768) are
// expanded to 0 ... 65535 (HostToGpu16), which the readback turns back into
// the same values exactly.
template <typename T, int Planes>
void InterleaveRows(const std::vector<std::vector<uint8_t>>& planes, uint32_t w, uint32_t rows,
                    void* dst, size_t pitch) {
    const T* in[4] = {};
    for (int p = 0; p < Planes; ++p) {
        in[p] = reinterpret_cast<const T*>(planes[static_cast<size_t>(p)].data());
    }
    // One pass writing whole texels, each plane through a pointer of its own
    // that the compiler keeps in a register.
    for (uint32_t r = 0; r < rows; ++r) {
        T* __restrict out = reinterpret_cast<T*>(static_cast<uint8_t*>(dst) + r * pitch);
        const size_t base = static_cast<size_t>(r) * w;
        const T* __restrict c0 = in[0] + base;
        const T* __restrict c1 = Planes > 1 ? in[1] + base : nullptr;
        const T* __restrict c2 = Planes > 2 ? in[2] + base : nullptr;
        const T* __restrict c3 = Planes > 3 ? in[3] + base : nullptr;
        for (uint32_t x = 0; x < w; ++x) {
            T texel[4] = {ToGpu(c0[x]), 0, 0, 0};
            if constexpr (Planes > 1) {
                texel[1] = ToGpu(c1[x]);
            }
            if constexpr (Planes > 2) {
                texel[2] = ToGpu(c2[x]);
            }
            if constexpr (Planes > 3) {
                texel[3] = ToGpu(c3[x]);
            }
            std::memcpy(out + 4 * static_cast<size_t>(x), texel, sizeof texel);
        }
    }
}

template <typename T>
void Interleave(int32_t planes, const std::vector<std::vector<uint8_t>>& data, uint32_t w,
                uint32_t rows, void* dst, size_t pitch) {
    switch (planes) {
        case 1:
            InterleaveRows<T, 1>(data, w, rows, dst, pitch);
            break;
        case 2:
            InterleaveRows<T, 2>(data, w, rows, dst, pitch);
            break;
        case 3:
            InterleaveRows<T, 3>(data, w, rows, dst, pitch);
            break;
        default:
            InterleaveRows<T, 4>(data, w, rows, dst, pitch);
            break;
    }
}

// Splits count four-channel texels into `planes` planes on the host scale.
template <typename T>
void Deinterleave(const void* texels, size_t count, std::vector<std::vector<uint8_t>>& planes) {
    const T* __restrict in = static_cast<const T*>(texels);
    for (size_t p = 0; p < planes.size(); ++p) {
        T* __restrict out = reinterpret_cast<T*>(planes[p].data());
        for (size_t k = 0; k < count; ++k) {
            out[k] = ToHost(in[4 * k + p]);
        }
    }
}

}  // namespace

Gpu::Result<std::unique_ptr<WarpRenderer>> WarpRenderer::Create(
    std::shared_ptr<Gpu::GpuDevice> device, PixelFormat format, const RenderOptions& options) {
    if (!format.Valid()) {
        return Gpu::GpuError{0, "unsupported pixel format: " + std::to_string(format.planes) +
                                    " planes at " + std::to_string(format.depth) + " bits"};
    }
    auto resampler = Gpu::GpuResampler::Create(std::move(device), format.depth);
    if (!resampler) {
        return resampler.error();
    }
    return std::unique_ptr<WarpRenderer>(
        new WarpRenderer(std::move(resampler).value(), format, options));
}

WarpRenderer::WarpRenderer(std::unique_ptr<Gpu::GpuResampler> resampler, PixelFormat format,
                           const RenderOptions& options)
    : resampler_(std::move(resampler)), format_(format), options_(options) {
    // The border through the same conversions as the photo's own values, so
    // it reads back exactly.
    std::array<float, 4> clear{};
    for (size_t p = 0; p < clear.size(); ++p) {
        const uint16_t v = options_.border[p];
        clear[p] = format_.depth > 8 ? static_cast<float>(HostToGpu16(v)) / 65535.0f
                                     : static_cast<float>(std::min<uint16_t>(v, 255)) / 255.0f;
    }
    resampler_->SetClearColor(clear);
}

void WarpRenderer::SetPlan(std::shared_ptr<const RenderPlan> plan) {
    const bool sameSource = plan_ && plan && plan_->SourceWidth() == plan->SourceWidth() &&
                            plan_->SourceHeight() == plan->SourceHeight();
    const SourceMode previous = mode_;
    plan_ = std::move(plan);
    rectangleVerticesResident_ = false;
    if (!plan_) {
        sourceResident_ = false;
        return;
    }
    const uint32_t maxSide = resampler_->Device()->MaxTextureDimension();
    mode_ = FitsWhole(plan_->SourceWidth(), plan_->SourceHeight()) ? SourceMode::Whole
                                                                   : SourceMode::Windows;
    const auto budgetSide = static_cast<uint64_t>(std::sqrt(static_cast<double>(BudgetTexels())));
    windowLimit_ = static_cast<uint32_t>(
        std::min<uint64_t>(maxSide, std::max<uint64_t>(budgetSide, kMinWindowSide)));
    if (!(sameSource && previous == SourceMode::Whole && mode_ == SourceMode::Whole)) {
        sourceResident_ = false;
    }
}

uint64_t WarpRenderer::BudgetTexels() const {
    return options_.sourceTextureBudget / resampler_->BytesPerTexel();
}

bool WarpRenderer::FitsWhole(int32_t sourceWidth, int32_t sourceHeight) const {
    const uint32_t maxSide = resampler_->Device()->MaxTextureDimension();
    const auto sw = static_cast<uint64_t>(std::max(sourceWidth, 0));
    const auto sh = static_cast<uint64_t>(std::max(sourceHeight, 0));
    return sw <= maxSide && sh <= maxSide && sw * sh <= BudgetTexels();
}

RenderStatus WarpRenderer::ReserveSource(int32_t sourceWidth, int32_t sourceHeight) {
    if (sourceWidth <= 0 || sourceHeight <= 0 || !FitsWhole(sourceWidth, sourceHeight)) {
        return RenderStatus::Ok();  // windows: their texture is small and grows as needed
    }
    if (auto made = resampler_->EnsureSourceTexture(static_cast<uint32_t>(sourceWidth),
                                                    static_cast<uint32_t>(sourceHeight));
        !made) {
        return GpuFailure(made.error());
    }
    if (Gpu::Status s = resampler_->ClearSource(); !s) {
        return GpuFailure(s.error());
    }
    sourceResident_ = false;
    // One small triangle sampling that texture: a device may compile the
    // shader for the texture's state at its first draw, which then happens
    // here rather than before the first tile. Every tile clears the target.
    const std::array<Gpu::GpuVertex, 3> triangle{{{-1.0f, -1.0f, 0.0f, 1.0f, 0.0f, 0.0f},
                                                  {-0.9f, -1.0f, 0.0f, 1.0f, 0.1f, 0.0f},
                                                  {-1.0f, -0.9f, 0.0f, 1.0f, 0.0f, 0.1f}}};
    const std::array<uint32_t, 3> indices{0, 1, 2};
    std::array<float, 16> identity{};
    for (size_t i = 0; i < 4; ++i) {
        identity[i * 5] = 1.0f;
    }
    rectangleVerticesResident_ = false;
    if (Gpu::Status s = resampler_->UploadVertices(triangle); !s) {
        return GpuFailure(s.error());
    }
    if (Gpu::Status s = resampler_->UploadIndices(indices); !s) {
        return GpuFailure(s.error());
    }
    if (Gpu::Status s = resampler_->SetMatrix(identity); !s) {
        return GpuFailure(s.error());
    }
    if (Gpu::Status s = resampler_->Draw(3, true, std::nullopt); !s) {
        return GpuFailure(s.error());
    }
    return RenderStatus::Ok();
}

RenderStatus WarpRenderer::RenderAll(RenderSource& source, RenderSink& sink,
                                     const RenderControl& control) {
    if (!plan_) {
        return {RenderCode::InvalidArgument, "no render plan"};
    }
    const int64_t total = plan_->TileCount();
    if (mode_ == SourceMode::Whole && plan_->Mesh().ValidQuadCount() > 0) {
        if (control.abortRequested && control.abortRequested()) {
            return {RenderCode::Cancelled, "cancelled"};
        }
        if (RenderStatus s = UploadWhole(source); !s.ok()) {
            return s;
        }
    }
    int64_t done = 0;
    for (int32_t row = 0; row < plan_->TileRows(); ++row) {
        for (int32_t column = 0; column < plan_->TileColumns(); ++column) {
            if (control.abortRequested && control.abortRequested()) {
                return {RenderCode::Cancelled, "cancelled"};
            }
            if (RenderStatus s = RenderTile(column, row, source, sink); !s.ok()) {
                return s;
            }
            ++done;
            if (control.progress) {
                control.progress(done, total);
            }
        }
    }
    return RenderStatus::Ok();
}

RenderStatus WarpRenderer::RenderTile(int32_t column, int32_t row, RenderSource& source,
                                      RenderSink& sink) {
    if (!plan_) {
        return {RenderCode::InvalidArgument, "no render plan"};
    }
    if (column < 0 || row < 0 || column >= plan_->TileColumns() || row >= plan_->TileRows()) {
        return {RenderCode::InvalidArgument, "tile outside the output"};
    }
    if (plan_->Bucket(column, row).empty()) {
        return RenderStatus::Ok();  // nothing drawn, nothing copied
    }
    const PixelRect region = plan_->TileRect(column, row);
    RenderStatus status;
    if (mode_ == SourceMode::Whole) {
        if (!sourceResident_) {
            if (status = UploadWhole(source); !status.ok()) {
                return status;
            }
        }
        status = DrawWhole(column, row, region);
    } else {
        status = DrawWindows(column, row, region, source);
    }
    if (!status.ok()) {
        return status;
    }
    ++statistics_.tilesDrawn;
    return WriteBack(region, sink);
}

RenderStatus WarpRenderer::UploadWhole(RenderSource& source) {
    sourceResident_ = false;
    const PixelRect whole{0, 0, plan_->SourceWidth(), plan_->SourceHeight()};
    if (RenderStatus s = UploadWindow(source, whole); !s.ok()) {
        return s;
    }
    sourceResident_ = true;
    return RenderStatus::Ok();
}

bool WarpRenderer::ReadPlanes(RenderSource& source, const PixelRect& rect, void* dst,
                              size_t pitch) {
    const auto stride = static_cast<uint32_t>(rect.Width());
    const auto rows = static_cast<uint32_t>(rect.Height());
    const size_t bpv = static_cast<size_t>(format_.BytesPerValue());
    const size_t planeBytes = static_cast<size_t>(stride) * rows * bpv;
    planeScratch_.resize(static_cast<size_t>(format_.planes));
    std::vector<void*> pointers;
    for (auto& plane : planeScratch_) {
        if (plane.size() < planeBytes) {
            plane.resize(planeBytes);
        }
        pointers.push_back(plane.data());
    }
    if (!source.ReadWindow(rect, pointers, static_cast<ptrdiff_t>(stride * bpv))) {
        return false;
    }
    if (format_.depth > 8) {
        Interleave<uint16_t>(format_.planes, planeScratch_, stride, rows, dst, pitch);
    } else {
        Interleave<uint8_t>(format_.planes, planeScratch_, stride, rows, dst, pitch);
    }
    return true;
}

bool WarpRenderer::ReadPixels(RenderSource& source, const PixelRect& rect, void* dst,
                              size_t pitch) {
    const auto w = static_cast<size_t>(rect.Width());
    const auto rows = static_cast<size_t>(rect.Height());
    if (format_.depth <= 8) {
        // Straight into the texels: the channels the image lacks keep
        // whatever the band held, which no output channel reads.
        return source.ReadPixels(rect, dst, 4, static_cast<ptrdiff_t>(pitch));
    }
    // 16 bits take a pass to the device's range, from memory the processor
    // caches rather than the staging memory it may only write well.
    const size_t values = 4 * w * rows;
    if (texelScratch_.size() < values) {
        texelScratch_.resize(values);
    }
    if (!source.ReadPixels(rect, texelScratch_.data(), 8, static_cast<ptrdiff_t>(8 * w))) {
        return false;
    }
    const auto planes = static_cast<size_t>(format_.planes);
    for (size_t r = 0; r < rows; ++r) {
        const uint16_t* __restrict in = texelScratch_.data() + 4 * w * r;
        auto* __restrict out = reinterpret_cast<uint16_t*>(static_cast<uint8_t*>(dst) + r * pitch);
        for (size_t k = 0; k < 4 * w; k += 4) {
            uint16_t t[4] = {};
            for (size_t c = 0; c < planes; ++c) {
                t[c] = HostToGpu16(in[k + c]);
            }
            std::memcpy(out + k, t, sizeof t);
        }
    }
    return true;
}

RenderStatus WarpRenderer::UploadWindow(RenderSource& source, const PixelRect& window) {
    const PhaseTimer timer(statistics_.uploadSeconds);
    const auto w = static_cast<uint32_t>(window.Width());
    const auto h = static_cast<uint32_t>(window.Height());
    // Whole mode: exactly the source's size. Windows: the texture only grows.
    uint32_t tw = w;
    uint32_t th = h;
    if (mode_ == SourceMode::Windows && resampler_->SourceWidth() <= windowLimit_ &&
        resampler_->SourceHeight() <= windowLimit_) {
        tw = std::max(w, resampler_->SourceWidth());
        th = std::max(h, resampler_->SourceHeight());
    }
    if (auto made = resampler_->EnsureSourceTexture(tw, th); !made) {
        return GpuFailure(made.error());
    }
    // A window that ends where the photo ends, in a larger texture, gets one
    // more column or row repeating the photo's last: the filter's footprint
    // of the last half texel then reads the photo's edge, as the sampler's
    // clamp gives it in a texture of the photo's own size, not the texels
    // another window left there.
    const uint32_t uw = w + (window.right == plan_->SourceWidth() && tw > w ? 1u : 0u);
    const uint32_t uh = h + (window.bottom == plan_->SourceHeight() && th > h ? 1u : 0u);
    const size_t bpv = static_cast<size_t>(format_.BytesPerValue());
    const size_t texel = 4 * bpv;
    bool readFailed = false;
    // Rows [top, top + rows) of the window into texels at dst, with the
    // repeated last column when it is asked for.
    auto readRows = [&](int32_t top, uint32_t rows, void* dst, size_t pitch) {
        const PixelRect rect{window.left, top, window.right, top + static_cast<int32_t>(rows)};
        if (source.OffersPixels()) {
            readFailed = !ReadPixels(source, rect, dst, pitch);
        } else {
            readFailed = !ReadPlanes(source, rect, dst, pitch);
        }
        if (readFailed) {
            return false;
        }
        if (uw > w) {
            for (uint32_t r = 0; r < rows; ++r) {
                uint8_t* row = static_cast<uint8_t*>(dst) + r * pitch;
                std::memcpy(row + w * texel, row + (w - 1) * texel, texel);
            }
        }
        return true;
    };
    auto fill = [&](uint32_t y0, uint32_t rows, void* dst, size_t pitch) {
        // Rows of the window, then the repeated last row when it is asked for.
        const uint32_t own = y0 >= h ? 0 : std::min(rows, h - y0);
        if (own > 0 && !readRows(window.top + static_cast<int32_t>(y0), own, dst, pitch)) {
            return false;
        }
        return own == rows ||
               readRows(window.bottom - 1, 1, static_cast<uint8_t*>(dst) + own * pitch, pitch);
    };
    if (Gpu::Status s = resampler_->UploadSource(uw, uh, fill); !s) {
        if (readFailed) {
            return {RenderCode::SourceFailed,
                    "reading the source window (" + std::to_string(window.left) + ", " +
                        std::to_string(window.top) + ", " + std::to_string(window.right) + ", " +
                        std::to_string(window.bottom) + ") failed"};
        }
        return GpuFailure(s.error());
    }
    ++statistics_.sourceUploads;
    statistics_.uploadedTexels += static_cast<uint64_t>(w) * h;
    return RenderStatus::Ok();
}

RenderStatus WarpRenderer::DrawWhole(int32_t column, int32_t row, const PixelRect& region) {
    const PhaseTimer timer(statistics_.drawSeconds);
    if (!rectangleVerticesResident_) {
        const auto vertices = plan_->RectangleVertices();
        if (Gpu::Status s = resampler_->UploadVertices(vertices); !s) {
            return GpuFailure(s.error());
        }
        rectangleVerticesResident_ = true;
    }
    indexScratch_ = plan_->TileIndices(column, row);
    if (Gpu::Status s = resampler_->UploadIndices(indexScratch_); !s) {
        return GpuFailure(s.error());
    }
    if (Gpu::Status s = resampler_->SetMatrix(plan_->TileMatrix(column, row)); !s) {
        return GpuFailure(s.error());
    }
    const Gpu::TargetRegion readback{0, 0, static_cast<uint32_t>(region.Width()),
                                     static_cast<uint32_t>(region.Height())};
    if (Gpu::Status s =
            resampler_->Draw(static_cast<uint32_t>(indexScratch_.size()), true, readback);
        !s) {
        return GpuFailure(s.error());
    }
    ++statistics_.draws;
    return RenderStatus::Ok();
}

PixelRect WarpRenderer::Footprint(const TriangleVertex* corners, int32_t count) const {
    const double sw = plan_->SourceWidth();
    const double sh = plan_->SourceHeight();
    double u0 = corners[0].u;
    double u1 = u0;
    double v0 = corners[0].v;
    double v1 = v0;
    for (int32_t c = 1; c < count; ++c) {
        u0 = std::min<double>(u0, corners[c].u);
        u1 = std::max<double>(u1, corners[c].u);
        v0 = std::min<double>(v0, corners[c].v);
        v1 = std::max<double>(v1, corners[c].v);
    }
    // Bilinear filtering at texel coordinate t = u * width - 0.5 reads texels
    // floor(t) and floor(t) + 1.
    PixelRect rect{FloorClamped(u0 * sw - 0.5) - kWindowMargin,
                   FloorClamped(v0 * sh - 0.5) - kWindowMargin,
                   FloorClamped(u1 * sw - 0.5) + 2 + kWindowMargin,
                   FloorClamped(v1 * sh - 0.5) + 2 + kWindowMargin};
    const int32_t w = plan_->SourceWidth();
    const int32_t h = plan_->SourceHeight();
    rect.left = std::clamp(rect.left, 0, w - 1);
    rect.top = std::clamp(rect.top, 0, h - 1);
    rect.right = std::clamp(rect.right, rect.left + 1, w);
    rect.bottom = std::clamp(rect.bottom, rect.top + 1, h);
    return rect;
}

bool WarpRenderer::TileFootprint(const TriangleVertex* tri, const PixelRect& tile,
                                 PixelRect& footprint) const {
    // Inside a triangle the texture coordinate is an affine function of the
    // output position, so the texels the tile's pixels read are those of the
    // triangle's part inside the tile: clip it (Sutherland-Hodgman, with u
    // and v carried along) to the tile grown by a pixel for rounding.
    struct Corner {
        double x, y, u, v;
    };
    std::array<Corner, 8> a{};
    std::array<Corner, 8> b{};
    size_t n = 3;
    for (size_t c = 0; c < 3; ++c) {
        plan_->PlaneToPixel(tri[c].x, tri[c].y, a[c].x, a[c].y);
        a[c].u = tri[c].u;
        a[c].v = tri[c].v;
    }
    const double bounds[4] = {tile.left - 1.0, tile.top - 1.0, tile.right + 1.0, tile.bottom + 1.0};
    for (int edge = 0; edge < 4 && n > 0; ++edge) {
        const bool isX = edge % 2 == 0;
        const bool keepAbove = edge < 2;
        const double limit = bounds[edge];
        auto inside = [&](const Corner& c) {
            const double value = isX ? c.x : c.y;
            return keepAbove ? value >= limit : value <= limit;
        };
        size_t m = 0;
        for (size_t i = 0; i < n; ++i) {
            const Corner& p = a[i];
            const Corner& q = a[(i + 1) % n];
            const bool pIn = inside(p);
            const bool qIn = inside(q);
            if (pIn) {
                b[m++] = p;
            }
            if (pIn != qIn) {
                const double pv = isX ? p.x : p.y;
                const double qv = isX ? q.x : q.y;
                const double t = (limit - pv) / (qv - pv);
                b[m++] = {p.x + t * (q.x - p.x), p.y + t * (q.y - p.y), p.u + t * (q.u - p.u),
                          p.v + t * (q.v - p.v)};
            }
        }
        a = b;
        n = m;
    }
    if (n == 0) {
        return false;
    }
    std::array<TriangleVertex, 8> corners{};
    for (size_t c = 0; c < n; ++c) {
        corners[c] = {0.0f, 0.0f, static_cast<float>(a[c].u), static_cast<float>(a[c].v)};
    }
    footprint = Footprint(corners.data(), static_cast<int32_t>(n));
    return true;
}

RenderStatus WarpRenderer::BuildGroups(int32_t column, int32_t row, std::vector<Group>& groups) {
    groups.clear();
    const auto limit = static_cast<int32_t>(windowLimit_);
    auto fits = [limit](const PixelRect& r) { return r.Width() <= limit && r.Height() <= limit; };
    bool open = false;
    Group current;
    RenderStatus failure = RenderStatus::Ok();
    const PixelRect tileRect = plan_->TileRect(column, row);

    // Adds one triangle to the open group, starting a new group or cutting
    // the triangle when its window does not fit.
    auto add = [&](auto&& self, const TriangleVertex* tri, const PixelRect& clip,
                   int32_t depth) -> void {
        if (!failure.ok()) {
            return;
        }
        // A triangle of the bucket that misses the tile draws nothing there.
        PixelRect footprint;
        if (!TileFootprint(tri, tileRect, footprint)) {
            return;
        }
        if (const PixelRect clipped = Intersect(footprint, clip); !clipped.Empty()) {
            footprint = clipped;
        }
        if (open && fits(Union(current.window, footprint))) {
            current.window = Union(current.window, footprint);
            current.vertices.insert(current.vertices.end(), tri, tri + 3);
            return;
        }
        if (fits(footprint)) {
            if (open) {
                groups.push_back(std::move(current));
            }
            current = Group{footprint, {tri[0], tri[1], tri[2]}};
            open = true;
            return;
        }
        if (depth >= kMaxSplitDepth) {
            failure = {RenderCode::InvalidArgument,
                       "a mesh triangle's source window cannot be made to fit the texture"};
            return;
        }
        ++statistics_.splitTriangles;
        auto mid = [](const TriangleVertex& a, const TriangleVertex& b) {
            return TriangleVertex{0.5f * (a.x + b.x), 0.5f * (a.y + b.y), 0.5f * (a.u + b.u),
                                  0.5f * (a.v + b.v)};
        };
        const TriangleVertex m01 = mid(tri[0], tri[1]);
        const TriangleVertex m12 = mid(tri[1], tri[2]);
        const TriangleVertex m20 = mid(tri[2], tri[0]);
        const TriangleVertex pieces[4][3] = {
            {tri[0], m01, m20}, {m01, tri[1], m12}, {m20, m12, tri[2]}, {m01, m12, m20}};
        for (const auto& piece : pieces) {
            self(self, piece, clip, depth + 1);
        }
    };

    const PixelRect whole{0, 0, plan_->SourceWidth(), plan_->SourceHeight()};
    std::vector<TriangleVertex> triangles;
    for (int32_t quad : plan_->Bucket(column, row)) {
        // The quad's source tiles bound its window (two texels of slack for
        // the filter at tile borders).
        PixelRect clip = whole;
        const auto tiles = plan_->SourceTiles(quad);
        if (!tiles.empty()) {
            int32_t tx0 = tiles[0].tx;
            int32_t tx1 = tx0;
            int32_t ty0 = tiles[0].ty;
            int32_t ty1 = ty0;
            for (const SourceTile& tile : tiles) {
                tx0 = std::min(tx0, tile.tx);
                tx1 = std::max(tx1, tile.tx);
                ty0 = std::min(ty0, tile.ty);
                ty1 = std::max(ty1, tile.ty);
            }
            clip = Intersect(whole, {tx0 * kTile - 2, ty0 * kTile - 2, (tx1 + 1) * kTile + 2,
                                     (ty1 + 1) * kTile + 2});
        }
        // The same triangles as the whole render draws, clipped to the
        // content: none reaches beyond the photo.
        triangles.clear();
        plan_->AppendQuadTriangles(quad, triangles);
        for (size_t t = 0; t + 2 < triangles.size(); t += 3) {
            add(add, &triangles[t], clip, 0);
        }
        if (!failure.ok()) {
            return failure;
        }
    }
    if (open) {
        groups.push_back(std::move(current));
    }
    return RenderStatus::Ok();
}

RenderStatus WarpRenderer::DrawWindows(int32_t column, int32_t row, const PixelRect& region,
                                       RenderSource& source) {
    std::vector<Group> groups;
    if (RenderStatus s = BuildGroups(column, row, groups); !s.ok()) {
        return s;
    }
    const Gpu::TargetRegion readback{0, 0, static_cast<uint32_t>(region.Width()),
                                     static_cast<uint32_t>(region.Height())};
    if (groups.empty()) {
        // The bucket's quads come near the tile but cover none of its pixels:
        // the tile is border only, as the whole-source draw makes it.
        if (Gpu::Status s = resampler_->Draw(0, true, readback); !s) {
            return GpuFailure(s.error());
        }
        return RenderStatus::Ok();
    }
    rectangleVerticesResident_ = false;
    sourceResident_ = false;
    if (Gpu::Status s = resampler_->SetMatrix(plan_->TileMatrix(column, row)); !s) {
        return GpuFailure(s.error());
    }
    const double sw = plan_->SourceWidth();
    const double sh = plan_->SourceHeight();
    for (size_t g = 0; g < groups.size(); ++g) {
        const Group& group = groups[g];
        if (RenderStatus s = UploadWindow(source, group.window); !s.ok()) {
            return s;
        }
        // Texture coordinates into the window, which sits at the top-left of
        // a texture of tw x th texels.
        const double tw = resampler_->SourceWidth();
        const double th = resampler_->SourceHeight();
        vertexScratch_.resize(group.vertices.size());
        indexScratch_.resize(group.vertices.size());
        for (size_t k = 0; k < group.vertices.size(); ++k) {
            const TriangleVertex& in = group.vertices[k];
            Gpu::GpuVertex& out = vertexScratch_[k];
            out.x = in.x;
            out.y = in.y;
            out.u = static_cast<float>((in.u * sw - group.window.left) / tw);
            out.v = static_cast<float>((in.v * sh - group.window.top) / th);
            indexScratch_[k] = static_cast<uint32_t>(k);
        }
        if (Gpu::Status s = resampler_->UploadVertices(vertexScratch_); !s) {
            return GpuFailure(s.error());
        }
        if (Gpu::Status s = resampler_->UploadIndices(indexScratch_); !s) {
            return GpuFailure(s.error());
        }
        const bool last = g + 1 == groups.size();
        if (Gpu::Status s = resampler_->Draw(static_cast<uint32_t>(indexScratch_.size()), g == 0,
                                             last ? std::optional(readback) : std::nullopt);
            !s) {
            return GpuFailure(s.error());
        }
        ++statistics_.draws;
    }
    return RenderStatus::Ok();
}

RenderStatus WarpRenderer::WriteBack(const PixelRect& region, RenderSink& sink) {
    const PhaseTimer timer(statistics_.writeSeconds);
    const auto w = static_cast<size_t>(region.Width());
    const auto h = static_cast<size_t>(region.Height());
    const size_t bpv = static_cast<size_t>(format_.BytesPerValue());
    if (sink.TakesPixels()) {
        const void* texels = resampler_->ReadbackData();
        if (format_.depth > 8) {
            const auto planes = static_cast<size_t>(format_.planes);
            if (texelScratch_.size() < 4 * w * h) {
                texelScratch_.resize(4 * w * h);
            }
            const auto* __restrict in = static_cast<const uint16_t*>(texels);
            uint16_t* __restrict out = texelScratch_.data();
            for (size_t k = 0; k < 4 * w * h; k += 4) {
                for (size_t c = 0; c < planes; ++c) {
                    out[k + c] = GpuToHost16(in[k + c]);
                }
            }
            texels = out;
        }
        if (!sink.WritePixels(region, texels, static_cast<ptrdiff_t>(4 * bpv),
                              static_cast<ptrdiff_t>(4 * bpv * w))) {
            return {RenderCode::SinkFailed, "writing the result tile failed"};
        }
        return RenderStatus::Ok();
    }
    planeScratch_.resize(static_cast<size_t>(format_.planes));
    std::vector<const void*> pointers;
    for (auto& plane : planeScratch_) {
        if (plane.size() < w * h * bpv) {
            plane.resize(w * h * bpv);
        }
        pointers.push_back(plane.data());
    }
    if (format_.depth > 8) {
        Deinterleave<uint16_t>(resampler_->ReadbackData(), w * h, planeScratch_);
    } else {
        Deinterleave<uint8_t>(resampler_->ReadbackData(), w * h, planeScratch_);
    }
    if (!sink.WriteTile(region, pointers, static_cast<ptrdiff_t>(w * bpv))) {
        return {RenderCode::SinkFailed, "writing the result tile failed"};
    }
    return RenderStatus::Ok();
}

}  // namespace Project
