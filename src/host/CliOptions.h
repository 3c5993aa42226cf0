// The curvana command line: the command, its inputs and output, and the
// options, parsed and checked.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Curvana::Host {

struct CliOptions {
    std::string command;  // apply, repeat, edit, suggest, version
    std::vector<std::string> inputs;
    std::string output;
    std::string module;
    std::optional<std::string> projection, regularizer, params, constraints;
    std::optional<double> focalMm, crop;
    uint64_t cacheMiB = 256;
    std::optional<uint64_t>
        memoryMiB;  // the memory budget of one image; default: half the machine's
    bool quiet = false;
    bool cropToContent = false;
    // The filter starts from its defaults, not its stored preferences, and
    // saves them over those.
    bool resetPreferences = false;
    // Suggested lines: `suggest`, or `apply --auto-lines`.
    bool autoLines = false;
    int32_t maxLines = 20;
    bool verticalsOnly = false, horizontals = false;
};

// Parses argv (without the program name). Throws HostError (kExitUsage) for
// bad usage. Returns nullopt when help was printed. "--version" (with an
// optional --module PATH) gives the command "version".
std::optional<CliOptions> parseCommandLine(const std::vector<std::string>& args);

// The "prjM" and "regM" enumerators of --projection and --regularizer names.
// Throw HostError (kExitUsage) for a name that is none of them.
uint32_t projectionCode(const std::string& name);
uint32_t regularizerCode(const std::string& name);

}  // namespace Curvana::Host
