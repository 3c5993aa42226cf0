#include "EditCommand.h"

namespace Curvana::Host {

const char* const kEditHelp =
    "usage: curvana edit IN -o OUT [options]\n\n"
    "Opens the filter's editor on the input, with the last saved settings, the projection\n"
    "chosen from the photo's metadata and its focal length. OK writes OUT exactly as\n"
    "'curvana apply' would with the same settings, and records them like apply (replay them\n"
    "with 'curvana repeat' or --params); Cancel writes nothing and exits with 1.\n"
    "The editor needs a display ($DISPLAY or $WAYLAND_DISPLAY), or QT_QPA_PLATFORM=offscreen.\n\n"
    "options:\n";

void prepareEditInvocation(Invocation& invocation) {
    invocation.parameters = true;
    invocation.descriptor = nullptr;
}

std::string editEndedWithoutResult(const InvocationOutcome& outcome,
                                   const std::filesystem::path& input) {
    if (outcome.alerts.empty())
        return "edit: cancelled; nothing written for " + input.string();
    return "edit: the editor ended without a result for " + input.string() +
           " (see its message above); nothing written";
}

}  // namespace Curvana::Host
