#include "solver/LineSolve.h"

#include "solver/QuadFinder.h"

#include <Eigen/Dense>

#include <algorithm>
#include <cmath>

namespace Project {
namespace {

// Damping of alpha and h relative to the squared line weight: far below what
// the rows contribute as soon as the lines have any extent in the output.
constexpr double kDampingScale = 1e-6;

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
      lines_(std::move(lines)),
      lineWeight_(lineWeight),
      shapeWeight_(shapeWeight),
      smoothnessWeight_(smoothnessWeight) {
    LineSolve::ResetSystem();
}

void LineSolve::ResetSystem() {
    const auto lines = lines_.lock();
    activeLines_ = lines ? lines->ActiveLineCount() : 0;
    activeEdges_ = lines ? lines->ActiveEdgeCount() : 0;
    activePlanes_ = lines ? lines->ActivePlaneCount() : 0;
    SetExtraUnknownCount(activeLines_ + activeEdges_ + 8 * activePlanes_);
    extrasInitialised_ = false;
    IterativeWarpSolver::ResetSystem();
}

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
    const std::array<MeshVertex, 4> corners{MeshVertex{quad.i, quad.j}, MeshVertex{quad.i + 1, quad.j},
                                            MeshVertex{quad.i, quad.j + 1},
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

bool LineSolve::SamplePosition(const QuadLocation& quad, double& x, double& y) const {
    Corners c;
    if (!CornersOf(quad, c)) {
        return false;
    }
    x = Interpolate(Solution(), c, 0);
    y = Interpolate(Solution(), c, 1);
    return true;
}

void LineSolve::PrepareLine(const GeodesicLine& line, int32_t unknown, std::span<const QuadLocation> quads) {
    LineTerm term;
    term.alpha = line.HasFixedNormal() ? -1 : unknown;
    term.fixedNormal = line.fixedNormal;
    for (const QuadLocation& quad : quads) {
        Corners c;
        if (CornersOf(quad, c)) {
            term.samples.push_back(c);
        }
    }
    if (term.samples.size() < 2) {
        return;  // nothing to keep straight
    }
    const Corners& first = term.samples.front();
    for (size_t s = 1; s < term.samples.size(); ++s) {
        const Corners& sample = term.samples[s];
        std::vector<int32_t> vertices;
        std::array<int32_t, 9> slots{};
        for (size_t k = 0; k < 8; ++k) {
            const int32_t vertex = k < 4 ? sample.vertex[k] : first.vertex[k - 4];
            auto at = std::find(vertices.begin(), vertices.end(), vertex);
            if (at == vertices.end()) {
                at = vertices.insert(vertices.end(), vertex);
            }
            slots[k] = 2 * static_cast<int32_t>(at - vertices.begin());
        }
        std::vector<int32_t> unknowns;
        for (int32_t vertex : vertices) {
            unknowns.push_back(2 * vertex);
            unknowns.push_back(2 * vertex + 1);
        }
        slots[8] = static_cast<int32_t>(unknowns.size());
        if (term.alpha >= 0) {
            unknowns.push_back(term.alpha);
        }
        term.groups.push_back(DeclareRowGroup(unknowns));
        term.slots.push_back(slots);
    }
    if (term.alpha >= 0) {
        DeclareDamping(term.alpha, kDampingScale * lineWeight_ * lineWeight_);
    }
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

void LineSolve::InitialiseExtras() {
    const ClosedFormWarp& closedForm = Regulariser();
    const int32_t n = MeshSize();
    auto closedFormAt = [&](const Corners& c, double& x, double& y) {
        x = y = 0.0;
        for (size_t k = 0; k < 4; ++k) {
            float vx = 0.0f, vy = 0.0f;
            closedForm.GetVertexPosition(c.vertex[k] % n, c.vertex[k] / n, vx, vy);
            x += c.weight[k] * vx;
            y += c.weight[k] * vy;
        }
    };
    Eigen::VectorXd& solution = MutableSolution();
    for (const LineTerm& term : lineTerms_) {
        if (term.alpha < 0) {
            continue;
        }
        double x0, y0, x1, y1;
        closedFormAt(term.samples.front(), x0, y0);
        closedFormAt(term.samples.back(), x1, y1);
        const double dx = x1 - x0, dy = y1 - y0;
        solution[term.alpha] = (dx == 0.0 && dy == 0.0) ? 0.0 : std::atan2(dx, -dy);
    }
    for (const PlaneTerm& term : planeTerms_) {
        Eigen::Matrix3d normal = Eigen::Matrix3d::Zero();
        Eigen::Vector3d bx = Eigen::Vector3d::Zero(), by = Eigen::Vector3d::Zero();
        for (size_t s = 0; s < term.vertex.size(); ++s) {
            const Eigen::Vector3d row(term.uv[s][0], term.uv[s][1], 1.0);
            float gx = 0.0f, gy = 0.0f;
            closedForm.GetVertexPosition(term.vertex[s] % n, term.vertex[s] / n, gx, gy);
            normal += row * row.transpose();
            bx += row * gx;
            by += row * gy;
        }
        const auto qr = normal.colPivHouseholderQr();
        const Eigen::Vector3d hx = qr.isInvertible() ? Eigen::Vector3d(qr.solve(bx)) : Eigen::Vector3d(1, 0, 0);
        const Eigen::Vector3d hy = qr.isInvertible() ? Eigen::Vector3d(qr.solve(by)) : Eigen::Vector3d(0, 1, 0);
        for (int32_t k = 0; k < 3; ++k) {
            solution[term.h + k] = hx[k];
            solution[term.h + 3 + k] = hy[k];
        }
        solution[term.h + 6] = 0.0;
        solution[term.h + 7] = 0.0;
    }
}

void LineSolve::PrepareSolve() {
    lineTerms_.clear();
    planeTerms_.clear();
    const auto lines = lines_.lock();
    if (!lines) {
        return;
    }
    if (lines->ActiveLineCount() != activeLines_ || lines->ActiveEdgeCount() != activeEdges_ ||
        lines->ActivePlaneCount() != activePlanes_) {
        ResetSystem();  // the constraints changed since the last assembly
    }
    // Locate every sample of the active lines in this warp's mesh.
    const MeshLocator* locator = &lines->Locator();
    if (&lines->Mesh() != &Mesh()) {
        if (!ownLocator_) {
            ownLocator_ = std::make_unique<MeshLocator>(MeshRef());
        }
        locator = ownLocator_.get();
    }
    std::vector<const GeodesicLine*> active;
    for (const auto* list : {&lines->Lines(), &lines->EdgeLines()}) {
        for (const GeodesicLine& line : *list) {
            if (line.active) {
                active.push_back(&line);
            }
        }
    }
    std::vector<SphereDirection> directions;
    for (const GeodesicLine* line : active) {
        for (const SphereSample& sample : line->samples) {
            directions.push_back(sample.direction);
        }
    }
    std::vector<QuadLocation> quads(directions.size());
    QuadFinder(*locator).Find(directions, quads);

    size_t offset = 0;
    for (size_t k = 0; k < active.size(); ++k) {
        const size_t count = active[k]->samples.size();
        PrepareLine(*active[k], MeshUnknownCount() + static_cast<int32_t>(k),
                    std::span<const QuadLocation>(quads).subspan(offset, count));
        offset += count;
    }
    int32_t planeIndex = 0;
    for (const GeodesicPlane& plane : lines->Planes()) {
        if (plane.active) {
            PreparePlane(plane, PlaneUnknown(planeIndex));
            ++planeIndex;
        }
    }
    if (!extrasInitialised_) {
        InitialiseExtras();
        extrasInitialised_ = true;
    }
}

void LineSolve::AddIterationTerms(int32_t iteration) {
    (void)iteration;
    const Eigen::VectorXd& u = Solution();
    const double w = lineWeight_;
    std::vector<double> coefficients;
    for (const LineTerm& term : lineTerms_) {
        const double alpha = term.alpha >= 0 ? u[term.alpha] : term.fixedNormal;
        const double nx = std::cos(alpha), ny = std::sin(alpha);
        const Corners& first = term.samples.front();
        const double x0 = Interpolate(u, first, 0), y0 = Interpolate(u, first, 1);
        for (size_t s = 1; s < term.samples.size(); ++s) {
            const Corners& sample = term.samples[s];
            const auto& slots = term.slots[s - 1];
            const double dx = Interpolate(u, sample, 0) - x0;
            const double dy = Interpolate(u, sample, 1) - y0;
            coefficients.assign(static_cast<size_t>(slots[8]) + (term.alpha >= 0 ? 1 : 0), 0.0);
            for (size_t k = 0; k < 8; ++k) {
                const double q = k < 4 ? sample.weight[k] : -first.weight[k - 4];
                coefficients[static_cast<size_t>(slots[k])] += w * q * nx;
                coefficients[static_cast<size_t>(slots[k]) + 1] += w * q * ny;
            }
            if (term.alpha >= 0) {
                coefficients[static_cast<size_t>(slots[8])] = w * (-dx * ny + dy * nx);
            }
            AddGroupRow(term.groups[s - 1], coefficients, w * (dx * nx + dy * ny));
        }
    }
    for (const PlaneTerm& term : planeTerms_) {
        const double* h = u.data() + term.h;
        for (size_t s = 0; s < term.vertex.size(); ++s) {
            const double pu = term.uv[s][0], pv = term.uv[s][1];
            const double d = h[6] * pu + h[7] * pv + 1.0;
            if (std::abs(d) < 1e-9) {
                continue;  // the map sends this sample to infinity: no usable row
            }
            const double hx = (h[0] * pu + h[1] * pv + h[2]) / d;
            const double hy = (h[3] * pu + h[4] * pv + h[5]) / d;
            const int32_t k = term.vertex[s];
            const std::array<double, 10> rowX{w,           0.0,         -w * pu / d,     -w * pv / d,
                                              -w / d,      0.0,         0.0,             0.0,
                                              w * pu * hx / d, w * pv * hx / d};
            const std::array<double, 10> rowY{0.0,     w,       0.0,         0.0,         0.0,
                                              -w * pu / d, -w * pv / d, -w / d, w * pu * hy / d,
                                              w * pv * hy / d};
            AddGroupRow(term.groups[s], rowX, w * (u[2 * k] - hx));
            AddGroupRow(term.groups[s], rowY, w * (u[2 * k + 1] - hy));
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
    auto relative = [](double moved, double extent) { return extent > 0.0 ? moved / extent : 1.0; };
    for (const LineTerm& term : lineTerms_) {
        const Corners& first = term.samples.front();
        const double x0 = Interpolate(u, first, 0), y0 = Interpolate(u, first, 1);
        double moved = 0.0, extent = 0.0;
        for (const Corners& sample : term.samples) {
            moved = std::max(moved, std::hypot(Interpolate(du, sample, 0), Interpolate(du, sample, 1)));
            extent = std::max(extent, std::hypot(Interpolate(u, sample, 0) - x0, Interpolate(u, sample, 1) - y0));
        }
        measure = std::max(measure, relative(moved, extent));
    }
    for (const PlaneTerm& term : planeTerms_) {
        const int32_t k0 = term.vertex.front();
        double moved = 0.0, extent = 0.0;
        for (int32_t k : term.vertex) {
            moved = std::max(moved, std::hypot(du[2 * k], du[2 * k + 1]));
            extent = std::max(extent, std::hypot(u[2 * k] - u[2 * k0], u[2 * k + 1] - u[2 * k0 + 1]));
        }
        measure = std::max(measure, relative(moved, extent));
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
