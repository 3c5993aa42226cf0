// The bytes of one fuzz input as a file, for entry points that take a path
// (the decoders open files, as the program does): an anonymous memory file
// reached through /proc/self/fd, rewritten for every input.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace Curvana::Fuzz {

class FuzzFile {
public:
    FuzzFile() : fd_(::memfd_create("curvana-fuzz", MFD_CLOEXEC)) {
        if (fd_ < 0)
            std::abort();
        path_ = "/proc/self/fd/" + std::to_string(fd_);
    }
    ~FuzzFile() { ::close(fd_); }
    FuzzFile(const FuzzFile&) = delete;
    FuzzFile& operator=(const FuzzFile&) = delete;

    // Replaces the file's contents; returns its path.
    const std::string& assign(const uint8_t* data, size_t size) {
        if (::ftruncate(fd_, 0) != 0)
            std::abort();
        for (size_t done = 0; done < size;) {
            const ssize_t n = ::pwrite(fd_, data + done, size - done, static_cast<off_t>(done));
            if (n <= 0)
                std::abort();
            done += static_cast<size_t>(n);
        }
        return path_;
    }

private:
    int fd_;
    std::string path_;
};

}  // namespace Curvana::Fuzz
