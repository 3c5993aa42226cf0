#pragma once

// The built module loaded with dlopen, and the selector sequences a host runs.

#include <dlfcn.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "curvana/CurvanaPlugin.h"

namespace Project::test {

class LoadedModule {
public:
    explicit LoadedModule(const char* path = CURVANA_MODULE_PATH)
        : handle_(dlopen(path, RTLD_NOW | RTLD_LOCAL)) {
        if (!handle_)
            throw std::runtime_error(std::string("dlopen: ") + dlerror());
        entry_ = reinterpret_cast<CvEntryPoint>(dlsym(handle_, "EntryFI"));
        if (!entry_)
            throw std::runtime_error("the module has no EntryFI");
    }
    ~LoadedModule() {
        if (data_)
            Call(cvSelectorUnload, unloadRecord_);
        dlclose(handle_);
    }
    LoadedModule(const LoadedModule&) = delete;
    LoadedModule& operator=(const LoadedModule&) = delete;

    void* Handle() const { return handle_; }
    intptr_t Data() const { return data_; }

    int16_t Call(int16_t selector, CvFilterRecord* record) {
        int16_t result = 12345;
        entry_(selector, record, &data_, &result);
        return result;
    }

    // The record that Unload gets when the module is closed (the host's
    // last record, so the instance can give its suites back).
    void SetUnloadRecord(CvFilterRecord* record) { unloadRecord_ = record; }

    // Selector sequences of the three ways a host invokes a filter: the
    // results of each selector, in order.
    std::vector<int16_t> RunWithDialog(CvFilterRecord* record) {
        return Run(record, {cvSelectorParameters, cvSelectorPrepare, cvSelectorStart,
                            cvSelectorContinue, cvSelectorFinish});
    }
    std::vector<int16_t> RunWithoutDialog(CvFilterRecord* record) {
        return Run(record,
                   {cvSelectorPrepare, cvSelectorStart, cvSelectorContinue, cvSelectorFinish});
    }

private:
    std::vector<int16_t> Run(CvFilterRecord* record, std::initializer_list<int16_t> selectors) {
        unloadRecord_ = record;
        std::vector<int16_t> results;
        for (int16_t s : selectors)
            results.push_back(Call(s, record));
        return results;
    }

    void* handle_;
    CvEntryPoint entry_ = nullptr;
    intptr_t data_ = 0;
    CvFilterRecord* unloadRecord_ = nullptr;
};

}  // namespace Project::test
