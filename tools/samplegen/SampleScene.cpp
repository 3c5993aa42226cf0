#include "samplegen/SampleScene.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace Curvana::SampleGen {
namespace {

constexpr double kPi = 3.14159265358979323846;

// The room, in metres: the camera 1.3 m above the floor, 4 m from the front wall.
constexpr double kLeft = -3.0, kRight = 3.0, kCeiling = -1.4, kFloor = 1.3, kBack = -2.5,
                 kFront = 4.0;
constexpr double kStrip = 0.035;  // half width of the edge strips

using Rgb = std::array<uint8_t, 3>;
constexpr Rgb kVerticalEdge{200, 40, 40}, kFloorEdge{40, 70, 200}, kCeilingEdge{220, 170, 20};
constexpr Rgb kDoorFrame{90, 50, 20}, kWindowFrame{30, 30, 30};

struct Segment {
    Vec3 a, b;
    Rgb rgb;
};

// Door on the left wall (x = kLeft), window on the front wall (z = kFront).
constexpr double kDoorZ0 = 1.2, kDoorZ1 = 2.3, kDoorTop = -0.75;
constexpr double kWinX0 = -1.1, kWinX1 = 1.3, kWinTop = -0.9, kWinBottom = 0.15;

std::vector<Segment> segments() {
    std::vector<Segment> s;
    const double xs[2] = {kLeft, kRight}, zs[2] = {kBack, kFront};
    for (double x : xs)
        for (double z : zs)
            s.push_back({{x, kCeiling, z}, {x, kFloor, z}, kVerticalEdge});
    for (double y : {kFloor, kCeiling}) {
        const Rgb c = y == kFloor ? kFloorEdge : kCeilingEdge;
        for (double x : xs)
            s.push_back({{x, y, kBack}, {x, y, kFront}, c});
        for (double z : zs)
            s.push_back({{kLeft, y, z}, {kRight, y, z}, c});
    }
    s.push_back({{kLeft, kDoorTop, kDoorZ0}, {kLeft, kDoorTop, kDoorZ1}, kDoorFrame});
    s.push_back({{kLeft, kDoorTop, kDoorZ0}, {kLeft, kFloor, kDoorZ0}, kDoorFrame});
    s.push_back({{kLeft, kDoorTop, kDoorZ1}, {kLeft, kFloor, kDoorZ1}, kDoorFrame});
    s.push_back({{kWinX0, kWinTop, kFront}, {kWinX1, kWinTop, kFront}, kWindowFrame});
    s.push_back({{kWinX0, kWinBottom, kFront}, {kWinX1, kWinBottom, kFront}, kWindowFrame});
    s.push_back({{kWinX0, kWinTop, kFront}, {kWinX0, kWinBottom, kFront}, kWindowFrame});
    s.push_back({{kWinX1, kWinTop, kFront}, {kWinX1, kWinBottom, kFront}, kWindowFrame});
    return s;
}

const std::vector<Segment>& allSegments() {
    static const std::vector<Segment> s = segments();
    return s;
}

// The segments lying on each face (left, right, ceiling, floor, back, front):
// a strip is drawn only where its segment touches the face that was hit.
const std::array<std::vector<Segment>, 6>& faceSegments() {
    static const std::array<std::vector<Segment>, 6> faces = [] {
        std::array<std::vector<Segment>, 6> f;
        const double bound[6] = {kLeft, kRight, kCeiling, kFloor, kBack, kFront};
        const int axis[6] = {0, 0, 1, 1, 2, 2};
        for (const Segment& s : allSegments())
            for (int i = 0; i < 6; ++i)
                if (std::abs(s.a[axis[i]] - bound[i]) < 1e-9 &&
                    std::abs(s.b[axis[i]] - bound[i]) < 1e-9)
                    f[i].push_back(s);
        return f;
    }();
    return faces;
}

double distanceToSegment(const Vec3& p, const Segment& s) {
    Vec3 ab{s.b[0] - s.a[0], s.b[1] - s.a[1], s.b[2] - s.a[2]};
    Vec3 ap{p[0] - s.a[0], p[1] - s.a[1], p[2] - s.a[2]};
    const double len2 = ab[0] * ab[0] + ab[1] * ab[1] + ab[2] * ab[2];
    const double t = std::clamp((ap[0] * ab[0] + ap[1] * ab[1] + ap[2] * ab[2]) / len2, 0.0, 1.0);
    const double dx = ap[0] - t * ab[0], dy = ap[1] - t * ab[1], dz = ap[2] - t * ab[2];
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

struct Rotation {
    double m[3][3];
    Vec3 apply(const Vec3& v) const {
        return {m[0][0] * v[0] + m[0][1] * v[1] + m[0][2] * v[2],
                m[1][0] * v[0] + m[1][1] * v[1] + m[1][2] * v[2],
                m[2][0] * v[0] + m[2][1] * v[1] + m[2][2] * v[2]};
    }
    Vec3 applyInverse(const Vec3& v) const {
        return {m[0][0] * v[0] + m[1][0] * v[1] + m[2][0] * v[2],
                m[0][1] * v[0] + m[1][1] * v[1] + m[2][1] * v[2],
                m[0][2] * v[0] + m[1][2] * v[1] + m[2][2] * v[2]};
    }
};

// Camera to room: pitch (about x, positive looks down) then yaw (about y, positive turns right).
Rotation cameraToRoom(const SceneOptions& o) {
    const double y = o.yawDeg * kPi / 180, p = o.pitchDeg * kPi / 180;
    const double cy = std::cos(y), sy = std::sin(y), cp = std::cos(p), sp = std::sin(p);
    // Ry(yaw) * Rx(pitch), with Rx mapping the forward axis towards +y (down).
    return Rotation{{{cy, sy * sp, sy * cp}, {0, cp, -sp}, {-sy, cy * sp, cy * cp}}};
}

Rgb shade(const Vec3& p, int face, double distance) {
    Rgb c;
    for (const Segment& s : faceSegments()[face])
        if (distanceToSegment(p, s) < kStrip)
            return s.rgb;
    switch (face) {
        case 0:
            c = {180, 200, 228};
            break;  // left wall
        case 1:
            c = {190, 222, 188};
            break;  // right wall
        case 2:
            c = {236, 234, 230};
            break;  // ceiling
        case 3: {   // floor: boards with joints every metre
            const double fx = p[0] - std::floor(p[0]), fz = p[2] - std::floor(p[2]);
            const bool joint = std::min(fx, 1 - fx) < 0.012 || std::min(fz, 1 - fz) < 0.012;
            c = joint ? Rgb{95, 65, 45} : Rgb{158, 116, 82};
            break;
        }
        case 4:
            c = {200, 196, 210};
            break;  // back wall
        default:
            c = {226, 212, 188};
            break;  // front wall
    }
    if (face == 0 && p[2] > kDoorZ0 && p[2] < kDoorZ1 && p[1] > kDoorTop)
        c = {128, 84, 52};
    if (face == 5 && p[0] > kWinX0 && p[0] < kWinX1 && p[1] > kWinTop && p[1] < kWinBottom) {
        const double t = (p[1] - kWinTop) / (kWinBottom - kWinTop);
        c = {static_cast<uint8_t>(120 + 80 * t), static_cast<uint8_t>(170 + 50 * t), 240};
    }
    // A little falloff with distance, so that the walls read as surfaces.
    const double k = 0.78 + 0.22 * std::exp(-distance / 6.0);
    for (auto& v : c)
        v = static_cast<uint8_t>(std::lround(v * k));
    return c;
}

// Where a ray from the camera meets the room, and on which face.
struct Hit {
    Vec3 p;
    int face;
    double t;
};

Hit hitRoom(const Vec3& d) {
    double t = 1e30;
    int face = -1;
    auto hit = [&](double bound, double component, int f) {
        if (component == 0)
            return;
        const double s = bound / component;
        if (s > 0 && s < t) {
            t = s;
            face = f;
        }
    };
    hit(kLeft, d[0], 0);
    hit(kRight, d[0], 1);
    hit(kCeiling, d[1], 2);
    hit(kFloor, d[1], 3);
    hit(kBack, d[2], 4);
    hit(kFront, d[2], 5);
    return {{d[0] * t, d[1] * t, d[2] * t}, face, t};
}

Rgb trace(const Vec3& d) {
    const Hit h = hitRoom(d);
    return shade(h.p, h.face, h.t);
}

}  // namespace

double focalPixels(const SceneOptions& o) {
    return o.cropFactor * o.focalMm * std::max(o.width, o.height) / 36.0;
}

std::optional<Point> project(const SceneOptions& o, const Vec3& room) {
    const Vec3 d = cameraToRoom(o).applyInverse(room);
    const double n = std::sqrt(d[0] * d[0] + d[1] * d[1] + d[2] * d[2]);
    if (n == 0)
        return std::nullopt;
    const double theta = std::acos(std::clamp(d[2] / n, -1.0, 1.0));
    const double f = focalPixels(o);
    double r;
    if (o.lens == Lens::Equisolid) {
        if (theta >= kPi * 0.999)
            return std::nullopt;
        r = 2 * f * std::sin(theta / 2);
    } else {
        if (theta >= kPi / 2 * 0.999)
            return std::nullopt;
        r = f * std::tan(theta);
    }
    const double planar = std::hypot(d[0], d[1]);
    const double cx = std::floor(o.width / 2.0), cy = std::floor(o.height / 2.0);
    if (planar == 0)
        return Point{cx, cy};
    return Point{cx + r * d[0] / planar, cy + r * d[1] / planar};
}

std::optional<Vec3> unproject(const SceneOptions& o, Point image) {
    const double x = image.x - std::floor(o.width / 2.0), y = image.y - std::floor(o.height / 2.0);
    const double r = std::hypot(x, y), f = focalPixels(o);
    double theta;
    if (o.lens == Lens::Equisolid) {
        if (r >= 2 * f)
            return std::nullopt;
        theta = 2 * std::asin(r / (2 * f));
    } else {
        theta = std::atan(r / f);
    }
    const double s = r > 0 ? std::sin(theta) / r : 0;
    return cameraToRoom(o).apply(Vec3{x * s, y * s, std::cos(theta)});
}

std::optional<double> distanceToStraightFeature(const SceneOptions& o, Point image) {
    const auto d = unproject(o, image);
    if (!d)
        return std::nullopt;
    const Hit h = hitRoom(*d);
    double best = 1e30;
    // Strips: their borders lie kStrip from the edge, inside the face, and
    // the edge itself runs down their middle.
    for (const Segment& s : faceSegments()[h.face]) {
        const double fromEdge = distanceToSegment(h.p, s);
        best = std::min({best, fromEdge, std::abs(fromEdge - kStrip)});
    }
    // The door and the window are areas of their own colour: their outlines
    // are straight (the frames' segments).
    for (const Segment& s : allSegments())
        if (s.rgb == kDoorFrame || s.rgb == kWindowFrame)
            best = std::min(best, distanceToSegment(h.p, s));
    if (h.face == 3) {
        for (const double v : {h.p[0], h.p[2]})
            best = std::min(best, std::abs(v - std::round(v)));
    }
    return best;
}

void renderRoomRegion(const SceneOptions& o, int32_t left, int32_t top, int32_t w, int32_t h,
                      uint8_t* rgb, ptrdiff_t rowBytes) {
    const int n = std::max(1, o.samples);
    auto rows = [&](int32_t y0, int32_t y1) {
        for (int32_t y = y0; y < y1; ++y) {
            uint8_t* out = rgb + rowBytes * y;
            for (int32_t x = 0; x < w; ++x) {
                int sum[3] = {0, 0, 0}, count = 0;
                for (int sy = 0; sy < n; ++sy)
                    for (int sx = 0; sx < n; ++sx) {
                        const Point p{left + x - 0.5 + (sx + 0.5) / n,
                                      top + y - 0.5 + (sy + 0.5) / n};
                        const auto d = unproject(o, p);
                        const Rgb c = d ? trace(*d) : Rgb{0, 0, 0};
                        for (int k = 0; k < 3; ++k)
                            sum[k] += c[k];
                        ++count;
                    }
                for (int k = 0; k < 3; ++k)
                    out[3 * x + k] = static_cast<uint8_t>((sum[k] + count / 2) / count);
            }
        }
    };
    const int32_t threads =
        static_cast<int32_t>(std::clamp(std::thread::hardware_concurrency(), 1u, 16u));
    if (threads == 1 || h < 2 * threads) {
        rows(0, h);
        return;
    }
    std::vector<std::thread> pool;
    for (int32_t t = 0; t < threads; ++t)
        pool.emplace_back(rows, h * t / threads, h * (t + 1) / threads);
    for (auto& th : pool)
        th.join();
}

std::vector<SceneEdge> roomEdges(const SceneOptions& o, int samplesPerEdge) {
    std::vector<SceneEdge> edges;
    for (const Segment& s : allSegments()) {
        SceneEdge e{s.a, s.b, s.rgb, {}};
        for (int i = 0; i <= samplesPerEdge; ++i) {
            const double t = static_cast<double>(i) / samplesPerEdge;
            const Vec3 p{s.a[0] + t * (s.b[0] - s.a[0]), s.a[1] + t * (s.b[1] - s.a[1]),
                         s.a[2] + t * (s.b[2] - s.a[2])};
            const auto q = project(o, p);
            if (q && q->x >= 0 && q->y >= 0 && q->x <= o.width - 1 && q->y <= o.height - 1)
                e.points.push_back(*q);
        }
        edges.push_back(std::move(e));
    }
    return edges;
}

RenderedScene renderRoom(const SceneOptions& o, int samplesPerEdge) {
    RenderedScene scene;
    scene.width = o.width;
    scene.height = o.height;
    scene.focalPixels = focalPixels(o);
    scene.rgb.resize(static_cast<size_t>(o.width) * o.height * 3);
    renderRoomRegion(o, 0, 0, o.width, o.height, scene.rgb.data(),
                     static_cast<ptrdiff_t>(o.width) * 3);
    scene.edges = roomEdges(o, samplesPerEdge);
    return scene;
}

}  // namespace Curvana::SampleGen
