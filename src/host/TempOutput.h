// Outputs written under a temporary name and put in place only when whole,
// and the signal handling that keeps a run from leaving a partial file.
#pragma once

#include <filesystem>

namespace Curvana::Host {

// Ctrl-C asks the module to abort (the host's abort flag); a second Ctrl-C
// ends the process at once, removing the temporary output being written.
void installInterruptHandlers();

// An output written under a temporary name in its own folder and renamed
// into place by commit(); removed otherwise. Throws HostError (kExitOutput)
// when the folder takes no file.
class TempOutput {
public:
    explicit TempOutput(const std::filesystem::path& target);
    ~TempOutput();
    TempOutput(const TempOutput&) = delete;
    TempOutput& operator=(const TempOutput&) = delete;

    // Where the writers write.
    const std::filesystem::path& path() const { return temp_; }
    // Puts the file in place under the target's name. Throws HostError.
    void commit();

private:
    std::filesystem::path target_, temp_;
    bool committed_ = false;
};

}  // namespace Curvana::Host
