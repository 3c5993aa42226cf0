#pragma once

#include <cstdint>

namespace Project {

// A point in pixels (source-image pixels from the top-left corner, y down, or
// display pixels of the warped output, y down), single precision as the
// constraints store it.
struct PointF {
    float x = 0.0f;
    float y = 0.0f;
    friend bool operator==(const PointF&, const PointF&) = default;
};

// A rectangle in view coordinates (the preview pane's pixels), edges as given.
struct ViewRect {
    double left = 0.0;
    double top = 0.0;
    double right = 0.0;
    double bottom = 0.0;
    friend bool operator==(const ViewRect&, const ViewRect&) = default;
};

// A 2-D affine map, double precision:
//   x' = a x + b y + c,   y' = d x + e y + f.
// Used for the output plane -> display pixels map (typically a scale, a flip of
// y because the output plane's y grows upwards, and an offset) and for the
// preview pane's image -> view map.
struct Affine2D {
    double a = 1.0, b = 0.0, c = 0.0;
    double d = 0.0, e = 1.0, f = 0.0;

    static Affine2D Identity() { return {}; }
    // x' = sx x + tx, y' = sy y + ty.
    static Affine2D ScaleOffset(double sx, double sy, double tx, double ty) {
        return {sx, 0.0, tx, 0.0, sy, ty};
    }

    void Apply(double x, double y, double& outX, double& outY) const {
        outX = a * x + b * y + c;
        outY = d * x + e * y + f;
    }
    // The inverse map; false (and `out` untouched) when the map is singular.
    bool Invert(Affine2D& out) const {
        const double det = a * e - b * d;
        if (!(det != 0.0) || !(det == det))
            return false;
        Affine2D r;
        r.a = e / det;
        r.b = -b / det;
        r.d = -d / det;
        r.e = a / det;
        r.c = -(r.a * c + r.b * f);
        r.f = -(r.d * c + r.e * f);
        out = r;
        return true;
    }
    PointF Apply(PointF p) const {
        double x, y;
        Apply(p.x, p.y, x, y);
        return {static_cast<float>(x), static_cast<float>(y)};
    }
};

// Orientation codes of a line constraint, and of a polygon edge (which uses 1
// to 3 only). The codes are stored as such in constraint files and undo tasks.
enum class Orientation : int32_t { Unfixed = 1, Horizontal = 2, Vertical = 3, Arbitrary = 4 };

constexpr bool IsLineOrientationCode(int64_t code) {
    return code >= 1 && code <= 4;
}
constexpr bool IsEdgeCode(int64_t code) {
    return code >= 1 && code <= 3;
}

// The part of a line that a point hits.
enum class LinePart : int32_t { None = 1, FirstEnd = 2, SecondEnd = 3, MiddleHandle = 4, Body = 5 };

// The space in which a display update places a constraint's display geometry.
//   warped = true:  source pixel -> sphere direction (PhotoToSphere::ToSphere)
//                   -> output plane through the GeodesicLines' current warp
//                   -> display pixels through `transform`.
//   warped = false: the unwarped source: source pixels -> display pixels
//                   through `transform` (identity when the display shows the
//                   source at its own pixel grid).
// The editor uses warped = true while its Preview check is on.
struct DisplaySpace {
    bool warped = false;
    Affine2D transform;
};

}  // namespace Project
