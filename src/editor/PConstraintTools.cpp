#include "editor/PConstraintTools.h"

#include <QPainter>
#include <QPainterPath>
#include <QPixmap>
#include <cmath>

#include "constraints/ConstraintSet.h"
#include "core/LocalizedString.h"
#include "editor/PConstraintDrawing.h"
#include "editor/PDialogTexts.h"
#include "editor/PTasks.h"
#include "editor/PWorkspace.h"
#include "framework/CCursors.h"
#include "framework/CNonPollingTracker.h"
#include "framework/CTask.h"
#include "framework/ModifierFlags.h"
#include "session/PSettings.h"
#include "solver/FocalSolver.h"

namespace Project {

using Velmo::CCursorKind;
using Velmo::CCursors;
using Velmo::CImagePane;
using Velmo::CMouseEvent;

namespace {

constexpr std::string_view kManageTip = "$$$/Curvana/Tool/ManageConstraint=Constraint Tool (C)";
constexpr std::string_view kManageHelp =
    "$$$/Curvana/ManageConstraintTooltip/MessageWin=Add or edit a constraint by clicking on the "
    "image or by dragging an endpoint. Shift-click to add a horizontal/vertical constraint. "
    "Alt-click to delete.";
constexpr std::string_view kPlaneTip = "$$$/Curvana/Tool/PlaneTool=Polygon Constraint Tool (Y)";
constexpr std::string_view kPlaneHelp =
    "$$$/Curvana/PlaneTooltip/MessageWin=Add or edit a polygon constraint by clicking on the "
    "image or by dragging an endpoint. Click on the initial starting point to end. Alt-click to "
    "delete.";
constexpr std::string_view kCalibrationFailed =
    "$$$/Curvana/Warning/FisheyeCalibratingConstraintFailed=Failed to Calibrate. You may need to "
    "adjust the constraint more precisely or try another constraint.";

// Hover texts.
constexpr std::string_view kHoverUnfixed = "$$$/Curvana/Hover/Unfixed=Line";
constexpr std::string_view kHoverHorizontal = "$$$/Curvana/Hover/Horizontal=Horizontal line";
constexpr std::string_view kHoverVertical = "$$$/Curvana/Hover/Vertical=Vertical line";
constexpr std::string_view kHoverArbitrary = "$$$/Curvana/Hover/Arbitrary=Line at ^0 degrees";
constexpr std::string_view kHoverPolygon = "$$$/Curvana/Hover/Polygon=Polygon with ^0 corners";

constexpr double kPi = 3.14159265358979323846;

// The angle of a pane vector counter-clockwise on screen from the x axis,
// degrees.
double ScreenAngle(QPointF v) {
    return std::atan2(-v.y(), v.x()) * 180.0 / kPi;
}

bool WithinBox(QPointF a, QPointF b, double t) {
    return std::abs(a.x() - b.x()) <= t && std::abs(a.y() - b.y()) <= t;
}

QPointF ToQ(PointF p) {
    return {p.x, p.y};
}

QString HoverText(const Constraint& c) {
    if (const PlaneConstraint* plane = AsPlane(c))
        return QString::fromStdString(
            Localize(kHoverPolygon, {std::to_string(plane->VertexCount())}));
    const LineConstraint* line = AsLine(c);
    if (!line)
        return {};
    switch (line->GetOrientation()) {
        case Orientation::Horizontal:
            return QString::fromStdString(Localize(kHoverHorizontal));
        case Orientation::Vertical:
            return QString::fromStdString(Localize(kHoverVertical));
        case Orientation::Arbitrary:
            return QString::fromStdString(
                Localize(kHoverArbitrary, {QString::number(line->Angle(), 'f', 1).toStdString()}));
        default:
            return QString::fromStdString(Localize(kHoverUnfixed));
    }
}

QPixmap ToolPicture(bool polygon) {
    QPixmap pixmap(24, 24);
    pixmap.fill(Qt::transparent);
    QPainter p(&pixmap);
    p.setRenderHint(QPainter::Antialiasing);
    p.setPen(QPen(QColor(40, 40, 40), 1.6));
    QPolygonF shape;
    if (polygon)
        shape << QPointF(4, 18) << QPointF(9, 5) << QPointF(20, 7) << QPointF(18, 19);
    else
        shape << QPointF(4, 19) << QPointF(20, 5);
    if (polygon)
        p.drawPolygon(shape);
    else
        p.drawPolyline(shape);
    p.setBrush(QColor(250, 250, 250));
    p.setPen(QPen(QColor(40, 40, 40), 1.0));
    for (const QPointF& corner : shape)
        p.drawRect(QRectF(corner.x() - 2.5, corner.y() - 2.5, 5, 5));
    return pixmap;
}

}  // namespace

// ------------------------------------------------------------------ helpers

Orientation SnappedOrientation(QPointF a, QPointF b) {
    const double angle = std::atan2(std::abs(b.y() - a.y()), std::abs(b.x() - a.x())) * 180.0 / kPi;
    return angle < 45.0 ? Orientation::Horizontal : Orientation::Vertical;
}

double WrapRotation(double degrees) {
    double a = degrees - std::trunc(degrees / 360.0) * 360.0;
    if (a < -180.0)
        a += 360.0;
    if (a > 180.0)
        a -= 360.0;
    return a;
}

double SnapRotation(double degrees) {
    const double half = kRotationSnap / 2.0;
    auto n = static_cast<int64_t>(std::trunc(std::abs(degrees) / half));
    if (n % 2 != 0)
        ++n;
    const double snapped = std::copysign(static_cast<double>(n) * half, degrees);
    // 0 and -180 are shown as 0 and 180, never -0 or -180.
    if (snapped == 0.0 || snapped == -180.0)
        return std::abs(snapped);
    return snapped;
}

std::optional<PRotationHandle> RotationHandleOf(const LineConstraint& line, bool display,
                                                const std::function<QPointF(PointF)>& toPane) {
    if (line.GetOrientation() != Orientation::Arbitrary)
        return std::nullopt;
    const QPointF a = toPane(display ? line.DisplayFirst() : line.First());
    const QPointF b = toPane(display ? line.DisplaySecond() : line.Second());
    const QPointF chord = b - a;
    const double length = std::hypot(chord.x(), chord.y());
    if (!(length >= 1.0))
        return std::nullopt;
    QPointF normal(chord.y() / length, -chord.x() / length);
    // Always on the upper side of the line (on screen), so the handle is
    // found in the same place whichever end was drawn first.
    if (normal.y() > 0.0 || (normal.y() == 0.0 && normal.x() < 0.0))
        normal = -normal;
    PRotationHandle handle;
    handle.pivot = toPane(line.MiddleHandle(display));
    handle.handle = handle.pivot + kRotationHandleDistance * normal;
    return handle;
}

// ------------------------------------------------------------------ PTool

PTool::PTool(PToolHost& host, std::string name, std::string viewId, std::string tipKey,
             std::string helpKey)
    : CTool(std::move(name), std::move(viewId), std::move(tipKey), std::move(helpKey)),
      host_(host) {}

void PTool::PaintFeedback(QPainter&, const CImagePane&) const {}

ConstraintSet& PTool::Constraints() const {
    return host_.Workspace().Constraints();
}

PointF PTool::ToPicture(const CImagePane& pane, QPointF panePoint) {
    const QPointF p = pane.PaneToImage(panePoint);
    return {static_cast<float>(p.x()), static_cast<float>(p.y())};
}

void PTool::SyncHandles() const {
    ConstraintSet& set = Constraints();
    for (const auto& c : set.Constraints())
        if (LineConstraint* line = AsLine(*c))
            line->SetShowsMiddleHandle(set.IsSelected(line->GetId()));
}

Constraint* PTool::HitConstraint(const CImagePane& pane, QPointF panePoint) const {
    if (!InImage(pane, panePoint))
        return nullptr;
    SyncHandles();
    return Constraints().HitTest(ToPicture(pane, panePoint), static_cast<float>(Tolerance(pane)),
                                 host_.PreviewOn());
}

LineConstraint* PTool::HitRotationHandle(const CImagePane& pane, QPointF panePoint,
                                         int& cursorIndex) const {
    if (!InImage(pane, panePoint))
        return nullptr;
    const auto toPane = [&pane](PointF p) { return pane.ImageToPane(ToQ(p)); };
    const auto& list = Constraints().Constraints();
    for (auto it = list.rbegin(); it != list.rend(); ++it) {
        LineConstraint* line = AsLine(**it);
        if (!line)
            continue;
        const auto handle = RotationHandleOf(*line, host_.PreviewOn(), toPane);
        if (handle && WithinBox(panePoint, handle->handle, kHitPixels)) {
            cursorIndex =
                CCursors::RotationIndexForAngle(ScreenAngle(handle->handle - handle->pivot));
            return line;
        }
    }
    return nullptr;
}

void PTool::DeleteConstraint(Constraint& constraint) {
    PWorkspace& workspace = host_.Workspace();
    const int32_t id = constraint.GetId();
    // Pushed just before the removal, as the task expects.
    host_.Tasks().Push(std::make_unique<PDeleteConstraintTask>(workspace, constraint));
    workspace.ConstraintRemoving(id);
    workspace.Constraints().Remove(id);
    workspace.Constraints().Deselect(id);
    workspace.RequestResolve();
    workspace.RefreshControls();
    host_.RepaintPanes();
}

void PTool::Hover(const CImagePane& pane, QPointF panePoint) {
    const Constraint* hit = HitConstraint(pane, panePoint);
    const int32_t id = hit ? hit->GetId() : -1;
    host_.SetHoverText(hit ? HoverText(*hit) : QString());
    if (Constraints().Highlight() != id) {
        Constraints().SetHighlight(id);
        host_.RepaintPanes();
    }
}

// ------------------------------------------------------------------ trackers

// The trackers' base: the tool it works for.
class PConstraintTracker : public Velmo::CNonPollingTracker {
protected:
    QPointF Picture(QPointF panePoint) const { return Pane()->PaneToImage(panePoint); }
};

// Draws a new line: the second end follows the pointer; the release adds it
// when the drag went farther than the threshold.
class PAddConstraintTracker final : public PConstraintTracker {
public:
    explicit PAddConstraintTracker(PManageConstraintTool& tool) : tool_(tool) {}

protected:
    void Start(const CMouseEvent& press) override {
        const QPointF picture = Picture(press.position);
        PointF source;
        if (!tool_.inProgress_ || !tool_.Host().PictureToSource(picture, source)) {
            // Outside the valid warped area: nothing to draw.
            pending_ = false;
            Pane()->StopTracking();
            tool_.Continue();
            return;
        }
        tool_.inProgress_->SetEndpoints(source, source);
        tool_.drawFrom_ = tool_.drawTo_ = picture;
        tool_.drawOrientation_ = Orientation::Unfixed;
    }

    void Track(const CMouseEvent& event) override {
        ScrollAtEdge(event.position);
        Follow(event);
    }

    void Finish(const CMouseEvent& release) override {
        const QPointF travel = release.position - PressPosition();
        const bool far =
            std::abs(travel.x()) > kDragThreshold || std::abs(travel.y()) > kDragThreshold;
        PointF source;
        if (far && Pane()->ImageRect().contains(release.position) && tool_.inProgress_ &&
            tool_.Host().PictureToSource(Picture(release.position), source)) {
            tool_.inProgress_->SetSecond(source);
            pending_ = false;
            tool_.CommitLine(Snap(release));
            return;
        }
        // Too short, or released where no line can end: nothing is added.
        tool_.inProgress_.reset();
        tool_.edit_ = nullptr;
        if (pending_)
            tool_.Continue();
    }

    void Cancel() override { pending_ = false; }

private:
    Orientation Snap(const CMouseEvent& event) const {
        // Measured on screen, where the user sees the angle.
        return (event.modifiers & Velmo::kModShift)
                   ? SnappedOrientation(PressPosition(), event.position)
                   : Orientation::Unfixed;
    }

    void Follow(const CMouseEvent& event) {
        if (!Pane()->ImageRect().contains(event.position) || !tool_.inProgress_)
            return;
        const QPointF picture = Picture(event.position);
        PointF source;
        if (!tool_.Host().PictureToSource(picture, source))
            return;
        tool_.inProgress_->SetSecond(source);
        tool_.drawTo_ = picture;
        tool_.drawOrientation_ = Snap(event);
        tool_.Host().RepaintPanes();
    }

    // Near the pane's edge the pane scrolls so that the pointer stays a
    // pixel inside.
    void ScrollAtEdge(QPointF at) {
        CImagePane& pane = *Pane();
        QPointF delta;
        if (at.x() < 2.0)
            delta.setX(1.0 - at.x() + 1.0);
        else if (at.x() > pane.width() - 2.0)
            delta.setX(pane.width() - 1.0 - at.x() - 1.0);
        if (at.y() < 2.0)
            delta.setY(1.0 - at.y() + 1.0);
        else if (at.y() > pane.height() - 2.0)
            delta.setY(pane.height() - 1.0 - at.y() - 1.0);
        if (!delta.isNull())
            pane.ScrollBy(delta);
    }

    PManageConstraintTool& tool_;
    bool pending_ = true;
};

// Drags an endpoint of a line; the end moves in steps (see Step).
class PAdjustConstraintTracker final : public PConstraintTracker {
public:
    PAdjustConstraintTracker(PManageConstraintTool& tool, LineConstraint& line, bool firstEnd)
        : tool_(tool), line_(line), first_(firstEnd) {}

protected:
    void Start(const CMouseEvent&) override {
        tool_.Constraints().Select(line_.GetId());
        tool_.Host().RepaintPanes();
    }
    void Track(const CMouseEvent& event) override {
        if (Step(event.position) == Refused::Cancel)
            Pane()->CancelTracking();  // ends this tracker: nothing after it
    }
    void Finish(const CMouseEvent& release) override {
        if (Step(release.position) == Refused::Cancel) {
            tool_.Cancel();
            return;
        }
        tool_.EndAdjust(moved_);
    }

private:
    enum class Refused { No, Cancel };

    // The end jumps to the pointer only once the pointer is more than the
    // drag threshold from where the end is drawn, so a press without a real
    // drag leaves it where it was. A point where the warp shows nothing is
    // refused: a line just drawn is put back as it was drawn (the whole drag
    // cancelled); another keeps its last accepted end and is shown unusable.
    Refused Step(QPointF at) {
        const bool display = tool_.Host().PreviewOn();
        const PointF end = display ? (first_ ? line_.DisplayFirst() : line_.DisplaySecond())
                                   : (first_ ? line_.First() : line_.Second());
        const QPointF drawn = Pane()->ImageToPane(ToQ(end));
        if (std::abs(at.x() - drawn.x()) <= kDragThreshold &&
            std::abs(at.y() - drawn.y()) <= kDragThreshold)
            return Refused::No;
        PointF source;
        if (!Pane()->ImageRect().contains(at) ||
            !tool_.Host().PictureToSource(Picture(at), source)) {
            if (!display)
                return Refused::No;
            if (tool_.JustAdded(line_))
                return Refused::Cancel;
            line_.MarkInvalid();
            tool_.Host().RepaintPanes();
            return Refused::No;
        }
        if (first_)
            line_.SetFirst(source);
        else
            line_.SetSecond(source);
        if (display) {
            // Drawn where the pointer is until the re-solve maps it again.
            const QPointF p = Picture(at);
            const PointF shown{static_cast<float>(p.x()), static_cast<float>(p.y())};
            tool_.Host().UpdateDrawing(line_);
            line_.SetDisplayEndpoints(first_ ? shown : line_.DisplayFirst(),
                                      first_ ? line_.DisplaySecond() : shown);
        }
        moved_ = true;
        tool_.Host().RepaintPanes();
        return Refused::No;
    }

    PManageConstraintTool& tool_;
    LineConstraint& line_;
    bool first_;
    bool moved_ = false;
};

// Drags the fit point from the middle handle; the release calibrates.
class PFitConstraintTracker final : public PConstraintTracker {
public:
    explicit PFitConstraintTracker(PManageConstraintTool& tool) : tool_(tool) {}

protected:
    void Track(const CMouseEvent& event) override { Place(event.position); }
    void Finish(const CMouseEvent& release) override {
        Place(release.position);
        if (moved_)
            tool_.Calibrate();
        else
            tool_.Constraints().ResetFitPoint();
        tool_.state_ = PManageConstraintTool::kIdle;
        tool_.Host().RepaintPanes();
    }

private:
    void Place(QPointF at) {
        PointF source;
        if (!Pane()->ImageRect().contains(at) || !tool_.Host().PictureToSource(Picture(at), source))
            return;
        tool_.Constraints().SetFitPoint(source);
        tool_.fitPicture_ = Picture(at);
        moved_ = moved_ || at != PressPosition();
        tool_.Host().RepaintPanes();
    }

    PManageConstraintTool& tool_;
    bool moved_ = false;
};

// Turns a line fixed at an angle about its middle.
class PRotateConstraintTracker final : public PConstraintTracker {
public:
    PRotateConstraintTracker(PManageConstraintTool& tool, LineConstraint& line)
        : tool_(tool), line_(line) {}

protected:
    void Start(const CMouseEvent& press) override {
        const CImagePane& pane = *Pane();
        const auto handle = RotationHandleOf(line_, tool_.Host().PreviewOn(), [&pane](PointF p) {
            return pane.ImageToPane(ToQ(p));
        });
        pivot_ = handle ? handle->pivot : press.position;
        pressAngle_ = ScreenAngle(press.position - pivot_);
        start_ = line_.Angle();
        angle_ = start_;
        tool_.rotationStart_ = line_.Angle();
        ShowAngle(press.position);
    }

    void Track(const CMouseEvent& event) override {
        double angle = WrapRotation(start_ + (ScreenAngle(event.position - pivot_) - pressAngle_));
        if (event.modifiers & Velmo::kModShift)
            angle = SnapRotation(angle);
        angle_ = angle;
        line_.SetAngle(static_cast<float>(angle));
        if (Pane()->ImageRect().contains(event.position))
            tool_.Host().MoveLoupe(Picture(event.position));
        tool_.rotationDisplay_ = static_cast<float>(angle + 180.0);
        // The preview follows the turn; only the newest solve is drawn.
        tool_.Host().Workspace().RequestResolve();
        tool_.Host().RepaintPanes();
        Pane()->SetPaneCursor(CCursors::Get(CCursorKind::Rotate, tool_.cursorIndex_));
        ShowAngle(event.position);
    }

    void Finish(const CMouseEvent&) override { tool_.EndRotation(true); }

private:
    void ShowAngle(QPointF at) {
        if (!tool_.angleWindow_)
            tool_.angleWindow_ = new PAngleWindow(tool_.Host().AngleWindowParent());
        tool_.angleWindow_->ShowAngle(angle_, Pane()->mapToGlobal(at.toPoint()));
    }

    PManageConstraintTool& tool_;
    LineConstraint& line_;
    QPointF pivot_;
    double pressAngle_ = 0.0;
    double start_ = 0.0;
    double angle_ = 0.0;
};

// Drags a corner of a polygon (none: the press selected the polygon only).
class PAdjustPlaneCornerTracker final : public PConstraintTracker {
public:
    PAdjustPlaneCornerTracker(PPlaneTool& tool, PlaneConstraint& plane, int32_t corner)
        : tool_(tool), plane_(plane), corner_(corner), backup_(plane.ClonePlane()) {}

protected:
    void Track(const CMouseEvent& event) override { Move(event.position); }
    void Finish(const CMouseEvent& release) override {
        Move(release.position);
        if (moved_) {
            tool_.Host().Tasks().Push(std::make_unique<PAdjustConstraintTask>(
                tool_.Host().Workspace(), plane_, *backup_));
            tool_.Host().Workspace().RequestResolve();
        }
        tool_.edit_ = nullptr;
        tool_.Host().RepaintPanes();
    }
    void Cancel() override {
        plane_.SetVertices(backup_->Vertices());
        tool_.Host().UpdateDrawing(plane_);
        tool_.edit_ = nullptr;
        tool_.Host().RepaintPanes();
    }

private:
    void Move(QPointF at) {
        if (corner_ < 0)
            return;
        const QPointF travel = at - PressPosition();
        if (!moved_ && std::abs(travel.x()) <= kDragThreshold &&
            std::abs(travel.y()) <= kDragThreshold)
            return;
        PointF source;
        if (!Pane()->ImageRect().contains(at) || !tool_.Host().PictureToSource(Picture(at), source))
            return;
        plane_.SetVertexPosition(corner_, source);
        tool_.Host().UpdateDrawing(plane_);
        moved_ = true;
        tool_.Host().RepaintPanes();
    }

    PPlaneTool& tool_;
    PlaneConstraint& plane_;
    int32_t corner_;
    std::unique_ptr<PlaneConstraint> backup_;
    bool moved_ = false;
};

// ------------------------------------------------------------------ PManageConstraintTool

PManageConstraintTool::PManageConstraintTool(PToolHost& host)
    : PTool(host, "ManageConstraintTool", std::string(kManageConstraintToolId),
            std::string(kManageTip), std::string(kManageHelp)),
      calibrator_(std::make_unique<FisheyeFocalSolver>()),
      perspective_(std::make_unique<PerspectiveFocalSolver>()) {}

PManageConstraintTool::~PManageConstraintTool() {
    delete angleWindow_.data();
}

QIcon PManageConstraintTool::Icon() const {
    return QIcon(ToolPicture(false));
}

std::string PTool::SpringToTypeTool(const CImagePane& pane, const CMouseEvent& event) const {
    if (!(event.modifiers & Velmo::kModShift))
        return {};
    Constraint* hit = HitConstraint(pane, event.position);
    if (!hit)
        return {};
    if (const LineConstraint* line = AsLine(*hit)) {
        const LinePart part =
            line->HitPart(ToPicture(pane, event.position), static_cast<float>(Tolerance(pane)),
                          Host().PreviewOn());
        if (part == LinePart::FirstEnd || part == LinePart::SecondEnd)
            return {};
    }
    return std::string(kConstraintTypeToolId);
}

std::string PManageConstraintTool::SpringTool(CImagePane& pane, CMouseEvent& event) {
    if (state_ == kAdding || inProgress_)
        return {};
    return SpringToTypeTool(pane, event);
}

void PManageConstraintTool::MouseDown(CImagePane& pane, const CMouseEvent& event) {
    if (!InImage(pane, event.position))
        return;
    int cursor = 0;
    LineConstraint* rotated = HitRotationHandle(pane, event.position, cursor);
    Constraint* hit = HitConstraint(pane, event.position);
    if ((event.modifiers & Velmo::kModHand) || state_ == kAdding) {
        BeginLine(pane, event);
        return;
    }
    if (rotated) {
        edit_ = rotated;
        state_ = kRotating;
        busy_ = true;
        cursorIndex_ = static_cast<uint16_t>(cursor);
        pane.StartTracker(*this, event, [this, rotated] {
            return std::make_shared<PRotateConstraintTracker>(*this, *rotated);
        });
        return;
    }
    if (!hit) {
        BeginLine(pane, event);
        return;
    }
    if (AsPlane(*hit)) {
        if (Velmo::CToolSet* set = Set())
            set->Forward(kPlaneToolId, pane, event);
        return;
    }
    LineConstraint* line = AsLine(*hit);
    if (!line)
        return;
    if (event.modifiers & Velmo::kModAlt) {
        Forget(line->GetId());
        DeleteConstraint(*line);
        return;
    }
    edit_ = line;
    const LinePart part = line->HitPart(ToPicture(pane, event.position),
                                        static_cast<float>(Tolerance(pane)), Host().PreviewOn());
    switch (part) {
        case LinePart::Body:
            if (Constraints().IsSelected(line->GetId()))
                Constraints().Deselect(line->GetId());
            else
                Constraints().Select(line->GetId());
            state_ = kIdle;
            Host().RepaintPanes();
            break;
        case LinePart::FirstEnd:
        case LinePart::SecondEnd: {
            backup_ = line->CloneLine();
            state_ = kAdjusting;
            const bool first = part == LinePart::FirstEnd;
            pane.StartTracker(*this, event, [this, line, first] {
                return std::make_shared<PAdjustConstraintTracker>(*this, *line, first);
            });
            break;
        }
        case LinePart::MiddleHandle:
            Constraints().Select(line->GetId());
            state_ = kAdjusting;
            pane.StartTracker(*this, event,
                              [this] { return std::make_shared<PFitConstraintTracker>(*this); });
            break;
        default:
            break;
    }
}

void PManageConstraintTool::BeginLine(CImagePane& pane, const CMouseEvent& event) {
    if (inProgress_)
        Continue();
    Constraints().ClearSelection();
    state_ = kAdding;
    inProgress_ = std::make_unique<LineConstraint>();
    edit_ = inProgress_.get();
    pane.StartTracker(*this, event,
                      [this] { return std::make_shared<PAddConstraintTracker>(*this); });
}

void PManageConstraintTool::Continue() {
    if (edit_ == inProgress_.get())
        edit_ = nullptr;
    inProgress_.reset();
    // Ready for the next press, which hit-tests afresh.
    state_ = kIdle;
    Host().RepaintPanes();
}

void PManageConstraintTool::CommitLine(Orientation orientation) {
    std::unique_ptr<LineConstraint> line = std::move(inProgress_);
    line->SetOrientation(orientation);
    PWorkspace& workspace = Host().Workspace();
    const int32_t id = Constraints().Add(std::move(line));
    Constraint* added = Constraints().Find(id);
    Constraints().Select(id);
    Host().Tasks().Push(std::make_unique<PAddConstraintTask>(workspace, *added));
    drawOrientation_ = Orientation::Unfixed;
    edit_ = AsLine(*added);
    justAdded_ = id;
    state_ = kIdle;
    if (Host().UpdateDrawing(*added))
        workspace.RequestResolve();
    workspace.RefreshControls();
    Host().RepaintPanes();
}

void PManageConstraintTool::EndAdjust(bool moved) {
    if (moved)
        justAdded_ = -1;
    if (edit_ && backup_ && moved) {
        Host().Tasks().Push(
            std::make_unique<PAdjustConstraintTask>(Host().Workspace(), *edit_, *backup_));
        Host().Workspace().RequestResolve();
    }
    backup_.reset();
    if (edit_)
        Host().UpdateDrawing(*edit_);
    state_ = kIdle;
    Host().RepaintPanes();
}

void PManageConstraintTool::Calibrate() {
    ConstraintSet& set = Constraints();
    if (!edit_ || !set.HasFitPoint()) {
        set.ResetFitPoint();
        return;
    }
    const QSizeF size = Host().SourceSize();
    const CalibrationPoint centre{size.width() / 2.0, size.height() / 2.0};
    const auto point = [](PointF p) { return CalibrationPoint{p.x, p.y}; };
    const FocalSolver& solver =
        Host().Projection() == ProjectionModel::Perspective ? *perspective_ : *calibrator_;
    const auto [low, high] = Host().FocalRangePixels();
    // Searched beyond the slider's range, so that a result outside it is
    // told apart from none.
    const double focal = solver.Solve(centre, point(edit_->First()), point(edit_->Second()),
                                      point(set.FitPoint()), low / 4.0, high * 4.0);
    set.ResetFitPoint();
    if (focal > 0.0 && focal >= low && focal <= high) {
        Host().SetCalibratedFocal(focal);
    } else {
        Host().RepaintPanes();
        Host().Workspace().Alert(kCalibrationFailed);
    }
}

void PManageConstraintTool::EndRotation(bool keep) {
    LineConstraint* line = edit_;
    if (line) {
        const float angle = line->Angle();
        if (!keep) {
            line->SetAngle(rotationStart_);
            Host().Workspace().RequestResolve();
        } else if (angle != rotationStart_) {
            Host().Tasks().Push(std::make_unique<PMarkConstraintTask>(
                Host().Workspace(), *line, Orientation::Arbitrary, rotationStart_));
            Host().Workspace().RequestResolve();
        }
    }
    state_ = kIdle;
    busy_ = false;
    rotationDisplay_ = -1.0f;
    if (angleWindow_)
        angleWindow_->hide();
    Host().RepaintPanes();
}

void PManageConstraintTool::MouseMoved(CImagePane& pane, const CMouseEvent& event) {
    if (state_ == kAdding)
        return;
    Hover(pane, event.position);
}

void PManageConstraintTool::AdjustCursor(CImagePane& pane, const CMouseEvent& event) {
    if (busy_)
        return;
    const auto set = [&pane](CCursorKind kind, int index = 0) {
        pane.SetPaneCursor(CCursors::Get(kind, index));
    };
    if (state_ == kAdjusting)
        return set(CCursorKind::Move);
    if (state_ == kRotating)
        return set(CCursorKind::Rotate, cursorIndex_);
    if (!InImage(pane, event.position))
        return set(CCursorKind::Arrow);
    int index = 0;
    const LineConstraint* rotated = HitRotationHandle(pane, event.position, index);
    Constraint* hit = HitConstraint(pane, event.position);
    if (state_ == kAdding || (event.modifiers & Velmo::kModHand) || (!hit && !rotated))
        return set(CCursorKind::Crosshair);
    if (rotated) {
        cursorIndex_ = static_cast<uint16_t>(index);
        return set(CCursorKind::Rotate, index);
    }
    const LineConstraint* line = AsLine(*hit);
    if (line && (event.modifiers & Velmo::kModAlt))
        return set(CCursorKind::Delete);
    if (!line)
        return set(CCursorKind::Polygon);
    const LinePart part = line->HitPart(ToPicture(pane, event.position),
                                        static_cast<float>(Tolerance(pane)), Host().PreviewOn());
    set(part == LinePart::Body ? CCursorKind::Arrow : CCursorKind::Move);
}

bool PManageConstraintTool::KeyDown(CImagePane&, const Velmo::CKeyEvent& event) {
    if (event.code != Velmo::kKeyEscape || (state_ == kIdle && !inProgress_))
        return false;
    Cancel();
    return true;
}

void PManageConstraintTool::Activate() {
    Host().ShowConstraints();
}

void PManageConstraintTool::Deactivate() {
    if (state_ != kIdle)
        Cancel();
    justAdded_ = -1;
    Constraints().SetHighlight(-1);
    Constraints().ClearSelection();
    Host().SetHoverText({});
    Host().RepaintPanes();
}

void PManageConstraintTool::Cancel() {
    switch (state_) {
        case kAdding:
            if (edit_ == inProgress_.get())
                edit_ = nullptr;
            inProgress_.reset();
            break;
        case kAdjusting:
            if (backup_) {
                if (edit_) {
                    edit_->CopyGeometryFrom(*backup_);
                    Host().UpdateDrawing(*edit_);
                }
                backup_.reset();
            } else {
                Constraints().ResetFitPoint();
            }
            break;
        case kRotating:
            EndRotation(false);
            break;
        default:
            break;
    }
    state_ = kIdle;
    busy_ = false;
    Host().RepaintPanes();
}

void PManageConstraintTool::Forget(int32_t id) {
    if (justAdded_ == id)
        justAdded_ = -1;
    if (edit_ && edit_ != inProgress_.get() && edit_->GetId() == id) {
        if (state_ != kAdding && state_ != kIdle)
            Cancel();
        edit_ = nullptr;
        backup_.reset();
    }
}

void PManageConstraintTool::PaintFeedback(QPainter& painter, const CImagePane& pane) const {
    const auto& colors = Host().Workspace().Settings().colors;
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    if (state_ == kAdding && inProgress_ && drawFrom_ != drawTo_) {
        const PDisplayColor which =
            drawOrientation_ == Orientation::Horizontal ? PDisplayColor::Horizontal
            : drawOrientation_ == Orientation::Vertical ? PDisplayColor::Vertical
                                                        : PDisplayColor::Unfixed;
        const QPointF a = pane.ImageToPane(drawFrom_), b = pane.ImageToPane(drawTo_);
        painter.setPen(QPen(QColor(0, 0, 0, 150), 3.5, Qt::SolidLine, Qt::RoundCap));
        painter.drawLine(a, b);
        painter.setPen(QPen(DisplayColor(colors, which), 1.5, Qt::SolidLine, Qt::RoundCap));
        painter.drawLine(a, b);
    }
    if (Constraints().HasFitPoint()) {
        const QPointF at = pane.ImageToPane(fitPicture_);
        painter.setPen(QPen(DisplayColor(colors, PDisplayColor::Fixed), 1.5));
        painter.drawLine(at + QPointF(-5, 0), at + QPointF(5, 0));
        painter.drawLine(at + QPointF(0, -5), at + QPointF(0, 5));
        painter.drawEllipse(at, 3.0, 3.0);
    }
    painter.restore();
}

// ------------------------------------------------------------------ PPlaneTool

PPlaneTool::PPlaneTool(PToolHost& host)
    : PTool(host, "PlaneTool", std::string(kPlaneToolId), std::string(kPlaneTip),
            std::string(kPlaneHelp)) {}

PPlaneTool::~PPlaneTool() = default;

QIcon PPlaneTool::Icon() const {
    return QIcon(ToolPicture(true));
}

int32_t PPlaneTool::PointsInProgress() const {
    return inProgress_ ? inProgress_->VertexCount() : 0;
}

std::string PPlaneTool::SpringTool(CImagePane& pane, CMouseEvent& event) {
    if (inProgress_)
        return {};
    return SpringToTypeTool(pane, event);
}

void PPlaneTool::MouseDown(CImagePane& pane, const CMouseEvent& event) {
    if (!InImage(pane, event.position))
        return;
    if ((event.modifiers & Velmo::kModHand) || inProgress_) {
        AddPoint(pane, event);
        return;
    }
    int cursor = 0;
    const LineConstraint* rotated = HitRotationHandle(pane, event.position, cursor);
    Constraint* hit = HitConstraint(pane, event.position);
    if (rotated || (hit && AsLine(*hit))) {
        if (Velmo::CToolSet* set = Set())
            set->Forward(kManageConstraintToolId, pane, event);
        return;
    }
    if (!hit) {
        AddPoint(pane, event);
        return;
    }
    PlaneConstraint* plane = AsPlane(*hit);
    if (!plane)
        return;
    if (event.modifiers & Velmo::kModAlt) {
        Forget(plane->GetId());
        DeleteConstraint(*plane);
        return;
    }
    edit_ = plane;
    Constraints().Select(plane->GetId());
    // The corner under the press, if any.
    const PointF at = ToPicture(pane, event.position);
    const auto t = static_cast<float>(Tolerance(pane));
    int32_t corner = -1;
    for (int32_t k = 0; k < plane->VertexCount() && corner < 0; ++k) {
        const PointF v = Host().PreviewOn()
                             ? (k < static_cast<int32_t>(plane->DisplayVertices().size())
                                    ? plane->DisplayVertices()[static_cast<size_t>(k)]
                                    : PointF{-1e9f, -1e9f})
                             : PointF{plane->Vertex(k).x, plane->Vertex(k).y};
        if (detail::WithinSquare(at, v, t))
            corner = k;
    }
    Host().RepaintPanes();
    pane.StartTracker(*this, event, [this, plane, corner] {
        return std::make_shared<PAdjustPlaneCornerTracker>(*this, *plane, corner);
    });
}

void PPlaneTool::AddPoint(CImagePane& pane, const CMouseEvent& event) {
    const QPointF picture = pane.PaneToImage(event.position);
    PointF source;
    if (!Host().PictureToSource(picture, source))
        return;  // outside the valid warped area
    state_ = 1;
    const bool shift = (event.modifiers & Velmo::kModShift) != 0;
    if (!inProgress_) {
        Constraints().ClearSelection();
        inProgress_ = std::make_unique<PlaneConstraint>();
        inProgress_->AddVertex(source);
        pictureCorners_ = {picture};
    } else {
        const QPointF first = pane.ImageToPane(pictureCorners_.front());
        if (inProgress_->VertexCount() >= 3 && WithinBox(event.position, first, kCloseDistance)) {
            ClosePolygon(pane, event);
            return;
        }
        for (const QPointF& corner : pictureCorners_)
            if (WithinBox(event.position, pane.ImageToPane(corner), kIgnoreDistance))
                return;
        // The edge that ends at the new point takes the orientation mode.
        const QPointF last = pane.ImageToPane(pictureCorners_.back());
        const Orientation mode =
            shift ? SnappedOrientation(last, event.position) : Orientation::Unfixed;
        inProgress_->AddVertex(source, static_cast<int32_t>(mode));
        pictureCorners_.push_back(picture);
    }
    rubberEnd_ = picture;
    rubber_ = true;
    Host().RepaintPanes();
}

void PPlaneTool::ClosePolygon(CImagePane& pane, const CMouseEvent& event) {
    const bool shift = (event.modifiers & Velmo::kModShift) != 0;
    const QPointF last = pane.ImageToPane(pictureCorners_.back());
    const QPointF first = pane.ImageToPane(pictureCorners_.front());
    inProgress_->SetEdgeCode(
        0, static_cast<int32_t>(shift ? SnappedOrientation(last, first) : Orientation::Unfixed));
    PWorkspace& workspace = Host().Workspace();
    const int32_t id = Constraints().Add(std::move(inProgress_));
    Constraint* added = Constraints().Find(id);
    Constraints().Select(id);
    Host().Tasks().Push(std::make_unique<PAddConstraintTask>(workspace, *added));
    workspace.RefreshControls();
    pictureCorners_.clear();
    rubber_ = false;
    state_ = 0;
    if (Host().UpdateDrawing(*added))
        workspace.RequestResolve();
    Host().MoveLoupe(pane.PaneToImage(event.position));
    Host().RepaintPanes();
}

void PPlaneTool::MouseMoved(CImagePane& pane, const CMouseEvent& event) {
    if (inProgress_) {
        rubberEnd_ = pane.PaneToImage(event.position);
        Host().RepaintPanes();
        return;
    }
    Hover(pane, event.position);
}

void PPlaneTool::AdjustCursor(CImagePane& pane, const CMouseEvent& event) {
    const auto set = [&pane](CCursorKind kind) { pane.SetPaneCursor(CCursors::Get(kind)); };
    if (!InImage(pane, event.position))
        return set(CCursorKind::Arrow);
    Constraint* hit = inProgress_ ? nullptr : HitConstraint(pane, event.position);
    if (!hit || (event.modifiers & Velmo::kModHand))
        return set(CCursorKind::Polygon);
    const PlaneConstraint* plane = AsPlane(*hit);
    if (plane && (event.modifiers & Velmo::kModAlt))
        return set(CCursorKind::Delete);
    set(plane ? CCursorKind::Move : CCursorKind::Arrow);
}

bool PPlaneTool::KeyDown(CImagePane&, const Velmo::CKeyEvent& event) {
    if (event.code != Velmo::kKeyEscape || !inProgress_)
        return false;
    Cancel();
    return true;
}

void PPlaneTool::Deactivate() {
    Cancel();
    Constraints().SetHighlight(-1);
    Constraints().ClearSelection();
    Host().SetHoverText({});
    Host().RepaintPanes();
}

void PPlaneTool::Cancel() {
    inProgress_.reset();
    pictureCorners_.clear();
    rubber_ = false;
    state_ = 0;
    Host().RepaintPanes();
}

void PPlaneTool::Forget(int32_t id) {
    if (edit_ && edit_->GetId() == id)
        edit_ = nullptr;
}

void PPlaneTool::PaintFeedback(QPainter& painter, const CImagePane& pane) const {
    if (!inProgress_ || pictureCorners_.empty())
        return;
    const auto& colors = Host().Workspace().Settings().colors;
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    QPolygonF path;
    for (const QPointF& corner : pictureCorners_)
        path << pane.ImageToPane(corner);
    if (rubber_)
        path << pane.ImageToPane(rubberEnd_);
    painter.setPen(QPen(QColor(0, 0, 0, 150), 3.5, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
    painter.drawPolyline(path);
    painter.setPen(QPen(DisplayColor(colors, PDisplayColor::Unfixed), 1.5, Qt::SolidLine,
                        Qt::RoundCap, Qt::RoundJoin));
    painter.drawPolyline(path);
    painter.setBrush(QColor(250, 250, 250));
    painter.setPen(QPen(QColor(0, 0, 0, 170), 1.0));
    for (const QPointF& corner : pictureCorners_) {
        const QPointF at = pane.ImageToPane(corner);
        painter.drawRect(QRectF(at.x() - 3, at.y() - 3, 6, 6));
    }
    painter.restore();
}

// ------------------------------------------------------------------ PConstraintTypeTool

PConstraintTypeTool::PConstraintTypeTool(PToolHost& host)
    : PTool(host, "ConstraintTypeTool", std::string(kConstraintTypeToolId), {}, {}) {}

std::string PConstraintTypeTool::SpringTool(CImagePane&, CMouseEvent& event) {
    if (!(event.modifiers & (Velmo::kModAlt | Velmo::kModHand)))
        return {};
    event.modifiers &= ~Velmo::kModAlt;
    return std::string(dialog_text::kZoomTool);
}

void PConstraintTypeTool::MouseDown(CImagePane& pane, const CMouseEvent& event) {
    Constraint* hit = HitConstraint(pane, event.position);
    if (!hit)
        return;
    const bool display = Host().PreviewOn();
    PWorkspace& workspace = Host().Workspace();
    // Unfixed becomes Horizontal or Vertical by the drawn angle; anything
    // else becomes Unfixed.
    const auto toggled = [&pane](int32_t code, PointF a, PointF b) {
        if (code != static_cast<int32_t>(Orientation::Unfixed))
            return Orientation::Unfixed;
        return SnappedOrientation(pane.ImageToPane(ToQ(a)), pane.ImageToPane(ToQ(b)));
    };
    if (LineConstraint* line = AsLine(*hit)) {
        float previousAngle = 0.0f;
        const Orientation previous = line->GetOrientation(previousAngle);
        const Orientation next =
            toggled(line->OrientationCode(), display ? line->DisplayFirst() : line->First(),
                    display ? line->DisplaySecond() : line->Second());
        line->SetOrientation(next);
        workspace.RequestResolve();
        Host().Tasks().Push(
            std::make_unique<PMarkConstraintTask>(workspace, *line, previous, previousAngle));
    } else if (PlaneConstraint* plane = AsPlane(*hit)) {
        const int32_t edge = plane->HitEdge(ToPicture(pane, event.position),
                                            static_cast<float>(Tolerance(pane)), display);
        if (edge < 0)
            return;
        const int32_t n = plane->VertexCount();
        const int32_t from = PlaneConstraint::EdgeStart(edge, n);
        const auto vertex = [&](int32_t k) {
            if (display && static_cast<int32_t>(plane->DisplayVertices().size()) == n)
                return plane->DisplayVertices()[static_cast<size_t>(k)];
            return PointF{plane->Vertex(k).x, plane->Vertex(k).y};
        };
        const int32_t previous = plane->GetEdgeCode(edge);
        plane->SetEdgeCode(edge,
                           static_cast<int32_t>(toggled(previous, vertex(from), vertex(edge))));
        Host().Tasks().Push(
            std::make_unique<PMarkPlaneEdgeTask>(workspace, *plane, edge, previous));
        workspace.RequestResolve();
    }
    workspace.RefreshControls();
    Host().RepaintPanes();
    Host().MoveLoupe(pane.PaneToImage(event.position));
}

void PConstraintTypeTool::AdjustCursor(CImagePane& pane, const CMouseEvent& event) {
    pane.SetPaneCursor(CCursors::Get(HitConstraint(pane, event.position) ? CCursorKind::Orientation
                                                                         : CCursorKind::Arrow));
}

}  // namespace Project
