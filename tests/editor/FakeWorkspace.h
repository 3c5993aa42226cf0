#pragma once

#include <string>
#include <vector>

#include "constraints/ConstraintFile.h"
#include "constraints/ConstraintSet.h"
#include "editor/PWorkspace.h"
#include "session/PSettings.h"

namespace Project::test {

// The dialog's side of the workspace, recording what the tasks ask of it.
class FakeWorkspace : public PWorkspace {
public:
    FakeWorkspace() {
        photo.width = 4000;
        photo.height = 3000;
        photo.make = "Kestrix";
        photo.model = "K1";
        photo.lens = "8mm";
    }

    ConstraintSet& Constraints() override { return set; }
    PSettings& Settings() override { return settings; }
    const ConstraintFileContext& FileContext() const override { return photo; }
    void ConstraintRemoving(int32_t id) override { removing.push_back(id); }
    void SettingsChanging(const PSettings& coming, uint32_t code) override {
        // What the observer sees: the coming values, the live ones unchanged.
        changing.push_back({coming.focalLength, settings.focalLength, code});
    }
    bool DialogExists() const override { return dialog; }
    void RefreshControls() override { ++refreshes; }
    void RedrawPreview() override { ++redraws; }
    bool FocusView(Velmo::CViewId view) override {
        if (view != focusable)
            return false;
        focused = view;
        return true;
    }
    void FocusDefaultControl() override { focused = kDefaultFocus; }
    void Alert(std::string_view message) override { alerts.emplace_back(message); }

    struct Change {
        float comingFocal;
        float liveFocal;
        uint32_t code;
    };
    static constexpr Velmo::CViewId kDefaultFocus = 1;

    ConstraintSet set;
    PSettings settings{4000};
    SimpleConstraintFileContext photo;
    bool dialog = true;
    Velmo::CViewId focusable = Velmo::kNoView;
    Velmo::CViewId focused = Velmo::kNoView;
    int resolves = 0;
    int refreshes = 0;
    int redraws = 0;
    std::vector<int32_t> removing;
    std::vector<Change> changing;
    std::vector<std::string> alerts;

protected:
    void Resolve() override { ++resolves; }
};

}  // namespace Project::test
