// The help texts of the curvana command line: the usage summary, the help of
// each command and the list of exit codes.
#pragma once

#include <string>

namespace Curvana::Host {

// The four-line usage summary that a usage error ends with.
extern const char* const kUsage;

// Prints the help of command ("apply", "repeat", "edit"; anything else: the
// overview) to standard output.
void printHelp(const std::string& command);

}  // namespace Curvana::Host
