#include "Cli.h"

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "ApplyDescriptor.h"
#include "Batch.h"
#include "CliOptions.h"
#include "HostError.h"
#include "ModuleHost.h"
#include "SystemInfo.h"
#include "TempOutput.h"

namespace Curvana::Host {
namespace fs = std::filesystem;

namespace {

// --params (or the recorded action of a repeat) with --constraints.
std::unique_ptr<Descriptor> replayedSettings(const CliOptions& options) {
    std::unique_ptr<Descriptor> params;
    if (options.params) {
        params = loadAction(*options.params);
    } else if (options.command == "repeat") {
        const fs::path record = lastActionPath();
        std::error_code ec;
        if (!record.empty() && fs::exists(record, ec))
            params = loadAction(record);
    }
    if (options.constraints)
        params = withConstraintFile(params.get(), *options.constraints);
    return params;
}

std::unique_ptr<Module> loadModule(const CliOptions& options) {
    // The filter renders through Vulkan and cannot run without a device.
    if (!vulkanDeviceAvailable())
        throw HostError(kExitModule,
                        "no Vulkan device: the filter renders on the graphics processor through "
                        "Vulkan. Install your GPU vendor's Vulkan driver, or the software "
                        "renderer (Debian package mesa-vulkan-drivers)");
    const MemoryFigures memory = memoryFigures();
    HostFacts facts;
    facts.gpuAvailable = true;
    facts.maxSpace = memory.total / 2;
    facts.preferencesBase = preferencesBase();
    return Module::load(Module::locate(options.module), std::move(facts));
}

}  // namespace

int runCli(int argc, char** argv) {
    const auto options = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    if (!options)
        return kExitOk;
    const std::unique_ptr<Descriptor> params = replayedSettings(*options);
    const std::unique_ptr<Module> module = loadModule(*options);
    installInterruptHandlers();
    return runBatch(*options, *module, params.get());
}

}  // namespace Curvana::Host
