// The scripting descriptor that an `apply` hands the filter, built from
// --params, --constraints and the options, and where the filter's answer
// is recorded.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

#include "CliOptions.h"
#include "Descriptor.h"
#include "curvana/CurvanaScripting.h"

namespace Curvana::Host {

// --params (if any), then the options on top: "prjM", "regM" enumerators,
// "imgC" true for --crop-to-content,
// "PhyF" from --focal-mm and "CrpF" from --crop (either drops a replayed
// "focL"). Whatever is left out the filter takes from what its editor would
// open with (the run asks for that, CV_PROPERTY_FRESH_DEFAULTS): the photo's
// metadata decides the projection, crop factor and focal length.
std::unique_ptr<Descriptor> applyDescriptor(const CliOptions& options, const Descriptor* params);

// --params (may be null) with a constraint file's bytes as the constraint
// data, placed first so that every other key overrides the settings the file
// carries. Throws HostError (kExitUsage) for a file that is missing, empty or
// too large.
std::unique_ptr<Descriptor> withConstraintFile(const Descriptor* params,
                                               const std::filesystem::path& file);

// The recorded action: last-action.json in the host's own settings folder;
// empty when there is no settings folder.
std::filesystem::path lastActionPath();

}  // namespace Curvana::Host
