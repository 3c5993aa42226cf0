#pragma once

#include <QPointF>
#include <QPointer>
#include <QString>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "constraints/Constraint.h"
#include "core/Models.h"
#include "editor/PAngleWindow.h"
#include "framework/CImagePane.h"
#include "framework/CTool.h"

class QPainter;

namespace Velmo {
class CTaskStack;
}

namespace Project {

class ConstraintSet;
class FocalSolver;
class PWorkspace;

// The constraint tools' view ids.
inline constexpr std::string_view kManageConstraintToolId = "Project/Tool/ManageConstraint";
inline constexpr std::string_view kPlaneToolId = "Project/Tool/PlaneTool";
inline constexpr std::string_view kConstraintTypeToolId = "Project/Tool/ConstraintType";

// What the constraint tools need of the dialog. Coordinates called
// "picture" are the preview pane's image coordinates: the corrected picture
// while the Preview check is on, the source photograph otherwise (the pane
// shows either at the photograph's own size). Constraints are drawn and hit
// in the picture: by their display copies with Preview on, by their source
// geometry otherwise.
class PToolHost {
public:
    virtual ~PToolHost() = default;

    // The live constraint list and settings, the re-solve seam, alerts.
    virtual PWorkspace& Workspace() = 0;
    virtual Velmo::CTaskStack& Tasks() = 0;
    virtual bool PreviewOn() const = 0;
    // The source pixel under a picture point: itself with Preview off;
    // through the warp shown with Preview on, false outside its valid area
    // (or before any warp was shown).
    virtual bool PictureToSource(QPointF picture, PointF& source) const = 0;
    // Recomputes the constraint's display copy through the warp shown, so an
    // edit is drawn at once, before its re-solve; returns whether the
    // constraint can be fitted on the sphere (a line: its endpoints see the
    // photograph and are neither equal nor opposite).
    virtual bool UpdateDrawing(Constraint& constraint) = 0;
    // Turns Show Constraints on if it is off.
    virtual void ShowConstraints() = 0;
    // Redraws the preview pane (and the loupe) without a new preview.
    virtual void RepaintPanes() = 0;
    virtual void MoveLoupe(QPointF picture) = 0;
    virtual void SetHoverText(const QString& text) = 0;
    // The photograph's size in source pixels.
    virtual QSizeF SourceSize() const = 0;
    virtual ProjectionModel Projection() const = 0;
    // The focal-length slider's range, in pixels.
    virtual std::pair<double, double> FocalRangePixels() const = 0;
    // Sets a calibrated focal length (pixels) as one undoable settings step
    // and solves again.
    virtual void SetCalibratedFocal(double pixels) = 0;
    // The window the angle window is shown in.
    virtual QWidget* AngleWindowParent() = 0;
};

// The picture <-> pane conversion with the 3-screen-pixel hit tolerance.
inline constexpr double kHitPixels = 3.0;
// A drag must leave the press by more than this (pane pixels, in x or y).
inline constexpr double kDragThreshold = 6.0;
// Polygon points: a click this close (pane pixels, x and y) to the first
// point closes a polygon of three or more points...
inline constexpr double kCloseDistance = 3.0;
// ... and one this close to any point is ignored.
inline constexpr double kIgnoreDistance = 15.0;
// Rotation snapping (Shift) to multiples of 15 degrees.
inline constexpr double kRotationSnap = 15.0;

// Shift while drawing: Horizontal below 45 degrees from the x axis, Vertical
// from 45 degrees on (the segment from `a` to `b` in the picture).
Orientation SnappedOrientation(QPointF a, QPointF b);
// A rotation angle reduced by whole turns and wrapped into [-180, 180].
double WrapRotation(double degrees);
// Shift-snapping of a rotation angle to 15 degrees; 0 and -180 come out as
// 0 and 180.
double SnapRotation(double degrees);

// A rotation handle of a line fixed at an angle (orientation Arbitrary), in
// pane coordinates: the pivot is the line's middle, the handle sits off the
// line at kRotationHandleDistance pane pixels along the normal of its chord.
struct PRotationHandle {
    QPointF pivot;
    QPointF handle;
};
inline constexpr double kRotationHandleDistance = 24.0;
std::optional<PRotationHandle> RotationHandleOf(const LineConstraint& line, bool display,
                                                const std::function<QPointF(PointF)>& toPane);

// The base of the constraint tools: the host, and the hit tests shared by
// all three.
class PTool : public Velmo::CTool {
public:
    PTool(PToolHost& host, std::string name, std::string viewId, std::string tipKey,
          std::string helpKey);

    // Feedback drawn over the pane by the current tool (a line or polygon in
    // progress); the default draws nothing.
    virtual void PaintFeedback(QPainter& painter, const Velmo::CImagePane& pane) const;

protected:
    PToolHost& Host() const { return host_; }
    ConstraintSet& Constraints() const;
    // The tolerance in picture pixels: 3 screen pixels at the pane's zoom.
    static double Tolerance(const Velmo::CImagePane& pane) { return kHitPixels / pane.Zoom(); }
    static bool InImage(const Velmo::CImagePane& pane, QPointF panePoint) {
        return pane.ImageRect().contains(panePoint);
    }
    static PointF ToPicture(const Velmo::CImagePane& pane, QPointF panePoint);
    // The topmost constraint under a pane point, or null (also outside the
    // image rectangle).
    Constraint* HitConstraint(const Velmo::CImagePane& pane, QPointF panePoint) const;
    // The line whose rotation handle lies under a pane point, or null;
    // writes the rotation cursor index for that handle.
    LineConstraint* HitRotationHandle(const Velmo::CImagePane& pane, QPointF panePoint,
                                      int& cursorIndex) const;
    // Shows each line's middle handle while it is selected.
    void SyncHandles() const;
    // Deletes a constraint (Alt-click): the task, the removal, the re-solve.
    void DeleteConstraint(Constraint& constraint);
    // Hover: the highlight and the hover text for the constraint under the
    // pointer.
    void Hover(const Velmo::CImagePane& pane, QPointF panePoint);
    // With Shift, over a constraint but not over a line's endpoint, the
    // orientation tool acts for the drawing tools; otherwise none.
    std::string SpringToTypeTool(const Velmo::CImagePane& pane,
                                 const Velmo::CMouseEvent& event) const;

private:
    PToolHost& host_;
};

// The Constraint tool ("Project/Tool/ManageConstraint", C): draws lines,
// drags their endpoints, fits the focal length from the middle handle,
// rotates lines fixed at an angle, Alt-click deletes.
class PManageConstraintTool final : public PTool {
public:
    enum State : int32_t { kIdle = 0, kAdding = 1, kAdjusting = 2, kRotating = 3 };

    explicit PManageConstraintTool(PToolHost& host);
    ~PManageConstraintTool() override;

    std::string SpringTool(Velmo::CImagePane& pane, Velmo::CMouseEvent& event) override;
    void MouseDown(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
    void MouseMoved(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
    void AdjustCursor(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
    bool KeyDown(Velmo::CImagePane& pane, const Velmo::CKeyEvent& event) override;
    void Activate() override;
    void Deactivate() override;
    void Cancel() override;
    QIcon Icon() const override;
    void PaintFeedback(QPainter& painter, const Velmo::CImagePane& pane) const override;

    int32_t State() const { return state_; }
    // A constraint leaves the list: pointers to it are dropped.
    void Forget(int32_t id);

private:
    friend class PAddConstraintTracker;
    friend class PAdjustConstraintTracker;
    friend class PFitConstraintTracker;
    friend class PRotateConstraintTracker;

    void BeginLine(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event);
    // The continuation of a line in progress: discards what is left of it
    // and makes the tool ready for the next press.
    void Continue();
    // Adds the line in progress (add tracker's release).
    void CommitLine(Orientation orientation);
    // Ends an endpoint drag: one undoable step when the end moved, and a
    // re-solve whatever the line's orientation (an unfixed line is held
    // straight by the solve too).
    void EndAdjust(bool moved);
    // The line under edit was added by this tool and not changed since.
    bool JustAdded(const LineConstraint& line) const {
        return justAdded_ >= 0 && line.GetId() == justAdded_;
    }
    void Calibrate();
    // Ends a rotation: kept as one undoable step, or back to the angle the
    // drag found.
    void EndRotation(bool keep);

    LineConstraint* edit_ = nullptr;            // the line under edit (not owned)
    int32_t justAdded_ = -1;                    // see JustAdded
    std::unique_ptr<LineConstraint> backup_;    // the line as the drag found it
    std::unique_ptr<FocalSolver> calibrator_;   // the Fisheye model's
    std::unique_ptr<FocalSolver> perspective_;  // the Perspective model's
    int32_t state_ = kIdle;
    uint16_t cursorIndex_ = 0;
    bool busy_ = false;
    std::unique_ptr<LineConstraint> inProgress_;  // the line being drawn (owned until added)
    // The line being drawn, in the picture, for its feedback.
    QPointF drawFrom_, drawTo_;
    Orientation drawOrientation_ = Orientation::Unfixed;
    QPointer<PAngleWindow> angleWindow_;  // owned by its parent window
    float rotationDisplay_ = -1.0f;       // the angle shown while rotating (+180), -1 none
    float rotationStart_ = 0.0f;          // the line's angle when the rotation began
    QPointF fitPicture_;                  // the fit point, in the picture
};

// The Polygon Constraint tool ("Project/Tool/PlaneTool", Y): clicks add the
// corners of a polygon, a click on the first corner closes it; a drag on a
// corner moves it; Alt-click deletes.
class PPlaneTool final : public PTool {
public:
    explicit PPlaneTool(PToolHost& host);
    ~PPlaneTool() override;

    std::string SpringTool(Velmo::CImagePane& pane, Velmo::CMouseEvent& event) override;
    void MouseDown(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
    void MouseMoved(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
    void AdjustCursor(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
    bool KeyDown(Velmo::CImagePane& pane, const Velmo::CKeyEvent& event) override;
    void Deactivate() override;
    void Cancel() override;
    QIcon Icon() const override;
    void PaintFeedback(QPainter& painter, const Velmo::CImagePane& pane) const override;

    int32_t State() const { return state_; }
    // Points of the polygon in progress (0 when none).
    int32_t PointsInProgress() const;
    void Forget(int32_t id);

private:
    friend class PAdjustPlaneCornerTracker;

    void AddPoint(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event);
    void ClosePolygon(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event);

    PlaneConstraint* edit_ = nullptr;              // the polygon under edit (not owned)
    std::unique_ptr<PlaneConstraint> inProgress_;  // the polygon being drawn
    std::vector<QPointF> pictureCorners_;          // its corners in the picture
    QPointF rubberEnd_;                            // the pointer, in the picture
    bool rubber_ = false;
    int32_t state_ = 0;
};

// Reached by holding Shift over a constraint: a click toggles the line's
// orientation (or the polygon edge's) between Unfixed and Horizontal or
// Vertical.
class PConstraintTypeTool final : public PTool {
public:
    explicit PConstraintTypeTool(PToolHost& host);

    std::string SpringTool(Velmo::CImagePane& pane, Velmo::CMouseEvent& event) override;
    void MouseDown(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
    void AdjustCursor(Velmo::CImagePane& pane, const Velmo::CMouseEvent& event) override;
};

}  // namespace Project
