#pragma once

#include <QDialog>
#include <array>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "constraints/ConstraintFile.h"
#include "editor/PConstraintTools.h"
#include "editor/PNavigationTools.h"
#include "editor/PTasks.h"
#include "editor/PWorkspace.h"
#include "framework/CTool.h"
#include "render/RenderPlan.h"
#include "session/PFilterComponents.h"
#include "session/PPreview.h"
#include "session/PSettings.h"

class QCheckBox;
class QComboBox;
class QMenu;
class QMenuBar;
class QPushButton;
class QToolButton;

namespace Velmo {
class CSlider;
}

namespace Project {

class PEditMenu;
class PFilter;
class PLoupePane;
class PPreviewPane;

// The editor dialog. Laid out from the Zel resource "PDialog.zel"; works on
// the session's live settings and constraint list and answers every change
// with one undoable task and a fresh preview.
//
// What the controls do (each change of a setting pushes one PSettingsTask
// with the control's view id and field code, PSettingsFields.h):
//  - Projection popup: item n selects model n + 1; the third item reads
//    "Panorama" for a photo with panorama metadata and "Auto" otherwise.
//    The choice runs the session's projection decision with the previous
//    model as the fallback, so a model that cannot apply (Full Spherical on
//    a photo that is not 2:1, Auto without a lens profile) says why and
//    leaves the model as it was (and pushes nothing).
//  - Scale (50 ... 150 %): the framing only; the preview is redrawn without
//    a solve.
//  - Focal Length (mm) and Crop Factor: the focal length in pixels follows
//    as crop x focal x max(width, height) / 36 and the warp is solved again.
//    The focal slider's range is set when the dialog opens, from the
//    photo's focal length f (its metadata, else the opening value): a
//    quarter of f to four times f, whole millimetres, within 1 ... 1000 mm;
//    a value outside it (a loaded file, an undo) widens it to fit. A crop
//    factor below 0.1 counts as 0.1.
//  - As Shot: checked while focal length and crop factor are those of the
//    photo's metadata; checking it applies them (one task); it cannot be
//    unchecked by itself, only by moving a slider. Disabled when the photo
//    carries no focal length.
//  - Preview, Show Constraints, Show Mesh: how the picture is shown, not
//    what it is: no task. Their states are kept in the settings' stored
//    bytes S10, S11 and S13 when the dialog closes.
//  - OK renders the result through the host (PFilter::renderFinal) and ends
//    the dialog; a cancelled render leaves it open. Cancel ends it without
//    touching the image.
//  - Holding Alt turns Cancel into Reset: back to the settings and
//    constraints the dialog opened with, as one undoable step. When nothing
//    differs from that state it reads Default instead and restores the
//    factory correction (the projection as defaults restored decide it: a
//    lens profile, else the 16 mm rule on the 35 mm-equivalent focal
//    length; the photo's focal length, scale 120 %, centred); constraints
//    and preferences stay.
//  - Escape (and closing the window) with changes asks whether to save
//    them: Save is OK, Don't Save is Cancel, Cancel returns to the dialog.
//    Without changes it cancels at once.
//  - The solver information pane ("Solve failed") shows while the newest
//    preview's own warp failed to solve; a later successful solve hides it.
class PDialog final : public QDialog, public PWorkspace, private PToolHost, private PContentMover {
public:
    PDialog(PFilter& filter, DialogPlacement& placement);
    ~PDialog() override;

    // Lays the dialog out from the layout resource and prepares the
    // preview. False with the reason when the layout cannot be made.
    bool Build(const std::string& layoutResource, std::string& error);
    // Runs the dialog modally.
    PEditor::Result RunModal();
    // The session decided the projection model again.
    void RefreshProjection();

    // --- PWorkspace.
    ConstraintSet& Constraints() override { return *set_; }
    PSettings& Settings() override;
    const ConstraintFileContext& FileContext() const override;
    void ConstraintRemoving(int32_t id) override;
    void SettingsChanging(const PSettings& coming, uint32_t fieldCode) override;
    bool DialogExists() const override { return built_; }
    void RefreshControls() override;
    void RedrawPreview() override;
    bool FocusView(Velmo::CViewId view) override;
    void FocusDefaultControl() override;
    void Alert(std::string_view message) override;

    // --- Commands (the menus' and the flyout's).
    void LoadConstraints();
    void SaveConstraints();
    // Finds the photo's straight scene edges under the live projection and
    // adds them as line constraints, selected, in one undoable step; says so
    // when there are none (and pushes nothing).
    void SuggestLines();
    void ShowPreferences();
    void ZoomIn();
    void ZoomOut();
    void FitInView();
    void FitOnScreen();
    void ActualPixels();

    PTaskStack& TaskStack() { return stack_; }

    // --- PToolHost (the constraint tools).
    PWorkspace& Workspace() override { return *this; }
    Velmo::CTaskStack& Tasks() override { return stack_; }
    bool PreviewOn() const override { return previewOn(); }
    bool PictureToSource(QPointF picture, PointF& source) const override;
    bool UpdateDrawing(Constraint& constraint) override;
    void ShowConstraints() override;
    void RepaintPanes() override;
    void MoveLoupe(QPointF picture) override;
    void SetHoverText(const QString& text) override;
    QSizeF SourceSize() const override;
    ProjectionModel Projection() const override;
    std::pair<double, double> FocalRangePixels() const override;
    void SetCalibratedFocal(double pixels) override;
    QWidget* AngleWindowParent() override { return this; }

protected:
    void Resolve() override;
    void reject() override;
    void showEvent(QShowEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    class LiveFileContext;
    struct Controls;

    // --- Building.
    void RegisterTools();
    bool FindControls(std::string& error);
    void ConnectControls();
    void BuildMenus();
    void StartPreview();
    void PlaceWindow();

    // --- Settings.
    // Pushes one settings step from `before`, then refreshes the controls and
    // the preview (re-solving when the field shapes the warp).
    void PushSettingsStep(const PSettings& before, std::string_view viewId, uint32_t fieldCode);
    void ChangeSetting(std::string_view viewId, uint32_t fieldCode,
                       const std::function<void(PSettings&)>& change);
    void ProjectionChosen(int index);
    // The session's projection decision with the fallback; a model that
    // cannot apply is reported here (in the dialog) and falls back.
    void DecideProjection(ProjectionModel fallback);
    void SetFocal(float physical, float crop);
    void ApplyAsShot();
    // The photo's physical focal length and crop factor from its metadata.
    std::optional<std::pair<float, float>> MetadataFocal() const;
    float FocalPixels(float physical, float crop) const;
    void UpdateFocalRange();
    void UpdateCancelText();
    void CancelClicked();
    void ResetToOpening();
    void RestoreDefaults();
    // Replaces the workspace (settings and constraint list) as one undoable
    // step named `nameKey`: every old constraint deleted, every new one
    // added, the settings swapped with `before`.
    void PushWorkspaceChange(std::string nameKey, const PSettings& before,
                             const std::vector<std::unique_ptr<Constraint>>& oldConstraints,
                             Velmo::CViewId view);
    bool HasChanges() const;
    void OkClicked();
    void FinishWith(PEditor::Result result);

    // --- Files.
    QString ChooseConstraintFile(bool save);

    // --- Preview.
    PreviewView CurrentView() const;
    // Asks for a new preview image; with newScene the scene is captured
    // again from the live settings and constraints (a solve follows).
    void RequestPreview(bool newScene);
    void PreviewArrived(std::shared_ptr<const PreviewResult> result);
    void UpdateDisplayCopies(const PreviewResult& result);
    void ViewChanged();
    void PaneResized();
    void PointerMoved(std::optional<QPointF> pane);
    void PaintOverlay(QPainter& painter);
    void UpdateTitle();
    void ZoomTo(double zoom);
    void StepZoom(int direction);
    bool previewOn() const;

    // --- PContentMover (the Move tool).
    void BeginMove() override;
    void MoveContent(QPointF paneDelta) override;
    void EndMove(bool keep) override;

    PFilter& filter_;
    DialogPlacement& placement_;
    ConstraintSet* set_ = nullptr;
    std::unique_ptr<ConstraintSet> ownSet_;  // when the session offers no live list
    std::unique_ptr<LiveFileContext> fileContext_;
    PTaskStack stack_;
    Velmo::CToolSet tools_;
    PManageConstraintTool* manageTool_ = nullptr;  // in tools_
    PPlaneTool* planeTool_ = nullptr;
    std::unique_ptr<Controls> ui_;
    std::unique_ptr<PEditMenu> editMenu_;
    bool built_ = false;
    bool placed_ = false;

    // The state the dialog opened with (Reset).
    std::unique_ptr<PSettings> opening_;
    std::vector<std::unique_ptr<Constraint>> openingConstraints_;
    int32_t openingPosition_ = 0;

    // The preview.
    std::shared_ptr<MemoryImage> source_;
    std::unique_ptr<PPreview> preview_;
    std::shared_ptr<const PreviewScene> scene_;
    bool sceneDirty_ = true;
    uint64_t newestRequest_ = 0;
    std::shared_ptr<const PreviewWarp> displayWarp_;  // the warp the display copies come from
    ViewFraming displayFraming_;
    DisplaySpace displaySpace_;         // output plane -> picture pixels of that warp
    std::optional<MeshExtent> extent_;  // of that warp's mesh
    bool displayReady_ = false;         // the display copies match the warp shown
    bool fitted_ = true;                // the view follows the pane's size
    bool fitting_ = false;
    float focalRangeLow_ = 1.0f;
    float focalRangeHigh_ = 1000.0f;

    // The Move tool's drag.
    std::unique_ptr<PSettings> moveStart_;
    QPointF movePerPane_;  // offset change per pane pixel (x, y)

    bool altDown_ = false;
    bool updatingControls_ = false;
    bool deciding_ = false;
    PEditor::Result result_ = PEditor::Result::Cancel;
    // A failure of the session met inside a slot, rethrown once the dialog's
    // event loop has returned.
    std::exception_ptr pendingError_;
};

}  // namespace Project
