// Loads libcurvana.so and plays the host for it: fills the parameter block,
// serves every callback, and drives the selectors of one invocation.
#pragma once

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Descriptor.h"
#include "Raster.h"
#include "curvana/CurvanaPlugin.h"
#include "hostkit/HostAnswers.h"
#include "hostkit/ModuleLibrary.h"

namespace Curvana::Host {

// Set by the SIGINT handler (or a test); abortRequested reports it and the
// plane callbacks refuse further work once it is set.
extern volatile std::sig_atomic_t abortFlag;

// What the module sees of the host, beside the image.
struct HostFacts {
    int32_t majorVersion = 27;
    bool gpuAvailable = false;    // "GPUF" bit 7
    uint64_t maxSpace = 0;        // the host's maximum space for the filter
    std::string preferencesBase;  // empty: the module is told there is none
};

// Receives the module's progress; default: nothing.
struct ProgressListener {
    virtual ~ProgressListener() = default;
    virtual void text(const std::string& /*title*/, const std::string& /*message*/) {}
    virtual void progress(int64_t /*done*/, int64_t /*total*/) {}
};

struct Invocation {
    ImageSource* source = nullptr;
    ResultImage* result = nullptr;  // null: the run writes no picture
    std::string documentName;       // what the editor's title calls the image
    std::string xmpPacket;
    const Descriptor* descriptor = nullptr;  // scripting parameters passed in; null for none
    bool parameters = false;                 // send the Parameters selector (the editor)
    // Ask a run without the editor to start from what the editor would open
    // with (CV_PROPERTY_FRESH_DEFAULTS): apply's options then only override.
    bool freshDefaults = false;
    // Report the three modifier keys that make the filter ignore its stored
    // preferences (and save its defaults over them).
    bool resetPreferences = false;
    ProgressListener* listener = nullptr;
};

struct InvocationOutcome {
    int16_t error = 0;  // first non-zero selector result
    int16_t failedSelector = -1;
    bool aborted = false;  // the abort flag was set during the run
    // The first error met while serving planes (a tile that could not be
    // decoded or written), with its category; the module saw only a code.
    std::optional<HostError> hostError;
    std::unique_ptr<Descriptor> resultDescriptor;
    std::vector<std::string> alerts;    // "title: message" as shown
    std::vector<std::string> warnings;  // the filter's warnings, as shown
};

// The buffer suite's memory: malloc within the host's maximum space. Buffers
// may outlive an invocation (the module's pixel cache); those still live
// when the module is closed are freed then.
struct BufferPool {
    std::mutex mutex;
    std::unordered_map<void*, uint64_t> live;
    uint64_t allocated = 0;
    uint64_t limit = 0;
    void* allocate(uint64_t size);
    void release(void* buffer);
    ~BufferPool();
};

class Module {
public:
    // Throws HostError when the file cannot be loaded or lacks EntryFI.
    static std::unique_ptr<Module> load(const std::filesystem::path& path, HostFacts facts);
    ~Module();  // the library sends Unload for a stored instance, then closes it
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;

    InvocationOutcome run(const Invocation& invocation);
    const std::filesystem::path& path() const { return path_; }
    // What the filter registers (cvSelectorRegistration); null when it
    // answers with an error or a registration of another interface.
    const CvRegistration* registration();

    // The module file to use: an explicit path (--module) wins; then
    // libcurvana.so beside the executable; then $CURVANA_MODULE. Throws
    // HostError naming the places tried.
    static std::filesystem::path locate(const std::filesystem::path& explicitPath);

private:
    Module() = default;
    std::filesystem::path path_;
    HostFacts facts_;
    // Declared before the library: the module's pixel cache may still hold
    // buffers when it is unloaded, so the pool must outlive the library.
    BufferPool buffers_;
    std::unique_ptr<HostKit::ModuleLibrary> library_;
    CvBufferSuite1 bufferSuite_{};
};

using HostKit::displayText;

}  // namespace Curvana::Host
