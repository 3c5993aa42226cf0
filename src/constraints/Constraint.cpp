#include "constraints/Constraint.h"

#include <cmath>
#include <typeinfo>

#include "constraints/GeodesicLines.h"

namespace Project {

const LineConstraint* AsLine(const Constraint& c) {
    return typeid(c) == typeid(LineConstraint) ? static_cast<const LineConstraint*>(&c) : nullptr;
}
LineConstraint* AsLine(Constraint& c) {
    return typeid(c) == typeid(LineConstraint) ? static_cast<LineConstraint*>(&c) : nullptr;
}
const PlaneConstraint* AsPlane(const Constraint& c) {
    return typeid(c) == typeid(PlaneConstraint) ? static_cast<const PlaneConstraint*>(&c) : nullptr;
}
PlaneConstraint* AsPlane(Constraint& c) {
    return typeid(c) == typeid(PlaneConstraint) ? static_cast<PlaneConstraint*>(&c) : nullptr;
}

namespace detail {

double SegmentDistanceSquared(PointF p, PointF a, PointF b) {
    const double dx = static_cast<double>(b.x) - a.x;
    const double dy = static_cast<double>(b.y) - a.y;
    const double px = static_cast<double>(p.x) - a.x;
    const double py = static_cast<double>(p.y) - a.y;
    const double s = px * dx + py * dy;
    const double dd = dx * dx + dy * dy;
    if (s <= 0.0 || dd == 0.0)
        return px * px + py * py;
    if (s > dd) {
        const double qx = static_cast<double>(p.x) - b.x;
        const double qy = static_cast<double>(p.y) - b.y;
        return qx * qx + qy * qy;
    }
    const double k = s / dd;
    const double ex = px - k * dx;
    const double ey = py - k * dy;
    return ex * ex + ey * ey;
}

int32_t PointInPolygon(PointF p, const std::vector<PointF>& outline) {
    const size_t n = outline.size();
    if (n < 3)
        return -1;
    bool inside = false;
    for (size_t k = 0, prev = n - 1; k < n; prev = k++) {
        const PointF a = outline[prev];
        const PointF b = outline[k];
        if (SegmentDistanceSquared(p, a, b) <= 1e-12)
            return 0;
        // Crossing of the horizontal ray to the right of p.
        if ((a.y > p.y) != (b.y > p.y)) {
            const double x = a.x + (static_cast<double>(p.y) - a.y) *
                                       (static_cast<double>(b.x) - a.x) /
                                       (static_cast<double>(b.y) - a.y);
            if (static_cast<double>(p.x) < x)
                inside = !inside;
        }
    }
    return inside ? 1 : -1;
}

}  // namespace detail

namespace {

// Picks the minimum and maximum of two values by their absolute values.
void OrderByMagnitude(double a, double b, double& lo, double& hi) {
    if (std::fabs(a) < std::fabs(b)) {
        lo = a, hi = b;
    } else {
        lo = b, hi = a;
    }
}

// Maps the samples of an arc into `space`, skipping those that cannot be placed.
void MapSamples(const GeodesicLines& lines, const GeodesicLine& arc, const DisplaySpace& space,
                std::vector<PointF>& out) {
    out.clear();
    out.reserve(arc.samples.size());
    for (const SphereSample& s : arc.samples) {
        PointF p;
        if (lines.SampleToDisplay(s, space, p))
            out.push_back(p);
    }
}

// The point at half the length of a polyline.
PointF PolylineMiddle(const std::vector<PointF>& pts) {
    double total = 0.0;
    for (size_t k = 1; k < pts.size(); ++k)
        total += std::hypot(pts[k].x - pts[k - 1].x, pts[k].y - pts[k - 1].y);
    double remaining = 0.5 * total;
    for (size_t k = 1; k < pts.size(); ++k) {
        const double len = std::hypot(pts[k].x - pts[k - 1].x, pts[k].y - pts[k - 1].y);
        if (len >= remaining && len > 0.0) {
            const double t = remaining / len;
            return {static_cast<float>(pts[k - 1].x + t * (pts[k].x - pts[k - 1].x)),
                    static_cast<float>(pts[k - 1].y + t * (pts[k].y - pts[k - 1].y))};
        }
        remaining -= len;
    }
    return pts.empty() ? PointF{} : pts.back();
}

}  // namespace

// ---------------------------------------------------------------- LineConstraint

LineConstraint::LineConstraint(float x1, float y1, float x2, float y2, Orientation orientation,
                               float angle)
    : x1_(x1), y1_(y1), x2_(x2), y2_(y2), angle_(angle), orientation_(orientation) {}

std::unique_ptr<Constraint> LineConstraint::Clone() const {
    return CloneLine();
}

std::unique_ptr<LineConstraint> LineConstraint::CloneLine() const {
    std::unique_ptr<LineConstraint> copy(new LineConstraint(*this));
    copy->displaySamples_.clear();
    copy->entryValid_ = false;
    return copy;
}

void LineConstraint::CopyGeometryFrom(const LineConstraint& other) {
    x1_ = other.x1_, y1_ = other.y1_, x2_ = other.x2_, y2_ = other.y2_;
    angle_ = other.angle_;
    orientation_ = other.orientation_;
}

int32_t LineConstraint::Refresh(const GeodesicLines& lines) {
    const GeodesicLine* entry = lines.FindLine(id_);
    entryValid_ = entry != nullptr && entry->active;
    return entryValid_ ? 1 : 0;
}

void LineConstraint::UpdateDisplay(const GeodesicLines& lines, const DisplaySpace& space) {
    const GeodesicLine* entry = lines.FindLine(id_);
    entryValid_ = entry != nullptr && entry->active;
    GeodesicLine temporary;
    if (entry == nullptr || !(entry->first == First()) || !(entry->second == Second())) {
        temporary = lines.FitArc(First(), Second());
        entry = &temporary;
    }
    // A point that cannot be placed keeps its previous display position.
    lines.SourceToDisplay(First(), space, displayFirst_);
    lines.SourceToDisplay(Second(), space, displaySecond_);
    MapSamples(lines, *entry, space, displaySamples_);
}

PointF LineConstraint::MiddleHandle(bool displaySpace) const {
    if (UsesDisplayPolyline())
        return PolylineMiddle(displaySamples_);
    const PointF a = displaySpace ? displayFirst_ : First();
    const PointF b = displaySpace ? displaySecond_ : Second();
    return {0.5f * (a.x + b.x), 0.5f * (a.y + b.y)};
}

LinePart LineConstraint::HitPart(PointF point, float tolerance, bool displaySpace) const {
    using detail::WithinSquare;
    if (UsesDisplayPolyline()) {
        const std::vector<PointF>& s = displaySamples_;
        if (WithinSquare(point, s.front(), tolerance))
            return LinePart::FirstEnd;
        if (WithinSquare(point, s.back(), tolerance))
            return LinePart::SecondEnd;
        if (showsMiddleHandle_ && WithinSquare(point, MiddleHandle(displaySpace), tolerance))
            return LinePart::MiddleHandle;
        const double t2 = static_cast<double>(tolerance) * tolerance;
        for (size_t k = 0; k + 1 < s.size(); ++k)
            if (detail::SegmentDistanceSquared(point, s[k], s[k + 1]) <= t2)
                return LinePart::Body;
        return LinePart::None;
    }
    const PointF a = displaySpace ? displayFirst_ : First();
    const PointF b = displaySpace ? displaySecond_ : Second();
    if (WithinSquare(point, a, tolerance))
        return LinePart::FirstEnd;
    if (WithinSquare(point, b, tolerance))
        return LinePart::SecondEnd;
    if (WithinSquare(point, {0.5f * (a.x + b.x), 0.5f * (a.y + b.y)}, tolerance))
        return LinePart::MiddleHandle;
    return LinePart::None;
}

bool LineConstraint::HitTest(PointF point, float tolerance, bool displaySpace) const {
    return HitPart(point, tolerance, displaySpace) != LinePart::None;
}

ViewRect LineConstraint::BoundingRect(bool preview, const Affine2D& toView) const {
    const PointF a = preview ? displayFirst_ : First();
    const PointF b = preview ? displaySecond_ : Second();
    double ax, ay, bx, by;
    toView.Apply(a.x, a.y, ax, ay);
    toView.Apply(b.x, b.y, bx, by);
    ViewRect r;
    OrderByMagnitude(ax, bx, r.left, r.right);
    OrderByMagnitude(ay, by, r.top, r.bottom);
    r.left -= kBoundingRectGrowth;
    r.top -= kBoundingRectGrowth;
    r.right += kBoundingRectGrowth;
    r.bottom += kBoundingRectGrowth;
    return r;
}

// --------------------------------------------------------------- PlaneConstraint

std::unique_ptr<Constraint> PlaneConstraint::Clone() const {
    return ClonePlane();
}

std::unique_ptr<PlaneConstraint> PlaneConstraint::ClonePlane() const {
    std::unique_ptr<PlaneConstraint> copy(new PlaneConstraint(*this));
    copy->displayVertices_.clear();
    copy->displayEdges_.clear();
    return copy;
}

void PlaneConstraint::AddVertex(PointF p, int32_t edgeCode) {
    vertices_.push_back({p.x, p.y, true, edgeCode});
}

void PlaneConstraint::SetVertexPosition(int32_t k, PointF p) {
    PlaneVertex& v = vertices_[static_cast<size_t>(k)];
    v.x = p.x;
    v.y = p.y;
}

void PlaneConstraint::RemoveLastVertex() {
    if (!vertices_.empty())
        vertices_.pop_back();
}

int32_t PlaneConstraint::Refresh(const GeodesicLines& lines) {
    if (const GeodesicPlane* entry = lines.FindPlane(id_))
        flag_ = entry->valid ? kFlagValid : kFlagInvalid;
    return flag_;
}

void PlaneConstraint::UpdateDisplay(const GeodesicLines& lines, const DisplaySpace& space) {
    const int32_t n = VertexCount();
    displayVertices_.resize(static_cast<size_t>(n));
    for (int32_t k = 0; k < n; ++k) {
        const PlaneVertex& v = vertices_[static_cast<size_t>(k)];
        lines.SourceToDisplay({v.x, v.y}, space, displayVertices_[static_cast<size_t>(k)]);
    }

    const std::vector<const GeodesicLine*> fitted = lines.FindEdges(id_);
    displayEdges_.assign(static_cast<size_t>(n), {});
    for (int32_t k = 0; k < n && n >= 2; ++k) {
        const PlaneVertex& a = vertices_[static_cast<size_t>(EdgeStart(k, n))];
        const PlaneVertex& b = vertices_[static_cast<size_t>(k)];
        const PointF pa{a.x, a.y}, pb{b.x, b.y};
        const GeodesicLine* edge = nullptr;
        for (const GeodesicLine* e : fitted)
            if (e->edge == k && e->first == pa && e->second == pb)
                edge = e;
        GeodesicLine temporary;
        if (edge == nullptr) {
            temporary = lines.FitArc(pa, pb);
            edge = &temporary;
        }
        MapSamples(lines, *edge, space, displayEdges_[static_cast<size_t>(k)]);
    }
}

std::vector<PointF> PlaneConstraint::Outline(bool displaySpace) const {
    std::vector<PointF> outline;
    if (displaySpace) {
        bool edgesUsable = !displayEdges_.empty() && displayEdges_.size() == vertices_.size();
        for (const auto& e : displayEdges_)
            edgesUsable = edgesUsable && !e.empty();
        if (edgesUsable) {
            for (const auto& e : displayEdges_)
                outline.insert(outline.end(), e.begin(), e.end());
            return outline;
        }
        return displayVertices_;
    }
    outline.reserve(vertices_.size());
    for (const PlaneVertex& v : vertices_)
        outline.push_back({v.x, v.y});
    return outline;
}

int32_t PlaneConstraint::InsideTest(PointF point, bool displaySpace) const {
    return detail::PointInPolygon(point, Outline(displaySpace));
}

bool PlaneConstraint::HitTest(PointF point, float tolerance, bool displaySpace) const {
    if (displaySpace) {
        for (const PointF& v : displayVertices_)
            if (detail::WithinSquare(point, v, tolerance))
                return true;
    } else {
        for (const PlaneVertex& v : vertices_)
            if (detail::WithinSquare(point, {v.x, v.y}, tolerance))
                return true;
    }
    return InsideTest(point, displaySpace) != -1;
}

int32_t PlaneConstraint::HitEdge(PointF point, float tolerance, bool displaySpace) const {
    const int32_t n = VertexCount();
    const double t2 = static_cast<double>(tolerance) * tolerance;
    for (int32_t k = 0; k < n && n >= 2; ++k) {
        std::vector<PointF> pts;
        const auto uk = static_cast<size_t>(k);
        const auto us = static_cast<size_t>(EdgeStart(k, n));
        if (displaySpace && displayEdges_.size() == vertices_.size() &&
            displayEdges_[uk].size() >= 2) {
            pts = displayEdges_[uk];
        } else if (displaySpace && displayVertices_.size() == vertices_.size()) {
            pts = {displayVertices_[us], displayVertices_[uk]};
        } else {
            pts = {{vertices_[us].x, vertices_[us].y}, {vertices_[uk].x, vertices_[uk].y}};
        }
        for (size_t s = 0; s + 1 < pts.size(); ++s)
            if (detail::SegmentDistanceSquared(point, pts[s], pts[s + 1]) <= t2)
                return k;
    }
    return -1;
}

ViewRect PlaneConstraint::BoundingRect(bool preview, const Affine2D& toView) const {
    // Deliberately the largest float and the smallest positive normal float,
    // compared on absolute values.
    double minX = 3.4028234663852886e38, minY = 3.4028234663852886e38;
    double maxX = 1.1754943508222875e-38, maxY = 1.1754943508222875e-38;
    auto take = [&](PointF p) {
        double x, y;
        toView.Apply(p.x, p.y, x, y);
        if (std::fabs(x) < std::fabs(minX))
            minX = x;
        if (std::fabs(x) > std::fabs(maxX))
            maxX = x;
        if (std::fabs(y) < std::fabs(minY))
            minY = y;
        if (std::fabs(y) > std::fabs(maxY))
            maxY = y;
    };
    if (preview) {
        for (const PointF& p : displayVertices_)
            take(p);
    } else {
        for (const PlaneVertex& v : vertices_)
            take({v.x, v.y});
    }
    return {minX - kBoundingRectGrowth, minY - kBoundingRectGrowth, maxX + kBoundingRectGrowth,
            maxY + kBoundingRectGrowth};
}

}  // namespace Project
