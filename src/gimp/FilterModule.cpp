#include "FilterModule.h"

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace Curvana::Gimp {
namespace fs = std::filesystem;

namespace {

fs::path locate() {
    std::vector<std::string> tried;
    std::error_code ec;
    const fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    if (!ec) {
        const fs::path beside = exe.parent_path() / "libcurvana.so";
        if (fs::is_regular_file(beside, ec))
            return beside;
        tried.push_back(beside.string());
    }
    if (const char* env = std::getenv("CURVANA_MODULE"); env && *env) {
        if (fs::is_regular_file(env, ec))
            return env;
        tried.push_back(std::string(env) + " ($CURVANA_MODULE)");
    }
    std::string list;
    for (const std::string& t : tried)
        list += (list.empty() ? "" : ", ") + t;
    throw std::runtime_error("the filter module libcurvana.so was not found (looked at " + list +
                             "); install the plug-in again with scripts/install-gimp-plugin");
}

}  // namespace

std::unique_ptr<FilterModule> FilterModule::open() {
    const fs::path path = locate();
    std::unique_ptr<FilterModule> m(new FilterModule());
    m->handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!m->handle_) {
        const char* why = ::dlerror();
        throw std::runtime_error(path.string() + ": cannot load the filter module (" +
                                 (why ? why : "unknown error") + ")");
    }
    m->entry_ = reinterpret_cast<CvEntryPoint>(::dlsym(m->handle_, "EntryFI"));
    if (!m->entry_)
        throw std::runtime_error(path.string() + ": not a Curvana filter module (no EntryFI)");
    return m;
}

FilterModule::~FilterModule() {
    if (entry_ && data_ != 0) {
        CvFilterRecord record{};
        record.abiVersion = CURVANA_ABI_VERSION;
        record.structSize = sizeof(CvFilterRecord);
        int16_t result = 0;
        entry_(cvSelectorUnload, &record, &data_, &result);
    }
    if (handle_)
        ::dlclose(handle_);
}

int16_t FilterModule::call(int16_t selector, CvFilterRecord& record) {
    int16_t result = 0;
    entry_(selector, &record, &data_, &result);
    return result;
}

}  // namespace Curvana::Gimp
