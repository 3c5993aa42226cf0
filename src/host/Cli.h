// The curvana command line: commands, options, batches, exit codes.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Descriptor.h"
#include "Metadata.h"

namespace Curvana::Host {

// Exit codes of the program (also listed by --help).
enum ExitCode : int {
    kExitOk = 0,
    kExitFailed = 1,  // the filter failed, was refused, or wrote nothing
    kExitUsage = 2,   // bad command line or --params file
    kExitInput = 3,   // an input is missing, unsupported or cannot be decoded
    kExitOutput = 4,  // an output cannot be written (folder, format, would overwrite the input)
    kExitModule = 5,  // the filter module cannot be found or loaded
    kExitUnavailable = 6,   // a feature not in this build (the editor, constraint files)
    kExitInterrupted = 130  // Ctrl-C
};

struct CliOptions {
    std::string command;  // apply, repeat, edit
    std::vector<std::string> inputs;
    std::string output;
    std::string module;
    std::optional<std::string> projection, regularizer, params, constraints;
    std::optional<double> focalMm, crop;
    uint64_t cacheMiB = 256;
    bool quiet = false;
};

// Parses argv (without the program name). Throws HostError for bad usage.
// Returns nullopt when help or the version was printed.
std::optional<CliOptions> parseCommandLine(const std::vector<std::string>& args);

// The scripting descriptor an `apply` passes in: --params (if any), then the
// options on top ("prjM", "regM" enumerators; "PhyF", "CrpF" and the focal
// length in pixels "focL" = crop x focal mm x max(width, height) / 36).
// Without focal options and without "focL" in --params, the photo's EXIF
// focal length (and the crop factor from its 35 mm equivalent) is used.
std::unique_ptr<Descriptor> applyDescriptor(const CliOptions& options, const Descriptor* params,
                                            int32_t width, int32_t height,
                                            const PhotoMetadata& metadata);

// --params (may be null) with a constraint file's bytes as the constraint
// data, placed first so that every other key overrides the settings the file
// carries. Throws HostError for a file that is missing, empty or too large.
std::unique_ptr<Descriptor> withConstraintFile(const Descriptor* params,
                                               const std::filesystem::path& file);

int runCli(int argc, char** argv);

}  // namespace Curvana::Host
