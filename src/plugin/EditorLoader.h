#pragma once

#include <filesystem>
#include <memory>

#include "session/PFilterComponents.h"

namespace Project {

// The module's editor: a proxy that opens the editor object
// (libcurvana_editor.so, see session/EditorObject.h) on the first dialog and
// hands every call to the editor the object makes. Until then nothing of the
// editor, the UI framework or Qt is mapped. An object that is missing, cannot
// be opened or does not match is reported with its cause, and Run ends like
// Cancel without touching the image. The object stays mapped for the rest of
// the process (Qt cannot be unloaded safely).
class LoadedEditor final : public PEditor {
public:
    explicit LoadedEditor(std::filesystem::path objectPath);
    ~LoadedEditor() override;

    Result Run(PFilter& filter, const char* layoutResource, DialogPlacement& placement) override;
    void RefreshProjection() override;

private:
    // Opens the object and makes the editor; the reason on failure.
    std::string Open();

    std::filesystem::path objectPath_;
    void* library_ = nullptr;  // the dlopen handle
    std::unique_ptr<PEditor> editor_;
};

// The folder of the shared object this code was linked into (the module's).
std::filesystem::path ThisObjectFolder();

}  // namespace Project
