#include "session/PHostFilter.h"

#include <algorithm>

namespace Project {

uint64_t PHostFilter::ComputeCacheBudget(uint64_t freeMemory, uint64_t maxSpace) {
    const auto clampBudget = [](uint64_t v) {
        return std::clamp(v, kMinCacheBudget, kMaxCacheBudget);
    };
    return std::min(clampBudget(freeMemory / 2), clampBudget(maxSpace));
}

void PHostFilter::SetUpMemory() {
    if (memoryDone_)
        return;
    bufferSuite_ = static_cast<const CvBufferSuite1*>(
        host_.AcquireSuite(CV_BUFFER_SUITE_NAME, CV_BUFFER_SUITE_VERSION));
    if (bufferSuite_ && (!bufferSuite_->allocate || !bufferSuite_->release)) {
        host_.ReleaseSuite(CV_BUFFER_SUITE_NAME, CV_BUFFER_SUITE_VERSION);
        bufferSuite_ = nullptr;
    }
    cacheBudget_ = ComputeCacheBudget(host_.FreeMemory(), host_.MaxSpace());
    memoryDone_ = true;
}

CvError PHostFilter::HandleSelector(int16_t selector, CvFilterRecord* record) {
    currentSelector_ = selector;
    host_ = HostRecord(record);
    switch (selector) {
        case cvSelectorAbout:
            return cvNoErr;
        case cvSelectorParameters:
            selectorFlags_ |= kParametersFlag;
            return OnParameters() ? cvNoErr : cvErrFilterFailed;
        case cvSelectorPrepare:
            SetUpMemory();
            if (OnPrepare())
                return cvNoErr;
            selectorFlags_ &= ~kParametersFlag;
            return cvErrFilterFailed;
        case cvSelectorStart: {
            SetUpMemory();
            bool ok = false;
            try {
                ok = OnStart();
            } catch (...) {
                selectorFlags_ &= ~kParametersFlag;
                throw;
            }
            if (ok)
                return cvNoErr;
            selectorFlags_ &= ~kParametersFlag;
            return cvErrFilterFailed;
        }
        case cvSelectorContinue:
            return cvNoErr;
        case cvSelectorFinish:
            selectorFlags_ &= ~kParametersFlag;
            return cvNoErr;
        default:
            return cvErrParam;
    }
}

void PHostFilter::ReleaseHostResources(CvFilterRecord* record) noexcept {
    if (!bufferSuite_)
        return;
    HostRecord(record).ReleaseSuite(CV_BUFFER_SUITE_NAME, CV_BUFFER_SUITE_VERSION);
    bufferSuite_ = nullptr;
}

}  // namespace Project
