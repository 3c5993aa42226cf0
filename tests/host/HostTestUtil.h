// Helpers shared by the host's tests: scratch folders, running the curvana
// binary, small ICC profiles and whole-image reads.
#pragma once

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "host/Cli.h"
#include "host/Raster.h"

namespace Curvana::Host::Test {

namespace fs = std::filesystem;

// A fresh folder, removed with its contents at the end of the test.
class ScratchDir {
public:
    ScratchDir() {
        std::string pattern = (fs::temp_directory_path() / "curvana-host-test-XXXXXX").string();
        if (!::mkdtemp(pattern.data()))
            throw std::runtime_error("mkdtemp failed");
        path_ = pattern;
    }
    ~ScratchDir() {
        std::error_code ec;
        fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }

private:
    fs::path path_;
};

struct RunResult {
    int exitCode = -1;  // 128 + the signal when one ended the process
    std::string err;    // standard error
    std::string out;    // standard output
    long peakRssKiB = 0;
    std::vector<std::string> errLines() const {
        std::vector<std::string> lines;
        std::istringstream in(err);
        for (std::string l; std::getline(in, l);)
            if (!l.empty())
                lines.push_back(l);
        return lines;
    }
};

// Runs `executable args...` with extra environment variables, standard error
// captured; killed after timeoutSeconds (a hang fails instead of stalling).
inline RunResult runProgram(const fs::path& executable, const std::vector<std::string>& args,
                            const std::map<std::string, std::string>& env = {},
                            int timeoutSeconds = 120) {
    std::string errName = (fs::temp_directory_path() / "curvana-test-stderr-XXXXXX").string();
    const int errFd = ::mkstemp(errName.data());
    std::string outName = (fs::temp_directory_path() / "curvana-test-stdout-XXXXXX").string();
    const int outFd = ::mkstemp(outName.data());
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(errFd, STDERR_FILENO);
        ::dup2(outFd, STDOUT_FILENO);
        for (const auto& [k, v] : env)
            ::setenv(k.c_str(), v.c_str(), 1);
        std::vector<char*> argv;
        std::string exe = executable.string();
        argv.push_back(exe.data());
        std::vector<std::string> copy = args;
        for (auto& a : copy)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        ::alarm(static_cast<unsigned>(timeoutSeconds));  // survives exec: SIGALRM ends it
        ::execv(exe.c_str(), argv.data());
        ::_exit(127);
    }
    int status = 0;
    struct rusage usage {};
    ::wait4(pid, &status, 0, &usage);
    ::close(errFd);
    ::close(outFd);
    RunResult r;
    r.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.peakRssKiB = usage.ru_maxrss;
    std::ifstream in(errName);
    std::stringstream text;
    text << in.rdbuf();
    r.err = text.str();
    ::unlink(errName.c_str());
    std::ifstream outIn(outName);
    std::stringstream outText;
    outText << outIn.rdbuf();
    r.out = outText.str();
    ::unlink(outName.c_str());
    return r;
}

// A file of the fuzz regression corpus (crafted and found inputs).
inline fs::path regressionFile(const std::string& name) {
    return fs::path(CURVANA_REGRESSIONS) / name;
}

// A small ICC profile that libpng's checks accept: a 128-byte header (size,
// display class, the mode's colour space, XYZ connection space under D50) and
// one copyright tag of varied text. (This system's libpng refuses iCCP chunks
// that compress very small, so the text must not be all alike.)
inline std::vector<uint8_t> makeIcc(Mode mode = Mode::RGB) {
    constexpr uint32_t kSize = 600;
    std::vector<uint8_t> icc(kSize, 0);
    icc[2] = kSize >> 8, icc[3] = kSize & 0xFF;  // big-endian size
    const char* space = mode == Mode::Gray   ? "GRAY"
                        : mode == Mode::CMYK ? "CMYK"
                        : mode == Mode::Lab  ? "Lab "
                                             : "RGB ";
    std::memcpy(&icc[8], "\x02\x10\x00\x00", 4);  // version 2.1
    std::memcpy(&icc[12], mode == Mode::CMYK ? "prtr" : "mntr", 4);
    std::memcpy(&icc[16], space, 4);
    std::memcpy(&icc[20], "XYZ ", 4);
    std::memcpy(&icc[36], "acsp", 4);
    const uint8_t d50[12] = {0, 0, 0xF6, 0xD6, 0, 1, 0, 0, 0, 0, 0xD3, 0x2D};
    std::memcpy(&icc[68], d50, 12);
    icc[131] = 1;  // one tag: 'cprt' at 144, the rest of the profile, of type 'text'
    std::memcpy(&icc[132], "cprt", 4);
    icc[139] = 144;
    icc[142] = (kSize - 144) >> 8, icc[143] = (kSize - 144) & 0xFF;
    std::memcpy(&icc[144], "text", 4);
    std::mt19937 rng(42);
    for (uint32_t i = 152; i + 1 < kSize; ++i)
        icc[i] = static_cast<uint8_t>(' ' + rng() % 90);
    return icc;
}

inline Raster readWhole(const fs::path& path) {
    auto source = openImage(path);
    Raster r = Raster::allocate(source->info());
    source->readInterleaved(source->info().bounds(), r.data.data(),
                            static_cast<ptrdiff_t>(r.rowBytes()));
    return r;
}

// Random host values of the image's mode and depth (16-bit within 0 ... 32768).
inline Raster randomRaster(const ImageInfo& info, uint32_t seed) {
    Raster r = Raster::allocate(info);
    std::mt19937 rng(seed);
    if (info.depth == 8) {
        for (auto& v : r.data)
            v = static_cast<uint8_t>(rng());
    } else {
        auto* p = reinterpret_cast<uint16_t*>(r.data.data());
        for (size_t i = 0; i < r.data.size() / 2; ++i)
            p[i] = static_cast<uint16_t>(rng() % 32769);
    }
    return r;
}

// The image mirrored left to right (what the fake module writes).
inline Raster mirrored(const Raster& in) {
    Raster out = in;
    const size_t px = in.pixelBytes();
    for (int32_t y = 0; y < in.info.height; ++y)
        for (int32_t x = 0; x < in.info.width; ++x)
            std::memcpy(out.row(y) + px * static_cast<size_t>(x),
                        in.row(y) + px * static_cast<size_t>(in.info.width - 1 - x), px);
    return out;
}

// Largest absolute difference of two rasters of the same shape, in host units.
inline int maxDifference(const Raster& a, const Raster& b) {
    int worst = 0;
    if (a.info.depth == 8) {
        for (size_t i = 0; i < a.data.size(); ++i)
            worst = std::max(worst, std::abs(a.data[i] - b.data[i]));
    } else {
        const auto* pa = reinterpret_cast<const uint16_t*>(a.data.data());
        const auto* pb = reinterpret_cast<const uint16_t*>(b.data.data());
        for (size_t i = 0; i < a.data.size() / 2; ++i)
            worst = std::max(worst, std::abs(pa[i] - pb[i]));
    }
    return worst;
}

// Each of `parts` occurs in `text`.
inline void expectContains(const std::string& text, std::initializer_list<std::string_view> parts) {
    for (std::string_view part : parts)
        EXPECT_NE(text.find(part), std::string::npos) << part << " not in:\n" << text;
}

// runCli in this process on the given command line (program name first).
inline int runCliOn(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    return runCli(static_cast<int>(args.size()), argv.data());
}

inline std::vector<uint8_t> readBytes(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeBytes(const fs::path& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
}

inline double meanDifference(const Raster& a, const Raster& b) {
    double sum = 0;
    for (size_t i = 0; i < a.data.size(); ++i)
        sum += std::abs(a.data[i] - b.data[i]);
    return sum / static_cast<double>(a.data.size());
}

}  // namespace Curvana::Host::Test
