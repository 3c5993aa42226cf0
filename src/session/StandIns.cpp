#include "session/StandIns.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "session/LocalizedString.h"
#include "session/PFilter.h"

namespace Project {

namespace {

// A band buffer from the host's buffer suite, or from the heap when the host
// offers none or refuses.
class BandBuffer {
public:
    BandBuffer(const CvBufferSuite1* suite, size_t size) {
        if (suite) {
            data_ = suite->allocate(suite->context, size);
            if (data_)
                suite_ = suite;
        }
        if (!data_) {
            heap_.resize(size);
            data_ = heap_.data();
        }
    }
    ~BandBuffer() {
        if (suite_)
            suite_->release(suite_->context, data_);
    }
    BandBuffer(const BandBuffer&) = delete;
    BandBuffer& operator=(const BandBuffer&) = delete;

    void* Data() const { return data_; }

private:
    const CvBufferSuite1* suite_ = nullptr;
    void* data_ = nullptr;
    std::vector<uint8_t> heap_;
};

}  // namespace

bool IdentityImageHub::RenderFinal(PFilter&) {
    const HostRecord& host = context_.host;
    host.SetProgressText(Localize("$$$/Curvana/Final/Progress/Title=Progress"),
                         Localize("$$$/Curvana/Final/Progress/Message=Applying Curvana."));
    const ImageRect rect = GetImageRect();
    if (rect.Width() <= 0 || rect.Height() <= 0)
        return true;

    const int64_t bytesPerSample = host.Depth() == 16 ? 2 : 1;
    const int64_t rowBytes = rect.Width() * bytesPerSample;
    if (rowBytes > std::numeric_limits<int32_t>::max())
        return false;
    const int32_t planes = host.Planes();
    const auto budget = static_cast<int64_t>(
        std::min<uint64_t>(context_.cacheBudget, std::numeric_limits<int64_t>::max()));
    const int64_t bandRows = std::clamp<int64_t>(budget / rowBytes, 1, rect.Height());
    BandBuffer buffer(context_.buffers, static_cast<size_t>(bandRows * rowBytes));

    const int64_t total = static_cast<int64_t>(rect.Height()) * planes;
    int64_t done = 0;
    for (int32_t top = rect.top; top < rect.bottom; top += static_cast<int32_t>(bandRows)) {
        const ImageRect band{rect.left, top, rect.right,
                             static_cast<int32_t>(std::min<int64_t>(top + bandRows, rect.bottom))};
        for (int32_t plane = 0; plane < planes; ++plane) {
            if (host.AbortRequested())
                return false;
            host.ReadSourcePlane(band, plane, buffer.Data(), static_cast<int32_t>(rowBytes));
            host.WriteResultPlane(band, plane, buffer.Data(), static_cast<int32_t>(rowBytes));
            done += band.Height();
            host.Progress(done, total);
        }
    }
    return true;
}

PEditor::Result UnavailableEditor::Run(PFilter& filter, const char*, DialogPlacement&) {
    filter.alert("$$$/private/Curvana/Warning/NoEditor=The editor is not available in this build.");
    return Result::Cancel;
}

bool RawConstraintData::Parse(const uint8_t* data, size_t size) {
    bytes_.assign(data, data + size);
    return true;
}

void RawConstraintData::Serialize(uint8_t* out) const {
    if (!bytes_.empty())
        std::memcpy(out, bytes_.data(), bytes_.size());
}

std::unique_ptr<PFilterComponents> CreateStandInComponents() {
    class StandIns final : public PFilterComponents {
    public:
        std::unique_ptr<PImageHub> CreateImageHub() override {
            return std::make_unique<IdentityImageHub>();
        }
        std::unique_ptr<PWarpPipeline> CreateWarpPipeline() override {
            return std::make_unique<NullWarpPipeline>();
        }
        std::shared_ptr<const LensProfileLookup> AcquireLensProfileLookup() override {
            return lensfunProfileLookup();
        }
        std::unique_ptr<PEditor> CreateEditor() override {
            return std::make_unique<UnavailableEditor>();
        }
        std::unique_ptr<PConstraintData> CreateConstraintData() override {
            return std::make_unique<RawConstraintData>();
        }
    };
    return std::make_unique<StandIns>();
}

}  // namespace Project
