// The curvana program: the command line parsed, the settings to replay
// loaded, the filter module loaded, and the batch run. The pieces live in
// CliOptions (parsing), CliHelp (help texts), ApplyDescriptor (what an apply
// hands the filter), TempOutput (outputs and signals) and Batch (the loop).
#pragma once

namespace Curvana::Host {

// Returns the exit code. Failures of the command line, the replayed settings
// and the module are thrown as HostError (main reports them); failures of
// single inputs are reported by the batch loop.
int runCli(int argc, char** argv);

}  // namespace Curvana::Host
