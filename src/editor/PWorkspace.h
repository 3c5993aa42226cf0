#pragma once

#include <cstdint>
#include <string_view>

#include "framework/ViewId.h"

namespace Project {

class ConstraintFileContext;
class ConstraintSet;
struct PSettings;

// What the undo tasks and the Edit menu need of the editor: the live
// constraint list with its selection, the live settings, and the dialog's
// reactions. The editor dialog implements it; tests use a double.
//
// Re-solving: tasks never call Resolve directly but RequestResolve, so that
// a group of edits (a Clear of several constraints, a Paste) re-solves once:
// while a ResolveBatch is open, requests are collected and the last batch to
// close runs one Resolve.
class PWorkspace {
public:
    virtual ~PWorkspace() = default;

    // The live list (owned by the session).
    virtual ConstraintSet& Constraints() = 0;
    // The live settings record.
    virtual PSettings& Settings() = 0;
    // The image and camera the constraints belong to: the header of the
    // constraint bytes on the clipboard.
    virtual const ConstraintFileContext& FileContext() const = 0;

    // A constraint is about to leave the list (an undo of its addition, a
    // redo of its deletion, Cut or Clear): the dialog drops every pointer it
    // holds to it (the tool's constraint under edit, the highlight).
    virtual void ConstraintRemoving(int32_t id) = 0;
    // The settings observer: told the values about to be written into the
    // live settings by an undo or redo of a settings change (`fieldCode` as
    // in PSettingsFields.h), before they are written. The dialog rebuilds
    // the projection and the warp from them as a setting change does.
    virtual void SettingsChanging(const PSettings& coming, uint32_t fieldCode) = 0;

    // The dialog's part, used only while DialogExists().
    virtual bool DialogExists() const = 0;
    // Sets every control from the live settings.
    virtual void RefreshControls() = 0;
    virtual void RedrawPreview() = 0;
    // Gives the focus to the control with this view id; false when there is
    // none that can take it.
    virtual bool FocusView(Velmo::CViewId view) = 0;
    virtual void FocusDefaultControl() = 0;
    // A modal alert with an OK button (a refused paste).
    virtual void Alert(std::string_view message) = 0;

    // The one re-solve seam: runs the whole solve on the current list and
    // settings, refreshes every constraint's display copy and redraws.
    void RequestResolve();

    class ResolveBatch {
    public:
        explicit ResolveBatch(PWorkspace& workspace) : workspace_(workspace) {
            ++workspace_.batchDepth_;
        }
        ~ResolveBatch();
        ResolveBatch(const ResolveBatch&) = delete;
        ResolveBatch& operator=(const ResolveBatch&) = delete;

    private:
        PWorkspace& workspace_;
    };

protected:
    virtual void Resolve() = 0;

private:
    int batchDepth_ = 0;
    bool resolvePending_ = false;
};

}  // namespace Project
