#include "ProcessMemory.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace Curvana::HostKit {
namespace {

constexpr const char* kHugePages = "glibc.malloc.hugetlb=1";
constexpr int kHeapStep = 64 << 20;    // heap growth, and free heap kept at its top
constexpr int kOwnMapping = 32 << 20;  // from this size a block is mapped on its own

// The address sanitizer's allocator takes the place of glibc's.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kOwnAllocator = true;
#else
constexpr bool kOwnAllocator = false;
#endif

// True when the kernel gives huge pages to memory that asks for them and not
// to other memory: only then does the setting change anything.
bool hugePagesOnRequest() {
    std::ifstream in("/sys/kernel/mm/transparent_hugepage/enabled");
    std::string modes;
    std::getline(in, modes);
    return modes.find("[madvise]") != std::string::npos;
}

}  // namespace

void setUpProcessMemory(char** argv) {
    mallopt(M_ARENA_MAX, 1);
    // Pixel blocks and tiles (a few hundred KiB each) come from the heap,
    // which grows in large steps and keeps what is freed for the next ones:
    // glibc asks for huge pages only behind a step of at least one huge page,
    // a block mapped on its own gets ordinary pages, and on a virtual machine
    // every ordinary page touched for the first time traps to the
    // hypervisor. Setting these fixes glibc's own thresholds, which would
    // otherwise send such blocks to mappings of their own until one is freed.
    mallopt(M_TOP_PAD, kHeapStep);
    mallopt(M_MMAP_THRESHOLD, kOwnMapping);
    mallopt(M_TRIM_THRESHOLD, kHeapStep);
    const char* current = std::getenv("GLIBC_TUNABLES");
    const std::string before = current ? current : "";
    if (kOwnAllocator || argv == nullptr || argv[0] == nullptr ||
        before.find("glibc.malloc.hugetlb") != std::string::npos || !hugePagesOnRequest())
        return;
    const std::string tunables = before.empty() ? kHugePages : before + ":" + kHugePages;
    if (setenv("GLIBC_TUNABLES", tunables.c_str(), 1) != 0)
        return;
    // The program's own path, so that the process keeps its name (a restart
    // through /proc/self/exe would be listed as "exe").
    std::error_code error;
    const std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", error);
    execv(error ? "/proc/self/exe" : self.c_str(), argv);
    // Still here: no restart. The variable is put back as it was, so that
    // nothing this process starts inherits it.
    if (current)
        setenv("GLIBC_TUNABLES", before.c_str(), 1);
    else
        unsetenv("GLIBC_TUNABLES");
}

}  // namespace Curvana::HostKit
