#include "session/RenderingImageHub.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <vector>

#include "core/LocalizedString.h"
#include "render/PResult.h"
#include "render/RenderMesh.h"
#include "session/PFilter.h"
#include "session/SessionWarp.h"

namespace Project {

namespace {

constexpr const char* kProgressTitle = "$$$/Curvana/Final/Progress/Title=Progress";
constexpr const char* kProgressMessage = "$$$/Curvana/Final/Progress/Message=Applying Curvana.";
constexpr const char* kSolveFailed = "$$$/Curvana/Warning/SolveFailed=Solve failed";
constexpr const char* kGpuFailed =
    "$$$/private/Curvana/Warning/GpuFailed=The graphics processor could not render the result: ^0";

// The host's source and result planes as the renderer's source and sink.
// Renderer rectangles are relative to the filtered area. A host error
// (HostError) passes through the renderer, which stops cleanly, to the
// selector's entry, which turns it into the selector's result.
class HostPixels final : public RenderSource, public RenderSink {
public:
    HostPixels(const HostRecord& host, ImageRect area) : host_(host), area_(area) {}

    bool ReadWindow(const PixelRect& rect, std::span<void* const> planes,
                    ptrdiff_t rowBytes) override {
        return Each(rect, planes.size(), rowBytes,
                    [&](const ImageRect& r, int32_t p, int32_t stride) {
                        host_.ReadSourcePlane(r, p, planes[static_cast<size_t>(p)], stride);
                    });
    }
    bool WriteTile(const PixelRect& rect, std::span<const void* const> planes,
                   ptrdiff_t rowBytes) override {
        written_.push_back(rect);
        return Each(rect, planes.size(), rowBytes,
                    [&](const ImageRect& r, int32_t p, int32_t stride) {
                        host_.WriteResultPlane(r, p, planes[static_cast<size_t>(p)], stride);
                    });
    }

    bool OffersPixels() const override { return host_.OffersPixels(); }
    bool TakesPixels() const override { return host_.OffersPixels(); }
    bool ReadPixels(const PixelRect& rect, void* pixels, ptrdiff_t columnBytes,
                    ptrdiff_t rowBytes) override {
        if (!Fits(columnBytes) || !Fits(rowBytes))
            return false;
        host_.ReadSourcePixels(InArea(rect), pixels, static_cast<int32_t>(columnBytes),
                               static_cast<int32_t>(rowBytes));
        return true;
    }
    bool WritePixels(const PixelRect& rect, const void* pixels, ptrdiff_t columnBytes,
                     ptrdiff_t rowBytes) override {
        if (!Fits(columnBytes) || !Fits(rowBytes))
            return false;
        written_.push_back(rect);
        host_.WriteResultPixels(InArea(rect), pixels, static_cast<int32_t>(columnBytes),
                                static_cast<int32_t>(rowBytes));
        return true;
    }

    // Tiles the renderer drew nothing into (no quad reaches them) are still
    // part of the result: they are written as border, like the uncovered
    // pixels of a drawn tile.
    void ClearUnwrittenTiles(int32_t planes, int32_t bytesPerValue,
                             const std::array<uint16_t, 4>& border) {
        const int32_t tile = RenderPlan::kTileSize;
        std::vector<std::vector<uint8_t>> fills(static_cast<size_t>(planes));
        for (int32_t top = 0; top < area_.Height(); top += tile) {
            for (int32_t left = 0; left < area_.Width(); left += tile) {
                const PixelRect r{left, top, std::min(left + tile, area_.Width()),
                                  std::min(top + tile, area_.Height())};
                if (std::find(written_.begin(), written_.end(), r) != written_.end())
                    continue;
                const ptrdiff_t rowBytes = static_cast<ptrdiff_t>(r.Width()) * bytesPerValue;
                const size_t values =
                    static_cast<size_t>(r.Width()) * static_cast<size_t>(r.Height());
                std::vector<const void*> pointers;
                for (size_t p = 0; p < fills.size(); ++p) {
                    auto& fill = fills[p];
                    fill.resize(values * static_cast<size_t>(bytesPerValue));
                    if (bytesPerValue == 2) {
                        auto* v = reinterpret_cast<uint16_t*>(fill.data());
                        std::fill(v, v + values, border[p]);
                    } else {
                        std::fill(fill.begin(), fill.end(), static_cast<uint8_t>(border[p]));
                    }
                    pointers.push_back(fill.data());
                }
                Each(r, pointers.size(), rowBytes,
                     [&](const ImageRect& hr, int32_t p, int32_t stride) {
                         host_.WriteResultPlane(hr, p, pointers[static_cast<size_t>(p)], stride);
                     });
            }
        }
    }

private:
    static bool Fits(ptrdiff_t bytes) {
        return bytes > 0 && bytes <= std::numeric_limits<int32_t>::max();
    }
    ImageRect InArea(const PixelRect& rect) const {
        return {area_.left + rect.left, area_.top + rect.top, area_.left + rect.right,
                area_.top + rect.bottom};
    }
    template <class Op>
    bool Each(const PixelRect& rect, size_t planeCount, ptrdiff_t rowBytes, Op&& op) {
        if (!Fits(rowBytes))
            return false;
        const ImageRect r = InArea(rect);
        for (size_t p = 0; p < planeCount; ++p)
            op(r, static_cast<int32_t>(p), static_cast<int32_t>(rowBytes));
        return true;
    }

    const HostRecord& host_;
    ImageRect area_;
    std::vector<PixelRect> written_;
};

}  // namespace

std::array<uint16_t, 4> BorderValues(int32_t mode, int32_t depth) {
    const uint16_t full = depth > 8 ? 32768 : 255;
    const uint16_t neutral = depth > 8 ? 16384 : 128;
    switch (mode) {
        case cvModeCMYK:
            // Zero is no ink: black is the black ink alone.
            return {0, 0, 0, full};
        case cvModeLab:
            return {0, neutral, neutral, 0};
        default:
            // Grey and RGB: black is zero; a following alpha plane is
            // transparent.
            return {0, 0, 0, 0};
    }
}

RenderingImageHub::RenderingImageHub(Gpu::GpuOptions options) : options_(std::move(options)) {}

PResult::Config RenderingImageHub::ResultConfig(PFilter& filter) const {
    const HostRecord& host = context_.host;
    const ImageRect area = GetImageRect();
    const PSettings& s = filter.settings();
    PResult::Config config;
    config.width = area.Width();
    config.height = area.Height();
    config.format = PixelFormat{host.Planes(), host.Depth() > 8 ? 16 : 8};
    config.options.framing = ViewFraming{s.scale, s.offsetX, s.offsetY, s.s1 != 0};
    config.options.border = BorderValues(host.Mode(), config.format.depth);
    // One source texture may take at most the pixel-cache budget; a larger
    // source is drawn through windows.
    config.options.sourceTextureBudget =
        std::clamp<uint64_t>(context_.cacheBudget, uint64_t{32} << 20, uint64_t{1} << 30);
    return config;
}

void RenderingImageHub::Prewarm(PFilter& filter) {
    if (device_ || starting_.valid())
        return;
    std::optional<PResult::Config> config;
    if (const ImageRect area = GetImageRect(); area.Width() > 0 && area.Height() > 0)
        config = ResultConfig(filter);
    starting_ = std::async(std::launch::async, [options = options_, config]() -> Gpu::Result<Warm> {
        auto device = Gpu::GpuDevice::Create(options);
        if (!device)
            return device.error();
        Warm warm{std::move(device).value(), nullptr};
        if (!config)
            return warm;
        // A failure here is the final render's to make again and report.
        auto made = PResult::Create(warm.device, *config);
        if (made && made.value()->ReserveSource().ok())
            warm.result = std::move(made).value();
        return warm;
    });
}

Gpu::Result<std::shared_ptr<Gpu::GpuDevice>> RenderingImageHub::Device() {
    if (!device_) {
        if (starting_.valid()) {
            auto warmed = starting_.get();
            if (!warmed)
                return warmed.error();
            device_ = std::move(warmed.value().device);
            result_ = std::move(warmed.value().result);
        } else {
            auto created = Gpu::GpuDevice::Create(options_);
            if (!created)
                return created.error();
            device_ = std::move(created).value();
        }
    }
    return device_;
}

bool RenderingImageHub::RenderFinal(PFilter& filter) {
    const HostRecord& host = context_.host;
    host.SetProgressText(Localize(kProgressTitle), Localize(kProgressMessage));
    const ImageRect area = GetImageRect();
    if (area.Width() <= 0 || area.Height() <= 0)
        return true;

    const PWarpPipeline& pipeline = filter.warpPipeline();
    const std::shared_ptr<const SphereWarp> warp = pipeline.SolvedWarp();
    const std::shared_ptr<const PhotoToSphere> photo = pipeline.Photo();
    const std::shared_ptr<const OctaMap> mesh = pipeline.Mesh();
    if (!warp || !photo || !mesh) {
        filter.alert(kSolveFailed);
        return false;
    }

    if (auto device = Device(); !device) {
        filter.alert(Localize(kGpuFailed, {device.error().message}));
        return false;
    }

    const PResult::Config config = ResultConfig(filter);
    // The result made ahead, or the last image's when this one has its size
    // and format (a batch): its pipeline and source texture are ready.
    std::unique_ptr<PResult> made = std::move(result_);
    if (!made || !PResult::SameTarget(made->Configuration(), config)) {
        made.reset();  // its texture goes before the next is made
        auto fresh = PResult::Create(device_, config);
        if (!fresh) {
            filter.alert(Localize(kGpuFailed, {fresh.error().message}));
            return false;
        }
        made = std::move(fresh).value();
    }
    PResult& result = *made;
    result.SetMesh(std::make_shared<const RenderMesh>(BuildRenderMesh(
                       *warp, MeshTextureCoordinates(*mesh, *photo), ContentBoxOf(*warp, *photo))),
                   config.options.framing);

    HostPixels pixels(host, area);
    RenderControl control;
    control.progress = [&host](int64_t done, int64_t total) { host.Progress(done, total); };
    control.abortRequested = [&host] { return host.AbortRequested(); };
    const RenderStatus status = result.Render(pixels, pixels, control);
    switch (status.code) {
        case RenderCode::Ok:
            result_ = std::move(made);
            pixels.ClearUnwrittenTiles(config.format.planes, config.format.BytesPerValue(),
                                       config.options.border);
            return true;
        case RenderCode::Cancelled:
            result_ = std::move(made);
            return false;
        default:
            filter.alert(Localize(kGpuFailed, {status.message}));
            return false;
    }
}

}  // namespace Project
