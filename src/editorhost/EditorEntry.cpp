// The editor object's entry (libcurvana_editor.so and the tests' doubles):
// the C-linkage factory the module looks up, and the Qt application the
// editor runs under.
#include <QApplication>

#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include "core/LocalizedString.h"
#include "editorhost/DialogFactory.h"
#include "session/EditorObject.h"
#include "session/PFilter.h"

namespace Project {

namespace {

constexpr const char* kNoDisplay =
    "$$$/private/Curvana/Warning/NoDisplay=The editor needs a display, and none is set: neither "
    "DISPLAY nor WAYLAND_DISPLAY names one (QT_QPA_PLATFORM=offscreen runs the editor without "
    "one).";
constexpr const char* kNoWidgets =
    "$$$/private/Curvana/Warning/NoWidgets=The editor cannot open: the host runs Qt without "
    "widgets.";

bool IsSet(const char* variable) {
    const char* value = std::getenv(variable);
    return value && *value;
}

// Qt aborts the process when its platform cannot connect, so the editor
// checks first: an explicit platform, or a display to connect to.
bool DisplayAvailable() {
    return IsSet("QT_QPA_PLATFORM") || IsSet("DISPLAY") || IsSet("WAYLAND_DISPLAY");
}

// The dialog under a QApplication: the host's own when it has one, otherwise
// one made for the length of the dialog (its arguments must outlive it).
class EditorApplication final : public PEditor {
public:
    explicit EditorApplication(std::unique_ptr<PEditor> dialog) : dialog_(std::move(dialog)) {}

    Result Run(PFilter& filter, const char* layoutResource, DialogPlacement& placement) override {
        std::unique_ptr<QApplication> own;
        if (QCoreApplication* existing = QCoreApplication::instance()) {
            if (!qobject_cast<QApplication*>(existing))
                return Refuse(filter, kNoWidgets);
        } else {
            if (!DisplayAvailable())
                return Refuse(filter, kNoDisplay);
            static int argc = 1;
            static char name[] = "curvana";
            static char* argv[] = {name, nullptr};
            own = std::make_unique<QApplication>(argc, argv);
        }
        return dialog_->Run(filter, layoutResource, placement);
    }
    void RefreshProjection() override { dialog_->RefreshProjection(); }

private:
    static Result Refuse(PFilter& filter, const char* key) {
        filter.Host().Alert(Localize(key), PFilter::processName(), cvButtonsOK);
        return Result::Cancel;
    }

    std::unique_ptr<PEditor> dialog_;
};

}  // namespace

}  // namespace Project

extern "C" __attribute__((visibility("default"))) Project::PEditor* CurvanaCreateEditor(
    uint32_t interfaceVersion) noexcept {
    if (interfaceVersion != Project::kEditorInterfaceVersion)
        return nullptr;
    try {
        std::unique_ptr<Project::PEditor> dialog = Project::CreateDialogEditor();
        if (!dialog)
            return nullptr;
        return std::make_unique<Project::EditorApplication>(std::move(dialog)).release();
    } catch (...) {
        return nullptr;
    }
}

// The module calls it through this type.
[[maybe_unused]] static constexpr CurvanaEditorFactory kFactoryType = &CurvanaCreateEditor;
