// `curvana edit IN -o OUT`: the filter's editor on one photograph.
#pragma once

#include <filesystem>
#include <string>

#include "ModuleHost.h"

namespace Curvana::Host {

// The body of `curvana edit --help` (the options and exit codes follow it).
extern const char* const kEditHelp;

// The invocation of edit: the Parameters selector, then Start without
// scripting parameters -- the fresh invocation of a filter chosen from the
// menu, which opens the editor on the saved settings, the projection chosen
// from the photo's metadata and its focal length. OK renders the result and
// reports the settings back, so the output and the recorded action are those
// of an apply with the same settings.
void prepareEditInvocation(Invocation& invocation);

// The line for an edit that ended without a result: the user cancelled, or
// the editor could not open (its reason was shown as an alert).
std::string editEndedWithoutResult(const InvocationOutcome& outcome,
                                   const std::filesystem::path& input);

}  // namespace Curvana::Host
