#pragma once

#include <QColor>
#include <QPainter>
#include <QPointF>
#include <array>
#include <cstdint>
#include <functional>

#include "constraints/Constraint.h"

namespace Project {

class ConstraintSet;

// The six display colours of the settings (ARGB): lines with unfixed
// orientation, horizontal, vertical, fixed at an angle, invalid constraints,
// and the mesh.
enum class PDisplayColor { Unfixed = 0, Horizontal, Vertical, Fixed, Invalid, Mesh };

QColor DisplayColor(const std::array<uint32_t, 6>& colors, PDisplayColor which);

// Draws constraints with a QPainter. Geometry is taken in one space: the
// display copies (the warped preview, picture pixels) or the source pixels,
// and placed on the widget by `toWidget`. Each stroke is a coloured line over
// a dark halo, so it reads on bright and dark parts of a photograph alike;
// the selected and the highlighted constraint are drawn heavier.
class PConstraintDrawing final : public ConstraintPainter {
public:
    using ToWidget = std::function<QPointF(PointF)>;

    PConstraintDrawing(QPainter& painter, const ConstraintSet& set,
                       const std::array<uint32_t, 6>& colors, bool displaySpace, ToWidget toWidget);

    // Draws every constraint of the set in list order.
    void DrawAll();
    // Number of constraints that had something to draw in the last DrawAll.
    int Drawn() const { return drawn_; }
    // Of those, the number drawn in the colour of unusable constraints.
    int DrawnInvalid() const { return invalid_; }

    void PaintLine(const LineConstraint& line) override;
    void PaintPlane(const PlaneConstraint& plane) override;

private:
    void Stroke(const QPolygonF& path, const QColor& color, bool heavy, bool closed);
    void Handle(QPointF at, const QColor& color);

    QPainter& painter_;
    const ConstraintSet& set_;
    const std::array<uint32_t, 6>& colors_;
    bool display_;
    ToWidget toWidget_;
    int drawn_ = 0;
    int invalid_ = 0;
};

}  // namespace Project
