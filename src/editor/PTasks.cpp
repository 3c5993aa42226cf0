#include "editor/PTasks.h"

#include "constraints/ConstraintSet.h"
#include "editor/PSettingsFields.h"
#include "editor/PWorkspace.h"

namespace Project {

void PTask::ResolveAndRepair() {
    workspace_.RequestResolve();
    workspace_.Constraints().RepairSelection();
}

// ------------------------------------------------------------ PConstraintTask

PConstraintTask::PConstraintTask(PWorkspace& workspace, const Constraint& constraint)
    : PTask(workspace), copy_(constraint.Clone()) {}

Constraint* PConstraintTask::Live() const {
    return Workspace().Constraints().Find(copy_->GetId());
}

void PConstraintTask::AddCopyToList() {
    ConstraintSet& set = Workspace().Constraints();
    // Never two constraints with one identifier.
    if (set.Find(copy_->GetId()))
        return;
    set.Add(copy_->Clone());
}

void PConstraintTask::RemoveFromList() {
    if (!Live())
        return;
    Workspace().ConstraintRemoving(copy_->GetId());
    Workspace().Constraints().Remove(copy_->GetId());
}

void PAddConstraintTask::Undo() {
    RemoveFromList();
    ResolveAndRepair();
}

void PAddConstraintTask::Redo() {
    AddCopyToList();
    ResolveAndRepair();
}

void PDeleteConstraintTask::Undo() {
    AddCopyToList();
    ResolveAndRepair();
}

void PDeleteConstraintTask::Redo() {
    RemoveFromList();
    ResolveAndRepair();
}

// ------------------------------------------------------ PAdjustConstraintTask

PAdjustConstraintTask::PAdjustConstraintTask(PWorkspace& workspace, const Constraint& after,
                                             const Constraint& before)
    : PConstraintTask(workspace, after), second_(before.Clone()) {}

void PAdjustConstraintTask::Swap() {
    Constraint* live = Live();
    LineConstraint* firstLine = AsLine(MutableCopy());
    LineConstraint* secondLine = AsLine(*second_);
    PlaneConstraint* firstPlane = AsPlane(MutableCopy());
    PlaneConstraint* secondPlane = AsPlane(*second_);
    if (firstLine && secondLine) {
        if (LineConstraint* liveLine = live ? AsLine(*live) : nullptr)
            liveLine->SetEndpoints(secondLine->First(), secondLine->Second());
        const PointF a = firstLine->First(), b = firstLine->Second();
        firstLine->SetEndpoints(secondLine->First(), secondLine->Second());
        secondLine->SetEndpoints(a, b);
    } else if (firstPlane && secondPlane) {
        if (PlaneConstraint* livePlane = live ? AsPlane(*live) : nullptr)
            livePlane->SetVertices(secondPlane->Vertices());
        std::vector<PlaneVertex> vertices = firstPlane->Vertices();
        firstPlane->SetVertices(secondPlane->Vertices());
        secondPlane->SetVertices(std::move(vertices));
    }
    ResolveAndRepair();
}

// -------------------------------------------------------- PMarkConstraintTask

PMarkConstraintTask::PMarkConstraintTask(PWorkspace& workspace, const LineConstraint& line,
                                         Orientation previous, float previousAngle)
    : PConstraintTask(workspace, line),
      angle_(previousAngle),
      orientation_(static_cast<int32_t>(previous)) {}

void PMarkConstraintTask::Swap() {
    LineConstraint* copy = AsLine(MutableCopy());
    if (!copy)
        return;
    float angle = 0.0f;
    const Orientation orientation = copy->GetOrientation(angle);
    const auto stored = static_cast<Orientation>(orientation_);
    if (Constraint* live = Live())
        if (LineConstraint* line = AsLine(*live))
            line->SetOrientation(stored, angle_);
    copy->SetOrientation(stored, angle_);
    angle_ = angle;
    orientation_ = static_cast<int32_t>(orientation);
    Workspace().RequestResolve();
}

// --------------------------------------------------------- PMarkPlaneEdgeTask

PMarkPlaneEdgeTask::PMarkPlaneEdgeTask(PWorkspace& workspace, const PlaneConstraint& plane,
                                       int32_t edge, int32_t previousCode)
    : PConstraintTask(workspace, plane), edge_(edge), orientation_(previousCode) {}

void PMarkPlaneEdgeTask::Swap() {
    PlaneConstraint* copy = AsPlane(MutableCopy());
    if (!copy || edge_ < 0 || edge_ >= copy->VertexCount())
        return;
    const int32_t code = copy->GetEdgeCode(edge_);
    if (Constraint* live = Live())
        if (PlaneConstraint* plane = AsPlane(*live); plane && edge_ < plane->VertexCount())
            plane->SetEdgeCode(edge_, orientation_);
    copy->SetEdgeCode(edge_, orientation_);
    orientation_ = code;
    Workspace().RequestResolve();
}

// -------------------------------------------------------------- PSettingsTask

PSettingsTask::PSettingsTask(PWorkspace& workspace, const PSettings& before, Velmo::CViewId view,
                             uint32_t fieldCode)
    : PTask(workspace), settings_(before), view_(view), fieldCode_(fieldCode) {}

void PSettingsTask::Swap() {
    PWorkspace& workspace = Workspace();
    PSettings& live = workspace.Settings();
    const PSettings saved = live;
    PSettings coming = live;
    CopySettingsFields(coming, settings_, fieldCode_);
    workspace.SettingsChanging(coming, fieldCode_);
    CopySettingsFields(live, settings_, fieldCode_);
    CopySettingsFields(settings_, saved, fieldCode_);
    done_ = true;
    if (!workspace.DialogExists())
        return;
    workspace.RefreshControls();
    workspace.RedrawPreview();
    if (view_ == Velmo::kNoView || !workspace.FocusView(view_))
        workspace.FocusDefaultControl();
}

// ------------------------------------------------------- PConstraintGroupTask

void PConstraintGroupTask::Undo() {
    PWorkspace::ResolveBatch batch(Workspace());
    for (auto it = tasks_.rbegin(); it != tasks_.rend(); ++it)
        (*it)->Undo();
}

void PConstraintGroupTask::Redo() {
    PWorkspace::ResolveBatch batch(Workspace());
    for (auto& task : tasks_)
        task->Redo();
}

}  // namespace Project
