#pragma once

#include <QCursor>
#include <QPixmap>
#include <cstdint>

namespace Velmo {

// The framework's cursors. All but the standard arrow and the hands are drawn
// here with QPainter (a dark outline over a light halo, so they read on any
// image); none comes from an image file.
enum class CCursorKind {
    Arrow,        // the system's standard arrow
    Crosshair,    // precise placement
    Move,         // four-way arrow: dragging a point or a handle
    Delete,       // arrow with a minus badge: Alt over something deletable
    Orientation,  // arrow with a right-angle badge: toggling an orientation
    Polygon,      // crosshair with a polygon badge
    Rotate,       // curved double arrow; see kRotationCursors
    ZoomIn,
    ZoomOut,
    Hand,  // the system's open hand
    Grab,  // the system's closed hand
};

// The rotation cursors: kRotationCursors cursors, index k showing the curved
// arrow turned by k * 45 degrees (counter-clockwise on screen), so a handle at
// any angle around its pivot gets the arrow that runs along its circle.
inline constexpr int kRotationCursors = 8;

class CCursors {
public:
    // `index` selects the rotation cursor (taken modulo kRotationCursors);
    // other kinds ignore it. Drawn once and kept.
    static QCursor Get(CCursorKind kind, int index = 0);
    // The picture of a drawn cursor (null for the system's ones), 32 x 32.
    static QPixmap Picture(CCursorKind kind, int index = 0);
    // The rotation cursor index for a direction from the pivot, in degrees
    // counter-clockwise from the x axis.
    static int RotationIndexForAngle(double degrees);
};

// Named pictures that layouts refer to ("SolverFailureIcon"); null when the
// name is unknown.
QPixmap DrawNamedIcon(const QString& name, QSize size);

}  // namespace Velmo
