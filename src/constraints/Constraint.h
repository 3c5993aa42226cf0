#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "constraints/ConstraintTypes.h"

namespace Project {

class GeodesicLines;
class LineConstraint;
class PlaneConstraint;

// Draws constraints on the preview pane. The constraints layer has no drawing
// of its own (no UI toolkit here): the editor implements this interface with
// its painter, pens and colours, and a constraint's Draw dispatches to the
// method for its class.
class ConstraintPainter {
public:
    virtual ~ConstraintPainter() = default;
    virtual void PaintLine(const LineConstraint& line) = 0;
    virtual void PaintPlane(const PlaneConstraint& plane) = 0;
};

// What the user draws on the photograph: a line along an edge that is straight
// in the scene, or a polygon around a flat surface. The geometry is kept in
// source-image pixels (origin at the top-left corner, y down), so it survives
// any change of projection, focal length or scale; a display copy in the
// warped output is recomputed by UpdateDisplay after every solve.
//
// Identifier: -1 until the constraint set assigns one; undo tasks and the
// solver's line list (GeodesicLines) find a constraint again by it. Copies are
// made with Clone only (ownership by std::unique_ptr throughout).
//
// The virtual operations are declared in the order the editor, the file code
// and the undo tasks rely on: Clone, Draw, PayloadSize, GetId/SetId, Refresh,
// HitTest, UpdateDisplay, BoundingRect.
class Constraint {
public:
    virtual ~Constraint() = default;
    Constraint& operator=(const Constraint&) = delete;

    // A new constraint with the same identifier and source geometry; display
    // samples are left empty (see each class).
    virtual std::unique_ptr<Constraint> Clone() const = 0;
    // Hands the constraint to the painter method of its class.
    virtual void Draw(ConstraintPainter& painter) const = 0;
    // Bytes of the constraint's record payload in a constraint file (the tag
    // not included): 28 for a line, 8 + 12 x vertices for a polygon.
    virtual uint32_t PayloadSize() const = 0;

    int32_t GetId() const { return id_; }
    void SetId(int32_t id) { id_ = id; }

    // Looks the constraint's entry up in the solver's line list by identifier
    // and refreshes the cached validity from it. Returns 1 when the entry
    // exists and is usable, 0 otherwise (for a polygon: its flag byte).
    virtual int32_t Refresh(const GeodesicLines& lines) = 0;
    // True when `point` hits the constraint within `tolerance` (a square:
    // |dx| <= t and |dy| <= t). displaySpace selects the display geometry
    // instead of the source geometry.
    virtual bool HitTest(PointF point, float tolerance, bool displaySpace) const = 0;
    // Recomputes the display geometry in `space` from the fitted entry in
    // `lines` (or, without an entry, from a temporary fit).
    virtual void UpdateDisplay(const GeodesicLines& lines, const DisplaySpace& space) = 0;
    // The rectangle to invalidate in view coordinates: display geometry when
    // `preview` is set, source geometry otherwise, each point taken through
    // `toView`, grown by 7 on every side. Points are ordered by absolute value
    // (see the implementations); this is deliberate.
    virtual ViewRect BoundingRect(bool preview, const Affine2D& toView) const = 0;

protected:
    Constraint() = default;
    Constraint(const Constraint&) = default;

    int32_t id_ = -1;
};

// How much a bounding rectangle grows on every side.
inline constexpr double kBoundingRectGrowth = 7.0;

// A straight line in the scene, given by its two endpoints in source pixels.
class LineConstraint final : public Constraint {
public:
    static constexpr uint32_t kPayloadSize = 28;

    LineConstraint() = default;
    LineConstraint(float x1, float y1, float x2, float y2,
                   Orientation orientation = Orientation::Unfixed, float angle = 0.0f);

    // Same identifier, source endpoints, angle, orientation and display
    // endpoints; no display samples and no cached entry validity.
    std::unique_ptr<Constraint> Clone() const override;
    std::unique_ptr<LineConstraint> CloneLine() const;
    void Draw(ConstraintPainter& painter) const override { painter.PaintLine(*this); }
    uint32_t PayloadSize() const override { return kPayloadSize; }
    int32_t Refresh(const GeodesicLines& lines) override;
    bool HitTest(PointF point, float tolerance, bool displaySpace) const override;
    void UpdateDisplay(const GeodesicLines& lines, const DisplaySpace& space) override;
    // Each axis: the coordinate of smaller absolute value is the minimum, the
    // other the maximum.
    ViewRect BoundingRect(bool preview, const Affine2D& toView) const override;

    // Which part of the line `point` hits: with a usable entry and more than
    // one display sample, the display polyline (its first and last samples are
    // the endpoints, then the middle handle when shown, then the body segment
    // by segment); otherwise the endpoints themselves (display or source by
    // displaySpace) and the middle handle.
    LinePart HitPart(PointF point, float tolerance, bool displaySpace) const;

    // Source endpoints.
    PointF First() const { return {x1_, y1_}; }
    PointF Second() const { return {x2_, y2_}; }
    void SetFirst(PointF p) { x1_ = p.x, y1_ = p.y; }
    void SetSecond(PointF p) { x2_ = p.x, y2_ = p.y; }
    void SetEndpoints(PointF first, PointF second) { SetFirst(first), SetSecond(second); }

    // Orientation with its angle: returns the orientation and writes the angle.
    // The angle is the line's direction for Arbitrary, in degrees,
    // counter-clockwise from the x axis as seen on the display (the output
    // plane's y grows upwards, so this is counter-clockwise there too). It is
    // kept, unused, under the other orientations.
    Orientation GetOrientation(float& angle) const {
        angle = angle_;
        return orientation_;
    }
    Orientation GetOrientation() const { return orientation_; }
    void SetOrientation(Orientation orientation, float angle) {
        orientation_ = orientation, angle_ = angle;
    }
    void SetOrientation(Orientation orientation) { orientation_ = orientation; }
    float Angle() const { return angle_; }
    void SetAngle(float degrees) { angle_ = degrees; }
    // The orientation code as stored in files; codes outside 1 ... 4 are only
    // ever produced by this setter's callers, never by the reader.
    int32_t OrientationCode() const { return static_cast<int32_t>(orientation_); }

    // Display geometry (see UpdateDisplay).
    PointF DisplayFirst() const { return displayFirst_; }
    PointF DisplaySecond() const { return displaySecond_; }
    void SetDisplayEndpoints(PointF first, PointF second) {
        displayFirst_ = first, displaySecond_ = second;
    }
    const std::vector<PointF>& DisplaySamples() const { return displaySamples_; }
    void SetDisplaySamples(std::vector<PointF> samples) { displaySamples_ = std::move(samples); }

    // Whether the last Refresh or UpdateDisplay found a usable entry for this
    // identifier in the solver's line list (the line takes part in the solve).
    bool HasValidEntry() const { return entryValid_; }
    // Drawn as unusable until the next Refresh or UpdateDisplay: an end was
    // refused where the warp shows nothing.
    void MarkInvalid() {
        entryValid_ = false;
        displaySamples_.clear();
    }

    // Whether the editor shows the middle handle (used for focal calibration);
    // off by default. The handle sits at MiddleHandle().
    bool ShowsMiddleHandle() const { return showsMiddleHandle_; }
    void SetShowsMiddleHandle(bool shows) { showsMiddleHandle_ = shows; }
    // The point at parameter 0.5 of the line: half the arc length along the
    // display polyline when it is used (more than one display sample and a
    // usable entry), else the midpoint of the two endpoints (display or source).
    PointF MiddleHandle(bool displaySpace) const;

    // Replaces this line's source geometry, orientation and angle by another's
    // (the identifier stays; display data is left as it is).
    void CopyGeometryFrom(const LineConstraint& other);

private:
    LineConstraint(const LineConstraint&) = default;
    bool UsesDisplayPolyline() const { return entryValid_ && displaySamples_.size() > 1; }

    float x1_ = 0.0f, y1_ = 0.0f, x2_ = 0.0f, y2_ = 0.0f;
    float angle_ = 0.0f;
    Orientation orientation_ = Orientation::Unfixed;
    PointF displayFirst_;
    PointF displaySecond_;
    std::vector<PointF> displaySamples_;
    bool entryValid_ = false;
    bool showsMiddleHandle_ = false;
};

// One corner of a polygon constraint. The edge code is the orientation mark of
// the edge that ENDS at this vertex: vertex k owns the edge from vertex k - 1
// to vertex k, and vertex 0 the closing edge from the last vertex (1
// Unfixed, 2 Horizontal, 3 Vertical).
struct PlaneVertex {
    float x = 0.0f;  // source pixels
    float y = 0.0f;
    bool present = true;
    int32_t edgeCode = 1;
    friend bool operator==(const PlaneVertex&, const PlaneVertex&) = default;
};

// A flat surface of the scene, outlined by a polygon in source pixels.
class PlaneConstraint final : public Constraint {
public:
    // Flag byte values: 1 (default) the polygon can be set up for the solver,
    // 0 its last set-up failed (too few corners, a corner without a sphere
    // direction, or wider than a hemisphere).
    static constexpr uint8_t kFlagValid = 1;
    static constexpr uint8_t kFlagInvalid = 0;

    PlaneConstraint() = default;

    // Same identifier, vertices and flag; empty display lists.
    std::unique_ptr<Constraint> Clone() const override;
    std::unique_ptr<PlaneConstraint> ClonePlane() const;
    void Draw(ConstraintPainter& painter) const override { painter.PaintPlane(*this); }
    uint32_t PayloadSize() const override {
        return 8 + 12 * static_cast<uint32_t>(vertices_.size());
    }
    // Takes the validity of the polygon's entry when there is one; returns
    // the flag byte.
    int32_t Refresh(const GeodesicLines& lines) override;
    // A vertex within the square tolerance hits; otherwise a point inside the
    // polygon (InsideTest != -1) hits.
    bool HitTest(PointF point, float tolerance, bool displaySpace) const override;
    // Display vertices and, per edge, the display points along its arc.
    void UpdateDisplay(const GeodesicLines& lines, const DisplaySpace& space) override;
    // Running minimum from the largest float, running maximum from the
    // smallest positive normal float, compared on absolute values.
    ViewRect BoundingRect(bool preview, const Affine2D& toView) const override;

    int32_t VertexCount() const { return static_cast<int32_t>(vertices_.size()); }
    const std::vector<PlaneVertex>& Vertices() const { return vertices_; }
    const PlaneVertex& Vertex(int32_t k) const { return vertices_[static_cast<size_t>(k)]; }
    void AddVertex(PointF p, int32_t edgeCode = 1);
    void SetVertexPosition(int32_t k, PointF p);
    void SetVertices(std::vector<PlaneVertex> vertices) { vertices_ = std::move(vertices); }
    void RemoveLastVertex();
    // Edge codes (see PlaneVertex); SetEdgeCode stores any code, the reader
    // maps codes outside 1 ... 3 to 1.
    int32_t GetEdgeCode(int32_t k) const { return vertices_[static_cast<size_t>(k)].edgeCode; }
    void SetEdgeCode(int32_t k, int32_t code) { vertices_[static_cast<size_t>(k)].edgeCode = code; }
    // The two vertices of edge k: (k - 1 mod n, k).
    static int32_t EdgeStart(int32_t k, int32_t n) { return (k + n - 1) % n; }

    uint8_t Flag() const { return flag_; }
    void SetFlag(uint8_t flag) { flag_ = flag; }

    const std::vector<PointF>& DisplayVertices() const { return displayVertices_; }
    // displayEdges[k]: the points along edge k (parallel to the vertices).
    const std::vector<std::vector<PointF>>& DisplayEdges() const { return displayEdges_; }

    // 1 inside, 0 on the outline, -1 outside (even-odd rule), against the
    // display outline (the display edges' points, or the display vertices
    // when there are none) or the source vertices.
    int32_t InsideTest(PointF point, bool displaySpace) const;
    // The first edge whose points (display edges or source vertices) pass
    // within `tolerance` of `point` (segment distance, as for a line's body),
    // or -1.
    int32_t HitEdge(PointF point, float tolerance, bool displaySpace) const;

private:
    PlaneConstraint(const PlaneConstraint&) = default;
    // The outline used for the inside and edge tests.
    std::vector<PointF> Outline(bool displaySpace) const;

    std::vector<PlaneVertex> vertices_;
    uint8_t flag_ = kFlagValid;
    std::vector<PointF> displayVertices_;
    std::vector<std::vector<PointF>> displayEdges_;
};

// The constraint as a line (a polygon) when its run-time class is exactly
// LineConstraint (PlaneConstraint), else null. The file writer and the
// fitting dispatch on the exact class this way.
const LineConstraint* AsLine(const Constraint& c);
LineConstraint* AsLine(Constraint& c);
const PlaneConstraint* AsPlane(const Constraint& c);
PlaneConstraint* AsPlane(Constraint& c);

namespace detail {

// |P - Q| in the square sense: |dx| <= t and |dy| <= t.
inline bool WithinSquare(PointF p, PointF q, float t) {
    const float dx = p.x - q.x;
    const float dy = p.y - q.y;
    return (dx < 0 ? -dx : dx) <= t && (dy < 0 ? -dy : dy) <= t;
}

// Squared distance from P to the segment A -> B, in the order of the line hit
// test: |P - A|^2 when s = (P - A).d <= 0 or |d|^2 = 0, |P - B|^2 when s > |d|^2,
// else the distance to the foot A + (s / |d|^2) d.
double SegmentDistanceSquared(PointF p, PointF a, PointF b);

// Even-odd test against a closed polyline: 1 inside, 0 on it, -1 outside.
int32_t PointInPolygon(PointF p, const std::vector<PointF>& outline);

}  // namespace detail

}  // namespace Project
