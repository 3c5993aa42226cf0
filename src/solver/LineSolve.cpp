#include "solver/LineSolve.h"

#include "solver/QuadFinder.h"

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace Project {
namespace {

// Damping of alpha and h relative to the squared line weight: far below what
// the rows contribute as soon as the lines have any extent in the output.
constexpr double kDampingScale = 1e-6;

// How far a free line may turn (radians) from its angle in the factorised
// matrix before its corners are solved exactly in the iterative solves. A
// line's rows are stiff across the line (w^2 times a dozen samples per quad
// against a shape term of about 1) and free along it; turned by delta, the
// stiffness leaks along the line by delta^2 of it, which the factor does not
// know of: at 0.067 radians (the first iteration of the room test) the
// conjugate gradients needed more than 24 steps.
constexpr double kMaxTurn = 0.02;

// The exactly solved part of an iterative solve (a sparse factorisation of
// its own) stays below this share of the mesh unknowns; beyond, the
// iteration factorises afresh.
constexpr size_t kMaxChangedShare = 8;

}  // namespace

LineSolve::LineSolve(std::shared_ptr<const OctaMap> mesh,
                     std::shared_ptr<const PhotoToSphere> photo,
                     std::shared_ptr<const GeodesicLines> lines, float regulariserWeight,
                     int32_t iterationCount, bool pinCentre, RegularizerModel regulariserCode,
                     int32_t modeValue, bool boundaryOnly, bool twoPass, AngleRange latitudeLimits,
                     AngleRange longitudeLimits, double lineWeight, double shapeWeight,
                     double smoothnessWeight)
    : IterativeWarpSolver(std::move(mesh), std::move(photo), regulariserWeight, iterationCount,
                          pinCentre, regulariserCode, modeValue, boundaryOnly, twoPass,
                          latitudeLimits, longitudeLimits),
      lines_(lines),
      lineWeight_(lineWeight),
      shapeWeight_(shapeWeight),
      smoothnessWeight_(smoothnessWeight) {
    if (const auto l = lines_.lock()) {
        activeLines_ = l->ActiveLineCount();
        activeEdges_ = l->ActiveEdgeCount();
        activePlanes_ = l->ActivePlaneCount();
        SetExtraUnknownCount(2 * (activeLines_ + activeEdges_) + 8 * activePlanes_);
    }
    ResetSystem();
}

LineSolve::LineSolve(LineSolve& previous, Continuation how)
    : LineSolve(previous, how, previous.lines_.lock()) {}

LineSolve::LineSolve(LineSolve& previous, Continuation how,
                     std::shared_ptr<const GeodesicLines> lines)
    : IterativeWarpSolver(previous, how),
      lines_(lines),
      lineWeight_(previous.lineWeight_),
      shapeWeight_(previous.shapeWeight_),
      smoothnessWeight_(previous.smoothnessWeight_),
      activeLines_(previous.activeLines_),
      activeEdges_(previous.activeEdges_),
      activePlanes_(previous.activePlanes_),
      extras_(how == Continuation::WarmStart ? previous.extras_ : std::vector<ExtraKey>{}),
      factorAlphas_(how == Continuation::WarmStart ? previous.factorAlphas_
                                                   : std::vector<double>{}),
      ownLocator_(previous.ownLocator_),
      located_(previous.located_),
      factorTerms_(how == Continuation::WarmStart ? previous.factorTerms_ : nullptr) {}

// ---------------------------------------------------------------------------
// Fixed terms

void LineSolve::AddQuadTerms(int32_t i, int32_t j) {
    const MeshVertex a{i, j}, b{i + 1, j}, d{i, j + 1}, e{i + 1, j + 1};
    AddTriangleTerm(shapeWeight_, a, b, d);
    AddTriangleTerm(shapeWeight_, b, a, e);
    AddTriangleTerm(shapeWeight_, e, d, b);
    AddTriangleTerm(shapeWeight_, d, e, a);
}

void LineSolve::AddVertexTerms(int32_t i, int32_t j) {
    const int32_t n = MeshSize();
    const int32_t c = n / 2;
    // A neighbour one step off the square continues on the other side of the
    // fold: left of (0, j) lies (1, 2c - j), and so on round the border.
    auto neighbour = [&](int32_t ni, int32_t nj) {
        if (ni < 0) {
            return MeshVertex{1, 2 * c - nj};
        }
        if (ni >= n) {
            return MeshVertex{n - 2, 2 * c - nj};
        }
        if (nj < 0) {
            return MeshVertex{2 * c - ni, 1};
        }
        if (nj >= n) {
            return MeshVertex{2 * c - ni, n - 2};
        }
        return MeshVertex{ni, nj};
    };
    auto valid = [&](MeshVertex v) { return IsVertexValid(v.i, v.j); };
    const MeshVertex v{i, j};
    if (!(i == c && (j == 0 || j == n - 1))) {
        const MeshVertex left = neighbour(i - 1, j), right = neighbour(i + 1, j);
        if (valid(left) && valid(right)) {
            AddTriangleTerm(smoothnessWeight_, v, left, right);
        }
    }
    if (!((i == 0 || i == n - 1) && j == c)) {
        const MeshVertex up = neighbour(i, j - 1), down = neighbour(i, j + 1);
        if (valid(up) && valid(down)) {
            AddTriangleTerm(smoothnessWeight_, v, up, down);
        }
    }
}

// ---------------------------------------------------------------------------
// Constraint terms

bool LineSolve::CornersOf(const QuadLocation& quad, Corners& out) const {
    if (quad.i < 0 || quad.j < 0 || !IsQuadValid(quad.i, quad.j)) {
        return false;
    }
    const std::array<MeshVertex, 4> corners{
        MeshVertex{quad.i, quad.j}, MeshVertex{quad.i + 1, quad.j}, MeshVertex{quad.i, quad.j + 1},
        MeshVertex{quad.i + 1, quad.j + 1}};
    for (size_t k = 0; k < 4; ++k) {
        out.vertex[k] = CanonicalIndex(corners[k].i, corners[k].j);
        out.weight[k] = quad.weights[k];
        if (!InSystem(2 * out.vertex[k])) {
            return false;
        }
    }
    return true;
}

double LineSolve::Interpolate(const Eigen::VectorXd& v, const Corners& c, int32_t component) const {
    double sum = 0.0;
    for (size_t k = 0; k < 4; ++k) {
        sum += c.weight[k] * v[2 * c.vertex[k] + component];
    }
    return sum;
}

double LineSolve::SampleAt(const Eigen::VectorXd& v, const LineTerm& term, const LineSample& s,
                           int32_t component) const {
    const LineBlock& block = term.blocks[static_cast<size_t>(s.block)];
    double sum = 0.0;
    for (int32_t k = 0; k < block.count; ++k) {
        sum += s.weight[static_cast<size_t>(k)] *
               v[2 * block.vertex[static_cast<size_t>(k)] + component];
    }
    return sum;
}

void LineSolve::ClosedFormAt(const LineTerm& term, const LineSample& s, double& x,
                             double& y) const {
    const LineBlock& block = term.blocks[static_cast<size_t>(s.block)];
    const int32_t n = MeshSize();
    x = y = 0.0;
    for (int32_t k = 0; k < block.count; ++k) {
        const int32_t v = block.vertex[static_cast<size_t>(k)];
        float vx = 0.0f, vy = 0.0f;
        Regulariser().GetVertexPosition(v % n, v / n, vx, vy);
        x += s.weight[static_cast<size_t>(k)] * vx;
        y += s.weight[static_cast<size_t>(k)] * vy;
    }
}

bool LineSolve::SamplePosition(const QuadLocation& quad, double& x, double& y) const {
    Corners c;
    if (!CornersOf(quad, c)) {
        return false;
    }
    x = Interpolate(Solution(), c, 0);
    y = Interpolate(Solution(), c, 1);
    return true;
}

void LineSolve::PrepareLine(const GeodesicLine& line, int32_t alpha, int32_t offset,
                            std::span<const QuadLocation> quads) {
    LineTerm term;
    term.alpha = line.HasFixedNormal() ? -1 : alpha;
    term.offset = offset;
    term.fixedNormal = line.fixedNormal;
    // Samples of one quad follow one another along the arc: look at the
    // block of the previous sample first.
    std::vector<std::pair<int64_t, int32_t>> blockOfQuad;  // (quad key, block)
    for (const QuadLocation& quad : quads) {
        Corners c;
        if (!CornersOf(quad, c)) {
            continue;
        }
        const int64_t key = static_cast<int64_t>(quad.j) * MeshSize() + quad.i;
        int32_t b = -1;
        if (!blockOfQuad.empty() && blockOfQuad.back().first == key) {
            b = blockOfQuad.back().second;
        } else {
            for (const auto& [k, index] : blockOfQuad) {
                if (k == key) {
                    b = index;
                }
            }
        }
        LineSample sample;
        if (b < 0) {
            b = static_cast<int32_t>(term.blocks.size());
            LineBlock block;
            for (size_t k = 0; k < 4; ++k) {
                // A folded border makes two corners one vertex: their weights add up.
                if (std::find(block.vertex.begin(), block.vertex.begin() + block.count,
                              c.vertex[k]) == block.vertex.begin() + block.count) {
                    block.vertex[static_cast<size_t>(block.count++)] = c.vertex[k];
                }
            }
            term.blocks.push_back(block);
        }
        blockOfQuad.emplace_back(key, b);
        sample.block = b;
        LineBlock& block = term.blocks[static_cast<size_t>(b)];
        for (size_t k = 0; k < 4; ++k) {
            const auto at =
                std::find(block.vertex.begin(), block.vertex.begin() + block.count, c.vertex[k]);
            sample.weight[static_cast<size_t>(at - block.vertex.begin())] += c.weight[k];
        }
        for (int32_t a = 0; a < block.count; ++a) {
            block.sums[static_cast<size_t>(a)] += sample.weight[static_cast<size_t>(a)];
            for (int32_t d = 0; d < block.count; ++d) {
                block.moments[static_cast<size_t>(4 * a + d)] +=
                    sample.weight[static_cast<size_t>(a)] * sample.weight[static_cast<size_t>(d)];
            }
        }
        ++block.samples;
        term.samples.push_back(sample);
    }
    if (term.samples.size() < 2) {
        return;  // nothing to keep straight
    }
    for (LineBlock& block : term.blocks) {
        std::array<int32_t, 10> unknowns{};
        size_t m = 0;
        for (int32_t k = 0; k < block.count; ++k) {
            unknowns[m++] = 2 * block.vertex[static_cast<size_t>(k)];
            unknowns[m++] = 2 * block.vertex[static_cast<size_t>(k)] + 1;
        }
        if (term.alpha >= 0) {
            unknowns[m++] = term.alpha;
        }
        unknowns[m++] = term.offset;
        block.group = DeclareRowGroup(std::span<const int32_t>(unknowns.data(), m));
    }
    if (term.alpha >= 0) {
        DeclareDamping(term.alpha, kDampingScale * lineWeight_ * lineWeight_);
    }
    // c: the samples' mean under the closed form.
    for (const LineSample& s : term.samples) {
        double x, y;
        ClosedFormAt(term, s, x, y);
        term.cx += x;
        term.cy += y;
    }
    term.cx /= static_cast<double>(term.samples.size());
    term.cy /= static_cast<double>(term.samples.size());
    lineTerms_.push_back(std::move(term));
}

void LineSolve::PreparePlane(const GeodesicPlane& plane, int32_t unknown) {
    PlaneTerm term;
    term.h = unknown;
    for (const PlaneSample& sample : plane.samples) {
        if (!IsVertexValid(sample.i, sample.j)) {
            continue;
        }
        const int32_t k = CanonicalIndex(sample.i, sample.j);
        if (!InSystem(2 * k)) {
            continue;
        }
        term.vertex.push_back(k);
        term.uv.push_back({sample.u, sample.v});
    }
    if (term.vertex.size() < 4) {
        return;  // the map would not be determined
    }
    for (int32_t k : term.vertex) {
        std::array<int32_t, 10> unknowns{2 * k, 2 * k + 1};
        for (int32_t h = 0; h < 8; ++h) {
            unknowns[static_cast<size_t>(2 + h)] = unknown + h;
        }
        term.groups.push_back(DeclareRowGroup(unknowns));
    }
    for (int32_t h = 0; h < 8; ++h) {
        DeclareDamping(unknown + h, kDampingScale * lineWeight_ * lineWeight_);
    }
    planeTerms_.push_back(std::move(term));
}

// A free line's starting angle: the normal of the chord from its first to its
// last sample, under the closed form on a fresh solve, under the current warp
// otherwise. Then, for every line, d: the samples' mean distance from c.
void LineSolve::StartLine(LineTerm& term, bool keepAngle) {
    Eigen::VectorXd& u = MutableSolution();
    if (term.alpha >= 0 && !keepAngle) {
        double x0, y0, x1, y1;
        if (WarmStart()) {
            x0 = SampleAt(u, term, term.samples.front(), 0),
            y0 = SampleAt(u, term, term.samples.front(), 1);
            x1 = SampleAt(u, term, term.samples.back(), 0),
            y1 = SampleAt(u, term, term.samples.back(), 1);
        } else {
            ClosedFormAt(term, term.samples.front(), x0, y0);
            ClosedFormAt(term, term.samples.back(), x1, y1);
        }
        const double dx = x1 - x0, dy = y1 - y0;
        u[term.alpha] = (dx == 0.0 && dy == 0.0) ? 0.0 : std::atan2(dx, -dy);
    }
    const double alpha = term.alpha >= 0 ? u[term.alpha] : term.fixedNormal;
    const double nx = std::cos(alpha), ny = std::sin(alpha);
    double sum = 0.0;
    for (const LineSample& s : term.samples) {
        sum += (SampleAt(u, term, s, 0) - term.cx) * nx + (SampleAt(u, term, s, 1) - term.cy) * ny;
    }
    u[term.offset] = sum / static_cast<double>(term.samples.size());
}

// A plane's starting map: the affine fit of its samples' positions, under the
// closed form on a fresh solve, under the current warp otherwise.
void LineSolve::StartPlane(const PlaneTerm& term) {
    const ClosedFormWarp& closedForm = Regulariser();
    const int32_t n = MeshSize();
    Eigen::VectorXd& solution = MutableSolution();
    Eigen::Matrix3d normal = Eigen::Matrix3d::Zero();
    Eigen::Vector3d bx = Eigen::Vector3d::Zero(), by = Eigen::Vector3d::Zero();
    for (size_t s = 0; s < term.vertex.size(); ++s) {
        const Eigen::Vector3d row(term.uv[s][0], term.uv[s][1], 1.0);
        const int32_t v = term.vertex[s];
        double gx = solution[2 * v], gy = solution[2 * v + 1];
        if (!WarmStart()) {
            float fx = 0.0f, fy = 0.0f;
            closedForm.GetVertexPosition(v % n, v / n, fx, fy);
            gx = fx, gy = fy;
        }
        normal += row * row.transpose();
        bx += row * gx;
        by += row * gy;
    }
    const auto qr = normal.colPivHouseholderQr();
    const Eigen::Vector3d hx =
        qr.isInvertible() ? Eigen::Vector3d(qr.solve(bx)) : Eigen::Vector3d(1, 0, 0);
    const Eigen::Vector3d hy =
        qr.isInvertible() ? Eigen::Vector3d(qr.solve(by)) : Eigen::Vector3d(0, 1, 0);
    for (int32_t k = 0; k < 3; ++k) {
        solution[term.h + k] = hx[k];
        solution[term.h + 3 + k] = hy[k];
    }
    solution[term.h + 6] = 0.0;
    solution[term.h + 7] = 0.0;
}

// Sizes the extra unknowns for the active constraints (the layout of
// extras_); returns, per entry, whether it holds values carried over from the
// previous solve (on a warm solve: every constraint that was there before,
// moved to its new place).
std::vector<uint8_t> LineSolve::LayOutExtras(const GeodesicLines& lines) {
    std::vector<ExtraKey> layout;
    for (const auto* list : {&lines.Lines(), &lines.EdgeLines()}) {
        for (const GeodesicLine& line : *list) {
            if (line.active) {
                layout.push_back({line.id, line.edge, !line.HasFixedNormal()});
            }
        }
    }
    const int32_t lineCount = static_cast<int32_t>(layout.size());
    for (const GeodesicPlane& plane : lines.Planes()) {
        if (plane.active) {
            layout.push_back({plane.id, -2, false});
        }
    }
    const int32_t oldLines = activeLines_ + activeEdges_;
    const std::vector<ExtraKey> old = std::move(extras_);
    const Eigen::VectorXd previous = Solution();
    activeLines_ = lines.ActiveLineCount();
    activeEdges_ = lines.ActiveEdgeCount();
    activePlanes_ = lines.ActivePlaneCount();
    SetExtraUnknownCount(lineCount + 8 * activePlanes_ + lineCount);
    extras_ = layout;
    std::vector<uint8_t> kept(layout.size(), WarmStart() ? 1 : 0);
    if (!WarmStart() || layout == old) {
        return kept;
    }
    // The constraints changed in number or order: the previous factor's
    // unknowns no longer mean the same.
    DiscardPreconditioner();
    factorAlphas_.clear();
    Eigen::VectorXd& u = MutableSolution();
    u.tail(u.size() - MeshUnknownCount()).setZero();
    const int32_t mesh = MeshUnknownCount();
    for (size_t k = 0; k < layout.size(); ++k) {
        const auto at = std::find(old.begin(), old.end(), layout[k]);
        if (at == old.end()) {
            kept[k] = 0;
            continue;
        }
        const int32_t from = static_cast<int32_t>(at - old.begin());
        const int32_t to = static_cast<int32_t>(k);
        if (layout[k].edge == -2) {
            const int32_t src = mesh + oldLines + 8 * (from - oldLines);
            const int32_t dst = PlaneUnknown(to - lineCount);
            u.segment(dst, 8) = previous.segment(src, 8);
        } else {
            u[mesh + to] = previous[mesh + from];
        }
    }
    return kept;
}

// The unknowns of a line whose rows changed much since the factorised
// matrix: its corners and one ring of vertices round them (the band in which
// the factor's idea of the mesh differs most from the matrix's), and its own
// alpha and d.
void LineSolve::AddChangedUnknowns(const LineTerm& term, std::vector<int32_t>& out) const {
    const int32_t n = MeshSize();
    for (const LineBlock& block : term.blocks) {
        for (int32_t k = 0; k < block.count; ++k) {
            const int32_t v = block.vertex[static_cast<size_t>(k)];
            for (int32_t dj = -1; dj <= 1; ++dj) {
                for (int32_t di = -1; di <= 1; ++di) {
                    const int32_t i = v % n + di, j = v / n + dj;
                    if (i < 0 || j < 0 || i >= n || j >= n || !IsVertexValid(i, j)) {
                        continue;
                    }
                    const int32_t c = CanonicalIndex(i, j);
                    if (InSystem(2 * c)) {
                        out.push_back(2 * c);
                        out.push_back(2 * c + 1);
                    }
                }
            }
        }
    }
    if (term.alpha >= 0) {
        out.push_back(term.alpha);
    }
    out.push_back(term.offset);
}

// Hands changed unknowns to the iterative solve, which treats them exactly;
// when that would be too many for it, the iteration factorises afresh.
void LineSolve::DeclareChangedUnknowns(std::vector<int32_t>& unknowns) {
    std::sort(unknowns.begin(), unknowns.end());
    unknowns.erase(std::unique(unknowns.begin(), unknowns.end()), unknowns.end());
    changedCount_ += unknowns.size();
    if (changedCount_ > static_cast<size_t>(MeshUnknownCount()) / kMaxChangedShare) {
        DiscardPreconditioner();
    } else {
        DeclareChanged(unknowns);
    }
}

// On a warm solve, the lines whose blocks differ from those in the factorised
// matrix (an endpoint moved, in this edit or an earlier one): their rows now constrain other
// corners than those in the factorised matrix, across the stiff direction, which no preconditioner
// built before could know. And every line's alpha and d, whose columns move
// with the warp.
void LineSolve::DeclareChangedLines() {
    static const std::vector<LineTerm> kNone;
    const std::vector<LineTerm>& before = factorTerms_ ? *factorTerms_ : kNone;
    auto sameBlocks = [](const LineTerm& a, const LineTerm& b) {
        return a.blocks.size() == b.blocks.size() &&
               std::equal(a.blocks.begin(), a.blocks.end(), b.blocks.begin(),
                          [](const LineBlock& x, const LineBlock& y) {
                              return x.count == y.count && x.samples == y.samples &&
                                     x.vertex == y.vertex && x.moments == y.moments &&
                                     x.sums == y.sums;
                          });
    };
    std::vector<int32_t> changed;
    for (LineTerm& term : lineTerms_) {
        if (term.alpha >= 0) {
            changed.push_back(term.alpha);
        }
        changed.push_back(term.offset);
        if (!WarmStart()) {
            continue;
        }
        const auto old = std::find_if(before.begin(), before.end(),
                                      [&](const LineTerm& b) { return b.key == term.key; });
        if (old != before.end() && sameBlocks(*old, term)) {
            continue;
        }
        term.changed = true;
        AddChangedUnknowns(term, changed);
        if (old != before.end()) {
            AddChangedUnknowns(*old, changed);
        }
    }
    DeclareChangedUnknowns(changed);
}

std::vector<QuadLocation> LineSolve::LocateInThisMesh(
    const std::vector<const GeodesicLine*>& active) {
    if (!ownLocator_) {
        ownLocator_ = std::make_shared<const MeshLocator>(MeshRef());
    }
    // Lines whose samples are those located for the previous warp keep their
    // quads; the others are located now, all in one parallel pass.
    auto located = std::make_shared<std::vector<LocatedLine>>();
    std::vector<SphereDirection> pending;
    std::vector<size_t> pendingLines;
    for (const GeodesicLine* line : active) {
        LocatedLine entry;
        entry.key = {line->id, line->edge, !line->HasFixedNormal()};
        for (const SphereSample& sample : line->samples) {
            entry.directions.push_back(sample.direction);
        }
        auto same = [](const SphereDirection& a, const SphereDirection& b) {
            return a.lambda == b.lambda && a.phi == b.phi;
        };
        if (located_) {
            for (const LocatedLine& before : *located_) {
                if (before.key.id == entry.key.id && before.key.edge == entry.key.edge &&
                    std::equal(before.directions.begin(), before.directions.end(),
                               entry.directions.begin(), entry.directions.end(), same)) {
                    entry.quads = before.quads;
                    break;
                }
            }
        }
        if (entry.quads.size() != entry.directions.size()) {
            entry.quads.assign(entry.directions.size(), QuadLocation{});
            pendingLines.push_back(located->size());
            pending.insert(pending.end(), entry.directions.begin(), entry.directions.end());
        }
        located->push_back(std::move(entry));
    }
    std::vector<QuadLocation> found(pending.size());
    QuadFinder(*ownLocator_).Find(pending, found);
    size_t offset = 0;
    for (size_t k : pendingLines) {
        LocatedLine& entry = (*located)[k];
        std::copy(found.begin() + static_cast<std::ptrdiff_t>(offset),
                  found.begin() + static_cast<std::ptrdiff_t>(offset + entry.quads.size()),
                  entry.quads.begin());
        offset += entry.quads.size();
    }
    std::vector<QuadLocation> quads;
    for (const LocatedLine& entry : *located) {
        quads.insert(quads.end(), entry.quads.begin(), entry.quads.end());
    }
    located_ = std::move(located);
    return quads;
}

void LineSolve::PrepareSolve() {
    lineTerms_.clear();
    planeTerms_.clear();
    const auto lines = lines_.lock();
    if (!lines) {
        return;
    }
    const std::vector<uint8_t> kept = LayOutExtras(*lines);
    std::vector<const GeodesicLine*> active;
    for (const auto* list : {&lines->Lines(), &lines->EdgeLines()}) {
        for (const GeodesicLine& line : *list) {
            if (line.active) {
                active.push_back(&line);
            }
        }
    }
    // Samples of lines fitted on this mesh carry their quads already.
    const bool ownMesh = &lines->Mesh() == &Mesh();
    std::vector<QuadLocation> located;
    if (!ownMesh) {
        located = LocateInThisMesh(active);
    }
    std::vector<QuadLocation> quads;
    size_t offset = 0;
    for (size_t k = 0; k < active.size(); ++k) {
        const size_t count = active[k]->samples.size();
        std::span<const QuadLocation> span;
        if (ownMesh) {
            quads.clear();
            for (const SphereSample& sample : active[k]->samples) {
                quads.push_back(sample.quad);
            }
            span = quads;
        } else {
            span = std::span<const QuadLocation>(located).subspan(offset, count);
        }
        offset += count;
        const size_t count0 = lineTerms_.size();
        const int32_t index = static_cast<int32_t>(k);
        PrepareLine(*active[k], MeshUnknownCount() + index, OffsetUnknown(index), span);
        if (lineTerms_.size() > count0) {
            lineTerms_.back().index = index;
            lineTerms_.back().key = {active[k]->id, active[k]->edge, !active[k]->HasFixedNormal()};
        }
    }
    int32_t planeIndex = 0;
    for (const GeodesicPlane& plane : lines->Planes()) {
        if (plane.active) {
            const size_t planes0 = planeTerms_.size();
            PreparePlane(plane, PlaneUnknown(planeIndex));
            if (planeTerms_.size() > planes0) {
                planeTerms_.back().index = static_cast<int32_t>(active.size()) + planeIndex;
            }
            ++planeIndex;
        }
    }
    changedCount_ = 0;
    DeclareChangedLines();
    factorAlphas_.resize(active.size(), std::numeric_limits<double>::quiet_NaN());
    for (LineTerm& term : lineTerms_) {
        const bool keep = kept[static_cast<size_t>(term.index)] != 0;
        StartLine(term, keep);
        term.factorAlpha = keep ? factorAlphas_[static_cast<size_t>(term.index)]
                                : std::numeric_limits<double>::quiet_NaN();
    }
    for (const PlaneTerm& term : planeTerms_) {
        if (kept[static_cast<size_t>(term.index)] == 0) {
            StartPlane(term);
        }
    }
}

void LineSolve::AddIterationTerms(int32_t iteration) {
    const Eigen::VectorXd& u = Solution();  // (the same vector as `solution` below)
    const double w = lineWeight_;
    const double w2 = w * w;
    const int32_t n = MeshSize();
    // At the zero warp that a fresh solve starts from, the rows do not depend
    // on alpha: take that derivative at the closed form (see the header).
    const bool alphaAtClosedForm = iteration == 0 && !WarmStart();
    std::array<double, 100> normal{};
    std::array<double, 10> gradient{};
    Eigen::VectorXd& solution = MutableSolution();
    if (HasPreconditioner()) {
        // A free line turned too far since the factorised matrix: its corners
        // go into the exactly solved part, like a moved line's.
        std::vector<int32_t> turned;
        for (LineTerm& term : lineTerms_) {
            if (term.alpha >= 0 && !term.changed &&
                !(std::abs(std::remainder(u[term.alpha] - term.factorAlpha,
                                          2.0 * std::numbers::pi)) <= kMaxTurn)) {
                term.changed = true;
                AddChangedUnknowns(term, turned);
            }
        }
        if (!turned.empty()) {
            DeclareChangedUnknowns(turned);
        }
    }
    for (LineTerm& term : lineTerms_) {
        const bool free = term.alpha >= 0;
        const double alpha = free ? u[term.alpha] : term.fixedNormal;
        const std::array<double, 2> nv{std::cos(alpha), std::sin(alpha)};
        const std::array<double, 2> tv{-nv[1], nv[0]};
        // c follows the samples' mean where the rows are linearised, so that
        // the alpha column stays centred (apart from d's) however far the
        // warp moves; d moves with it and the line stays where it is.
        double cx = 0.0, cy = 0.0;
        for (const LineSample& s : term.samples) {
            double x, y;
            if (alphaAtClosedForm) {
                ClosedFormAt(term, s, x, y);
            } else {
                x = SampleAt(u, term, s, 0), y = SampleAt(u, term, s, 1);
            }
            cx += x, cy += y;
        }
        cx /= static_cast<double>(term.samples.size());
        cy /= static_cast<double>(term.samples.size());
        solution[term.offset] += (term.cx - cx) * nv[0] + (term.cy - cy) * nv[1];
        term.cx = cx, term.cy = cy;
        const double d = u[term.offset];
        for (const LineBlock& b : term.blocks) {
            const size_t m = static_cast<size_t>(b.count);
            const size_t g = 2 * m + (free ? 1 : 0) + 1;
            const size_t A = 2 * m, D = g - 1;
            std::array<double, 4> v{}, t{}, mv{}, mt{};
            for (size_t k = 0; k < m; ++k) {
                const int32_t vertex = b.vertex[k];
                const double ux = u[2 * vertex], uy = u[2 * vertex + 1];
                v[k] = (ux - term.cx) * nv[0] + (uy - term.cy) * nv[1];
                if (free) {
                    double lx = ux, ly = uy;
                    if (alphaAtClosedForm) {
                        float gx = 0.0f, gy = 0.0f;
                        Regulariser().GetVertexPosition(vertex % n, vertex / n, gx, gy);
                        lx = gx, ly = gy;
                    }
                    t[k] = (lx - term.cx) * tv[0] + (ly - term.cy) * tv[1];
                }
            }
            for (size_t k = 0; k < m; ++k) {
                for (size_t l = 0; l < m; ++l) {
                    mv[k] += b.moments[4 * k + l] * v[l];
                    mt[k] += b.moments[4 * k + l] * t[l];
                }
            }
            std::fill(normal.begin(), normal.begin() + static_cast<std::ptrdiff_t>(g * g), 0.0);
            double sv = 0.0, st = 0.0, tmt = 0.0, tmv = 0.0;
            for (size_t k = 0; k < m; ++k) {
                sv += b.sums[k] * v[k];
                st += b.sums[k] * t[k];
                tmt += t[k] * mt[k];
                tmv += t[k] * mv[k];
                for (size_t a = 0; a < 2; ++a) {
                    const size_t row = 2 * k + a;
                    for (size_t l = 0; l < m; ++l) {
                        for (size_t c = 0; c < 2; ++c) {
                            normal[row + (2 * l + c) * g] =
                                w2 * b.moments[4 * k + l] * nv[a] * nv[c];
                        }
                    }
                    normal[row + D * g] = -w2 * nv[a] * b.sums[k];
                    if (free) {
                        normal[row + A * g] = w2 * nv[a] * mt[k];
                    }
                    gradient[row] = w2 * nv[a] * (mv[k] - b.sums[k] * d);
                }
            }
            if (free) {
                normal[A + A * g] = w2 * tmt;
                normal[A + D * g] = -w2 * st;
                gradient[A] = w2 * (tmv - d * st);
            }
            const double samples = b.samples;
            normal[D + D * g] = w2 * samples;
            gradient[D] = -w2 * (sv - samples * d);
            AddGroupBlock(b.group, std::span<const double>(normal.data(), g * g),
                          std::span<const double>(gradient.data(), g));
        }
    }
    for (const PlaneTerm& term : planeTerms_) {
        const double* h = u.data() + term.h;
        for (size_t s = 0; s < term.vertex.size(); ++s) {
            const double pu = term.uv[s][0], pv = term.uv[s][1];
            const double dn = h[6] * pu + h[7] * pv + 1.0;
            if (std::abs(dn) < 1e-9) {
                continue;  // the map sends this sample to infinity: no usable row
            }
            const double hx = (h[0] * pu + h[1] * pv + h[2]) / dn;
            const double hy = (h[3] * pu + h[4] * pv + h[5]) / dn;
            const int32_t k = term.vertex[s];
            const std::array<double, 10> rowX{
                w,   0.0, -w * pu / dn, -w * pv / dn,     -w / dn,
                0.0, 0.0, 0.0,          w * pu * hx / dn, w * pv * hx / dn};
            const std::array<double, 10> rowY{0.0,
                                              w,
                                              0.0,
                                              0.0,
                                              0.0,
                                              -w * pu / dn,
                                              -w * pv / dn,
                                              -w / dn,
                                              w * pu * hy / dn,
                                              w * pv * hy / dn};
            AddGroupRow(term.groups[s], rowX, w * (u[2 * k] - hx));
            AddGroupRow(term.groups[s], rowY, w * (u[2 * k + 1] - hy));
        }
    }
}

void LineSolve::Factorized() {
    factorTerms_ = std::make_shared<const std::vector<LineTerm>>(lineTerms_);
    const Eigen::VectorXd& u = Solution();
    for (LineTerm& term : lineTerms_) {
        if (term.alpha >= 0) {
            term.factorAlpha = u[term.alpha];
            factorAlphas_[static_cast<size_t>(term.index)] = term.factorAlpha;
        }
    }
}

float LineSolve::ConvergenceMeasure() const {
    if (lineTerms_.empty() && planeTerms_.empty()) {
        return -1.0f;
    }
    const Eigen::VectorXd& u = Solution();
    const Eigen::VectorXd& du = LastUpdate();
    double measure = 0.0;
    // The displacement against the size of the mesh cells the constraint
    // lies in: its extent in the output over the cells it spans.
    auto relative = [](double moved, double extent, double cells) {
        return extent > 0.0 ? moved * std::max(cells, 1.0) / extent : 1.0;
    };
    for (const LineTerm& term : lineTerms_) {
        const LineSample& first = term.samples.front();
        const double x0 = SampleAt(u, term, first, 0), y0 = SampleAt(u, term, first, 1);
        double moved = 0.0, extent = 0.0;
        for (const LineSample& s : term.samples) {
            moved = std::max(moved, std::hypot(SampleAt(du, term, s, 0), SampleAt(du, term, s, 1)));
            extent = std::max(
                extent, std::hypot(SampleAt(u, term, s, 0) - x0, SampleAt(u, term, s, 1) - y0));
        }
        measure =
            std::max(measure, relative(moved, extent, static_cast<double>(term.blocks.size())));
    }
    for (const PlaneTerm& term : planeTerms_) {
        const int32_t k0 = term.vertex.front();
        double moved = 0.0, extent = 0.0;
        for (int32_t k : term.vertex) {
            moved = std::max(moved, std::hypot(du[2 * k], du[2 * k + 1]));
            extent =
                std::max(extent, std::hypot(u[2 * k] - u[2 * k0], u[2 * k + 1] - u[2 * k0 + 1]));
        }
        measure = std::max(
            measure, relative(moved, extent, std::sqrt(static_cast<double>(term.vertex.size()))));
    }
    return static_cast<float>(measure);
}

// ---------------------------------------------------------------------------
// Energy

double LineSolve::LineEnergy(const GeodesicLine& line, int32_t unknown) const {
    const Eigen::VectorXd& u = Solution();
    const double alpha =
        line.HasFixedNormal() || unknown < 0 || unknown >= u.size() ? line.fixedNormal : u[unknown];
    const double nx = std::cos(alpha), ny = std::sin(alpha);
    float energy = 0.0f;
    bool haveFirst = false;
    double x0 = 0.0, y0 = 0.0;
    for (const SphereSample& sample : line.samples) {
        double x, y;
        if (!SamplePosition(sample.quad, x, y)) {
            continue;
        }
        if (!haveFirst) {
            x0 = x, y0 = y, haveFirst = true;
            continue;
        }
        const double r = lineWeight_ * ((x - x0) * nx + (y - y0) * ny);
        energy += static_cast<float>(0.5 * r * r);
    }
    return energy;
}

double LineSolve::Energy() const {
    const auto lines = lines_.lock();
    if (!lines) {
        return 0.0;
    }
    double total = 0.0;
    int32_t k = 0;
    for (const auto* list : {&lines->Lines(), &lines->EdgeLines()}) {
        for (const GeodesicLine& line : *list) {
            if (line.active) {
                total += LineEnergy(line, MeshUnknownCount() + k);
                ++k;
            }
        }
    }
    const Eigen::VectorXd& u = Solution();
    int32_t planeIndex = 0;
    for (const GeodesicPlane& plane : lines->Planes()) {
        if (!plane.active) {
            continue;
        }
        const double* h = u.data() + PlaneUnknown(planeIndex++);
        float energy = 0.0f;
        for (const PlaneSample& s : plane.samples) {
            if (!IsVertexValid(s.i, s.j)) {
                continue;
            }
            const int32_t v = CanonicalIndex(s.i, s.j);
            const double d = h[6] * s.u + h[7] * s.v + 1.0;
            const double dx = u[2 * v] - (h[0] * s.u + h[1] * s.v + h[2]) / d;
            const double dy = u[2 * v + 1] - (h[3] * s.u + h[4] * s.v + h[5]) / d;
            energy += static_cast<float>(0.5 * (lineWeight_ * dx) * (lineWeight_ * dx) +
                                         0.5 * (lineWeight_ * dy) * (lineWeight_ * dy));
        }
        total += energy;
    }
    return total;
}

}  // namespace Project
