#include "ProcessMemory.h"

#include <malloc.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

namespace Curvana::HostKit {
namespace {

constexpr const char* kHugePages = "glibc.malloc.hugetlb=1";

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
    const char* current = std::getenv("GLIBC_TUNABLES");
    const std::string before = current ? current : "";
    if (kOwnAllocator || argv == nullptr || argv[0] == nullptr ||
        before.find("glibc.malloc.hugetlb") != std::string::npos || !hugePagesOnRequest())
        return;
    const std::string tunables = before.empty() ? kHugePages : before + ":" + kHugePages;
    if (setenv("GLIBC_TUNABLES", tunables.c_str(), 1) != 0)
        return;
    execv("/proc/self/exe", argv);
    // Still here: no restart. The variable is put back as it was, so that
    // nothing this process starts inherits it.
    if (current)
        setenv("GLIBC_TUNABLES", before.c_str(), 1);
    else
        unsetenv("GLIBC_TUNABLES");
}

}  // namespace Curvana::HostKit
