#include "TempOutput.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <random>
#include <string>

#include "HostError.h"
#include "ModuleHost.h"

namespace Curvana::Host {
namespace fs = std::filesystem;

namespace {

// A named temporary file being written, for a second signal that ends the
// process at once: the handler may only call async-signal-safe functions.
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

// A hidden name beside the target that no file has yet.
std::string hiddenName(const fs::path& folder, const fs::path& target) {
    static std::mt19937 rng(std::random_device{}());
    return (folder / ("." + target.filename().string() + ".curvana-" + std::to_string(rng())))
        .string();
}

}  // namespace

void installInterruptHandlers() {
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigemptyset(&action.sa_mask);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        ::sigaction(signal, &action, nullptr);
}

TempOutput::TempOutput(const fs::path& target)
    : target_(target), folder_(target.has_parent_path() ? target.parent_path() : fs::path(".")) {
    fd_ = ::open(folder_.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0666);
    if (fd_ >= 0) {
        path_ = "/proc/self/fd/" + std::to_string(fd_);
        return;
    }
    // File systems without unnamed files: a hidden name, removed on failure.
    std::string name = (folder_ / ("." + target.filename().string() + ".curvana-XXXXXX")).string();
    const int fd = ::mkstemp(name.data());
    if (fd < 0)
        throw HostError(kExitOutput,
                        folder_.string() + ": cannot write there (" + std::strerror(errno) + ")");
    ::close(fd);
    path_ = name;
    named_ = true;
    if (name.size() < sizeof pendingTemp)
        std::strcpy(pendingTemp, name.c_str());
}

TempOutput::~TempOutput() {
    if (fd_ >= 0)
        ::close(fd_);
    if (named_) {
        pendingTemp[0] = '\0';
        ::unlink(path_.c_str());
    }
}

void TempOutput::commit() {
    if (fd_ >= 0) {
        // Linked under a fresh hidden name, then renamed over the target, so
        // that an existing file (the input itself) is replaced in one step.
        std::string hidden;
        int linked = -1;
        for (int attempt = 0; attempt < 16 && linked != 0; ++attempt) {
            hidden = hiddenName(folder_, target_);
            linked = ::linkat(AT_FDCWD, path_.c_str(), AT_FDCWD, hidden.c_str(), AT_SYMLINK_FOLLOW);
            if (linked != 0 && errno != EEXIST)
                break;
        }
        if (linked != 0)
            throw writeError(target_.string(), errno);
        if (::rename(hidden.c_str(), target_.c_str()) != 0) {
            const int error = errno;
            ::unlink(hidden.c_str());
            throw writeError(target_.string(), error);
        }
        return;
    }
    static const mode_t mask = currentUmask();
    ::chmod(path_.c_str(), 0666 & ~mask);
    if (::rename(path_.c_str(), target_.c_str()) != 0)
        throw writeError(target_.string(), errno);
    named_ = false;
    pendingTemp[0] = '\0';
}

}  // namespace Curvana::Host
