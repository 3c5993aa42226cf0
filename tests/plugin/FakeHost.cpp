#include "FakeHost.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "session/PreferencesFile.h"

namespace Project::test {

struct FakeHost::Callbacks {
    static FakeHost& Self(void* host) { return *static_cast<FakeHost*>(host); }

    static CvError GetProperty(void* host, uint32_t signature, uint32_t key, int32_t* value) {
        FakeHost& h = Self(host);
        if (signature != CV_PROPERTY_SIGNATURE)
            return cvErrUnsupported;
        const std::optional<int32_t>* p = key == CV_PROPERTY_VERSION          ? &h.version
                                          : key == CV_PROPERTY_GPU_FLAGS      ? &h.gpuFlags
                                          : key == CV_PROPERTY_FRESH_DEFAULTS ? &h.freshDefaults
                                                                              : nullptr;
        if (!p || !p->has_value())
            return cvErrUnsupported;
        *value = **p;
        return cvNoErr;
    }

    static CvError AcquireSuite(void* host, const char* name, int32_t version, const void** suite) {
        FakeHost& h = Self(host);
        static const CvBufferSuite1 kBuffers = {Allocate, ReleaseBuffer, nullptr};
        *suite = nullptr;
        if (std::strcmp(name, CV_BUFFER_SUITE_NAME) == 0 && version == CV_BUFFER_SUITE_VERSION) {
            h.bufferSuite_ = kBuffers;
            h.bufferSuite_.context = &h;
            *suite = &h.bufferSuite_;
        } else if (std::strcmp(name, CV_DESCRIPTOR_SUITE_NAME) == 0 &&
                   version == CV_DESCRIPTOR_SUITE_VERSION) {
            *suite = &DescriptorSuite();
        }
        if (!*suite)
            return cvErrUnsupported;
        ++h.suitesAcquired[name];
        return cvNoErr;
    }

    static CvError ReleaseSuite(void* host, const char* name, int32_t) {
        ++Self(host).suitesReleased[name];
        return cvNoErr;
    }

    static void* Allocate(void* context, uint64_t size) {
        FakeHost& h = Self(context);
        if (h.refuseBuffers)
            return nullptr;
        void* p = std::malloc(static_cast<size_t>(size));
        if (p)
            ++h.buffersOutstanding;
        return p;
    }

    static void ReleaseBuffer(void* context, void* buffer) {
        --Self(context).buffersOutstanding;
        std::free(buffer);
    }

    static CvError SetResultDescriptor(void* host, CvDescriptor result) {
        FakeHost& h = Self(host);
        h.result.reset(FromHandle(result));
        ++h.resultDescriptors;
        return cvNoErr;
    }

    static bool Inside(const FakeHost& h, const CvRect* r) {
        return r && r->left >= 0 && r->top >= 0 && r->right <= h.width && r->bottom <= h.height &&
               r->left < r->right && r->top < r->bottom;
    }

    static CvError ReadSourcePlane(void* host, const CvRect* rect, int32_t plane, void* buffer,
                                   int32_t rowBytes) {
        FakeHost& h = Self(host);
        if (!Inside(h, rect) || plane < 0 || plane >= h.record_.planes)
            return cvErrParam;
        h.widestSourceRead = std::max(h.widestSourceRead, rect->right - rect->left);
        for (int32_t y = rect->top; y < rect->bottom; ++y) {
            auto* row =
                static_cast<uint8_t*>(buffer) + static_cast<ptrdiff_t>(y - rect->top) * rowBytes;
            for (int32_t x = rect->left; x < rect->right; ++x) {
                const uint32_t v = SourceValue(x, y, plane, h.depth);
                if (h.depth == 16) {
                    const auto s = static_cast<uint16_t>(v);
                    std::memcpy(row + 2 * (x - rect->left), &s, 2);
                } else {
                    row[x - rect->left] = static_cast<uint8_t>(v);
                }
            }
        }
        return cvNoErr;
    }

    static CvError WriteResultPlane(void* host, const CvRect* rect, int32_t plane,
                                    const void* buffer, int32_t rowBytes) {
        FakeHost& h = Self(host);
        if (!Inside(h, rect) || plane < 0 || plane >= h.record_.planes)
            return cvErrParam;
        if (h.failResultWrites)
            return cvErrMemory;
        for (int32_t y = rect->top; y < rect->bottom; ++y) {
            const auto* row = static_cast<const uint8_t*>(buffer) +
                              static_cast<ptrdiff_t>(y - rect->top) * rowBytes;
            for (int32_t x = rect->left; x < rect->right; ++x) {
                uint32_t v = 0;
                if (h.depth == 16) {
                    uint16_t s = 0;
                    std::memcpy(&s, row + 2 * (x - rect->left), 2);
                    v = s;
                } else {
                    v = row[x - rect->left];
                }
                ++h.samplesWritten;
                if (v != SourceValue(x, y, plane, h.depth))
                    ++h.samplesWrong;
            }
        }
        return cvNoErr;
    }

    static CvError GetXmpPacket(void* host, char* buffer, size_t capacity, size_t* length) {
        const std::string& p = Self(host).xmpPacket;
        *length = p.size();
        if (buffer && capacity > 0)
            std::memcpy(buffer, p.data(), std::min(capacity, p.size()));
        return cvNoErr;
    }

    static void SetProgressText(void* host, const char* title, const char* message) {
        Self(host).progressTitle = title;
        Self(host).progressMessage = message;
    }

    static void Progress(void* host, int64_t done, int64_t total) {
        Self(host).progressReports.emplace_back(done, total);
    }

    static int32_t AbortRequested(void* host) {
        const FakeHost& h = Self(host);
        return h.abortAfterProgress >= 0 &&
               static_cast<int>(h.progressReports.size()) >= h.abortAfterProgress;
    }

    static int32_t Alert(void* host, const char* message, const char* title, int32_t buttons) {
        Self(host).alerts.push_back({message, title, buttons});
        return cvAnswerOK;
    }

    static uint64_t MaxSpace(void* host) {
        ++Self(host).maxSpaceCalls;
        return Self(host).maxSpace;
    }

    static uint64_t FreeMemory(void* host) {
        ++Self(host).freeMemoryCalls;
        return Self(host).freeMemory;
    }

    static CvError PreferencesBase(void* host, char* buffer, size_t capacity, size_t* length) {
        const std::string base = Self(host).preferencesBase.string();
        if (base.empty())
            return cvErrUnsupported;
        *length = base.size();
        if (buffer && capacity > 0) {
            const size_t n = std::min(capacity - 1, base.size());
            std::memcpy(buffer, base.data(), n);
            buffer[n] = '\0';
        }
        return cvNoErr;
    }

    static uint32_t ModifierKeys(void* host) { return Self(host).modifierKeys; }
    static void Warning(void* host, const char* message) {
        Self(host).warnings.emplace_back(message);
    }
};

FakeHost::FakeHost() {
    record_.abiVersion = CURVANA_ABI_VERSION;
    record_.structSize = sizeof(CvFilterRecord);
    record_.host = this;
    record_.getProperty = Callbacks::GetProperty;
    record_.acquireSuite = Callbacks::AcquireSuite;
    record_.releaseSuite = Callbacks::ReleaseSuite;
    record_.setResultDescriptor = Callbacks::SetResultDescriptor;
    record_.readSourcePlane = Callbacks::ReadSourcePlane;
    record_.writeResultPlane = Callbacks::WriteResultPlane;
    record_.getXmpPacket = Callbacks::GetXmpPacket;
    record_.setProgressText = Callbacks::SetProgressText;
    record_.progress = Callbacks::Progress;
    record_.abortRequested = Callbacks::AbortRequested;
    record_.alert = Callbacks::Alert;
    record_.maxSpace = Callbacks::MaxSpace;
    record_.freeMemory = Callbacks::FreeMemory;
    record_.preferencesBase = Callbacks::PreferencesBase;
    record_.modifierKeys = Callbacks::ModifierKeys;
    record_.warning = Callbacks::Warning;
}

FakeHost::~FakeHost() = default;

CvFilterRecord* FakeHost::Record() {
    record_.descriptor = input ? ToHandle(input.get()) : nullptr;
    record_.mode = mode;
    record_.depth = depth;
    record_.planes = mode == cvModeGray ? 1 : mode == cvModeCMYK ? 4 : 3;
    record_.imageWidth = width;
    record_.imageHeight = height;
    record_.filterRect = CvRect{0, 0, width, height};
    return &record_;
}

uint32_t FakeHost::SourceValue(int32_t x, int32_t y, int32_t plane, int32_t depth) {
    const auto v = static_cast<uint32_t>(x * 7 + y * 13 + plane * 29);
    return depth == 16 ? (v * 131u) % 32769u : v & 0xFFu;
}

std::filesystem::path PreferencesFileUnder(const std::filesystem::path& base) {
    return PreferencesFolder(base) / PreferencesFileName();
}

}  // namespace Project::test
