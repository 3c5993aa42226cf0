#include "session/PluginEntry.h"

#include <cstdio>
#include <exception>
#include <new>

#include "session/PFilter.h"
#include "session/Registration.h"

namespace Project {

namespace {

CvError Dispatch(int16_t selector, CvFilterRecord* record, intptr_t* data,
                 ComponentsFactory factory) {
    auto* filter = reinterpret_cast<PFilter*>(*data);
    if (selector == cvSelectorUnload) {
        if (filter) {
            if (HostRecord::IsCompatible(record))
                filter->ReleaseHostResources(record);
            // NOLINTNEXTLINE(cppcoreguidelines-owning-memory): the host holds it as an integer
            delete filter;
            *data = 0;
        }
        return cvNoErr;
    }
    if (!HostRecord::IsCompatible(record))
        return cvErrParam;
    if (selector == cvSelectorRegistration) {
        // Static data: no instance is made for it.
        *data = reinterpret_cast<intptr_t>(&FilterRegistration());
        return cvNoErr;
    }
    if (!filter) {
        auto created = std::make_unique<PFilter>(factory());
        filter = created.release();
        *data = reinterpret_cast<intptr_t>(filter);
    }
    return filter->HandleSelector(selector, record);
}

}  // namespace

void HandleEntry(int16_t selector, CvFilterRecord* record, intptr_t* data, int16_t* result,
                 ComponentsFactory factory) noexcept {
    int16_t status = cvNoErr;
    try {
        status = data && factory ? static_cast<int16_t>(Dispatch(selector, record, data, factory))
                                 : static_cast<int16_t>(cvErrParam);
    } catch (const std::bad_alloc&) {
        status = cvErrMemory;
    } catch (const HostError& e) {
        std::fprintf(stderr, "curvana: selector %d failed: %s\n", selector, e.what());
        status = static_cast<int16_t>(e.Code() != cvNoErr ? e.Code() : cvErrFilterFailed);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "curvana: selector %d failed: %s\n", selector, e.what());
        status = cvErrFilterFailed;
    } catch (...) {
        std::fprintf(stderr, "curvana: selector %d failed\n", selector);
        status = cvErrFilterFailed;
    }
    if (result)
        *result = status;
}

}  // namespace Project
