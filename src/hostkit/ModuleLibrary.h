// The filter module file (libcurvana.so) opened with dlopen: its entry point
// and the instance slot the module keeps between selector calls.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string_view>

#include "curvana/CurvanaPlugin.h"

namespace Curvana::HostKit {

// The module cannot be found or loaded; the message is one line for the user.
struct ModuleError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

class ModuleLibrary {
public:
    // libcurvana.so beside the running executable, else $CURVANA_MODULE.
    // Throws ModuleError naming the places tried, followed by advice.
    static std::filesystem::path locate(std::string_view advice);
    // Throws ModuleError when the file cannot be loaded or lacks EntryFI.
    static std::unique_ptr<ModuleLibrary> open(const std::filesystem::path& path);
    ~ModuleLibrary();  // Unload for a stored instance, then dlclose
    ModuleLibrary(const ModuleLibrary&) = delete;
    ModuleLibrary& operator=(const ModuleLibrary&) = delete;

    // One selector call with the module's instance slot; returns the
    // module's result (0 for success).
    int16_t call(int16_t selector, CvFilterRecord& record);

    // The first selector that failed in a run, with its result.
    struct Failure {
        int16_t error = 0;  // 0: none failed
        int16_t selector = -1;
    };
    // One filtering run over a filled parameter block: Parameters when the
    // editor is wanted, then Prepare, Start and Continue; Finish follows
    // every Prepare that succeeded, so the module can always clean up.
    Failure filter(CvFilterRecord& record, bool parameters);
    // What the filter registers; null when it answers with an error or a
    // registration of another interface.
    const CvRegistration* registration();

private:
    ModuleLibrary() = default;
    void* handle_ = nullptr;
    CvEntryPoint entry_ = nullptr;
    intptr_t data_ = 0;
};

// A parameter block with only its version and size filled in.
CvFilterRecord emptyRecord();

}  // namespace Curvana::HostKit
