#include "HostAnswers.h"

#include <algorithm>
#include <cstring>

namespace Curvana::HostKit {

CvError answerProperty(const HostProperties& properties, uint32_t signature, uint32_t key,
                       int32_t* value) {
    if (!value)
        return cvErrParam;
    if (signature != CV_PROPERTY_SIGNATURE)
        return cvErrUnsupported;
    switch (key) {
        case CV_PROPERTY_VERSION:
            *value = static_cast<int32_t>(static_cast<uint32_t>(properties.majorVersion) << 16);
            return cvNoErr;
        case CV_PROPERTY_GPU_FLAGS:
            *value = properties.gpuAvailable ? 0x80 : 0;
            return cvNoErr;
        case CV_PROPERTY_FRESH_DEFAULTS:
            *value = properties.freshDefaults ? 1 : 0;
            return cvNoErr;
        default:
            return cvErrUnsupported;
    }
}

CvError copyString(std::string_view text, char* buffer, size_t capacity, size_t* length) {
    if (!length || (capacity > 0 && !buffer))
        return cvErrParam;
    if (text.empty())
        return cvErrUnsupported;
    *length = text.size();
    if (capacity > 0) {
        const size_t n = std::min(capacity - 1, text.size());
        std::memcpy(buffer, text.data(), n);
        buffer[n] = '\0';
    }
    return cvNoErr;
}

CvError takeResultDescriptor(CvDescriptor result, std::unique_ptr<Descriptor>& into) {
    Descriptor* d = Descriptor::fromHandle(result);
    if (!d || !d->madeByModule)
        return cvErrParam;
    d->madeByModule = false;  // the host's now
    into.reset(d);
    return cvNoErr;
}

std::string displayText(const char* text) {
    if (!text)
        return {};
    std::string s = text;
    if (s.rfind("$$$/", 0) == 0) {
        const auto eq = s.find('=');
        s = eq == std::string::npos ? s : s.substr(eq + 1);
    }
    return s;
}

bool pixelRequestFits(const CvRect* rect, const CvRect& filterRect, const void* buffer,
                      int32_t plane, int32_t planes, int32_t sampleBytes, int32_t columnBytes,
                      int32_t rowBytes) {
    if (!rect || !buffer || rect->left >= rect->right || rect->top >= rect->bottom ||
        rect->left < filterRect.left || rect->top < filterRect.top ||
        rect->right > filterRect.right || rect->bottom > filterRect.bottom)
        return false;
    int64_t value = sampleBytes, column = sampleBytes;
    if (plane == kAllPlanes) {
        value = int64_t{sampleBytes} * planes;
        column = columnBytes;
    } else if (plane < 0 || plane >= planes) {
        return false;
    }
    return column >= value && rowBytes >= (rect->right - rect->left - 1) * column + value;
}

}  // namespace Curvana::HostKit
