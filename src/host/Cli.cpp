#include "Cli.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "EditCommand.h"
#include "ModuleHost.h"
#include "SystemInfo.h"
#include "curvana/CurvanaScripting.h"

namespace Curvana::Host {
namespace fs = std::filesystem;

namespace {

const char* kUsage =
    "usage: curvana apply IN... -o OUT [options]   correct photographs silently\n"
    "       curvana repeat IN... -o OUT            again, with the last recorded settings\n"
    "       curvana edit IN -o OUT                 correct in the editor\n"
    "       curvana COMMAND --help                 help on one command\n";

const char* kExitCodes =
    "exit codes:\n"
    "  0    every image was written\n"
    "  1    the filter failed, was refused, or wrote no result (see its message)\n"
    "  2    bad command line or --params file\n"
    "  3    an input is missing, unsupported or cannot be decoded\n"
    "  4    an output cannot be written (folder, format, would overwrite an input)\n"
    "  5    the filter module cannot be found or loaded\n"
    "  6    a feature not available in this build (the editor, constraint files)\n"
    "  130  interrupted (Ctrl-C); no partial file is left\n"
    "In a batch, the code is that of the first input that failed; the others are still done.\n";

const char* kCommonOptions =
    "  -o, --output PATH      output file, or folder (required for several inputs); the format\n"
    "                         follows the extension (.tif .tiff .png .jpg .jpeg); mode and depth\n"
    "                         stay those of the input. An input is replaced only when named as "
    "-o.\n"
    "  --module PATH          the filter module (default: libcurvana.so beside curvana, then\n"
    "                         $CURVANA_MODULE)\n"
    "  --cache-mb N           memory for decoded and pending tiles of TIFF files (default 256)\n"
    "  -q, --quiet            no progress display\n"
    "  -h, --help             this help\n";

void printHelp(const std::string& command) {
    if (command == "apply") {
        std::cout
            << "usage: curvana apply IN... -o OUT [options]\n\n"
               "Corrects each input with the filter, without a dialog, from scripting "
               "parameters.\n\n"
               "options:\n"
            << kCommonOptions
            << "  --projection P         fisheye | perspective | auto | full-spherical\n"
               "  --regularizer R        stereographic | mercator | panini | auto\n"
               "  --focal-mm F           physical focal length in millimetres\n"
               "  --crop C               sensor crop factor (default: from --params, the photo's "
               "EXIF, or 1)\n"
               "  --params ACTION.json   replay a recorded action (the options above override its "
               "keys)\n"
               "  --constraints FILE.cvc constraints saved from the editor: lines and polygons to\n"
               "                         keep straight, with the settings they were drawn with\n"
               "                         (the options above override those settings)\n\n"
               "The focal length in pixels handed to the filter is C x F x max(width, height) / "
               "36.\n"
               "Without focal options, the photo's EXIF focal length is used when it has one.\n"
               "The settings the filter reports back are recorded in\n"
               "$XDG_CONFIG_HOME/curvana/last-action.json (default ~/.config/curvana).\n\n"
            << kExitCodes;
    } else if (command == "repeat") {
        std::cout
            << "usage: curvana repeat IN... -o OUT [options]\n\n"
               "Corrects each input with the last recorded settings\n"
               "($XDG_CONFIG_HOME/curvana/last-action.json); without a recorded action the filter\n"
               "uses its own saved preferences.\n\noptions:\n"
            << kCommonOptions << "\n"
            << kExitCodes;
    } else if (command == "edit") {
        std::cout << kEditHelp << kCommonOptions << "\n"
            << kExitCodes;
    } else {
        std::cout
            << "curvana: straightens the lines that wide-angle and fisheye lenses bend.\n\n"
            << kUsage << "\n"
            << "Several inputs with -o FOLDER make a batch, with a progress bar.\n"
               "Files: TIFF (grey, RGB, CMYK, Lab; 8/16-bit; read tile by tile or strip by "
               "strip),\n"
               "PNG (grey, RGB; 8/16-bit) and JPEG (grey, RGB, CMYK; decoded whole in memory).\n"
               "ICC profile, EXIF and XMP are carried into the output.\n\n"
            << kExitCodes;
    }
}

HostError usage(const std::string& message) {
    return HostError(message);
}

double parseNumber(const std::string& option, const std::string& text, double low, double high) {
    try {
        size_t used = 0;
        const double v = std::stod(text, &used);
        if (used == text.size() && std::isfinite(v) && v >= low && v <= high)
            return v;
    } catch (const std::exception&) {
    }
    throw usage(option + ": '" + text + "' is not a number between " +
                std::to_string(low).substr(0, 5) + " and " +
                std::to_string(high).substr(0, std::to_string(high).find('.')));
}

// ---- Progress -----------------------------------------------------------------

class ProgressBar final : public ProgressListener {
public:
    explicit ProgressBar(bool quiet) : quiet_(quiet), tty_(::isatty(STDERR_FILENO) != 0) {}

    void start(const std::string& label) {
        label_ = label;
        lastPercent_ = -1;
        drawn_ = false;
    }
    void text(const std::string&, const std::string& message) override {
        if (!message.empty())
            message_ = message;
    }
    void progress(int64_t done, int64_t total) override {
        if (quiet_ || total <= 0)
            return;
        const int percent = static_cast<int>(std::clamp<int64_t>(done * 100 / total, 0, 100));
        if (percent == lastPercent_)
            return;
        if (tty_) {
            const int width = 30, filled = percent * width / 100;
            std::string bar(static_cast<size_t>(filled), '#');
            bar.append(static_cast<size_t>(width - filled), '.');
            std::fprintf(stderr, "\r%s [%s] %3d%%", label_.c_str(), bar.c_str(), percent);
            std::fflush(stderr);
            drawn_ = true;
        } else if (percent / 10 != lastPercent_ / 10 || lastPercent_ < 0) {
            std::fprintf(stderr, "%s: %s %d%%\n", label_.c_str(), message_.c_str(),
                         percent / 10 * 10);
        }
        lastPercent_ = percent;
    }
    void end() {
        if (drawn_)
            std::fputc('\n', stderr);
        drawn_ = false;
    }

private:
    bool quiet_, tty_;
    std::string label_, message_ = "Applying Curvana.";
    int lastPercent_ = -1;
    bool drawn_ = false;
};

// ---- Interrupts and temporary outputs ----------------------------------------

// The temporary file being written, for a second Ctrl-C that ends the process
// at once: the handler may only call async-signal-safe functions.
char pendingTemp[4096];

extern "C" void onInterrupt(int) {
    if (abortFlag) {
        if (pendingTemp[0])
            ::unlink(pendingTemp);
        ::_exit(kExitInterrupted);
    }
    abortFlag = 1;
}

mode_t currentUmask() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

// An output written under a temporary name in its own folder and renamed
// into place only on success; removed otherwise.
class TempOutput {
public:
    explicit TempOutput(const fs::path& target) : target_(target) {
        const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
        std::string name =
            (folder / ("." + target.filename().string() + ".curvana-XXXXXX")).string();
        const int fd = ::mkstemp(name.data());
        if (fd < 0)
            throw HostError(folder.string() + ": cannot write there (" + std::strerror(errno) +
                            ")");
        ::close(fd);
        temp_ = name;
        if (temp_.string().size() < sizeof pendingTemp)
            std::strcpy(pendingTemp, temp_.c_str());
    }
    ~TempOutput() {
        pendingTemp[0] = '\0';
        if (!committed_)
            ::unlink(temp_.c_str());
    }
    TempOutput(const TempOutput&) = delete;
    TempOutput& operator=(const TempOutput&) = delete;
    const fs::path& path() const { return temp_; }

    void commit() {
        static const mode_t mask = currentUmask();
        ::chmod(temp_.c_str(), 0666 & ~mask);
        if (::rename(temp_.c_str(), target_.c_str()) != 0)
            throw HostError(target_.string() + ": cannot write (" + std::strerror(errno) + ")");
        committed_ = true;
        pendingTemp[0] = '\0';
    }

private:
    fs::path target_, temp_;
    bool committed_ = false;
};

struct Failure {
    int code;
    std::string message;
};

fs::path lastActionPath() {
    const std::string base = preferencesBase();
    return base.empty() ? fs::path() : fs::path(base) / "curvana" / "last-action.json";
}

uint32_t projectionCode(const std::string& name) {
    if (name == "fisheye")
        return cvProjectionFisheye;
    if (name == "perspective")
        return cvProjectionPerspective;
    if (name == "auto")
        return cvProjectionAuto;
    if (name == "full-spherical")
        return cvProjectionFullSpherical;
    throw usage("--projection: '" + name +
                "' is not one of fisheye, perspective, auto, full-spherical");
}

uint32_t regularizerCode(const std::string& name) {
    if (name == "stereographic")
        return cvRegularizerStereographic;
    if (name == "mercator")
        return cvRegularizerMercator;
    if (name == "panini")
        return cvRegularizerPanini;
    if (name == "auto")
        return cvRegularizerAuto;
    throw usage("--regularizer: '" + name +
                "' is not one of stereographic, mercator, panini, auto");
}

struct RunContext {
    const CliOptions& options;
    Module* module;
    const Descriptor* params;  // --params, or the recorded action for repeat
    ProgressBar& bar;
    size_t index, count;
};

// Corrects one input. Returns nullopt on success.
std::optional<Failure> processOne(RunContext& run, const fs::path& input, const fs::path& output,
                                  bool explicitOutput) {
    const auto format = formatFromExtension(output);
    if (!format)
        return Failure{kExitOutput, output.string() + ": unknown output format '" +
                                        output.extension().string() + "' (use .tif, .png or .jpg)"};
    std::error_code ec;
    if (!explicitOutput && fs::exists(output, ec) && fs::equivalent(input, output, ec))
        return Failure{
            kExitOutput,
            output.string() + ": would overwrite the input (name it with -o to replace it)"};
    const fs::path folder = output.has_parent_path() ? output.parent_path() : fs::path(".");
    if (!fs::is_directory(folder, ec))
        return Failure{kExitOutput, folder.string() + ": no such folder"};

    SourceOptions sourceOptions;
    sourceOptions.cacheBudget = (run.options.cacheMiB << 20) / 2;
    std::unique_ptr<ImageSource> source;
    try {
        source = openImage(input, sourceOptions);
    } catch (const HostError& e) {
        return Failure{kExitInput, e.what()};
    }
    const ImageInfo info = source->info();
    try {
        checkFormatHolds(*format, info, output);
    } catch (const HostError& e) {
        return Failure{kExitOutput, e.what()};
    }

    PhotoMetadata metadata = readMetadata(input);
    for (const auto& w : metadata.warnings)
        std::fprintf(stderr, "curvana: warning: %s\n", w.c_str());

    std::unique_ptr<Descriptor> descriptor;
    if (run.options.command == "apply") {
        try {
            descriptor =
                applyDescriptor(run.options, run.params, info.width, info.height, metadata);
        } catch (const HostError& e) {
            return Failure{kExitUsage, e.what()};
        }
    } else if (run.params) {
        descriptor = std::make_unique<Descriptor>(*run.params);
    }

    std::optional<TempOutput> temp;
    std::unique_ptr<ResultImage> result;
    try {
        temp.emplace(output);
        ResultOptions resultOptions;
        resultOptions.budget = (run.options.cacheMiB << 20) / 2;
        resultOptions.icc = source->iccProfile();
        resultOptions.xmpPacket = tiffExifAsXmp(info) && !metadata.moduleXmp.empty()
                                      ? metadata.moduleXmp
                                      : metadata.xmpPacket;
        result = createResult(*format, temp->path(), *source, resultOptions);
    } catch (const HostError& e) {
        return Failure{kExitOutput, e.what()};
    }

    Invocation invocation;
    invocation.source = source.get();
    invocation.result = result.get();
    invocation.xmpPacket = metadata.moduleXmp;
    invocation.documentName = input.filename().string();
    invocation.descriptor = descriptor.get();
    if (run.options.command == "edit")
        prepareEditInvocation(invocation);
    invocation.listener = &run.bar;
    std::string label = input.filename().string();
    if (run.count > 1)
        label += " (" + std::to_string(run.index + 1) + "/" + std::to_string(run.count) + ")";
    run.bar.start(label);
    InvocationOutcome outcome = run.module->run(invocation);
    run.bar.end();

    if (outcome.aborted)
        return Failure{kExitInterrupted, "interrupted; nothing written"};
    if (!outcome.ioError.empty())
        return Failure{outcome.inputError ? kExitInput : kExitFailed, outcome.ioError};
    if (outcome.error != 0)
        return Failure{kExitFailed, "the filter failed on " + input.string() + " (error " +
                                        std::to_string(outcome.error) + "); nothing written"};
    if ((!result->anyWritten() || !outcome.resultDescriptor) && run.options.command == "edit")
        return Failure{kExitFailed, editEndedWithoutResult(outcome, input)};
    if (!result->anyWritten() || !outcome.resultDescriptor)
        return Failure{kExitFailed, "the filter wrote no result for " + input.string() +
                                        (outcome.alerts.empty() ? "" : " (see its message above)") +
                                        "; nothing written"};
    try {
        result->finish();
    } catch (const InputError& e) {
        return Failure{kExitInput, e.what()};
    } catch (const HostError& e) {
        return Failure{kExitOutput, e.what()};
    }
    result.reset();
    const std::string warning = writeMetadata(temp->path(), *format, info, metadata);
    if (!warning.empty())
        std::fprintf(stderr, "curvana: warning: %s\n", warning.c_str());
    try {
        temp->commit();
    } catch (const HostError& e) {
        return Failure{kExitOutput, e.what()};
    }
    if (outcome.resultDescriptor) {
        const fs::path record = lastActionPath();
        try {
            if (!record.empty())
                saveAction(record, *outcome.resultDescriptor);
        } catch (const HostError& e) {
            std::fprintf(stderr, "curvana: warning: the settings were not recorded: %s\n",
                         e.what());
        }
    }
    if (!run.options.quiet)
        std::fprintf(stderr, "curvana: wrote %s\n", output.c_str());
    return std::nullopt;
}

}  // namespace

std::optional<CliOptions> parseCommandLine(const std::vector<std::string>& args) {
    CliOptions o;
    if (args.empty())
        throw usage(std::string("no command given\n") + kUsage);
    const std::string& first = args[0];
    if (first == "-h" || first == "--help" || first == "help") {
        printHelp(args.size() > 1 ? args[1] : "");
        return std::nullopt;
    }
    if (first == "--version") {
        std::cout << "curvana 0.1.0 (filter interface " << CURVANA_ABI_VERSION << ")\n";
        return std::nullopt;
    }
    if (first != "apply" && first != "repeat" && first != "edit")
        throw usage("unknown command '" + first + "' (apply, repeat or edit; see curvana --help)");
    o.command = first;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= args.size())
                throw usage(a + ": needs a value");
            return args[++i];
        };
        const bool applyOnly = a == "--projection" || a == "--regularizer" || a == "--focal-mm" ||
                               a == "--crop" || a == "--params" || a == "--constraints";
        if (applyOnly && o.command != "apply")
            throw usage(a + ": only 'curvana apply' takes this option");
        if (a == "-h" || a == "--help") {
            printHelp(o.command);
            return std::nullopt;
        } else if (a == "-o" || a == "--output") {
            o.output = value();
        } else if (a == "--module") {
            o.module = value();
        } else if (a == "-q" || a == "--quiet") {
            o.quiet = true;
        } else if (a == "--cache-mb") {
            o.cacheMiB = static_cast<uint64_t>(parseNumber(a, value(), 16, 1 << 20));
        } else if (a == "--projection") {
            o.projection = value();
            projectionCode(*o.projection);
        } else if (a == "--regularizer") {
            o.regularizer = value();
            regularizerCode(*o.regularizer);
        } else if (a == "--focal-mm") {
            o.focalMm = parseNumber(a, value(), 0.1, 10000);
        } else if (a == "--crop") {
            o.crop = parseNumber(a, value(), 0.1, 100);
        } else if (a == "--params") {
            o.params = value();
        } else if (a == "--constraints") {
            o.constraints = value();
        } else if (a == "--") {
            o.inputs.insert(o.inputs.end(), args.begin() + static_cast<ptrdiff_t>(i) + 1,
                            args.end());
            break;
        } else if (a.size() > 1 && a[0] == '-') {
            throw usage("unknown option '" + a + "' (see curvana " + o.command + " --help)");
        } else {
            o.inputs.push_back(a);
        }
    }
    if (o.inputs.empty())
        throw usage("no input image given (see curvana " + o.command + " --help)");
    if (o.output.empty())
        throw usage("no output given: use -o OUT (see curvana " + o.command + " --help)");
    if (o.command == "edit" && o.inputs.size() > 1)
        throw usage("edit takes one input");
    return o;
}

std::unique_ptr<Descriptor> withConstraintFile(const Descriptor* params, const fs::path& file) {
    // The filter checks the bytes (image size, camera, lens) itself; the host
    // only refuses what it cannot pass on.
    constexpr uintmax_t kMaxBytes = uintmax_t{256} << 20;
    std::error_code ec;
    const uintmax_t size = fs::file_size(file, ec);
    if (ec)
        throw HostError(file.string() + ": cannot read the constraint file (" + ec.message() + ")");
    if (size == 0)
        throw HostError(file.string() + ": the constraint file is empty");
    if (size > kMaxBytes)
        throw HostError(file.string() + ": too large for a constraint file");
    std::ifstream in(file, std::ios::binary);
    DescriptorEntry entry;
    entry.key = cvKeyConstraintData;
    entry.type = cvTypeRawData;
    entry.data.resize(static_cast<size_t>(size));
    if (!in.read(reinterpret_cast<char*>(entry.data.data()), static_cast<std::streamsize>(size)))
        throw HostError(file.string() + ": cannot read the constraint file");

    // The constraint data goes first: the filter reads keys in order, so the
    // settings of --params and of the options, put after it, win over the
    // file's.
    auto d = std::make_unique<Descriptor>();
    d->put(std::move(entry));
    if (params)
        for (const DescriptorEntry& e : params->entries())
            if (e.key != cvKeyConstraintData)
                d->put(e);
    return d;
}

std::unique_ptr<Descriptor> applyDescriptor(const CliOptions& options, const Descriptor* params,
                                            int32_t width, int32_t height,
                                            const PhotoMetadata& metadata) {
    auto d = params ? std::make_unique<Descriptor>(*params) : std::make_unique<Descriptor>();
    if (options.projection)
        d->putEnumerated(cvKeyProjectionModel, cvKeyProjectionModel,
                         projectionCode(*options.projection));
    if (options.regularizer)
        d->putEnumerated(cvKeyRegularizerModel, cvKeyRegularizerModel,
                         regularizerCode(*options.regularizer));

    // The crop factor the photo implies: its 35 mm equivalent over its focal length.
    const double exifCrop = metadata.focalLengthMm > 0 && metadata.focalLength35mm > 0
                                ? metadata.focalLength35mm / metadata.focalLengthMm
                                : 0;
    const double longSide = std::max(width, height);
    auto put = [&](double focalMm, double crop) {
        d->putFloat(cvKeyPhysicalFocalLength, focalMm);
        d->putFloat(cvKeyCropFactor, crop);
        d->putFloat(cvKeyFocalLength, crop * focalMm * longSide / 36.0);
    };
    if (options.focalMm || options.crop) {
        const double crop =
            options.crop ? *options.crop
                         : d->getFloat(cvKeyCropFactor).value_or(exifCrop > 0 ? exifCrop : 1.0);
        double focal = options.focalMm
                           ? *options.focalMm
                           : d->getFloat(cvKeyPhysicalFocalLength).value_or(metadata.focalLengthMm);
        if (focal <= 0 && metadata.focalLength35mm > 0)
            focal = metadata.focalLength35mm / crop;
        if (focal > 0)
            put(focal, crop);
        else
            d->putFloat(cvKeyCropFactor, crop);
    } else if (!d->find(cvKeyFocalLength) && !d->find(cvKeyConstraintData)) {
        // (A constraint file carries the focal length it was drawn with.)
        if (metadata.focalLengthMm > 0)
            put(metadata.focalLengthMm, exifCrop > 0 ? exifCrop : 1.0);
        else if (metadata.focalLength35mm > 0)
            put(metadata.focalLength35mm, 1.0);
    }
    return d;
}

int runCli(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    CliOptions options;
    try {
        auto parsed = parseCommandLine(args);
        if (!parsed)
            return kExitOk;
        options = std::move(*parsed);
    } catch (const HostError& e) {
        std::fprintf(stderr, "curvana: %s\n", e.what());
        return kExitUsage;
    }
    std::unique_ptr<Descriptor> params;
    try {
        if (options.params)
            params = loadAction(*options.params);
        else if (options.command == "repeat") {
            const fs::path record = lastActionPath();
            std::error_code ec;
            if (!record.empty() && fs::exists(record, ec))
                params = loadAction(record);
        }
        if (options.constraints)
            params = withConstraintFile(params.get(), *options.constraints);
    } catch (const HostError& e) {
        std::fprintf(stderr, "curvana: %s\n", e.what());
        return kExitUsage;
    }

    // Where each input goes: a folder output keeps the input's name.
    std::error_code ec;
    const fs::path out = options.output;
    const bool outIsFolder = fs::is_directory(out, ec);
    if (options.inputs.size() > 1 && !outIsFolder) {
        std::fprintf(stderr, "curvana: %s: several inputs need an existing output folder\n",
                     out.c_str());
        return kExitOutput;
    }

    std::unique_ptr<Module> module;
    try {
        const MemoryFigures memory = memoryFigures();
        HostFacts facts;
        facts.gpuAvailable = vulkanDeviceAvailable();
        facts.maxSpace = memory.total / 2;
        facts.preferencesBase = preferencesBase();
        module = Module::load(Module::locate(options.module), std::move(facts));
    } catch (const HostError& e) {
        std::fprintf(stderr, "curvana: %s\n", e.what());
        return kExitModule;
    }

    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);

    ProgressBar bar(options.quiet);
    RunContext run{options, module.get(), params.get(), bar, 0, options.inputs.size()};
    int status = kExitOk;
    for (size_t i = 0; i < options.inputs.size(); ++i) {
        run.index = i;
        const fs::path input = options.inputs[i];
        const fs::path output = outIsFolder ? out / input.filename() : out;
        auto failure = processOne(run, input, output, !outIsFolder);
        if (failure) {
            std::fprintf(stderr, "curvana: %s\n", failure->message.c_str());
            if (status == kExitOk)
                status = failure->code;
            if (failure->code == kExitInterrupted)
                return kExitInterrupted;
        }
    }
    return status;
}

}  // namespace Curvana::Host
