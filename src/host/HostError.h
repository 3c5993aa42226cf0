// The host program's one kind of failure: a one-line message and the exit
// code it ends the input (or the run) with. The stage that knows what went
// wrong throws it with its category; the batch loop catches it once per input
// and main catches whatever else escapes.
#pragma once

#include <stdexcept>
#include <string>

namespace Curvana::Host {

// Exit codes of the program (also listed by --help).
enum ExitCode : int {
    kExitOk = 0,
    kExitFailed = 1,        // the filter failed, was refused, or wrote nothing; out of memory
    kExitUsage = 2,         // bad command line or --params file
    kExitInput = 3,         // an input is missing, unsupported, too large or cannot be decoded
    kExitOutput = 4,        // an output cannot be written (folder, format, disk full, the input)
    kExitModule = 5,        // the filter module cannot be found or loaded
    kExitInterrupted = 130  // Ctrl-C, SIGTERM or SIGHUP
};

// The message names the file or option it is about; it never ends in a newline.
class HostError : public std::runtime_error {
public:
    HostError(ExitCode code, const std::string& message)
        : std::runtime_error(message), code_(code) {}
    ExitCode code() const { return code_; }

private:
    ExitCode code_;
};

// A failed write of `name` with errno `error`: a full disk (or quota) says so
// in plain words, anything else gives the system's reason. Category kExitOutput.
HostError writeError(const std::string& name, int error);

}  // namespace Curvana::Host
