#include "Cli.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "ApplyDescriptor.h"
#include "Batch.h"
#include "CliOptions.h"
#include "Descriptor.h"
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

// The filter renders through Vulkan and cannot run without a device; the
// batch asks the probe just before the first run, so that the probe overlaps
// loading the module and opening the first input.
std::unique_ptr<Module> loadModule(const CliOptions& options) {
    const MemoryFigures memory = memoryFigures();
    HostFacts facts;
    facts.gpuAvailable = true;
    facts.maxSpace = memory.total / 2;
    facts.preferencesBase = preferencesBase();
    return Module::load(Module::locate(options.module), std::move(facts));
}

std::string fourcc(uint32_t code) {
    return fourccToString(code);
}

// The registration as the filter declares it: images, then the scripting
// terminology with each key's enumerators.
void printRegistration(const CvRegistration& r) {
    std::cout << "  " << r.name << " " << r.version << ", for host version " << r.hostMajorVersion
              << "\n";
    const std::pair<int32_t, const char*> modes[] = {
        {cvModeGray, "Grey"}, {cvModeRGB, "RGB"}, {cvModeCMYK, "CMYK"}, {cvModeLab, "Lab"}};
    std::string modeList;
    for (const auto& [mode, name] : modes)
        if (r.modes & (1u << mode))
            modeList += (modeList.empty() ? "" : ", ") + std::string(name);
    std::string depthList;
    for (const int depth : {8, 16})
        if (r.depths & (1u << depth))
            depthList += (depthList.empty() ? "" : " and ") + std::to_string(depth);
    std::cout << "  modes: " << modeList << "; " << depthList << " bits per channel\n"
              << "  largest image: " << r.maxWidth << " x " << r.maxHeight << "\n"
              << "  scripting: event " << fourcc(r.event) << " (" << r.eventName << ")\n";
    for (uint32_t k = 0; k < r.keyCount; ++k) {
        const CvTerm& key = r.keys[k];
        std::cout << "    " << fourcc(key.code) << "  " << key.name;
        std::string values;
        for (uint32_t e = 0; e < r.enumeratorCount; ++e)
            if (r.enumerators[e].type == key.code)
                values += (values.empty() ? ": " : ", ") + fourcc(r.enumerators[e].code) + " " +
                          r.enumerators[e].name;
        std::cout << values << "\n";
    }
}

// The host's version, the Vulkan device and the module's registration.
int printVersion(const CliOptions& options) {
    const HostFacts facts;
    std::cout << "curvana " << CURVANA_VERSION << ", host version " << facts.majorVersion
              << " (filter interface " << CURVANA_ABI_VERSION << ")\n";
    const std::optional<std::string> device = vulkanDeviceName();
    std::cout << "Vulkan device: " << (device ? *device : "none") << "\n";
    std::cout.flush();
    const std::unique_ptr<Module> module = Module::load(Module::locate(options.module), facts);
    std::cout << "module: " << module->path().string() << "\n";
    const CvRegistration* registration = module->registration();
    if (!registration)
        throw HostError(kExitModule, module->path().string() + ": the module registers nothing");
    printRegistration(*registration);
    return kExitOk;
}

}  // namespace

int runCli(int argc, char** argv) {
    const auto options = parseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    if (!options)
        return kExitOk;
    if (options->command == "version")
        return printVersion(*options);
    HostKit::VulkanProbe gpu;
    const std::unique_ptr<Descriptor> params = replayedSettings(*options);
    const std::unique_ptr<Module> module = loadModule(*options);
    installInterruptHandlers();
    return runBatch(*options, *module, params.get(), gpu);
}

}  // namespace Curvana::Host
