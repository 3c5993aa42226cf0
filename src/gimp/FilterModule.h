// The filter module (libcurvana.so) opened with dlopen: its entry point and
// the instance slot it keeps between selector calls.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "curvana/CurvanaPlugin.h"

namespace Curvana::Gimp {

class FilterModule {
public:
    // The module beside this executable, else $CURVANA_MODULE. Throws
    // std::runtime_error naming the places tried, or why it did not load.
    static std::unique_ptr<FilterModule> open();
    ~FilterModule();  // Unload for the stored instance, then dlclose
    FilterModule(const FilterModule&) = delete;
    FilterModule& operator=(const FilterModule&) = delete;

    // One selector call; returns the module's result (0 for success).
    int16_t call(int16_t selector, CvFilterRecord& record);

private:
    FilterModule() = default;
    void* handle_ = nullptr;
    CvEntryPoint entry_ = nullptr;
    intptr_t data_ = 0;
};

}  // namespace Curvana::Gimp
