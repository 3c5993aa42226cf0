// The batch loop: every input corrected on its own, in order, its failure
// reported on one line while the others are still done.
#pragma once

#include "CliOptions.h"
#include "Descriptor.h"
#include "ModuleHost.h"
#include "hostkit/SystemFacts.h"

namespace Curvana::Host {

// Corrects every input of options into options.output (a file, or a folder
// that keeps the inputs' names). params: --params with --constraints, or the
// recorded action of a repeat; may be null. Returns kExitOk, or the exit code
// of the first input that failed; an interrupt ends the batch at once, and so
// does a probe that finds no Vulkan device before the first run.
int runBatch(const CliOptions& options, Module& module, const Descriptor* params,
             HostKit::VulkanProbe& gpu);

}  // namespace Curvana::Host
