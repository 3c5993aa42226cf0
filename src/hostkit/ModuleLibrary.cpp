#include "ModuleLibrary.h"

#include <dlfcn.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace Curvana::HostKit {
namespace fs = std::filesystem;

CvFilterRecord emptyRecord() {
    CvFilterRecord record{};
    record.abiVersion = CURVANA_ABI_VERSION;
    record.structSize = sizeof(CvFilterRecord);
    return record;
}

fs::path ModuleLibrary::locate(std::string_view advice) {
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
    throw ModuleError("the filter module libcurvana.so was not found (looked at " + list + "; " +
                      std::string(advice) + ")");
}

std::unique_ptr<ModuleLibrary> ModuleLibrary::open(const fs::path& path) {
    std::unique_ptr<ModuleLibrary> m(new ModuleLibrary());
    // A path without a slash would make dlopen search the library path.
    const std::string name = path.has_parent_path() ? path.string() : ("./" + path.string());
    m->handle_ = ::dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!m->handle_) {
        const char* why = ::dlerror();
        throw ModuleError(path.string() + ": cannot load the filter module (" +
                          (why ? why : "unknown error") + ")");
    }
    m->entry_ = reinterpret_cast<CvEntryPoint>(::dlsym(m->handle_, "EntryFI"));
    if (!m->entry_)
        throw ModuleError(path.string() + ": not a Curvana filter module (no EntryFI)");
    return m;
}

ModuleLibrary::~ModuleLibrary() {
    if (entry_ && data_ != 0) {
        CvFilterRecord record = emptyRecord();
        int16_t result = 0;
        entry_(cvSelectorUnload, &record, &data_, &result);
    }
    if (handle_)
        ::dlclose(handle_);
}

int16_t ModuleLibrary::call(int16_t selector, CvFilterRecord& record) {
    int16_t result = 0;
    entry_(selector, &record, &data_, &result);
    return result;
}

ModuleLibrary::Failure ModuleLibrary::filter(CvFilterRecord& record, bool parameters) {
    Failure failure;
    auto step = [&](int16_t selector) {
        const int16_t result = call(selector, record);
        if (result != 0 && failure.error == 0)
            failure = Failure{result, selector};
        return result == 0;
    };
    if (parameters && !step(cvSelectorParameters))
        return failure;
    if (step(cvSelectorPrepare)) {
        if (step(cvSelectorStart))
            step(cvSelectorContinue);
        step(cvSelectorFinish);
    }
    return failure;
}

const CvRegistration* ModuleLibrary::registration() {
    CvFilterRecord record = emptyRecord();
    intptr_t answer = 0;  // a slot of its own: data_ holds the instance
    int16_t result = 0;
    entry_(cvSelectorRegistration, &record, &answer, &result);
    const auto* reg = reinterpret_cast<const CvRegistration*>(answer);
    if (result != 0 || !reg || reg->abiVersion != CURVANA_ABI_VERSION)
        return nullptr;
    return reg;
}

}  // namespace Curvana::HostKit
