#include "Batch.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>

#include "ApplyDescriptor.h"
#include "EditCommand.h"
#include "HostError.h"
#include "Metadata.h"
#include "ProgressBar.h"
#include "Raster.h"
#include "SystemInfo.h"
#include "TempOutput.h"
#include "curvana/CurvanaScripting.h"

namespace Curvana::Host {
namespace fs = std::filesystem;

namespace {

void warn(const std::string& message) {
    std::fprintf(stderr, "curvana: warning: %s\n", message.c_str());
}

struct Target {
    fs::path input, output;
    bool explicitOutput;  // named with -o (may then be the input itself)
    std::string label;    // for the progress display
};

// The output's folder must exist before any work is done for it.
void requireOutputFolder(const Target& t) {
    std::error_code ec;
    const fs::path folder = t.output.has_parent_path() ? t.output.parent_path() : fs::path(".");
    if (!fs::is_directory(folder, ec))
        throw HostError(kExitOutput, folder.string() + ": no such folder");
}

FileFormat outputFormat(const Target& t) {
    const auto format = formatFromExtension(t.output);
    if (!format)
        throw HostError(kExitOutput, t.output.string() + ": unknown output format '" +
                                         t.output.extension().string() +
                                         "' (use .tif, .png or .jpg)");
    std::error_code ec;
    if (!t.explicitOutput && fs::exists(t.output, ec) && fs::equivalent(t.input, t.output, ec))
        throw HostError(kExitOutput, t.output.string() +
                                         ": would overwrite the input (name it with -o to "
                                         "replace it)");
    requireOutputFolder(t);
    return *format;
}

// Throws when the module's run was interrupted or failed.
void checkRan(const InvocationOutcome& outcome, const Target& t) {
    if (outcome.aborted)
        throw HostError(kExitInterrupted, "interrupted; nothing written");
    if (outcome.hostError)
        throw *outcome.hostError;
    if (outcome.error != 0)
        throw HostError(kExitFailed, "the filter failed on " + t.input.string() + " (error " +
                                         std::to_string(outcome.error) + "); nothing written");
}

// What the module's run says about the result; throws when there is none.
void checkOutcome(const InvocationOutcome& outcome, const Target& t, const ResultImage& result,
                  bool editing) {
    checkRan(outcome, t);
    if ((!result.anyWritten() || !outcome.resultDescriptor) && editing)
        throw HostError(kExitFailed, editEndedWithoutResult(outcome, t.input));
    if (!result.anyWritten() || !outcome.resultDescriptor)
        throw HostError(kExitFailed,
                        "the filter wrote no result for " + t.input.string() +
                            (outcome.alerts.empty() ? "" : " (see its message above)") +
                            "; nothing written");
}

bool isSuggestionKey(uint32_t key) {
    switch (key) {
        case cvKeySuggestLines:
        case cvKeySuggestVerticalsOnly:
        case cvKeySuggestHorizontals:
        case cvKeySuggestOnly:
        case cvKeySuggestedVertical:
        case cvKeySuggestedHorizontal:
        case cvKeySuggestedUnfixed:
            return true;
        default:
            return false;
    }
}

// The request for suggested lines, on top of the settings.
void askForLines(Descriptor& d, const CliOptions& options, bool only) {
    d.putInteger(cvKeySuggestLines, options.maxLines);
    auto flag = [&](uint32_t key, bool value) {
        DescriptorEntry e;
        e.key = key;
        e.type = cvTypeBoolean;
        e.boolean = value;
        d.put(std::move(e));
    };
    flag(cvKeySuggestVerticalsOnly, options.verticalsOnly);
    flag(cvKeySuggestHorizontals, options.horizontals);
    flag(cvKeySuggestOnly, only);
}

struct LineCounts {
    int32_t vertical = 0, horizontal = 0, unfixed = 0;
    int32_t total() const { return vertical + horizontal + unfixed; }
};

// The counts the filter reports; nullopt when it reported none.
std::optional<LineCounts> suggestedLines(const Descriptor& result) {
    const DescriptorEntry* v = result.find(cvKeySuggestedVertical);
    const DescriptorEntry* h = result.find(cvKeySuggestedHorizontal);
    const DescriptorEntry* u = result.find(cvKeySuggestedUnfixed);
    if (!v || !h || !u)
        return std::nullopt;
    return LineCounts{v->integer, h->integer, u->integer};
}

std::string describe(const LineCounts& c) {
    return "found " + std::to_string(c.total()) + (c.total() == 1 ? " line" : " lines") + " (" +
           std::to_string(c.vertical) + " vertical, " + std::to_string(c.horizontal) +
           " horizontal, " + std::to_string(c.unfixed) + " unfixed)";
}

void recordAction(const Descriptor& result) {
    const fs::path record = lastActionPath();
    if (record.empty())
        return;
    // What was suggested is in the constraint data; the counts are not settings.
    Descriptor descriptor;
    for (const DescriptorEntry& e : result.entries())
        if (!isSuggestionKey(e.key))
            descriptor.put(e);
    try {
        saveAction(record, descriptor);
    } catch (const HostError& e) {
        warn(std::string("the settings were not recorded: ") + e.what());
    }
}

class Batch {
public:
    Batch(const CliOptions& options, Module& module, const Descriptor* params,
          HostKit::VulkanProbe& gpu)
        : options_(options),
          module_(module),
          params_(params),
          gpu_(gpu),
          memoryLimit_(options.memoryMiB ? *options.memoryMiB << 20 : defaultMemoryLimit()),
          bar_(options.quiet) {}

    // Corrects one input; every failure is a HostError with its exit code.
    // next: the input after it, opened (and decoding) while this one is
    // corrected; null for the last.
    void correct(const Target& t, const fs::path* next) {
        const FileFormat format = outputFormat(t);
        std::unique_ptr<ImageSource> source = takeLookahead(t.input);
        if (!source)
            source = openImage(t.input, sourceOptions());
        const ImageInfo info = source->info();
        checkFormatHolds(format, info, t.output);

        const PhotoMetadata metadata = readMetadata(t.input);
        for (const auto& w : metadata.warnings)
            warn(w);
        std::unique_ptr<Descriptor> descriptor;
        if (options_.command == "apply")
            descriptor = applyDescriptor(options_, params_);
        else if (params_)
            descriptor = std::make_unique<Descriptor>(*params_);
        if (options_.autoLines)
            askForLines(*descriptor, options_, false);

        TempOutput temp(t.output);
        ResultOptions resultOptions;
        resultOptions.name = t.output.string();
        resultOptions.spillFolder =
            t.output.has_parent_path() ? t.output.parent_path() : fs::path(".");
        resultOptions.budget = (options_.cacheMiB << 20) / 2;
        resultOptions.memoryLimit = memoryLimit_;
        resultOptions.icc = source->iccProfile();
        resultOptions.xmpPacket = tiffExifAsXmp(info) && !metadata.moduleXmp.empty()
                                      ? metadata.moduleXmp
                                      : metadata.xmpPacket;
        std::unique_ptr<ResultImage> result =
            createResult(format, temp.path(), *source, resultOptions);

        Invocation invocation;
        invocation.source = source.get();
        invocation.result = result.get();
        invocation.xmpPacket = metadata.moduleXmp;
        invocation.documentName = t.input.filename().string();
        invocation.descriptor = descriptor.get();
        invocation.freshDefaults = options_.command == "apply";
        invocation.resetPreferences = options_.resetPreferences;
        if (options_.command == "edit")
            prepareEditInvocation(invocation);
        invocation.listener = &bar_;
        requireGpu();
        if (next)
            lookAhead(*next, t.output);
        bar_.start(t.label);
        const InvocationOutcome outcome = module_.run(invocation);
        bar_.end();
        checkOutcome(outcome, t, *result, options_.command == "edit");

        result->finish();
        result.reset();
        if (const std::string w =
                writeMetadata(temp.path(), format, info, metadata, t.output.string());
            !w.empty())
            warn(w);
        temp.commit();
        recordAction(*outcome.resultDescriptor);
        if (!options_.quiet && options_.autoLines)
            if (const auto counts = suggestedLines(*outcome.resultDescriptor))
                std::fprintf(stderr, "curvana: %s: %s\n", t.input.c_str(),
                             describe(*counts).c_str());
        if (!options_.quiet)
            std::fprintf(stderr, "curvana: wrote %s\n", t.output.c_str());
    }

    // Finds the input's straight edges and writes them as a constraint file.
    void suggest(const Target& t) {
        requireOutputFolder(t);
        const std::unique_ptr<ImageSource> source = openImage(t.input, sourceOptions());
        const PhotoMetadata metadata = readMetadata(t.input);
        for (const auto& w : metadata.warnings)
            warn(w);
        const std::unique_ptr<Descriptor> descriptor = applyDescriptor(options_, params_);
        askForLines(*descriptor, options_, true);

        Invocation invocation;
        invocation.source = source.get();
        invocation.xmpPacket = metadata.moduleXmp;
        invocation.documentName = t.input.filename().string();
        invocation.descriptor = descriptor.get();
        invocation.freshDefaults = true;  // the lens the editor would open with, as apply
        invocation.resetPreferences = options_.resetPreferences;
        invocation.listener = &bar_;
        requireGpu();
        bar_.start(t.label);
        const InvocationOutcome outcome = module_.run(invocation);
        bar_.end();
        checkRan(outcome, t);
        const std::optional<LineCounts> counts =
            outcome.resultDescriptor ? suggestedLines(*outcome.resultDescriptor) : std::nullopt;
        if (!counts)
            throw HostError(kExitFailed, "the filter suggested no lines for " + t.input.string() +
                                             (outcome.alerts.empty() ? " (this module cannot)"
                                                                     : " (see its message above)") +
                                             "; nothing written");
        std::fprintf(stderr, "curvana: %s: %s\n", t.input.c_str(), describe(*counts).c_str());
        const DescriptorEntry* data = outcome.resultDescriptor->find(cvKeyConstraintData);
        if (counts->total() == 0 || !data || data->data.empty())
            throw HostError(kExitFailed,
                            "no straight lines found in " + t.input.string() + "; nothing written");
        TempOutput temp(t.output);
        {
            std::ofstream out(temp.path(), std::ios::binary | std::ios::trunc);
            out.write(reinterpret_cast<const char*>(data->data.data()),
                      static_cast<std::streamsize>(data->data.size()));
            out.flush();
            if (!out)
                throw writeError(t.output.string(), errno);
        }
        temp.commit();
        if (!options_.quiet)
            std::fprintf(stderr, "curvana: wrote %s\n", t.output.c_str());
    }

    bool gpuMissing() const { return gpuMissing_; }

private:
    void requireGpu() {
        if (gpu_.deviceName())
            return;
        gpuMissing_ = true;
        throw HostError(kExitModule,
                        "no Vulkan device: the filter renders on the graphics processor through "
                        "Vulkan. Install your GPU vendor's Vulkan driver, or the software "
                        "renderer (Debian package mesa-vulkan-drivers)");
    }

    // Half the cache for decoded source blocks; a batch of corrections keeps
    // two sources open (this one and the next), a quarter each.
    SourceOptions sourceOptions() const {
        const bool twoOpen = options_.inputs.size() > 1 && options_.command != "suggest";
        SourceOptions o;
        o.cacheBudget = (options_.cacheMiB << 20) / (twoOpen ? 4 : 2);
        o.memoryLimit = memoryLimit_;
        return o;
    }

    // Opens the next input, so that it decodes while this one is corrected.
    // Any failure is left to its own turn, which reports it. Not when this
    // output replaces that input: it must be read as written.
    void lookAhead(const fs::path& next, const fs::path& output) {
        lookahead_.reset();
        std::error_code ec;
        if (fs::exists(output, ec) && fs::equivalent(next, output, ec))
            return;
        // A PNG or JPEG decodes whole: only one that fits the next input's
        // share of the cache is read ahead, so a batch keeps within --cache.
        SourceOptions o = sourceOptions();
        o.memoryLimit = std::min(o.memoryLimit, o.cacheBudget);
        try {
            lookahead_ = openImage(next, o);
            lookaheadPath_ = next;
        } catch (...) {
            lookahead_.reset();
        }
    }
    std::unique_ptr<ImageSource> takeLookahead(const fs::path& input) {
        if (!lookahead_ || lookaheadPath_ != input)
            return nullptr;
        return std::move(lookahead_);
    }

    // Half of the machine's memory: one image may take that much.
    static uint64_t defaultMemoryLimit() {
        const uint64_t total = memoryFigures().total;
        return total > 0 ? total / 2 : kDefaultMemoryLimit;
    }

    const CliOptions& options_;
    Module& module_;
    const Descriptor* params_;
    HostKit::VulkanProbe& gpu_;
    bool gpuMissing_ = false;
    uint64_t memoryLimit_;
    ProgressBar bar_;
    std::unique_ptr<ImageSource> lookahead_;
    fs::path lookaheadPath_;
};

}  // namespace

int runBatch(const CliOptions& options, Module& module, const Descriptor* params,
             HostKit::VulkanProbe& gpu) {
    std::error_code ec;
    const fs::path out = options.output;
    const bool outIsFolder = fs::is_directory(out, ec);
    if (options.inputs.size() > 1 && !outIsFolder)
        throw HostError(kExitOutput,
                        out.string() + ": several inputs need an existing output folder");

    Batch batch(options, module, params, gpu);
    const size_t count = options.inputs.size();
    int status = kExitOk;
    for (size_t i = 0; i < count; ++i) {
        Target t;
        t.input = options.inputs[i];
        t.output = outIsFolder ? out / t.input.filename() : out;
        t.explicitOutput = !outIsFolder;
        t.label = t.input.filename().string();
        if (count > 1)
            t.label += " (" + std::to_string(i + 1) + "/" + std::to_string(count) + ")";
        ExitCode code = kExitOk;
        try {
            const fs::path next = i + 1 < count ? fs::path(options.inputs[i + 1]) : fs::path();
            if (options.command == "suggest")
                batch.suggest(t);
            else
                batch.correct(t, next.empty() ? nullptr : &next);
        } catch (const HostError& e) {
            std::fprintf(stderr, "curvana: %s\n", e.what());
            code = e.code();
        } catch (const std::bad_alloc&) {
            std::fprintf(stderr, "curvana: %s: out of memory; nothing written\n", t.input.c_str());
            code = kExitFailed;
        }
        if (status == kExitOk)
            status = code;
        if (code == kExitInterrupted || batch.gpuMissing())
            return code;
    }
    return status;
}

}  // namespace Curvana::Host
