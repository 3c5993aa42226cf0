// Outputs that are never seen half-written, and the signal handling that
// keeps a run from leaving a partial file.
#pragma once

#include <filesystem>

namespace Curvana::Host {

// SIGINT, SIGTERM and SIGHUP ask the module to abort (the host's abort flag):
// the run ends cleanly with exit code 130. A second one ends the process at
// once, removing a named temporary output being written.
void installInterruptHandlers();

// An output written without a name in its folder (O_TMPFILE) and linked in
// under the target's name by commit(): a run that ends any other way, even
// by SIGKILL, leaves nothing. Where the file system has no unnamed files, a
// hidden temporary name is used instead and removed by the destructor or the
// signal handlers. Throws HostError (kExitOutput) when the folder takes no
// file.
class TempOutput {
public:
    explicit TempOutput(const std::filesystem::path& target);
    ~TempOutput();
    TempOutput(const TempOutput&) = delete;
    TempOutput& operator=(const TempOutput&) = delete;

    // Where the writers write (for an unnamed file, its /proc/self/fd link).
    const std::filesystem::path& path() const { return path_; }
    // Puts the file in place under the target's name, replacing what was
    // there. Throws HostError.
    void commit();

private:
    std::filesystem::path target_, folder_, path_;
    int fd_ = -1;         // the unnamed file, or -1
    bool named_ = false;  // path_ is a hidden temporary name to remove
};

}  // namespace Curvana::Host
