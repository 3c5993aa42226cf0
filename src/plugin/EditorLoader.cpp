#include "plugin/EditorLoader.h"

#include <dlfcn.h>

#include <string>
#include <utility>

#include "core/LocalizedString.h"
#include "session/EditorObject.h"
#include "session/PFilter.h"

namespace Project {

namespace {

constexpr const char* kEditorMissing =
    "$$$/private/Curvana/Warning/EditorMissing=The editor cannot open: ^0";

}  // namespace

LoadedEditor::LoadedEditor(std::filesystem::path objectPath) : objectPath_(std::move(objectPath)) {}

LoadedEditor::~LoadedEditor() {
    // The editor's code lives in the object: destroy it first.
    editor_.reset();
    if (library_)
        dlclose(library_);
}

std::string LoadedEditor::Open() {
    std::error_code ec;
    if (!std::filesystem::exists(objectPath_, ec))
        return objectPath_.string() + " is missing.";
    // RTLD_NODELETE: Qt keeps threads and exit handlers that must not lose
    // their code; RTLD_LOCAL: the object's symbols stay its own.
    struct Close {
        void operator()(void* handle) const { dlclose(handle); }
    };
    std::unique_ptr<void, Close> library(
        dlopen(objectPath_.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE));
    if (!library) {
        const char* why = dlerror();
        return why ? std::string(why) : objectPath_.string() + " cannot be loaded.";
    }
    const auto factory =
        reinterpret_cast<CurvanaEditorFactory>(dlsym(library.get(), kEditorFactorySymbol));
    if (!factory)
        return objectPath_.string() + " is not the editor object (no " + kEditorFactorySymbol +
               ").";
    std::unique_ptr<PEditor> editor(factory(kEditorInterfaceVersion));
    if (!editor)
        return objectPath_.string() + " does not match this module (interface version " +
               std::to_string(kEditorInterfaceVersion) + ").";
    library_ = library.release();
    editor_ = std::move(editor);
    return {};
}

PEditor::Result LoadedEditor::Run(PFilter& filter, const char* layoutResource,
                                  DialogPlacement& placement) {
    if (!editor_) {
        const std::string why = Open();
        if (!editor_) {
            filter.Host().Alert(Localize(kEditorMissing, {why}), PFilter::processName(),
                                cvButtonsOK);
            return Result::Cancel;
        }
    }
    return editor_->Run(filter, layoutResource, placement);
}

void LoadedEditor::RefreshProjection() {
    if (editor_)
        editor_->RefreshProjection();
}

std::filesystem::path ThisObjectFolder() {
    static const char anchor = 0;
    Dl_info info{};
    if (dladdr(&anchor, &info) == 0 || !info.dli_fname)
        return {};
    return std::filesystem::path(info.dli_fname).parent_path();
}

}  // namespace Project
