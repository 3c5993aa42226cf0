#include "ModuleHost.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <sstream>
#include <unordered_map>

#include "SystemInfo.h"
#include "hostkit/HostAnswers.h"

namespace Curvana::Host {

volatile std::sig_atomic_t abortFlag = 0;

namespace {

// Everything the callbacks reach through the record's host pointer.
struct HostContext {
    const HostFacts* facts = nullptr;
    const Invocation* invocation = nullptr;
    InvocationOutcome* outcome = nullptr;
    CvRect filterRect{};
    std::mutex planes;  // libtiff handles are not thread-safe
    const CvBufferSuite1* bufferSuite = nullptr;
};

HostContext* context(void* host) {
    return static_cast<HostContext*>(host);
}

CvError getProperty(void* host, uint32_t signature, uint32_t key, int32_t* value) {
    HostContext* ctx = context(host);
    if (!ctx || !ctx->invocation)
        return cvErrParam;
    const HostKit::HostProperties properties{ctx->facts->majorVersion, ctx->facts->gpuAvailable,
                                             ctx->invocation->freshDefaults};
    return HostKit::answerProperty(properties, signature, key, value);
}

void* bufferAllocate(void* suiteContext, uint64_t size) {
    auto* pool = static_cast<BufferPool*>(suiteContext);
    return pool ? pool->allocate(size) : nullptr;
}

void bufferRelease(void* suiteContext, void* buffer) {
    if (auto* pool = static_cast<BufferPool*>(suiteContext))
        pool->release(buffer);
}

CvError acquireSuite(void* host, const char* name, int32_t version, const void** suite) {
    HostContext* ctx = context(host);
    if (!ctx || !name || !suite)
        return cvErrParam;
    if (std::strcmp(name, CV_BUFFER_SUITE_NAME) == 0 && version == CV_BUFFER_SUITE_VERSION) {
        *suite = ctx->bufferSuite;
        return cvNoErr;
    }
    if (std::strcmp(name, CV_DESCRIPTOR_SUITE_NAME) == 0 &&
        version == CV_DESCRIPTOR_SUITE_VERSION) {
        *suite = descriptorSuite();
        return cvNoErr;
    }
    *suite = nullptr;
    return cvErrUnsupported;  // the lens-profile suite among others
}

CvError releaseSuite(void* host, const char* name, int32_t) {
    return context(host) && name ? cvNoErr : cvErrParam;
}

CvError setResultDescriptor(void* host, CvDescriptor result) {
    HostContext* ctx = context(host);
    if (!ctx || !ctx->outcome)
        return cvErrParam;
    return HostKit::takeResultDescriptor(result, ctx->outcome->resultDescriptor);
}

// A pixel request of the module: checked, serialised, and every exception
// turned into an error code. The C interface carries only the code, so the
// first error itself is kept for the run's outcome.
template <class Transfer>
CvError pixelRequest(void* host, const CvRect* rect, int32_t plane, const void* buffer,
                     int32_t columnBytes, int32_t rowBytes, Transfer&& transfer) {
    HostContext* ctx = context(host);
    if (!ctx || !ctx->invocation)
        return cvErrParam;
    if (abortFlag)
        return cvErrAborted;
    const ImageInfo& info = ctx->invocation->source->info();
    if (!HostKit::pixelRequestFits(rect, ctx->filterRect, buffer, plane, info.planes(),
                                   static_cast<int32_t>(info.bytesPerSample()), columnBytes,
                                   rowBytes))
        return cvErrParam;
    std::lock_guard lock(ctx->planes);
    auto keep = [ctx](HostError error) {
        if (!ctx->outcome->hostError)
            ctx->outcome->hostError.emplace(std::move(error));
    };
    try {
        transfer(*ctx->invocation);
        return cvNoErr;
    } catch (const HostError& e) {
        keep(e);
        return cvErrFilterFailed;
    } catch (const std::bad_alloc&) {
        keep(HostError(kExitFailed, "out of memory while serving the image to the filter"));
        return cvErrMemory;
    } catch (const std::exception& e) {
        keep(HostError(kExitFailed, e.what()));
        return cvErrFilterFailed;
    }
}

CvError readSourcePlane(void* host, const CvRect* rect, int32_t plane, void* buffer,
                        int32_t rowBytes) {
    return pixelRequest(host, rect, plane, buffer, 0, rowBytes, [&](const Invocation& inv) {
        inv.source->readPlane(*rect, plane, buffer, rowBytes);
    });
}

CvError writeResultPlane(void* host, const CvRect* rect, int32_t plane, const void* buffer,
                         int32_t rowBytes) {
    return pixelRequest(host, rect, plane, buffer, 0, rowBytes, [&](const Invocation& inv) {
        if (!inv.result)  // a run that asked for no picture (suggested lines only)
            throw HostError(kExitFailed, "the filter wrote a picture where none was asked for");
        inv.result->writePlane(*rect, plane, buffer, rowBytes);
    });
}

CvError readSourcePixels(void* host, const CvRect* rect, void* buffer, int32_t columnBytes,
                         int32_t rowBytes) {
    return pixelRequest(
        host, rect, HostKit::kAllPlanes, buffer, columnBytes, rowBytes, [&](const Invocation& inv) {
            inv.source->readPixels(*rect, static_cast<uint8_t*>(buffer), columnBytes, rowBytes);
        });
}

CvError writeResultPixels(void* host, const CvRect* rect, const void* buffer, int32_t columnBytes,
                          int32_t rowBytes) {
    return pixelRequest(
        host, rect, HostKit::kAllPlanes, buffer, columnBytes, rowBytes, [&](const Invocation& inv) {
            if (!inv.result)
                throw HostError(kExitFailed, "the filter wrote a picture where none was asked for");
            inv.result->writePixels(*rect, static_cast<const uint8_t*>(buffer), columnBytes,
                                    rowBytes);
        });
}

CvError getXmpPacket(void* host, char* buffer, size_t capacity, size_t* length) {
    HostContext* ctx = context(host);
    if (!ctx || !ctx->invocation || !length || (capacity > 0 && !buffer))
        return cvErrParam;
    const std::string& xmp = ctx->invocation->xmpPacket;
    *length = xmp.size();
    if (capacity > 0)
        std::memcpy(buffer, xmp.data(), std::min(capacity, xmp.size()));
    return cvNoErr;
}

void setProgressText(void* host, const char* title, const char* message) {
    HostContext* ctx = context(host);
    if (!ctx || !ctx->invocation || !ctx->invocation->listener)
        return;
    try {
        ctx->invocation->listener->text(displayText(title), displayText(message));
    } catch (...) {
    }
}

void progress(void* host, int64_t done, int64_t total) {
    HostContext* ctx = context(host);
    if (!ctx || !ctx->invocation || !ctx->invocation->listener)
        return;
    try {
        ctx->invocation->listener->progress(done, total);
    } catch (...) {
    }
}

int32_t abortRequested(void*) {
    return abortFlag ? 1 : 0;
}

int32_t alert(void* host, const char* message, const char* title, int32_t buttons) {
    HostContext* ctx = context(host);
    try {
        const std::string t = displayText(title), m = displayText(message);
        const std::string line = t.empty() ? m : t + ": " + m;
        std::fprintf(stderr, "\ncurvana: %s\n", line.c_str());
        if (ctx && ctx->outcome)
            ctx->outcome->alerts.push_back(line);
    } catch (...) {
    }
    // No one answers in a command-line run: take the affirmative button.
    return buttons == cvButtonsYesNoCancel ? cvAnswerYes : cvAnswerOK;
}

void warning(void* host, const char* message) {
    HostContext* ctx = context(host);
    try {
        // One line each, so that every line of a longer message says what it is.
        std::istringstream lines(displayText(message));
        std::string all;
        for (std::string line; std::getline(lines, line);) {
            if (line.empty())
                continue;
            std::fprintf(stderr, "curvana: warning: %s\n", line.c_str());
            all += (all.empty() ? "" : "\n") + line;
        }
        if (ctx && ctx->outcome)
            ctx->outcome->warnings.push_back(all);
    } catch (...) {
    }
}

uint64_t maxSpace(void* host) {
    HostContext* ctx = context(host);
    return ctx ? ctx->facts->maxSpace : 0;
}

uint64_t freeMemory(void*) {
    return memoryFigures().available;
}

CvError preferencesBaseCallback(void* host, char* buffer, size_t capacity, size_t* length) {
    HostContext* ctx = context(host);
    return ctx ? HostKit::copyString(ctx->facts->preferencesBase, buffer, capacity, length)
               : cvErrParam;
}

uint32_t modifierKeys(void* host) {
    HostContext* ctx = context(host);
    // The filter reads the keys when it first needs its preferences.
    return ctx && ctx->invocation && ctx->invocation->resetPreferences
               ? uint32_t{cvModifierShift | cvModifierOption | cvModifierControl}
               : 0;
}

CvError documentNameCallback(void* host, char* buffer, size_t capacity, size_t* length) {
    HostContext* ctx = context(host);
    return ctx && ctx->invocation
               ? HostKit::copyString(ctx->invocation->documentName, buffer, capacity, length)
               : cvErrParam;
}

}  // namespace

void* BufferPool::allocate(uint64_t size) {
    if (size == 0)
        return nullptr;
    std::lock_guard lock(mutex);
    if (allocated + size > limit)
        return nullptr;
    // C buffers of the interface, freed by the pool
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
    void* p = std::malloc(static_cast<size_t>(size));
    if (!p)
        return nullptr;
    try {
        live.emplace(p, size);
    } catch (...) {
        // C buffers of the interface, freed by the pool
        // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
        std::free(p);
        return nullptr;
    }
    allocated += size;
    return p;
}

void BufferPool::release(void* buffer) {
    if (!buffer)
        return;
    std::lock_guard lock(mutex);
    auto it = live.find(buffer);
    if (it == live.end())
        return;  // not ours: never free a foreign pointer
    allocated -= it->second;
    live.erase(it);
    // C buffers of the interface, freed by the pool
    // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
    std::free(buffer);
}

BufferPool::~BufferPool() {
    for (auto& [p, size] : live)
        // C buffers of the interface, freed by the pool
        // NOLINTNEXTLINE(cppcoreguidelines-no-malloc,cppcoreguidelines-owning-memory)
        std::free(p);
}

std::filesystem::path Module::locate(const std::filesystem::path& explicitPath) {
    std::error_code ec;
    if (!explicitPath.empty()) {
        if (!std::filesystem::is_regular_file(explicitPath, ec))
            throw HostError(kExitModule, explicitPath.string() + ": no such module file");
        return explicitPath;
    }
    try {
        return HostKit::ModuleLibrary::locate("use --module PATH or set CURVANA_MODULE");
    } catch (const HostKit::ModuleError& e) {
        throw HostError(kExitModule, e.what());
    }
}

std::unique_ptr<Module> Module::load(const std::filesystem::path& path, HostFacts facts) {
    std::unique_ptr<Module> m(new Module());
    m->path_ = path;
    m->facts_ = std::move(facts);
    m->buffers_.limit = m->facts_.maxSpace;
    m->bufferSuite_ = CvBufferSuite1{bufferAllocate, bufferRelease, &m->buffers_};
    try {
        m->library_ = HostKit::ModuleLibrary::open(path);
    } catch (const HostKit::ModuleError& e) {
        throw HostError(kExitModule, e.what());
    }
    return m;
}

Module::~Module() = default;

const CvRegistration* Module::registration() {
    return library_->registration();
}

InvocationOutcome Module::run(const Invocation& invocation) {
    InvocationOutcome outcome;
    HostContext ctx;
    ctx.facts = &facts_;
    ctx.invocation = &invocation;
    ctx.outcome = &outcome;
    const ImageInfo& info = invocation.source->info();
    ctx.filterRect = info.bounds();
    ctx.bufferSuite = &bufferSuite_;

    // The input descriptor is the module's to read only: hand it a copy.
    std::unique_ptr<Descriptor> input;
    if (invocation.descriptor)
        input = std::make_unique<Descriptor>(*invocation.descriptor);

    CvFilterRecord record = HostKit::emptyRecord();
    record.host = &ctx;
    record.getProperty = getProperty;
    record.acquireSuite = acquireSuite;
    record.releaseSuite = releaseSuite;
    record.descriptor = input ? input->handle() : nullptr;
    record.setResultDescriptor = setResultDescriptor;
    record.mode = static_cast<int32_t>(info.mode);
    record.depth = info.depth;
    record.planes = info.planes();
    record.imageWidth = info.width;
    record.imageHeight = info.height;
    record.filterRect = ctx.filterRect;
    record.readSourcePlane = readSourcePlane;
    record.writeResultPlane = writeResultPlane;
    record.readSourcePixels = readSourcePixels;
    record.writeResultPixels = writeResultPixels;
    record.getXmpPacket = getXmpPacket;
    record.setProgressText = setProgressText;
    record.progress = progress;
    record.abortRequested = abortRequested;
    record.alert = alert;
    record.maxSpace = maxSpace;
    record.freeMemory = freeMemory;
    record.preferencesBase = preferencesBaseCallback;
    record.modifierKeys = modifierKeys;
    record.documentName = documentNameCallback;
    record.warning = warning;

    const HostKit::ModuleLibrary::Failure failure = library_->filter(record, invocation.parameters);
    outcome.error = failure.error;
    outcome.failedSelector = failure.selector;
    outcome.aborted = abortFlag != 0;
    return outcome;
}

}  // namespace Curvana::Host
