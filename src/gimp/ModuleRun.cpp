#include "ModuleRun.h"

#include <libgimp/gimp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <new>
#include <thread>

#include "hostkit/HostAnswers.h"
#include "hostkit/SystemFacts.h"

namespace Curvana::Gimp {
namespace {

// Everything the callbacks reach through the record's host pointer.
struct HostContext {
    const HostFacts* facts = nullptr;
    const Invocation* invocation = nullptr;
    InvocationOutcome* outcome = nullptr;
    CvRect filterRect{};
    // libgimp talks to GIMP over one pipe and is not thread-safe: only the
    // thread that runs the procedure calls it. Messages from other threads
    // wait in `deferred` until the run is over.
    std::thread::id gimpThread;
    std::mutex mutex;
    std::vector<std::string> deferred;
    int lastPermille = -1;
};

HostContext* context(void* host) {
    return static_cast<HostContext*>(host);
}

bool onGimpThread(const HostContext* ctx) {
    return std::this_thread::get_id() == ctx->gimpThread;
}

CvError getProperty(void* host, uint32_t signature, uint32_t key, int32_t* value) {
    HostContext* ctx = context(host);
    if (!ctx)
        return cvErrParam;
    const HostKit::HostProperties properties{kHostMajorVersion, ctx->facts->gpuAvailable,
                                             ctx->invocation->freshDefaults};
    return HostKit::answerProperty(properties, signature, key, value);
}

CvError acquireSuite(void* host, const char* name, int32_t version, const void** suite) {
    if (!context(host) || !name || !suite)
        return cvErrParam;
    if (std::strcmp(name, CV_DESCRIPTOR_SUITE_NAME) == 0 &&
        version == CV_DESCRIPTOR_SUITE_VERSION) {
        *suite = descriptorSuite();
        return cvNoErr;
    }
    // No buffer suite (the module's pixel cache then allocates on its own,
    // within the budget it is told) and no lens-profile suite.
    *suite = nullptr;
    return cvErrUnsupported;
}

CvError releaseSuite(void* host, const char* name, int32_t) {
    return context(host) && name ? cvNoErr : cvErrParam;
}

CvError setResultDescriptor(void* host, CvDescriptor result) {
    HostContext* ctx = context(host);
    return ctx ? HostKit::takeResultDescriptor(result, ctx->outcome->result) : cvErrParam;
}

// A pixel request: checked, and every exception turned into an error code
// (nothing may be thrown into the module); the first failure is kept for
// the message the user sees.
template <class Transfer>
CvError pixelRequest(void* host, const CvRect* rect, int32_t plane, const void* buffer,
                     int32_t columnBytes, int32_t rowBytes, Transfer&& transfer) {
    HostContext* ctx = context(host);
    if (!ctx || !ctx->invocation)
        return cvErrParam;
    const DrawableLayout& layout = ctx->invocation->pixels->layout();
    if (!HostKit::pixelRequestFits(rect, ctx->filterRect, buffer, plane, layout.planes,
                                   layout.depth / 8, columnBytes, rowBytes))
        return cvErrParam;
    auto keep = [ctx](const std::string& why) {
        const std::lock_guard lock(ctx->mutex);
        if (ctx->outcome->pixelError.empty())
            ctx->outcome->pixelError = why;
    };
    try {
        transfer(*ctx->invocation->pixels);
        return cvNoErr;
    } catch (const std::bad_alloc&) {
        keep("out of memory while serving the layer's pixels to the filter");
        return cvErrMemory;
    } catch (const std::exception& e) {
        keep(e.what());
        return cvErrFilterFailed;
    }
}

CvError readSourcePlane(void* host, const CvRect* rect, int32_t plane, void* buffer,
                        int32_t rowBytes) {
    return pixelRequest(host, rect, plane, buffer, 0, rowBytes, [&](DrawablePixels& pixels) {
        pixels.readPlane(*rect, plane, buffer, rowBytes);
    });
}

CvError writeResultPlane(void* host, const CvRect* rect, int32_t plane, const void* buffer,
                         int32_t rowBytes) {
    return pixelRequest(host, rect, plane, buffer, 0, rowBytes, [&](DrawablePixels& pixels) {
        pixels.writePlane(*rect, plane, buffer, rowBytes);
    });
}

CvError readSourcePixels(void* host, const CvRect* rect, void* buffer, int32_t columnBytes,
                         int32_t rowBytes) {
    return pixelRequest(
        host, rect, HostKit::kAllPlanes, buffer, columnBytes, rowBytes,
        [&](DrawablePixels& pixels) { pixels.readPixels(*rect, buffer, columnBytes, rowBytes); });
}

CvError writeResultPixels(void* host, const CvRect* rect, const void* buffer, int32_t columnBytes,
                          int32_t rowBytes) {
    return pixelRequest(
        host, rect, HostKit::kAllPlanes, buffer, columnBytes, rowBytes,
        [&](DrawablePixels& pixels) { pixels.writePixels(*rect, buffer, columnBytes, rowBytes); });
}

CvError getXmpPacket(void* host, char* buffer, size_t capacity, size_t* length) {
    HostContext* ctx = context(host);
    if (!ctx || !length || (capacity > 0 && !buffer))
        return cvErrParam;
    const std::string& xmp = ctx->invocation->xmpPacket;
    *length = xmp.size();
    if (capacity > 0)
        std::memcpy(buffer, xmp.data(), std::min(capacity, xmp.size()));
    return cvNoErr;
}

void setProgressText(void* host, const char* /*title*/, const char* message) {
    HostContext* ctx = context(host);
    if (!ctx || !onGimpThread(ctx))
        return;
    try {
        const std::string text = displayText(message);
        const std::lock_guard wire(ctx->invocation->pixels->wire());
        gimp_progress_init(text.c_str());
        ctx->lastPermille = -1;
    } catch (...) {
    }
}

void progress(void* host, int64_t done, int64_t total) {
    HostContext* ctx = context(host);
    if (!ctx || !onGimpThread(ctx) || total <= 0)
        return;
    // Each update is a round trip to GIMP: send a step of a thousandth at most.
    const double fraction =
        std::clamp(static_cast<double>(done) / static_cast<double>(total), 0.0, 1.0);
    const int permille = static_cast<int>(std::lround(fraction * 1000));
    if (permille == ctx->lastPermille)
        return;
    ctx->lastPermille = permille;
    const std::lock_guard wire(ctx->invocation->pixels->wire());
    gimp_progress_update(fraction);
}

// GIMP 2.10 answers Cancel on a plug-in's progress by ending the plug-in's
// process. The shadow buffer is merged only after a complete render, so the
// layer is left as it was; there is nothing left here to ask.
int32_t abortRequested(void*) {
    return 0;
}

// Shows a line in GIMP's message area at once on GIMP's thread, else when the
// run comes back to it; the outcome keeps it for the final report.
void tell(void* host, const std::string& line) {
    HostContext* ctx = context(host);
    if (!ctx)
        return;
    const bool now = onGimpThread(ctx);
    {
        const std::lock_guard lock(ctx->mutex);
        ctx->outcome->alerts.push_back(line);
        if (!now)
            ctx->deferred.push_back(line);
    }
    if (now) {
        const std::lock_guard wire(ctx->invocation->pixels->wire());
        gimp_message(line.c_str());
    }
}

int32_t alert(void* host, const char* message, const char* title, int32_t buttons) {
    try {
        const std::string t = displayText(title);
        const std::string m = displayText(message);
        tell(host, t.empty() || t == "Curvana" ? m : t + ": " + m);
    } catch (...) {
    }
    // A GIMP message has no buttons: take the affirmative one.
    return buttons == cvButtonsYesNoCancel ? cvAnswerYes : cvAnswerOK;
}

void warning(void* host, const char* message) {
    try {
        tell(host, "Warning: " + displayText(message));
    } catch (...) {
    }
}

uint64_t maxSpace(void* host) {
    HostContext* ctx = context(host);
    return ctx ? ctx->facts->maxSpace : 0;
}

uint64_t freeMemory(void*) {
    return HostKit::memoryFigures().available;
}

CvError preferencesBase(void* host, char* buffer, size_t capacity, size_t* length) {
    HostContext* ctx = context(host);
    return ctx ? HostKit::copyString(ctx->facts->preferencesBase, buffer, capacity, length)
               : cvErrParam;
}

// A plug-in has no view of the keyboard: no modifier is ever held.
uint32_t modifierKeys(void*) {
    return 0;
}

CvError documentName(void* host, char* buffer, size_t capacity, size_t* length) {
    HostContext* ctx = context(host);
    return ctx ? HostKit::copyString(ctx->invocation->documentName, buffer, capacity, length)
               : cvErrParam;
}

}  // namespace

InvocationOutcome runModule(HostKit::ModuleLibrary& module, const HostFacts& facts,
                            const Invocation& invocation) {
    InvocationOutcome outcome;
    HostContext ctx;
    ctx.facts = &facts;
    ctx.invocation = &invocation;
    ctx.outcome = &outcome;
    ctx.gimpThread = std::this_thread::get_id();
    const DrawableLayout& layout = invocation.pixels->layout();
    ctx.filterRect = CvRect{0, 0, layout.width, layout.height};

    // The descriptor passed in is the module's to read only: it gets a copy.
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
    record.mode = layout.mode;
    record.depth = layout.depth;
    record.planes = layout.planes;
    record.imageWidth = layout.width;
    record.imageHeight = layout.height;
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
    record.warning = warning;
    record.maxSpace = maxSpace;
    record.freeMemory = freeMemory;
    record.preferencesBase = preferencesBase;
    record.modifierKeys = modifierKeys;
    record.documentName = documentName;

    const HostKit::ModuleLibrary::Failure failure = module.filter(record, invocation.parameters);
    outcome.error = failure.error;
    outcome.failedSelector = failure.selector;
    for (const std::string& line : ctx.deferred)
        gimp_message(line.c_str());
    return outcome;
}

}  // namespace Curvana::Gimp
