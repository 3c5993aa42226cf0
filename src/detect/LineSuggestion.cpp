#include "detect/LineSuggestion.h"

#include <Eigen/Dense>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>

#include "core/SphereFrames.h"

namespace Project {

namespace {

constexpr double kMinSegmentPx = 10.0;
constexpr double kOnCirclePx = 1.5;
constexpr double kChordFitPx = 2.0;
constexpr int kChordSamples = 5;
constexpr double kMaxGapPx = 12.0;
constexpr double kMinSupport = 0.6;
constexpr double kVerticalToleranceDeg = 1.0;
constexpr double kMaxTiltDeg = 40.0;
constexpr size_t kMinVerticalLines = 3;
constexpr double kHorizontalToleranceDeg = 2.0;
// Lines whose great circles lie this close and whose arcs overlap are the
// two sides of one narrow thing (a painted strip, a bar, a frame and its
// shadow) and say the same thing to the solver: one line along their middle
// is offered.
constexpr double kDuplicateDeg = 1.5;
// An end is carried on to a crossing line at least this steep to it (a
// shallower crossing is located too loosely along the line).
constexpr double kMinCrossingDeg = 15.0;
// How far beside a segment (px) the picture must still be usable, so that
// the rim of a fisheye's image circle is not taken for an edge.
constexpr double kRimClearancePx = 4.0;
// Normals of the longest lines tried in pairs for the vertical direction.
constexpr size_t kVerticalCandidates = 40;

constexpr double Radians(double degrees) {
    return degrees * std::numbers::pi / 180.0;
}

Vec3d Normalized(const Vec3d& v) {
    const double n = Norm(v);
    return n > 0 ? Scaled(v, 1.0 / n) : v;
}

std::optional<Vec3d> SourceToSphere(const PhotoToSphere& photo, double x, double y) {
    const SourceRaster& r = photo.Raster();
    SphereDirection d;
    if (!photo.ToSphere({static_cast<float>(x - r.halfWidth), static_cast<float>(y - r.halfHeight)},
                        d) ||
        !std::isfinite(d.lambda) || !std::isfinite(d.phi) || !photo.IsVisible(d.lambda, d.phi))
        return std::nullopt;
    return PhotoFrameVector(d);
}

// The longitude and latitude of a photo-frame vector (PhotoFrameVector's inverse).
SphereDirection DirectionOf(const Vec3d& v) {
    return {static_cast<float>(std::atan2(v[0], v[2])),
            static_cast<float>(std::asin(std::clamp(v[1], -1.0, 1.0)))};
}

void SphereToSource(const PhotoToSphere& photo, const Vec3d& v, double& x, double& y) {
    const SphereDirection d = DirectionOf(v);
    const ImagePoint p = photo.ToImagePoint(d.lambda, d.phi);
    x = double{p.x} + photo.Raster().halfWidth;
    y = double{p.y} + photo.Raster().halfHeight;
}

bool OnPicture(const PhotoToSphere& photo, const Vec3d& v) {
    const SphereDirection d = DirectionOf(v);
    return photo.IsVisible(d.lambda, d.phi);
}

// The unit normal of the plane through the origin that fits the scatter best.
Vec3d LeastNormal(const Eigen::Matrix3d& scatter) {
    const Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d> eig(scatter);
    const Eigen::Vector3d n = eig.eigenvectors().col(0);
    return Normalized({n.x(), n.y(), n.z()});
}

void AddPoint(Eigen::Matrix3d& scatter, const Vec3d& p, double w) {
    const Eigen::Vector3d v(p[0], p[1], p[2]);
    scatter += w * v * v.transpose();
}

// A segment on the sphere.
struct SphereSegment {
    Vec3d a, b, n;
    double lengthPx;  // working px
    double radPerPx;  // sphere radians per working px along it
};

std::optional<SphereSegment> OnSphere(const ImageSegment& s, const PhotoToSphere& photo) {
    const double dx = s.x2 - s.x1, dy = s.y2 - s.y1;
    const double length = std::hypot(dx, dy);
    const double lengthPx = length / s.pixelSize;
    if (!(lengthPx >= kMinSegmentPx))
        return std::nullopt;
    // Both sides of the segment must show picture.
    const double mx = 0.5 * (s.x1 + s.x2), my = 0.5 * (s.y1 + s.y2);
    const double side = kRimClearancePx * s.pixelSize / length;
    if (!SourceToSphere(photo, mx - dy * side, my + dx * side) ||
        !SourceToSphere(photo, mx + dy * side, my - dx * side))
        return std::nullopt;
    // The detector reports a bent edge as chords fitted to it, so a chord
    // lies off the edge's great circle by up to two thirds of its sagitta.
    // The circle that fits the chord's points best is the edge's own, nearly.
    std::array<Vec3d, kChordSamples> points;
    Eigen::Matrix3d scatter = Eigen::Matrix3d::Zero();
    for (int k = 0; k < kChordSamples; ++k) {
        const double t = static_cast<double>(k) / (kChordSamples - 1);
        const auto p = SourceToSphere(photo, s.x1 + t * dx, s.y1 + t * dy);
        if (!p)
            return std::nullopt;
        points[k] = *p;
        AddPoint(scatter, *p, 1.0);
    }
    Vec3d n = LeastNormal(scatter);
    if (Dot(n, Cross(points.front(), points.back())) < 0)
        n = Scaled(n, -1.0);
    SphereSegment out;
    out.n = n;
    // The ends, moved onto that circle.
    out.a = Normalized(Difference(points.front(), Scaled(n, Dot(points.front(), n))));
    out.b = Normalized(Difference(points.back(), Scaled(n, Dot(points.back(), n))));
    const double arc = std::atan2(Norm(Cross(out.a, out.b)), Dot(out.a, out.b));
    if (!(arc > 1e-9))
        return std::nullopt;
    out.lengthPx = lengthPx;
    out.radPerPx = arc / lengthPx;
    // A straight piece of the picture that is no great circle (an image-
    // straight line far off a fisheye's centre) bends away from every
    // circle by more than a fitted chord does.
    double worst = 0;
    for (const Vec3d& p : points)
        worst = std::max(worst, std::abs(Dot(p, n)));
    if (worst > kChordFitPx * out.radPerPx)
        return std::nullopt;
    return out;
}

struct Group {
    Eigen::Matrix3d scatter = Eigen::Matrix3d::Zero();
    Vec3d normal{};
    std::vector<size_t> members;
};

// Segments whose ends lie on one another's great circles, longest first.
std::vector<Group> GroupSegments(const std::vector<SphereSegment>& segs) {
    std::vector<size_t> order(segs.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t i, size_t j) { return segs[i].lengthPx > segs[j].lengthPx; });
    std::vector<Group> groups;
    for (const size_t i : order) {
        const SphereSegment& s = segs[i];
        const double onCircle = kOnCirclePx * s.radPerPx;
        // The normal's own uncertainty: ends known to onCircle over the
        // segment's arc.
        const double normalTolerance = 2.0 * kOnCirclePx / s.lengthPx;
        Group* best = nullptr;
        double bestDistance = onCircle;
        for (Group& g : groups) {
            const double distance =
                std::max(std::abs(Dot(s.a, g.normal)), std::abs(Dot(s.b, g.normal)));
            if (distance > bestDistance)
                continue;
            const double across = Norm(Cross(s.n, g.normal));
            if (across > normalTolerance)
                continue;
            best = &g;
            bestDistance = distance;
        }
        if (!best) {
            groups.emplace_back();
            best = &groups.back();
        }
        AddPoint(best->scatter, s.a, s.lengthPx);
        AddPoint(best->scatter, s.b, s.lengthPx);
        best->members.push_back(i);
        best->normal = best->members.size() == 1 ? s.n : LeastNormal(best->scatter);
    }
    return groups;
}

// The well-supported arcs of one group, each a suggested line.
void ArcsOfGroup(const Group& g, const std::vector<SphereSegment>& segs, const PhotoToSphere& photo,
                 double minLengthPx, std::vector<SuggestedLine>& out) {
    // In-plane basis; the seam of the angle (at -u) lies opposite the
    // longest member, away from the picture's side of the sphere.
    const SphereSegment& longest = segs[g.members.front()];
    const Vec3d mid = Sum(longest.a, longest.b);
    const Vec3d u = Normalized(Difference(mid, Scaled(g.normal, Dot(mid, g.normal))));
    const Vec3d v = Cross(g.normal, u);
    struct Piece {
        double lo, hi;
        size_t index;
    };
    std::vector<Piece> pieces;
    double radPerPx = 0, weight = 0;
    for (const size_t i : g.members) {
        const SphereSegment& s = segs[i];
        const double ta = std::atan2(Dot(s.a, v), Dot(s.a, u));
        const double tb = std::atan2(Dot(s.b, v), Dot(s.b, u));
        pieces.push_back({std::min(ta, tb), std::max(ta, tb), i});
        radPerPx += s.radPerPx * s.lengthPx;
        weight += s.lengthPx;
    }
    radPerPx /= weight;
    std::sort(pieces.begin(), pieces.end(),
              [](const Piece& p, const Piece& q) { return p.lo < q.lo; });

    const double gap = kMaxGapPx * radPerPx;
    size_t first = 0;
    while (first < pieces.size()) {
        double end = pieces[first].hi;
        size_t last = first + 1;
        while (last < pieces.size() && pieces[last].lo - end <= gap)
            end = std::max(end, pieces[last++].hi);
        const double start = pieces[first].lo;
        const double extentPx = (end - start) / radPerPx;
        double support = 0;
        Eigen::Matrix3d scatter = Eigen::Matrix3d::Zero();
        for (size_t k = first; k < last; ++k) {
            const SphereSegment& s = segs[pieces[k].index];
            support += s.lengthPx;
            AddPoint(scatter, s.a, s.lengthPx);
            AddPoint(scatter, s.b, s.lengthPx);
        }
        if (extentPx >= minLengthPx && support >= kMinSupport * extentPx) {
            SuggestedLine line;
            line.normal = last - first == 1 ? segs[pieces[first].index].n : LeastNormal(scatter);
            // The ends of the arc, moved onto the fitted circle.
            const auto onCircle = [&](double t) {
                const Vec3d p = Sum(Scaled(u, std::cos(t)), Scaled(v, std::sin(t)));
                return Normalized(Difference(p, Scaled(line.normal, Dot(p, line.normal))));
            };
            SphereToSource(photo, onCircle(start), line.x1, line.y1);
            SphereToSource(photo, onCircle(end), line.x2, line.y2);
            line.arcRadians = end - start;
            line.radiansPerPx = radPerPx;
            line.supportPx = std::min(support, extentPx);
            line.segments = static_cast<int32_t>(last - first);
            out.push_back(line);
        }
        first = last;
    }
}

// The sine of the angle within which a line's great circle counts as
// passing through the vertical direction.
double VerticalTolerance(const SuggestedLine& line) {
    const double arcPx = std::max(line.supportPx, 1.0);
    return std::sin(Radians(kVerticalToleranceDeg) + 2.0 * kOnCirclePx / arcPx);
}

struct Consensus {
    double score = 0;
    std::vector<size_t> inliers;
};

Consensus ConsensusOf(const std::vector<SuggestedLine>& lines, const Vec3d& vertical) {
    Consensus c;
    for (size_t k = 0; k < lines.size(); ++k)
        if (std::abs(Dot(lines[k].normal, vertical)) <= VerticalTolerance(lines[k])) {
            c.score += lines[k].supportPx;
            c.inliers.push_back(k);
        }
    return c;
}

Vec3d Downwards(Vec3d v) {
    return v[1] < 0 ? Scaled(v, -1.0) : v;
}

bool Duplicates(const SuggestedLine& a, const SuggestedLine& b) {
    if (Norm(Cross(a.normal, b.normal)) > std::sin(Radians(kDuplicateDeg)))
        return false;
    // Same circle, nearly: do the arcs overlap? Compare each end of the
    // shorter with the other's chord on the sphere.
    const auto along = [](const SuggestedLine& l, double x, double y) {
        const double dx = l.x2 - l.x1, dy = l.y2 - l.y1;
        const double t = ((x - l.x1) * dx + (y - l.y1) * dy) / (dx * dx + dy * dy);
        return t > -0.05 && t < 1.05;
    };
    return along(a, b.x1, b.y1) || along(a, b.x2, b.y2) || along(b, a.x1, a.y1) ||
           along(b, a.x2, a.y2);
}

// A line's arc in its circle's plane: angle 0 at the first end (u), `end`
// (> 0) at the second, v = normal x u or its opposite.
struct ArcFrame {
    Vec3d n, u, v;
    double end = 0;
    double At(const Vec3d& p) const { return std::atan2(Dot(p, v), Dot(p, u)); }
    Vec3d Point(double t) const { return Sum(Scaled(u, std::cos(t)), Scaled(v, std::sin(t))); }
};

std::optional<ArcFrame> FrameOf(const SuggestedLine& line, const Vec3d& normal,
                                const PhotoToSphere& photo) {
    const auto a = SourceToSphere(photo, line.x1, line.y1);
    const auto b = SourceToSphere(photo, line.x2, line.y2);
    if (!a || !b)
        return std::nullopt;
    ArcFrame f;
    f.n = normal;
    f.u = Normalized(Difference(*a, Scaled(normal, Dot(*a, normal))));
    f.v = Cross(normal, f.u);
    if (Dot(*b, f.v) < 0)
        f.v = Scaled(f.v, -1.0);
    f.end = f.At(*b);
    return f;
}

void SetArc(SuggestedLine& line, const ArcFrame& f, double lo, double hi,
            const PhotoToSphere& photo) {
    SphereToSource(photo, f.Point(lo), line.x1, line.y1);
    SphereToSource(photo, f.Point(hi), line.x2, line.y2);
    line.normal = f.n;
    line.arcRadians = hi - lo;
}

// One line along the middle of two duplicates, over both their arcs.
void MergeInto(SuggestedLine& kept, const SuggestedLine& other, const PhotoToSphere& photo) {
    const Vec3d o = Dot(kept.normal, other.normal) < 0 ? Scaled(other.normal, -1.0) : other.normal;
    const Vec3d middle = Normalized(Sum(kept.normal, o));
    const auto f = FrameOf(kept, middle, photo);
    const auto g = FrameOf(other, o, photo);
    if (!f || !g)
        return;
    const double ta = f->At(g->Point(0)), tb = f->At(g->Point(g->end));
    SetArc(kept, *f, std::min({0.0, ta, tb}), std::max({f->end, ta, tb}), photo);
    kept.segments += other.segments;
}

// An edge found in the picture stops short of the edge it runs into: the
// crossing edge's own gradient (and its width, for a strip or a frame)
// hides the last pixels. Each end is carried on to the nearest steep
// crossing with another line's arc that lies beyond it within kMaxGapPx,
// the same reach within which pieces of one circle count as one arc.
void ExtendToCrossings(SuggestedLine& line, const std::vector<SuggestedLine>& others,
                       const PhotoToSphere& photo) {
    const auto f = FrameOf(line, line.normal, photo);
    if (!f || !(line.radiansPerPx > 0))
        return;
    const double reach = kMaxGapPx * line.radiansPerPx;
    std::optional<double> before, after;
    for (const SuggestedLine& other : others) {
        const Vec3d c = Cross(line.normal, other.normal);
        if (Norm(c) < std::sin(Radians(kMinCrossingDeg)) || !(other.radiansPerPx > 0))
            continue;
        const auto g = FrameOf(other, other.normal, photo);
        if (!g)
            continue;
        const double otherReach = kMaxGapPx * other.radiansPerPx;
        for (const Vec3d& x : {Normalized(c), Scaled(Normalized(c), -1.0)}) {
            const double along = g->At(x);
            if (along < -otherReach || along > g->end + otherReach)
                continue;  // the other line does not come this far
            const double t = f->At(x);
            if (!OnPicture(photo, x))
                continue;
            if (t < 0 && t >= -reach && (!before || t > *before))
                before = t;
            else if (t > f->end && t <= f->end + reach && (!after || t < *after))
                after = t;
        }
    }
    if (before || after)
        SetArc(line, *f, before.value_or(0.0), after.value_or(f->end), photo);
}

}  // namespace

std::vector<ImageSegment> DetectSegments(const GreyView& grey, int32_t sourceWidth,
                                         int32_t sourceHeight, int32_t workingSide) {
    std::vector<ImageSegment> out;
    if (grey.width <= 1 || grey.height <= 1 || !grey.pixels || sourceWidth <= 0 ||
        sourceHeight <= 0)
        return out;
    const cv::Mat source(grey.height, grey.width, CV_8UC1,
                         const_cast<uint8_t*>(grey.pixels),  // read only: OpenCV's view type
                         static_cast<size_t>(grey.rowBytes));
    cv::Mat work = source;
    const int32_t longSide = std::max(grey.width, grey.height);
    if (workingSide > 0 && longSide > workingSide) {
        const double k = static_cast<double>(workingSide) / longSide;
        cv::resize(source, work,
                   cv::Size(std::max(1, static_cast<int>(std::lround(grey.width * k))),
                            std::max(1, static_cast<int>(std::lround(grey.height * k)))),
                   0, 0, cv::INTER_AREA);
    }
    // Refinement splits a detection where it bends, so a fisheye's curved
    // edges come out as chords that each stay within a pixel of the curve.
    const cv::Ptr<cv::LineSegmentDetector> lsd = cv::createLineSegmentDetector(cv::LSD_REFINE_STD);
    std::vector<cv::Vec4f> found;
    lsd->detect(work, found);
    const double sx = grey.sourcePerPixel > 0 ? grey.sourcePerPixel * grey.width / work.cols
                                              : static_cast<double>(sourceWidth) / work.cols;
    const double sy = grey.sourcePerPixel > 0 ? grey.sourcePerPixel * grey.height / work.rows
                                              : static_cast<double>(sourceHeight) / work.rows;
    out.reserve(found.size());
    for (const cv::Vec4f& l : found) {
        ImageSegment s;
        // Pixel centres: working pixel i covers source [i sx, (i + 1) sx).
        s.x1 = (l[0] + 0.5) * sx - 0.5;
        s.y1 = (l[1] + 0.5) * sy - 0.5;
        s.x2 = (l[2] + 0.5) * sx - 0.5;
        s.y2 = (l[3] + 0.5) * sy - 0.5;
        s.pixelSize = std::max(sx, sy);
        if (std::hypot(l[2] - l[0], l[3] - l[1]) >= kMinSegmentPx)
            out.push_back(s);
    }
    return out;
}

std::optional<Vec3d> EstimateVertical(const std::vector<SuggestedLine>& lines) {
    std::vector<size_t> order(lines.size());
    for (size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::stable_sort(order.begin(), order.end(),
                     [&](size_t i, size_t j) { return lines[i].supportPx > lines[j].supportPx; });
    order.resize(std::min(order.size(), kVerticalCandidates));

    const double maxTilt = std::cos(Radians(kMaxTiltDeg));
    const double minSine = std::sin(Radians(2.0));
    Consensus best;
    for (size_t i = 0; i < order.size(); ++i)
        for (size_t j = i + 1; j < order.size(); ++j) {
            const Vec3d c = Cross(lines[order[i]].normal, lines[order[j]].normal);
            if (Norm(c) < minSine)
                continue;  // nearly one plane: no direction
            const Vec3d candidate = Downwards(Normalized(c));
            if (candidate[1] < maxTilt)
                continue;
            Consensus c2 = ConsensusOf(lines, candidate);
            if (c2.score > best.score)
                best = std::move(c2);
        }
    if (best.inliers.size() < kMinVerticalLines)
        return std::nullopt;
    // Least squares over the lines that agree, twice (the refined direction
    // may gain or lose a line near the tolerance).
    Vec3d vertical{};
    for (int round = 0; round < 2; ++round) {
        Eigen::Matrix3d scatter = Eigen::Matrix3d::Zero();
        for (const size_t k : best.inliers)
            AddPoint(scatter, lines[k].normal, lines[k].supportPx);
        vertical = Downwards(LeastNormal(scatter));
        Consensus refined = ConsensusOf(lines, vertical);
        if (refined.inliers.size() < kMinVerticalLines)
            break;
        best = std::move(refined);
    }
    if (best.inliers.size() < kMinVerticalLines || vertical[1] < maxTilt)
        return std::nullopt;
    return vertical;
}

std::vector<SuggestedLine> FindSceneLines(const std::vector<ImageSegment>& segments,
                                          const PhotoToSphere& photo, double minLengthPx) {
    std::vector<SphereSegment> segs;
    segs.reserve(segments.size());
    for (const ImageSegment& s : segments)
        if (auto on = OnSphere(s, photo))
            segs.push_back(*on);
    std::vector<SuggestedLine> lines;
    for (const Group& g : GroupSegments(segs))
        ArcsOfGroup(g, segs, photo, minLengthPx, lines);
    return lines;
}

LineSuggestion SuggestFromSegments(const std::vector<ImageSegment>& segments,
                                   const PhotoToSphere& photo, const SuggestOptions& options,
                                   double minLengthPx) {
    std::vector<SuggestedLine> candidates = FindSceneLines(segments, photo, minLengthPx);
    std::stable_sort(
        candidates.begin(), candidates.end(),
        [](const SuggestedLine& a, const SuggestedLine& b) { return a.supportPx > b.supportPx; });

    LineSuggestion out;
    out.vertical = EstimateVertical(candidates);
    if (out.vertical) {
        const Vec3d& up = *out.vertical;
        // The levelled view's forward axis: the optical axis made
        // perpendicular to the vertical.
        const Vec3d forward =
            Normalized(Difference(Vec3d{0, 0, 1}, Scaled(up, Dot(Vec3d{0, 0, 1}, up))));
        for (SuggestedLine& line : candidates) {
            if (std::abs(Dot(line.normal, up)) <= VerticalTolerance(line)) {
                line.kind = SuggestedKind::Vertical;
            } else if (options.horizontals) {
                const Vec3d level = Normalized(Cross(line.normal, up));
                if (std::abs(Dot(level, forward)) <= std::sin(Radians(kHorizontalToleranceDeg)))
                    line.kind = SuggestedKind::Horizontal;
            }
        }
    }

    // The two sides of a strip become one line along its middle (a line
    // merges once: a third duplicate adds nothing; one of another kind is
    // left out, as it disagrees with the better supported line).
    std::vector<SuggestedLine> lines;
    std::vector<bool> merged;
    for (const SuggestedLine& line : candidates) {
        size_t k = 0;
        while (k < lines.size() && !Duplicates(lines[k], line))
            ++k;
        if (k == lines.size()) {
            lines.push_back(line);
            merged.push_back(false);
        } else if (!merged[k] && lines[k].kind == line.kind) {
            MergeInto(lines[k], line, photo);
            merged[k] = true;
        }
    }
    for (const SuggestedLine& line : lines) {
        if (static_cast<int32_t>(out.lines.size()) >= options.maxLines)
            break;
        if (options.verticalsOnly && line.kind != SuggestedKind::Vertical)
            continue;
        out.lines.push_back(line);
        ExtendToCrossings(out.lines.back(), lines, photo);
    }
    return out;
}

LineSuggestion SuggestLines(const GreyView& grey, const PhotoToSphere& photo,
                            const SuggestOptions& options) {
    const SourceRaster& raster = photo.Raster();
    const std::vector<ImageSegment> segments =
        DetectSegments(grey, raster.width, raster.height, options.workingSide);
    const int32_t workingLong = std::min(options.workingSide > 0 ? options.workingSide : INT32_MAX,
                                         std::max(grey.width, grey.height));
    return SuggestFromSegments(segments, photo, options,
                               options.minLengthFraction * std::max(workingLong, 1));
}

}  // namespace Project
