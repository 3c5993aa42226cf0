#include "warp/MeshLocator.h"

#include <algorithm>
#include <cmath>

#include "core/Vector3.h"

namespace Project {

namespace {

// Parameters within this margin outside [0, 1] still count as inside, so that
// a direction on a shared edge is never lost to rounding.
constexpr double kEdgeTolerance = 1e-4;

// Inverts the bilinear map of a quad with corners (px, py)[0..3] in the order
// (0, 0), (1, 0), (0, 1), (1, 1): finds (s, t) with
// P(s, t) = A + s (B - A) + t (C - A) + s t (A - B - C + D) = q by Newton's
// method (the map is close to affine on a mesh quad, so a few steps do).
// True when a true preimage lies in [0, 1]^2 up to kEdgeTolerance.
bool InvertBilinear(const double px[4], const double py[4], double qx, double qy, double& s,
                    double& t) {
    const double bx = px[1] - px[0], by = py[1] - py[0];
    const double cx = px[2] - px[0], cy = py[2] - py[0];
    const double dx = px[0] - px[1] - px[2] + px[3], dy = py[0] - py[1] - py[2] + py[3];
    s = 0.5;
    t = 0.5;
    for (int iter = 0; iter < 30; ++iter) {
        const double fx = px[0] + s * bx + t * cx + s * t * dx - qx;
        const double fy = py[0] + s * by + t * cy + s * t * dy - qy;
        const double j11 = bx + t * dx, j12 = cx + s * dx;
        const double j21 = by + t * dy, j22 = cy + s * dy;
        const double det = j11 * j22 - j12 * j21;
        if (!(std::fabs(det) > 1e-300))
            return false;
        const double ds = (fx * j22 - fy * j12) / det;
        const double dt = (fy * j11 - fx * j21) / det;
        s -= ds;
        t -= dt;
        if (!std::isfinite(s) || !std::isfinite(t))
            return false;
        if (std::fabs(ds) < 1e-13 && std::fabs(dt) < 1e-13)
            break;
    }
    // Newton may wander off for a point outside the quad: only a true
    // preimage counts.
    const double fx = px[0] + s * bx + t * cx + s * t * dx - qx;
    const double fy = py[0] + s * by + t * cy + s * t * dy - qy;
    const double extent = std::fabs(bx) + std::fabs(by) + std::fabs(cx) + std::fabs(cy);
    if (!(std::fabs(fx) + std::fabs(fy) <= 1e-7 * extent))
        return false;
    return s >= -kEdgeTolerance && s <= 1.0 + kEdgeTolerance && t >= -kEdgeTolerance &&
           t <= 1.0 + kEdgeTolerance;
}

QuadLocation MakeLocation(int32_t i, int32_t j, double s, double t) {
    s = std::clamp(s, 0.0, 1.0);
    t = std::clamp(t, 0.0, 1.0);
    QuadLocation loc;
    loc.i = i;
    loc.j = j;
    loc.weights = {static_cast<float>((1.0 - s) * (1.0 - t)), static_cast<float>(s * (1.0 - t)),
                   static_cast<float>((1.0 - s) * t), static_cast<float>(s * t)};
    return loc;
}

}  // namespace

MeshLocator::MeshLocator(std::shared_ptr<const OctaMap> mesh) : mesh_(std::move(mesh)) {
    n_ = mesh_->Size();
    const int32_t quads = n_ - 1;
    // About two quads per cell along each axis keeps the candidate lists short
    // (each quad meets a handful of cells) without a huge empty grid.
    grid_ = std::clamp(quads / 2, 2, 128);
    const auto cellCount = static_cast<size_t>(grid_) * grid_ * grid_;

    frames_.resize(static_cast<size_t>(quads) * quads);
    std::vector<std::array<int32_t, 6>> boxes(frames_.size());  // cell ranges lo/hi per axis
    std::vector<uint32_t> counts(cellCount + 1, 0);

    auto cellIndex = [this](double v) {
        const auto c = static_cast<int32_t>(std::floor((v + 1.0) * 0.5 * grid_));
        return std::clamp(c, 0, grid_ - 1);
    };

    for (int32_t j = 0; j < quads; ++j) {
        for (int32_t i = 0; i < quads; ++i) {
            const size_t q = static_cast<size_t>(i) + static_cast<size_t>(j) * quads;
            const Vec3d corners[4] = {ToDouble(mesh_->StoredDirection(i, j)),
                                      ToDouble(mesh_->StoredDirection(i + 1, j)),
                                      ToDouble(mesh_->StoredDirection(i, j + 1)),
                                      ToDouble(mesh_->StoredDirection(i + 1, j + 1))};
            Vec3d c{0.0, 0.0, 0.0};
            for (const Vec3d& v : corners)
                for (int k = 0; k < 3; ++k)
                    c[k] += v[k];
            double len = Norm(c);
            if (len < 1e-12) {
                c = corners[0];
                len = 1.0;
            }
            for (double& v : c)
                v /= len;
            // A tangent basis at the centre: start from the axis least aligned
            // with it.
            Vec3d axis{0.0, 0.0, 0.0};
            const double ax = std::fabs(c[0]), ay = std::fabs(c[1]), az = std::fabs(c[2]);
            axis[(ax <= ay && ax <= az) ? 0 : (ay <= az ? 1 : 2)] = 1.0;
            Vec3d e1 = Cross(axis, c);
            const double l1 = Norm(e1);
            for (double& v : e1)
                v /= l1;
            const Vec3d e2 = Cross(c, e1);
            QuadFrame& f = frames_[q];
            for (int k = 0; k < 3; ++k) {
                f.centre[k] = static_cast<float>(c[k]);
                f.e1[k] = static_cast<float>(e1[k]);
                f.e2[k] = static_cast<float>(e2[k]);
            }

            double radius = 0.0;
            for (const Vec3d& v : corners) {
                const Vec3d d{v[0] - c[0], v[1] - c[1], v[2] - c[2]};
                radius = std::max(radius, Norm(d));
            }
            radius += 1e-6;
            auto& box = boxes[q];
            for (int k = 0; k < 3; ++k) {
                box[2 * k] = cellIndex(c[k] - radius);
                box[2 * k + 1] = cellIndex(c[k] + radius);
            }
            for (int32_t z = box[4]; z <= box[5]; ++z)
                for (int32_t y = box[2]; y <= box[3]; ++y)
                    for (int32_t x = box[0]; x <= box[1]; ++x)
                        ++counts[static_cast<size_t>(x) +
                                 static_cast<size_t>(grid_) * (y + static_cast<size_t>(grid_) * z)];
        }
    }

    cellStart_.assign(cellCount + 1, 0);
    for (size_t k = 0; k < cellCount; ++k)
        cellStart_[k + 1] = cellStart_[k] + counts[k];
    cellQuads_.resize(cellStart_[cellCount]);
    std::vector<uint32_t> fill(cellStart_.begin(), cellStart_.end() - 1);
    for (size_t q = 0; q < boxes.size(); ++q) {
        const auto& box = boxes[q];
        for (int32_t z = box[4]; z <= box[5]; ++z)
            for (int32_t y = box[2]; y <= box[3]; ++y)
                for (int32_t x = box[0]; x <= box[1]; ++x) {
                    const size_t cell =
                        static_cast<size_t>(x) +
                        static_cast<size_t>(grid_) * (y + static_cast<size_t>(grid_) * z);
                    cellQuads_[fill[cell]++] = static_cast<uint32_t>(q);
                }
    }
}

int32_t MeshLocator::CellOf(double x, double y, double z) const {
    auto index = [this](double v) {
        const auto c = static_cast<int32_t>(std::floor((v + 1.0) * 0.5 * grid_));
        return std::clamp(c, 0, grid_ - 1);
    };
    return index(x) + grid_ * (index(y) + grid_ * index(z));
}

bool MeshLocator::TryQuad(int32_t quad, const Vec3d& q, double& s, double& t) const {
    const QuadFrame& f = frames_[static_cast<size_t>(quad)];
    const Vec3d c{f.centre[0], f.centre[1], f.centre[2]};
    const Vec3d e1{f.e1[0], f.e1[1], f.e1[2]};
    const Vec3d e2{f.e2[0], f.e2[1], f.e2[2]};
    const double qc = Dot(q, c);
    if (qc <= 1e-6)
        return false;

    const int32_t quads = n_ - 1;
    const int32_t i = quad % quads;
    const int32_t j = quad / quads;
    // Gnomonic coordinates about the quad's centre.
    double px[4], py[4];
    const MeshVector* corners[4] = {
        &mesh_->StoredDirection(i, j), &mesh_->StoredDirection(i + 1, j),
        &mesh_->StoredDirection(i, j + 1), &mesh_->StoredDirection(i + 1, j + 1)};
    for (int k = 0; k < 4; ++k) {
        const Vec3d v = ToDouble(*corners[k]);
        const double vc = Dot(v, c);
        if (vc <= 1e-9)
            return false;
        px[k] = Dot(v, e1) / vc;
        py[k] = Dot(v, e2) / vc;
    }
    const double qx = Dot(q, e1) / qc;
    const double qy = Dot(q, e2) / qc;

    return InvertBilinear(px, py, qx, qy, s, t);
}

std::optional<QuadLocation> MeshLocator::Locate(SphereDirection direction) const {
    if (!std::isfinite(direction.lambda) || !std::isfinite(direction.phi) || n_ < 2)
        return std::nullopt;
    const Vec3d q = MeshFrameVector(direction);
    const int32_t cell = CellOf(q[0], q[1], q[2]);
    const uint32_t begin = cellStart_[static_cast<size_t>(cell)];
    const uint32_t end = cellStart_[static_cast<size_t>(cell) + 1];

    int32_t best = -1;
    double bestMargin = -1e300, bestS = 0.0, bestT = 0.0;
    for (uint32_t k = begin; k < end; ++k) {
        const auto quad = static_cast<int32_t>(cellQuads_[k]);
        double s, t;
        if (!TryQuad(quad, q, s, t))
            continue;
        const double margin = std::min(std::min(s, 1.0 - s), std::min(t, 1.0 - t));
        if (margin > bestMargin) {
            bestMargin = margin;
            best = quad;
            bestS = s;
            bestT = t;
        }
    }
    if (best < 0)
        return std::nullopt;
    return MakeLocation(best % (n_ - 1), best / (n_ - 1), bestS, bestT);
}

OutputLocator::OutputLocator(const SphereWarp& warp) {
    const int32_t quads = warp.MeshSize() - 1;
    for (int32_t j = 0; j < quads; ++j) {
        for (int32_t i = 0; i < quads; ++i) {
            if (!warp.IsQuadValid(i, j))
                continue;
            Quad q;
            q.i = i;
            q.j = j;
            warp.GetVertexPosition(i, j, q.x[0], q.y[0]);
            warp.GetVertexPosition(i + 1, j, q.x[1], q.y[1]);
            warp.GetVertexPosition(i, j + 1, q.x[2], q.y[2]);
            warp.GetVertexPosition(i + 1, j + 1, q.x[3], q.y[3]);
            bool finite = true;
            for (int k = 0; k < 4; ++k)
                finite = finite && std::isfinite(q.x[k]) && std::isfinite(q.y[k]);
            if (finite)
                quads_.push_back(q);
        }
    }
    if (quads_.empty())
        return;
    minX_ = maxX_ = quads_[0].x[0];
    minY_ = maxY_ = quads_[0].y[0];
    for (const Quad& q : quads_) {
        for (int k = 0; k < 4; ++k) {
            minX_ = std::min(minX_, static_cast<double>(q.x[k]));
            maxX_ = std::max(maxX_, static_cast<double>(q.x[k]));
            minY_ = std::min(minY_, static_cast<double>(q.y[k]));
            maxY_ = std::max(maxY_, static_cast<double>(q.y[k]));
        }
    }
    // About one valid quad per cell.
    grid_ =
        std::clamp(static_cast<int32_t>(std::sqrt(static_cast<double>(quads_.size()))), 1, 1024);
    const double w = std::max(maxX_ - minX_, 1e-30), h = std::max(maxY_ - minY_, 1e-30);
    scaleX_ = grid_ / w;
    scaleY_ = grid_ / h;

    const auto cellCount = static_cast<size_t>(grid_) * grid_;
    std::vector<uint32_t> counts(cellCount, 0);
    auto forCells = [&](const Quad& q, auto&& fn) {
        float lx = q.x[0], hx = q.x[0], ly = q.y[0], hy = q.y[0];
        for (int k = 1; k < 4; ++k) {
            lx = std::min(lx, q.x[k]), hx = std::max(hx, q.x[k]);
            ly = std::min(ly, q.y[k]), hy = std::max(hy, q.y[k]);
        }
        const int32_t x0 = CellX(lx), x1 = CellX(hx), y0 = CellY(ly), y1 = CellY(hy);
        for (int32_t y = y0; y <= y1; ++y)
            for (int32_t x = x0; x <= x1; ++x)
                fn(static_cast<size_t>(x) + static_cast<size_t>(y) * grid_);
    };
    for (const Quad& q : quads_)
        forCells(q, [&](size_t cell) { ++counts[cell]; });
    cellStart_.assign(cellCount + 1, 0);
    for (size_t k = 0; k < cellCount; ++k)
        cellStart_[k + 1] = cellStart_[k] + counts[k];
    cellQuads_.resize(cellStart_[cellCount]);
    std::vector<uint32_t> fill(cellStart_.begin(), cellStart_.end() - 1);
    for (size_t k = 0; k < quads_.size(); ++k)
        forCells(quads_[k],
                 [&](size_t cell) { cellQuads_[fill[cell]++] = static_cast<uint32_t>(k); });
}

int32_t OutputLocator::CellX(double x) const {
    return std::clamp(static_cast<int32_t>(std::floor((x - minX_) * scaleX_)), 0, grid_ - 1);
}

int32_t OutputLocator::CellY(double y) const {
    return std::clamp(static_cast<int32_t>(std::floor((y - minY_) * scaleY_)), 0, grid_ - 1);
}

std::optional<QuadLocation> OutputLocator::Locate(float x, float y) const {
    if (quads_.empty() || !std::isfinite(x) || !std::isfinite(y))
        return std::nullopt;
    if (x < minX_ || x > maxX_ || y < minY_ || y > maxY_)
        return std::nullopt;
    const size_t cell = static_cast<size_t>(CellX(x)) + static_cast<size_t>(CellY(y)) * grid_;
    const Quad* best = nullptr;
    double bestMargin = -1e300, bestS = 0.0, bestT = 0.0;
    for (uint32_t k = cellStart_[cell]; k < cellStart_[cell + 1]; ++k) {
        const Quad& q = quads_[cellQuads_[k]];
        const double px[4] = {q.x[0], q.x[1], q.x[2], q.x[3]};
        const double py[4] = {q.y[0], q.y[1], q.y[2], q.y[3]};
        double s, t;
        if (!InvertBilinear(px, py, x, y, s, t))
            continue;
        const double margin = std::min(std::min(s, 1.0 - s), std::min(t, 1.0 - t));
        if (margin > bestMargin) {
            bestMargin = margin;
            best = &q;
            bestS = s;
            bestT = t;
        }
    }
    if (best == nullptr)
        return std::nullopt;
    return MakeLocation(best->i, best->j, bestS, bestT);
}

}  // namespace Project
