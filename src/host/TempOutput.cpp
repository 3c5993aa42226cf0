#include "host/TempOutput.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "host/HostError.h"
#include "host/ModuleHost.h"

namespace Curvana::Host {
namespace fs = std::filesystem;

namespace {

// The temporary file being written, for a second Ctrl-C that ends the process
// at once: the handler may only call async-signal-safe functions.
char pendingTemp[4096];

extern "C" void onInterrupt(int) {
    if (abortFlag) {
        if (pendingTemp[0])
            ::unlink(pendingTemp);
        ::_exit(kExitInterrupted);
    }
    abortFlag = 1;
}

mode_t currentUmask() {
    const mode_t mask = ::umask(0);
    ::umask(mask);
    return mask;
}

}  // namespace

void installInterruptHandlers() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGINT, &action, nullptr);
}

TempOutput::TempOutput(const fs::path& target) : target_(target) {
    const fs::path folder = target.has_parent_path() ? target.parent_path() : fs::path(".");
    std::string name = (folder / ("." + target.filename().string() + ".curvana-XXXXXX")).string();
    const int fd = ::mkstemp(name.data());
    if (fd < 0)
        throw HostError(kExitOutput,
                        folder.string() + ": cannot write there (" + std::strerror(errno) + ")");
    ::close(fd);
    temp_ = name;
    if (temp_.string().size() < sizeof pendingTemp)
        std::strcpy(pendingTemp, temp_.c_str());
}

TempOutput::~TempOutput() {
    pendingTemp[0] = '\0';
    if (!committed_)
        ::unlink(temp_.c_str());
}

void TempOutput::commit() {
    static const mode_t mask = currentUmask();
    ::chmod(temp_.c_str(), 0666 & ~mask);
    if (::rename(temp_.c_str(), target_.c_str()) != 0)
        throw writeError(target_.string(), errno);
    committed_ = true;
    pendingTemp[0] = '\0';
}

}  // namespace Curvana::Host
