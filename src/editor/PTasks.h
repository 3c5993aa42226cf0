#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "constraints/Constraint.h"
#include "framework/CTask.h"
#include "framework/ViewId.h"
#include "session/PSettings.h"

namespace Project {

class PWorkspace;

// The editor's undo steps. Each records an edit that has already been made
// (pushing does not perform it) and works on the live state through the
// workspace. Constraint tasks never point into the live list: they own
// clones and find the live constraint again by its identifier. Every undo
// and redo of a constraint task ends with a re-solve (PWorkspace::
// RequestResolve); additions, removals and adjustments also repair the
// selection (ConstraintSet::RepairSelection).

class PTask : public Velmo::CTask {
protected:
    explicit PTask(PWorkspace& workspace) : workspace_(workspace) {}
    PWorkspace& Workspace() const { return workspace_; }
    // Re-solve, then the selection repair.
    void ResolveAndRepair();

private:
    PWorkspace& workspace_;
};

class PConstraintTask : public PTask {
public:
    static constexpr std::string_view kName =
        "$$$/Curvana/Task/Setting/Changed=Constraint Manipulating";
    std::string Name() const override { return std::string(kName); }

    // The task's own copy of the constraint (its first field).
    const Constraint& Copy() const { return *copy_; }
    int32_t ConstraintId() const { return copy_->GetId(); }

protected:
    PConstraintTask(PWorkspace& workspace, const Constraint& constraint);
    Constraint& MutableCopy() { return *copy_; }
    // The live constraint with the copy's identifier, or null.
    Constraint* Live() const;
    // Adds a clone of the copy to the list (it keeps the identifier).
    void AddCopyToList();
    // Removes the live constraint with the copy's identifier, telling the
    // workspace first.
    void RemoveFromList();

private:
    std::unique_ptr<Constraint> copy_;
};

// A line completed or a polygon closed. Undo removes it, redo adds it back
// with the same identifier.
class PAddConstraintTask final : public PConstraintTask {
public:
    static constexpr std::string_view kName =
        "$$$/Curvana/Task/Setting/AddConstraint=Add Constraint";
    PAddConstraintTask(PWorkspace& workspace, const Constraint& added)
        : PConstraintTask(workspace, added) {}
    std::string Name() const override { return std::string(kName); }
    void Undo() override;
    void Redo() override;
};

// Pushed just before the constraint is removed. Undo adds it back, redo
// removes it again.
class PDeleteConstraintTask final : public PConstraintTask {
public:
    static constexpr std::string_view kName =
        "$$$/Curvana/Task/Setting/DeleteConstraint=Delete Constraint";
    PDeleteConstraintTask(PWorkspace& workspace, const Constraint& deleted)
        : PConstraintTask(workspace, deleted) {}
    std::string Name() const override { return std::string(kName); }
    void Undo() override;
    void Redo() override;
};

// A drag that changed a constraint's geometry. Undo and redo are one swap:
// the live constraint takes the geometry of the second copy, then the two
// copies exchange geometry, so the next call goes the other way. A line's
// geometry is its two endpoints; a polygon's is all its vertices (its fit and
// display copy follow from the re-solve).
class PAdjustConstraintTask final : public PConstraintTask {
public:
    static constexpr std::string_view kName =
        "$$$/Curvana/Task/Setting/AdjustConstraint=Adjust Constraint";
    // `after`: the constraint as the drag left it; `before`: the tool's
    // backup from the start of the drag. Both must be of the same class.
    PAdjustConstraintTask(PWorkspace& workspace, const Constraint& after, const Constraint& before);
    std::string Name() const override { return std::string(kName); }
    void Undo() override { Swap(); }
    void Redo() override { Swap(); }
    const Constraint& SecondCopy() const { return *second_; }

private:
    void Swap();
    std::unique_ptr<Constraint> second_;
};

// A line's orientation toggled. A swap: the copy's orientation and angle are
// read, the live line and the copy get the stored ones, and the values read
// become the stored ones.
class PMarkConstraintTask final : public PConstraintTask {
public:
    static constexpr std::string_view kName =
        "$$$/Curvana/Task/Setting/MarkConstraint=Constraint Orientation";
    // `line` as it is after the toggle; the orientation and fixed angle
    // (degrees) it had before.
    PMarkConstraintTask(PWorkspace& workspace, const LineConstraint& line, Orientation previous,
                        float previousAngle);
    std::string Name() const override { return std::string(kName); }
    void Undo() override { Swap(); }
    void Redo() override { Swap(); }
    float StoredAngle() const { return angle_; }
    int32_t StoredOrientation() const { return orientation_; }

private:
    void Swap();
    float angle_;
    int32_t orientation_;
};

// One polygon edge's orientation toggled; the same swap for that edge's code.
class PMarkPlaneEdgeTask final : public PConstraintTask {
public:
    static constexpr std::string_view kName =
        "$$$/Curvana/Task/Setting/MarkConstraint=Constraint Orientation";
    PMarkPlaneEdgeTask(PWorkspace& workspace, const PlaneConstraint& plane, int32_t edge,
                       int32_t previousCode);
    std::string Name() const override { return std::string(kName); }
    void Undo() override { Swap(); }
    void Redo() override { Swap(); }
    int32_t Edge() const { return edge_; }
    int32_t StoredOrientation() const { return orientation_; }

private:
    void Swap();
    int32_t edge_;
    int32_t orientation_;
};

// A change of the settings. Holds a full copy of the settings before the
// change, the view id of the control that made it and the field code that
// selects what the swap exchanges (PSettingsFields.h). Undo and redo are one
// swap of the selected fields between the copy and the live settings, the
// settings observer told of the coming values first; then, while the dialog
// exists, its controls are refreshed, the preview redrawn and the focus put
// on the control that made the change (or the default control).
class PSettingsTask final : public PTask {
public:
    static constexpr std::string_view kName = "$$$/Curvana/Task/Setting/UISetting=UI Setting";
    // `before`: the settings as they were before the change.
    PSettingsTask(PWorkspace& workspace, const PSettings& before, Velmo::CViewId view,
                  uint32_t fieldCode);
    std::string Name() const override { return std::string(kName); }
    void Undo() override { Swap(); }
    void Redo() override { Swap(); }

    bool Done() const { return done_; }
    const PSettings& Stored() const { return settings_; }
    Velmo::CViewId View() const { return view_; }
    uint32_t FieldCode() const { return fieldCode_; }

private:
    void Swap();
    bool done_ = false;
    PSettings settings_;
    Velmo::CViewId view_;
    uint32_t fieldCode_;
};

// Several constraint edits made as one command (Cut, Clear, Paste of more
// than one constraint): undone in reverse order and redone in order, with
// one re-solve for all.
class PConstraintGroupTask final : public PTask {
public:
    PConstraintGroupTask(PWorkspace& workspace, std::string nameKey)
        : PTask(workspace), name_(std::move(nameKey)) {}
    void Add(std::unique_ptr<PTask> task) { tasks_.push_back(std::move(task)); }
    size_t Size() const { return tasks_.size(); }
    std::string Name() const override { return name_; }
    void Undo() override;
    void Redo() override;

private:
    std::string name_;
    std::vector<std::unique_ptr<PTask>> tasks_;
};

// The editor's undo stack: the framework's stack with room for 100 tasks
// (the 101st push destroys the oldest).
class PTaskStack final : public Velmo::CTaskStack {
public:
    static constexpr size_t kCapacity = 100;
    size_t Capacity() const override { return kCapacity; }
};

}  // namespace Project
