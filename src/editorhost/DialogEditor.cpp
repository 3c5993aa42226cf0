// The editor that libcurvana_editor.so serves: the dialog (editor/PDialog.h).
#include <memory>
#include <string>

#include "core/LocalizedString.h"
#include "editor/PDialog.h"
#include "editorhost/DialogFactory.h"
#include "session/PFilter.h"

namespace Project {

namespace {

constexpr const char* kLayoutBroken =
    "$$$/private/Curvana/Warning/LayoutBroken=The editor cannot open: its layout is damaged (^0).";

// One dialog per Run; RefreshProjection reaches the one that runs.
class PDialogEditor final : public PEditor {
public:
    Result Run(PFilter& filter, const char* layoutResource, DialogPlacement& placement) override {
        PDialog dialog(filter, placement);
        std::string error;
        if (!dialog.Build(layoutResource ? layoutResource : PFilter::kLayoutResource, error)) {
            filter.Host().Alert(Localize(kLayoutBroken, {error}), PFilter::processName(),
                                cvButtonsOK);
            return Result::Cancel;
        }
        struct Running {
            PDialog*& current;
            ~Running() { current = nullptr; }
        } running{current_};
        current_ = &dialog;
        return dialog.RunModal();
    }

    void RefreshProjection() override {
        if (current_)
            current_->RefreshProjection();
    }

private:
    PDialog* current_ = nullptr;
};

}  // namespace

std::unique_ptr<PEditor> CreateDialogEditor() {
    return std::make_unique<PDialogEditor>();
}

}  // namespace Project
