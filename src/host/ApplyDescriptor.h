// The scripting descriptor that an `apply` hands the filter, built from
// --params, --constraints and the options, and where the filter's answer
// is recorded.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

#include "CliOptions.h"
#include "Descriptor.h"
#include "Metadata.h"
#include "curvana/CurvanaScripting.h"

namespace Curvana::Host {

// --params (if any), then the options on top ("prjM", "regM" enumerators;
// "imgC" true for --crop-to-content;
// "PhyF", "CrpF" and the focal length in pixels "focL" = crop x focal mm x
// max(width, height) / 36). Without focal options and without "focL" in
// --params, the photo's EXIF focal length (and the crop factor from its
// 35 mm equivalent) is used.
std::unique_ptr<Descriptor> applyDescriptor(const CliOptions& options, const Descriptor* params,
                                            int32_t width, int32_t height,
                                            const PhotoMetadata& metadata);

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
