#include "core/FileIO.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <system_error>

namespace Project {

namespace {

// A POSIX file descriptor closed on scope exit.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int Get() const { return fd_; }
    // Closes now, reporting whether the close succeeded.
    bool Close() {
        const int fd = fd_;
        fd_ = -1;
        return ::close(fd) == 0;
    }

private:
    int fd_;
};

}  // namespace

std::optional<std::vector<uint8_t>> ReadFileBytes(const std::filesystem::path& file,
                                                  size_t maxBytes) {
    FileDescriptor fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.Get() < 0)
        return std::nullopt;
    std::vector<uint8_t> bytes;
    uint8_t chunk[16384];
    for (;;) {
        const ssize_t n = ::read(fd.Get(), chunk, sizeof chunk);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return std::nullopt;
        if (n == 0)
            break;
        if (bytes.size() + static_cast<size_t>(n) > maxBytes)
            return std::nullopt;
        bytes.insert(bytes.end(), chunk, chunk + n);
    }
    return bytes;
}

bool WriteFileAtomically(const std::filesystem::path& file, std::span<const uint8_t> bytes) {
    std::error_code ec;
    if (file.has_parent_path()) {
        std::filesystem::create_directories(file.parent_path(), ec);
        if (ec)
            return false;
    }
    std::filesystem::path temp = file;
    temp += "." + std::to_string(::getpid()) + ".tmp";

    bool ok = false;
    {
        FileDescriptor fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
        if (fd.Get() < 0)
            return false;
        size_t written = 0;
        while (written < bytes.size()) {
            const ssize_t n = ::write(fd.Get(), bytes.data() + written, bytes.size() - written);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                break;
            written += static_cast<size_t>(n);
        }
        ok = written == bytes.size() && ::fsync(fd.Get()) == 0;
        ok = fd.Close() && ok;
    }
    if (ok)
        ok = std::rename(temp.c_str(), file.c_str()) == 0;
    if (!ok)
        std::filesystem::remove(temp, ec);
    return ok;
}

}  // namespace Project
