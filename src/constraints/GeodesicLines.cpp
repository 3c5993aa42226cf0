#include "constraints/GeodesicLines.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "constraints/Constraint.h"
#include "constraints/ConstraintSet.h"
#include "core/SphereFrames.h"

namespace Project {

namespace {

// The inverse of PhotoFrameVector.
SphereDirection DirectionOf(const Vec3d& v) {
    const double y = std::clamp(v[1], -1.0, 1.0);
    return {static_cast<float>(std::atan2(v[0], v[2])), static_cast<float>(std::asin(y))};
}

bool Finite(PointF p) {
    return std::isfinite(p.x) && std::isfinite(p.y);
}

Orientation EdgeOrientation(int32_t code) {
    return IsEdgeCode(code) ? static_cast<Orientation>(code) : Orientation::Unfixed;
}

}  // namespace

bool SphereSample::Interpolate(const SphereWarp& warp, float& x, float& y,
                               bool allowPartial) const {
    if (!Located())
        return false;
    const int32_t i = quad.i, j = quad.j;
    const int32_t ci[4] = {i, i + 1, i, i + 1};
    const int32_t cj[4] = {j, j, j + 1, j + 1};
    if (!allowPartial && !warp.IsQuadValid(i, j))
        return false;
    double sx = 0.0, sy = 0.0, sw = 0.0;
    for (int k = 0; k < 4; ++k) {
        if (allowPartial && !warp.IsVertexValid(ci[k], cj[k]))
            continue;
        float vx, vy;
        warp.GetVertexPosition(ci[k], cj[k], vx, vy);
        sx += static_cast<double>(quad.weights[k]) * vx;
        sy += static_cast<double>(quad.weights[k]) * vy;
        sw += quad.weights[k];
    }
    if (allowPartial) {
        // Renormalise over the valid corners; with only zero-weight corners
        // valid, take their plain mean.
        if (sw <= 1e-12) {
            int valid = 0;
            sx = sy = 0.0;
            for (int k = 0; k < 4; ++k) {
                if (!warp.IsVertexValid(ci[k], cj[k]))
                    continue;
                float vx, vy;
                warp.GetVertexPosition(ci[k], cj[k], vx, vy);
                sx += vx, sy += vy, ++valid;
            }
            if (valid == 0)
                return false;
            sw = valid;
        }
        sx /= sw;
        sy /= sw;
    }
    x = static_cast<float>(sx);
    y = static_cast<float>(sy);
    return std::isfinite(x) && std::isfinite(y);
}

GeodesicLines::GeodesicLines(std::shared_ptr<const PhotoToSphere> photo,
                             std::shared_ptr<const OctaMap> mesh)
    : GeodesicLines(std::move(photo), std::make_shared<const MeshLocator>(std::move(mesh))) {}

GeodesicLines::GeodesicLines(std::shared_ptr<const PhotoToSphere> photo,
                             std::shared_ptr<const MeshLocator> locator)
    : photo_(std::move(photo)), locator_(std::move(locator)) {
    spacing_ = (std::numbers::pi / 2.0) / std::ldexp(1.0, locator_->Mesh().Level()) / 12.0;
}

void GeodesicLines::SetWarp(std::shared_ptr<const SphereWarp> warp) {
    warp_ = std::move(warp);
    outputLocator_.reset();
    if (warp_ && warp_->IsSolved() && warp_->MeshSize() == locator_->Size())
        outputLocator_ = std::make_shared<const OutputLocator>(*warp_);
}

ImagePoint GeodesicLines::ToImagePoint(PointF p) const {
    if (!photo_)
        return {p.x, p.y};
    const SourceRaster& r = photo_->Raster();
    return {p.x - static_cast<float>(r.halfWidth), p.y - static_cast<float>(r.halfHeight)};
}

PointF GeodesicLines::ToSourcePixel(ImagePoint p) const {
    if (!photo_)
        return {p.x, p.y};
    const SourceRaster& r = photo_->Raster();
    return {p.x + static_cast<float>(r.halfWidth), p.y + static_cast<float>(r.halfHeight)};
}

bool GeodesicLines::SourceToSphere(PointF pixel, SphereDirection& out) const {
    if (!photo_ || !Finite(pixel))
        return false;
    SphereDirection d;
    if (!photo_->ToSphere(ToImagePoint(pixel), d))
        return false;
    if (!std::isfinite(d.lambda) || !std::isfinite(d.phi))
        return false;
    out = d;
    return true;
}

void GeodesicLines::Locate(SphereSample& sample) const {
    if (const auto loc = locator_->Locate(sample.direction))
        sample.quad = *loc;
}

GeodesicLine GeodesicLines::FitArc(PointF first, PointF second) const {
    return FitArcBetween(first, second, nullptr, nullptr);
}

GeodesicLine GeodesicLines::FitArcBetween(PointF first, PointF second, const SphereDirection* d1,
                                          const SphereDirection* d2) const {
    GeodesicLine line;
    line.first = first;
    line.second = second;
    SphereDirection a, b;
    if (d1) {
        a = *d1;
    } else if (!SourceToSphere(first, a)) {
        return line;
    }
    if (d2) {
        b = *d2;
    } else if (!SourceToSphere(second, b)) {
        return line;
    }
    const Vec3d v1 = PhotoFrameVector(a);
    const Vec3d v2 = PhotoFrameVector(b);
    Vec3d n = Cross(v1, v2);
    const double sinAngle = Norm(n);
    // Equal or opposite endpoints leave the great circle undetermined.
    if (!(sinAngle > 1e-9))
        return line;
    n = Scaled(n, 1.0 / sinAngle);
    double arc = std::atan2(sinAngle, Dot(v1, v2));

    // Of the two arcs between the endpoints, take the one on the side of the
    // drawn chord: the one whose midpoint is nearer the direction of the
    // chord's midpoint (which only matters for lines beyond 180 degrees,
    // possible in panoramas).
    SphereDirection mid;
    if (SourceToSphere({0.5f * (first.x + second.x), 0.5f * (first.y + second.y)}, mid)) {
        const Vec3d shortMid = Sum(v1, v2);
        if (Dot(PhotoFrameVector(mid), shortMid) < 0.0) {
            arc = 2.0 * std::numbers::pi - arc;
            n = Scaled(n, -1.0);
        }
    }

    line.fitted = true;
    line.active = true;
    line.circleNormal = n;
    line.arcAngle = arc;
    const int32_t steps = std::max(1, static_cast<int32_t>(std::ceil(arc / spacing_)));
    const Vec3d w = Cross(n, v1);  // v1 rotated a quarter turn along the arc
    line.samples.resize(static_cast<size_t>(steps) + 1);
    for (int32_t k = 0; k <= steps; ++k) {
        SphereSample& s = line.samples[static_cast<size_t>(k)];
        if (k == 0) {
            s.direction = a;
        } else if (k == steps) {
            s.direction = b;
        } else {
            const double t = arc * k / steps;
            const double c = std::cos(t), sn = std::sin(t);
            s.direction =
                DirectionOf({v1[0] * c + w[0] * sn, v1[1] * c + w[1] * sn, v1[2] * c + w[2] * sn});
        }
        Locate(s);
    }
    return line;
}

void GeodesicLines::SetFixedNormal(GeodesicLine& line, Orientation orientation,
                                   float angleDegrees) {
    line.orientation = orientation;
    switch (orientation) {
        case Orientation::Horizontal:
            line.fixedNormal = std::numbers::pi / 2.0;
            break;
        case Orientation::Vertical:
            line.fixedNormal = 0.0;
            break;
        case Orientation::Arbitrary:
            line.fixedNormal = static_cast<double>(angleDegrees) * std::numbers::pi / 180.0 +
                               std::numbers::pi / 2.0;
            break;
        default:
            line.fixedNormal = 0.0;
            break;
    }
}

bool GeodesicLines::FitLine(const LineConstraint& constraint) {
    GeodesicLine line = FitArc(constraint.First(), constraint.Second());
    line.id = constraint.GetId();
    SetFixedNormal(line, constraint.GetOrientation(), constraint.Angle());
    const bool ok = line.fitted;
    if (line.id < 0)
        return ok;
    auto it = std::find_if(lines_.begin(), lines_.end(),
                           [&](const GeodesicLine& l) { return l.id == line.id; });
    if (it != lines_.end()) {
        *it = std::move(line);
    } else {
        lines_.push_back(std::move(line));
    }
    return ok;
}

bool GeodesicLines::SetUpPlane(const PlaneConstraint& constraint) {
    const int32_t id = constraint.GetId();
    GeodesicPlane plane;
    plane.id = id;
    const int32_t n = constraint.VertexCount();
    std::vector<PointF> corners(static_cast<size_t>(n));
    std::vector<SphereDirection> dirs(static_cast<size_t>(n));
    std::vector<bool> hasDir(static_cast<size_t>(n), false);
    for (int32_t k = 0; k < n; ++k) {
        corners[static_cast<size_t>(k)] = {constraint.Vertex(k).x, constraint.Vertex(k).y};
        hasDir[static_cast<size_t>(k)] =
            SourceToSphere(corners[static_cast<size_t>(k)], dirs[static_cast<size_t>(k)]);
    }

    bool valid = n >= 3 && std::all_of(hasDir.begin(), hasDir.end(), [](bool b) { return b; });
    if (valid) {
        Vec3d m{0.0, 0.0, 0.0};
        std::vector<Vec3d> vs(static_cast<size_t>(n));
        for (int32_t k = 0; k < n; ++k) {
            vs[static_cast<size_t>(k)] = PhotoFrameVector(dirs[static_cast<size_t>(k)]);
            for (int c = 0; c < 3; ++c)
                m[c] += vs[static_cast<size_t>(k)][c];
        }
        const double len = Norm(m);
        valid = len > 1e-9;
        if (valid) {
            m = Scaled(m, 1.0 / len);
            for (const Vec3d& v : vs)
                valid = valid && Dot(v, m) > 1e-3;
        }
        if (valid) {
            Vec3d e1{1.0, 0.0, 0.0};
            e1 = {e1[0] - m[0] * m[0], -m[0] * m[1], -m[0] * m[2]};
            if (Norm(e1) < 1e-3)
                e1 = {-m[1] * m[0], 1.0 - m[1] * m[1], -m[1] * m[2]};
            e1 = Scaled(e1, 1.0 / Norm(e1));
            const Vec3d e2 = Cross(m, e1);
            plane.mean = m;
            plane.e1 = e1;
            plane.e2 = e2;

            std::vector<PointF> outline(static_cast<size_t>(n));
            float minU = INFINITY, maxU = -INFINITY, minV = INFINITY, maxV = -INFINITY;
            for (int32_t k = 0; k < n; ++k) {
                const Vec3d& v = vs[static_cast<size_t>(k)];
                const double vm = Dot(v, m);
                const PointF p{static_cast<float>(Dot(v, e1) / vm),
                               static_cast<float>(Dot(v, e2) / vm)};
                outline[static_cast<size_t>(k)] = p;
                plane.outline.push_back({p.x, p.y});
                minU = std::min(minU, p.x), maxU = std::max(maxU, p.x);
                minV = std::min(minV, p.y), maxV = std::max(maxV, p.y);
            }

            const OctaMap& mesh = locator_->Mesh();
            const int32_t size = mesh.Size();
            for (int32_t j = 0; j < size; ++j) {
                for (int32_t i = 0; i < size; ++i) {
                    if (!(mesh.Fold(i, j) == MeshVertex{i, j}))
                        continue;
                    const SphereDirection d = mesh.UnrotatedAngles(i, j);
                    const Vec3d v = PhotoFrameVector(d);
                    const double vm = Dot(v, m);
                    if (vm <= 1e-6)
                        continue;
                    const PointF p{static_cast<float>(Dot(v, e1) / vm),
                                   static_cast<float>(Dot(v, e2) / vm)};
                    if (p.x < minU || p.x > maxU || p.y < minV || p.y > maxV)
                        continue;
                    if (detail::PointInPolygon(p, outline) < 0)
                        continue;
                    if (!photo_->IsVisible(d.lambda, d.phi))
                        continue;
                    plane.samples.push_back({i, j, p.x, p.y});
                }
            }
        }
    }
    plane.valid = valid;
    plane.active = valid && plane.samples.size() >= 4;

    std::vector<GeodesicLine> edges;
    for (int32_t k = 0; k < n && n >= 2; ++k) {
        const int32_t s = PlaneConstraint::EdgeStart(k, n);
        const auto us = static_cast<size_t>(s), uk = static_cast<size_t>(k);
        GeodesicLine edge =
            FitArcBetween(corners[us], corners[uk], hasDir[us] ? &dirs[us] : nullptr,
                          hasDir[uk] ? &dirs[uk] : nullptr);
        edge.id = id;
        edge.edge = k;
        SetFixedNormal(edge, EdgeOrientation(constraint.GetEdgeCode(k)), 0.0f);
        edge.active = edge.fitted && valid && edge.HasFixedNormal();
        edges.push_back(std::move(edge));
    }

    if (id >= 0) {
        Remove(id);
        planes_.push_back(std::move(plane));
        for (GeodesicLine& e : edges)
            edgeLines_.push_back(std::move(e));
    }
    return valid;
}

bool GeodesicLines::Fit(const Constraint& constraint) {
    if (const LineConstraint* line = AsLine(constraint))
        return FitLine(*line);
    if (const PlaneConstraint* plane = AsPlane(constraint))
        return SetUpPlane(*plane);
    return false;
}

FitFailures GeodesicLines::FitAll(const ConstraintSet& set) {
    Clear();
    FitFailures failed;
    for (const auto& c : set.Constraints()) {
        if (Fit(*c))
            continue;
        if (AsLine(*c))
            ++failed.lines;
        else if (AsPlane(*c))
            ++failed.planes;
    }
    return failed;
}

void GeodesicLines::Remove(int32_t id) {
    std::erase_if(lines_, [id](const GeodesicLine& l) { return l.id == id; });
    std::erase_if(edgeLines_, [id](const GeodesicLine& l) { return l.id == id; });
    std::erase_if(planes_, [id](const GeodesicPlane& p) { return p.id == id; });
}

void GeodesicLines::Clear() {
    lines_.clear();
    edgeLines_.clear();
    planes_.clear();
}

const GeodesicLine* GeodesicLines::FindLine(int32_t id) const {
    if (id < 0)
        return nullptr;
    for (const GeodesicLine& l : lines_)
        if (l.id == id)
            return &l;
    return nullptr;
}

const GeodesicPlane* GeodesicLines::FindPlane(int32_t id) const {
    if (id < 0)
        return nullptr;
    for (const GeodesicPlane& p : planes_)
        if (p.id == id)
            return &p;
    return nullptr;
}

std::vector<const GeodesicLine*> GeodesicLines::FindEdges(int32_t id) const {
    std::vector<const GeodesicLine*> edges;
    if (id < 0)
        return edges;
    for (const GeodesicLine& e : edgeLines_)
        if (e.id == id)
            edges.push_back(&e);
    return edges;
}

int32_t GeodesicLines::ActiveLineCount() const {
    return static_cast<int32_t>(
        std::count_if(lines_.begin(), lines_.end(), [](const auto& l) { return l.active; }));
}

int32_t GeodesicLines::ActiveEdgeCount() const {
    return static_cast<int32_t>(std::count_if(edgeLines_.begin(), edgeLines_.end(),
                                              [](const auto& l) { return l.active; }));
}

int32_t GeodesicLines::ActivePlaneCount() const {
    return static_cast<int32_t>(
        std::count_if(planes_.begin(), planes_.end(), [](const auto& p) { return p.active; }));
}

bool GeodesicLines::DirectionToOutput(SphereDirection direction, float& x, float& y) const {
    if (!warp_ || !warp_->IsSolved())
        return false;
    SphereSample sample{direction, {}};
    Locate(sample);
    return sample.Interpolate(*warp_, x, y, true);
}

bool GeodesicLines::SourceToDisplay(PointF pixel, const DisplaySpace& space, PointF& out) const {
    if (!Finite(pixel))
        return false;
    if (!space.warped) {
        out = space.transform.Apply(pixel);
        return true;
    }
    SphereDirection d;
    float x, y;
    if (!SourceToSphere(pixel, d) || !DirectionToOutput(d, x, y))
        return false;
    out = space.transform.Apply(PointF{x, y});
    return true;
}

bool GeodesicLines::SampleToDisplay(const SphereSample& sample, const DisplaySpace& space,
                                    PointF& out) const {
    if (!space.warped) {
        if (!photo_)
            return false;
        const PointF p =
            ToSourcePixel(photo_->ToImagePoint(sample.direction.lambda, sample.direction.phi));
        if (!Finite(p))
            return false;
        out = space.transform.Apply(p);
        return true;
    }
    if (!warp_ || !warp_->IsSolved())
        return false;
    float x, y;
    if (sample.Located()) {
        if (!sample.Interpolate(*warp_, x, y, true))
            return false;
    } else if (!DirectionToOutput(sample.direction, x, y)) {
        return false;
    }
    out = space.transform.Apply(PointF{x, y});
    return true;
}

bool GeodesicLines::OutputToSource(float x, float y, PointF& sourcePixel) const {
    if (!outputLocator_ || !photo_)
        return false;
    const auto loc = outputLocator_->Locate(x, y);
    if (!loc)
        return false;
    const OctaMap& mesh = locator_->Mesh();
    const int32_t ci[4] = {loc->i, loc->i + 1, loc->i, loc->i + 1};
    const int32_t cj[4] = {loc->j, loc->j, loc->j + 1, loc->j + 1};
    double v[3] = {0.0, 0.0, 0.0};
    for (int k = 0; k < 4; ++k) {
        const MeshVector& d = mesh.StoredDirection(ci[k], cj[k]);
        for (int c = 0; c < 3; ++c)
            v[c] += static_cast<double>(loc->weights[k]) * d[c];
    }
    const double len = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    if (!(len > 1e-12))
        return false;
    const SphereDirection d =
        OctaMap::AnglesOf({static_cast<float>(v[0] / len), static_cast<float>(v[1] / len),
                           static_cast<float>(v[2] / len)});
    if (!photo_->IsVisible(d.lambda, d.phi))
        return false;
    const PointF p = ToSourcePixel(photo_->ToImagePoint(d.lambda, d.phi));
    if (!Finite(p))
        return false;
    sourcePixel = p;
    return true;
}

bool GeodesicLines::DisplayToSource(PointF display, const DisplaySpace& space,
                                    PointF& sourcePixel) const {
    Affine2D inverse;
    if (!Finite(display) || !space.transform.Invert(inverse))
        return false;
    const PointF p = inverse.Apply(display);
    if (!space.warped) {
        sourcePixel = p;
        return true;
    }
    return OutputToSource(p.x, p.y, sourcePixel);
}

}  // namespace Project
