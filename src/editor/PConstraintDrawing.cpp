#include "editor/PConstraintDrawing.h"

#include <QPainterPath>
#include <QPolygonF>

#include "constraints/ConstraintSet.h"
#include "editor/PConstraintTools.h"

namespace Project {

namespace {

constexpr double kHandleHalf = 3.0;

PDisplayColor ColorForCode(int32_t code) {
    switch (code) {
        case static_cast<int32_t>(Orientation::Horizontal):
            return PDisplayColor::Horizontal;
        case static_cast<int32_t>(Orientation::Vertical):
            return PDisplayColor::Vertical;
        case static_cast<int32_t>(Orientation::Arbitrary):
            return PDisplayColor::Fixed;
        default:
            return PDisplayColor::Unfixed;
    }
}

}  // namespace

QColor DisplayColor(const std::array<uint32_t, 6>& colors, PDisplayColor which) {
    return QColor::fromRgba(colors[static_cast<size_t>(which)]);
}

PConstraintDrawing::PConstraintDrawing(QPainter& painter, const ConstraintSet& set,
                                       const std::array<uint32_t, 6>& colors, bool displaySpace,
                                       ToWidget toWidget)
    : painter_(painter),
      set_(set),
      colors_(colors),
      display_(displaySpace),
      toWidget_(std::move(toWidget)) {}

void PConstraintDrawing::DrawAll() {
    drawn_ = 0;
    invalid_ = 0;
    painter_.save();
    painter_.setRenderHint(QPainter::Antialiasing);
    for (const auto& constraint : set_.Constraints())
        constraint->Draw(*this);
    painter_.restore();
}

void PConstraintDrawing::Stroke(const QPolygonF& path, const QColor& color, bool heavy,
                                bool closed) {
    if (path.size() < 2)
        return;
    const double width = heavy ? 2.5 : 1.5;
    QPen halo(QColor(0, 0, 0, 150), width + 2.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    QPen pen(color, width, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin);
    for (const QPen& p : {halo, pen}) {
        painter_.setPen(p);
        if (closed)
            painter_.drawPolygon(path);
        else
            painter_.drawPolyline(path);
    }
}

void PConstraintDrawing::Handle(QPointF at, const QColor& color) {
    const QRectF box(at.x() - kHandleHalf, at.y() - kHandleHalf, 2 * kHandleHalf, 2 * kHandleHalf);
    painter_.setPen(QPen(QColor(0, 0, 0, 170), 1.0));
    painter_.setBrush(color);
    painter_.drawRect(box);
    painter_.setBrush(Qt::NoBrush);
}

void PConstraintDrawing::PaintLine(const LineConstraint& line) {
    QPolygonF path;
    if (display_) {
        // No display copy yet (no warp has been solved since it was added).
        if (line.DisplaySamples().size() < 2 && line.DisplayFirst() == line.DisplaySecond())
            return;
        // Samples also come from a fit made before the solve (an edit just
        // made): they are the arc through the warp shown.
        if (line.DisplaySamples().size() > 1) {
            for (const PointF p : line.DisplaySamples())
                path << toWidget_(p);
        } else {
            path << toWidget_(line.DisplayFirst()) << toWidget_(line.DisplaySecond());
        }
    } else {
        path << toWidget_(line.First()) << toWidget_(line.Second());
    }
    const bool valid = !display_ || line.HasValidEntry() || line.DisplaySamples().size() > 1;
    invalid_ += valid ? 0 : 1;
    const QColor color = DisplayColor(
        colors_, valid ? ColorForCode(line.OrientationCode()) : PDisplayColor::Invalid);
    const bool heavy = set_.IsSelected(line.GetId()) || set_.Highlight() == line.GetId();
    Stroke(path, color, heavy, false);
    Handle(path.front(), color);
    Handle(path.back(), color);
    if (line.ShowsMiddleHandle()) {
        // The middle handle (focal calibration): round, to tell it from the ends.
        const QPointF middle = toWidget_(line.MiddleHandle(display_));
        painter_.setPen(QPen(QColor(0, 0, 0, 170), 1.0));
        painter_.setBrush(color);
        painter_.drawEllipse(middle, kHandleHalf, kHandleHalf);
        painter_.setBrush(Qt::NoBrush);
    }
    if (const auto rotation = RotationHandleOf(line, display_, toWidget_)) {
        // The rotation handle on its stalk from the middle of the line.
        painter_.setPen(QPen(QColor(0, 0, 0, 150), 3.0));
        painter_.drawLine(rotation->pivot, rotation->handle);
        painter_.setPen(QPen(color, 1.2));
        painter_.drawLine(rotation->pivot, rotation->handle);
        painter_.setPen(QPen(QColor(0, 0, 0, 170), 1.0));
        painter_.setBrush(QColor(250, 250, 250));
        painter_.drawEllipse(rotation->handle, kHandleHalf, kHandleHalf);
        painter_.setBrush(Qt::NoBrush);
    }
    ++drawn_;
}

void PConstraintDrawing::PaintPlane(const PlaneConstraint& plane) {
    const int32_t n = plane.VertexCount();
    if (n == 0)
        return;
    const bool valid = plane.Flag() != PlaneConstraint::kFlagInvalid;
    invalid_ += valid ? 0 : 1;
    const bool heavy = set_.IsSelected(plane.GetId()) || set_.Highlight() == plane.GetId();
    // The outline, edge by edge (edge k ends at vertex k).
    std::vector<QPolygonF> edges(static_cast<size_t>(n));
    QPolygonF outline;
    const bool useDisplay = display_ && static_cast<int32_t>(plane.DisplayEdges().size()) == n;
    if (display_ && !useDisplay && static_cast<int32_t>(plane.DisplayVertices().size()) != n)
        return;
    for (int32_t k = 0; k < n; ++k) {
        QPolygonF& edge = edges[static_cast<size_t>(k)];
        if (useDisplay) {
            for (const PointF p : plane.DisplayEdges()[static_cast<size_t>(k)])
                edge << toWidget_(p);
        }
        if (edge.size() < 2) {
            const int32_t from = PlaneConstraint::EdgeStart(k, n);
            const auto vertex = [&](int32_t i) {
                return display_ ? plane.DisplayVertices()[static_cast<size_t>(i)]
                                : PointF{plane.Vertex(i).x, plane.Vertex(i).y};
            };
            edge = QPolygonF() << toWidget_(vertex(from)) << toWidget_(vertex(k));
        }
    }
    for (int32_t k = 1; k <= n; ++k)
        outline << edges[static_cast<size_t>(k % n)];
    QColor fill = DisplayColor(colors_, valid ? PDisplayColor::Unfixed : PDisplayColor::Invalid);
    fill.setAlpha(heavy ? 60 : 36);
    painter_.setPen(Qt::NoPen);
    painter_.setBrush(fill);
    painter_.drawPolygon(outline);
    painter_.setBrush(Qt::NoBrush);
    for (int32_t k = 0; k < n; ++k) {
        const QColor color = DisplayColor(
            colors_, valid ? ColorForCode(plane.GetEdgeCode(k)) : PDisplayColor::Invalid);
        Stroke(edges[static_cast<size_t>(k)], color, heavy, false);
    }
    for (int32_t k = 0; k < n; ++k)
        Handle(edges[static_cast<size_t>(k)].back(),
               DisplayColor(colors_, valid ? PDisplayColor::Unfixed : PDisplayColor::Invalid));
    ++drawn_;
}

}  // namespace Project
