#include "solver/IterativeWarpSolver.h"

#include "core/Vector3.h"
#include "solver/MeshOrdering.h"
#include "solver/SolveSparse.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

namespace Project {
namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Builds a compressed upper matrix from finished arrays.
void FillMatrix(SymmetricUpperMatrix& m, int32_t dimension, const std::vector<int32_t>& outer,
                const std::vector<int32_t>& inner) {
    m.resize(dimension, dimension);
    m.resizeNonZeros(static_cast<Eigen::Index>(inner.size()));
    std::copy(outer.begin(), outer.end(), m.outerIndexPtr());
    std::copy(inner.begin(), inner.end(), m.innerIndexPtr());
    std::fill(m.valuePtr(), m.valuePtr() + inner.size(), 0.0);
}

}  // namespace

IterativeWarpSolver::IterativeWarpSolver(std::shared_ptr<const OctaMap> mesh,
                                         std::shared_ptr<const PhotoToSphere> photo,
                                         float regulariserWeight, int32_t iterationCount,
                                         bool pinCentre, RegularizerModel regulariserCode,
                                         int32_t modeValue, bool boundaryOnly, bool twoPass,
                                         AngleRange latitudeLimits, AngleRange longitudeLimits)
    : regulariserWeight_(regulariserWeight),
      iterationCount_(iterationCount),
      pinCentre_(pinCentre),
      modeValue_(modeValue),
      boundaryOnly_(boundaryOnly),
      mesh_(std::move(mesh)),
      photo_(std::move(photo)),
      regulariserCode_(regulariserCode),
      n_(0),
      vertexCount_(0),
      twoPass_(twoPass),
      latitudeRange_(latitudeLimits),
      longitudeRange_(longitudeLimits),
      cholesky_(SparseCholesky::Create(SparseCholesky::Options{})) {
    if (!mesh_) {
        throw std::invalid_argument("IterativeWarpSolver needs a mesh");
    }
    n_ = mesh_->Size();
    vertexCount_ = n_ * n_;
    regulariser_ = MakeClosedForm(regulariserCode, mesh_, photo_);
    // Validity is asked of every term many times: ask the photo once.
    valid_.assign(static_cast<size_t>(vertexCount_), 0);
    for (int32_t j = 0; j < n_; ++j) {
        for (int32_t i = 0; i < n_; ++i) {
            bool valid = false;
            if (photo_) {
                const SphereDirection a = mesh_->UnrotatedAngles(i, j);
                valid = photo_->IsVisible(a.lambda, a.phi) && IsVertexInRanges(i, j);
            }
            valid_[static_cast<size_t>(i + j * n_)] = valid ? 1 : 0;
        }
    }
    solution_ = Eigen::VectorXd::Zero(MeshUnknownCount());
    lastUpdate_ = Eigen::VectorXd::Zero(MeshUnknownCount());
}

IterativeWarpSolver::~IterativeWarpSolver() = default;

bool IterativeWarpSolver::IsVertexInRanges(int32_t i, int32_t j) const {
    if (!twoPass_) {
        return true;
    }
    const SphereDirection a = mesh_->UnrotatedAngles(i, j);
    return a.phi >= latitudeRange_.first && a.phi <= latitudeRange_.second &&
           a.lambda >= longitudeRange_.first && a.lambda <= longitudeRange_.second;
}

bool IterativeWarpSolver::IsVertexValid(int32_t i, int32_t j) const {
    if (i < 0 || j < 0 || i >= n_ || j >= n_) {
        return false;
    }
    return valid_[static_cast<size_t>(i + j * n_)] != 0;
}

bool IterativeWarpSolver::IsQuadValid(int32_t i, int32_t j) const {
    return IsVertexValid(i, j) && IsVertexValid(i + 1, j) && IsVertexValid(i, j + 1) &&
           IsVertexValid(i + 1, j + 1);
}

void IterativeWarpSolver::GetVertexPosition(int32_t i, int32_t j, float& x, float& y) const {
    const int32_t k = CanonicalIndex(i, j);
    x = static_cast<float>(solution_[2 * k]);
    y = static_cast<float>(solution_[2 * k + 1]);
}

void IterativeWarpSolver::SetExtraUnknownCount(int32_t count) {
    extraCount_ = std::max(count, 0);
    const Eigen::Index total = MeshUnknownCount() + extraCount_;
    Eigen::VectorXd solution = Eigen::VectorXd::Zero(total);
    const Eigen::Index kept = std::min<Eigen::Index>(solution_.size(), total);
    solution.head(kept) = solution_.head(kept);
    solution_ = std::move(solution);
    lastUpdate_ = Eigen::VectorXd::Zero(total);
}

// ---------------------------------------------------------------------------
// Fixed system

void IterativeWarpSolver::AddBlock(int32_t a, int32_t b, int32_t ca, int32_t cb, double value) {
    auto& row = vertexBlocks_[static_cast<size_t>(a)];
    for (Block& block : row) {
        if (block.column == b) {
            block.value[static_cast<size_t>(2 * ca + cb)] += value;
            return;
        }
    }
    Block block{b, {0.0, 0.0, 0.0, 0.0}};
    block.value[static_cast<size_t>(2 * ca + cb)] = value;
    row.push_back(block);
}

void IterativeWarpSolver::AddFixedRow(std::span<const int32_t> unknowns,
                                      std::span<const double> coefficients, double rhs) {
    // Merge repeated unknowns (a folded border can make two corners one).
    constexpr size_t kMax = 16;
    std::array<int32_t, kMax> index{};
    std::array<double, kMax> coefficient{};
    size_t count = 0;
    for (size_t k = 0; k < unknowns.size(); ++k) {
        const int32_t u = unknowns[k];
        if (u < 0 || u >= MeshUnknownCount()) {
            continue;
        }
        size_t at = 0;
        while (at < count && index[at] != u) {
            ++at;
        }
        if (at == count) {
            if (count == kMax) {
                throw std::logic_error("AddFixedRow: too many unknowns in one row");
            }
            index[count] = u;
            coefficient[count] = 0.0;
            ++count;
        }
        coefficient[at] += coefficients[k];
    }
    for (size_t a = 0; a < count; ++a) {
        fixedRhsFull_[index[a]] += coefficient[a] * rhs;
        for (size_t b = 0; b < count; ++b) {
            if (index[a] > index[b]) {
                continue;
            }
            AddBlock(index[a] / 2, index[b] / 2, index[a] % 2, index[b] % 2,
                     coefficient[a] * coefficient[b]);
        }
    }
}

// The similarity term: the output edges q - p and r - p keep the ratio and
// the angle they have on the sphere, seen in the tangent frame of p:
// (u_q - u_p) = s Rot(theta) (u_r - u_p), two rows weighted by `weight`.
void IterativeWarpSolver::AddTriangleTerm(double weight, MeshVertex p, MeshVertex q, MeshVertex r) {
    const std::array<double, 3> dp = ToDouble(mesh_->Direction(p.i, p.j));
    const std::array<double, 3> dq = ToDouble(mesh_->Direction(q.i, q.j));
    const std::array<double, 3> dr = ToDouble(mesh_->Direction(r.i, r.j));
    const std::array<double, 3> e1{dq[0] - dp[0], dq[1] - dp[1], dq[2] - dp[2]};
    const std::array<double, 3> e2{dr[0] - dp[0], dr[1] - dp[1], dr[2] - dp[2]};
    const MeshFrame frame = mesh_->LocalFrame(p.i, p.j);
    const double ax = Dot(e1, frame.east), ay = Dot(e1, frame.north);
    const double bx = Dot(e2, frame.east), by = Dot(e2, frame.north);
    const double la = std::hypot(ax, ay);
    const double lb = std::hypot(bx, by);
    if (la == 0.0 || lb == 0.0) {
        return;  // corners folded onto each other: no shape to keep
    }
    const double s = la / lb;
    const double theta = std::atan2(ay, ax) - std::atan2(by, bx);
    const double sc = s * std::cos(theta);
    const double ss = s * std::sin(theta);
    const int32_t kp = CanonicalIndex(p.i, p.j);
    const int32_t kq = CanonicalIndex(q.i, q.j);
    const int32_t kr = CanonicalIndex(r.i, r.j);
    const std::array<int32_t, 6> unknowns{2 * kp, 2 * kp + 1, 2 * kq, 2 * kq + 1, 2 * kr, 2 * kr + 1};
    const std::array<double, 6> rowX{weight * (sc - 1.0), weight * -ss, weight, 0.0, weight * -sc,
                                     weight * ss};
    const std::array<double, 6> rowY{weight * ss, weight * (sc - 1.0), 0.0, weight, weight * -ss,
                                     weight * -sc};
    AddFixedRow(unknowns, rowX, 0.0);
    AddFixedRow(unknowns, rowY, 0.0);
}

void IterativeWarpSolver::AddRegulariserTerms() {
    const int32_t c = n_ / 2;
    auto add = [&](int32_t i, int32_t j, double w) {
        float gx = 0.0f, gy = 0.0f;
        regulariser_->GetVertexPosition(i, j, gx, gy);
        const int32_t k = CanonicalIndex(i, j);
        AddBlock(k, k, 0, 0, w);
        AddBlock(k, k, 1, 1, w);
        fixedRhsFull_[2 * k] += w * gx;
        fixedRhsFull_[2 * k + 1] += w * gy;
    };
    for (int32_t j = 0; j < n_; ++j) {
        for (int32_t i = 0; i < n_; ++i) {
            if (!boundaryOnly_) {
                double w = regulariserWeight_;
                if (pinCentre_ && i == c && j == c) {
                    w += 1.0;
                }
                add(i, j, w);
                continue;
            }
            if (!IsVertexValid(i, j)) {
                continue;
            }
            const bool sides = IsVertexValid(i - 1, j) && IsVertexValid(i + 1, j);
            const bool interior = sides && IsVertexValid(i + 1, j + 1) && IsVertexValid(i - 1, j + 1) &&
                                  IsVertexValid(i, j + 1) && IsVertexValid(i, j - 1) &&
                                  IsVertexValid(i + 1, j - 1) && IsVertexValid(i - 1, j - 1);
            if (!interior) {
                add(i, j, regulariserWeight_);
            }
        }
    }
}

void IterativeWarpSolver::ResetSystem() {
    const auto start = Clock::now();
    vertexBlocks_.assign(static_cast<size_t>(vertexCount_), {});
    fixedRhsFull_ = Eigen::VectorXd::Zero(MeshUnknownCount());
    if (solution_.size() != MeshUnknownCount() + extraCount_) {
        SetExtraUnknownCount(extraCount_);
    }

    AddRegulariserTerms();
    for (int32_t j = 0; j + 1 < n_; ++j) {
        for (int32_t i = 0; i + 1 < n_; ++i) {
            if (IsQuadValid(i, j)) {
                AddQuadTerms(i, j);
            }
        }
    }
    for (int32_t j = 0; j < n_; ++j) {
        for (int32_t i = 0; i < n_; ++i) {
            if (IsVertexValid(i, j) && OctaMap::Fold(n_, i, j) == MeshVertex{i, j}) {
                AddVertexTerms(i, j);
            }
        }
    }
    BuildFixedMatrix();
    vertexBlocks_.clear();
    vertexBlocks_.shrink_to_fit();
    assembled_ = true;
    timings_.fixedAssembly = SecondsSince(start);
}

void IterativeWarpSolver::BuildFixedMatrix() {
    // The system takes every vertex that some fixed term touched, in
    // ascending vertex order (so that upper stays upper).
    std::vector<uint8_t> touched(static_cast<size_t>(vertexCount_), 0);
    for (int32_t v = 0; v < vertexCount_; ++v) {
        auto& row = vertexBlocks_[static_cast<size_t>(v)];
        for (const Block& block : row) {
            touched[static_cast<size_t>(v)] = 1;
            touched[static_cast<size_t>(block.column)] = 1;
        }
    }
    fullToSystem_.assign(static_cast<size_t>(MeshUnknownCount() + extraCount_), -1);
    systemToFull_.clear();
    for (int32_t v = 0; v < vertexCount_; ++v) {
        if (touched[static_cast<size_t>(v)] != 0) {
            fullToSystem_[static_cast<size_t>(2 * v)] = static_cast<int32_t>(systemToFull_.size());
            systemToFull_.push_back(2 * v);
            fullToSystem_[static_cast<size_t>(2 * v + 1)] = static_cast<int32_t>(systemToFull_.size());
            systemToFull_.push_back(2 * v + 1);
        }
    }
    meshSystemSize_ = static_cast<int32_t>(systemToFull_.size());

    std::vector<int32_t> outer;
    std::vector<int32_t> inner;
    std::vector<double> values;
    outer.reserve(static_cast<size_t>(meshSystemSize_) + 1);
    outer.push_back(0);
    for (int32_t v = 0; v < vertexCount_; ++v) {
        if (touched[static_cast<size_t>(v)] == 0) {
            continue;
        }
        auto& row = vertexBlocks_[static_cast<size_t>(v)];
        if (std::none_of(row.begin(), row.end(), [&](const Block& b) { return b.column == v; })) {
            row.push_back(Block{v, {0.0, 0.0, 0.0, 0.0}});
        }
        std::sort(row.begin(), row.end(), [](const Block& a, const Block& b) { return a.column < b.column; });
        for (int32_t component = 0; component < 2; ++component) {
            for (const Block& block : row) {
                const int32_t column = fullToSystem_[static_cast<size_t>(2 * block.column)];
                if (block.column == v) {
                    if (component == 0) {
                        inner.push_back(column);
                        values.push_back(block.value[0]);
                    }
                    inner.push_back(column + 1);
                    values.push_back(block.value[static_cast<size_t>(2 * component + 1)]);
                } else {
                    inner.push_back(column);
                    values.push_back(block.value[static_cast<size_t>(2 * component)]);
                    inner.push_back(column + 1);
                    values.push_back(block.value[static_cast<size_t>(2 * component + 1)]);
                }
            }
            outer.push_back(static_cast<int32_t>(inner.size()));
        }
    }
    FillMatrix(fixed_, meshSystemSize_, outer, inner);
    std::copy(values.begin(), values.end(), fixed_.valuePtr());
    fixedRhs_.resize(meshSystemSize_);
    for (int32_t s = 0; s < meshSystemSize_; ++s) {
        fixedRhs_[s] = fixedRhsFull_[systemToFull_[static_cast<size_t>(s)]];
    }
}

// ---------------------------------------------------------------------------
// Iteration terms

void IterativeWarpSolver::ResetExtrasInSystem() {
    for (size_t s = static_cast<size_t>(meshSystemSize_); s < systemToFull_.size(); ++s) {
        fullToSystem_[static_cast<size_t>(systemToFull_[s])] = -1;
    }
    systemToFull_.resize(static_cast<size_t>(meshSystemSize_));
    fullToSystem_.resize(static_cast<size_t>(MeshUnknownCount() + extraCount_), -1);
    groups_.clear();
    damping_.clear();
}

int32_t IterativeWarpSolver::DeclareRowGroup(std::span<const int32_t> unknowns) {
    RowGroup group;
    for (int32_t u : unknowns) {
        if (u < 0 || u >= MeshUnknownCount() + extraCount_) {
            return -1;
        }
        int32_t s = fullToSystem_[static_cast<size_t>(u)];
        if (s < 0) {
            if (u < MeshUnknownCount()) {
                return -1;  // a vertex without mesh terms would be left undetermined
            }
            s = static_cast<int32_t>(systemToFull_.size());
            fullToSystem_[static_cast<size_t>(u)] = s;
            systemToFull_.push_back(u);
        }
        group.system.push_back(s);
    }
    groups_.push_back(std::move(group));
    return static_cast<int32_t>(groups_.size() - 1);
}

void IterativeWarpSolver::DeclareDamping(int32_t unknown, double weight) {
    if (unknown < 0 || unknown >= MeshUnknownCount() + extraCount_) {
        return;
    }
    int32_t s = fullToSystem_[static_cast<size_t>(unknown)];
    if (s < 0) {
        if (unknown < MeshUnknownCount()) {
            return;
        }
        s = static_cast<int32_t>(systemToFull_.size());
        fullToSystem_[static_cast<size_t>(unknown)] = s;
        systemToFull_.push_back(unknown);
    }
    damping_.emplace_back(s, weight);
}

void IterativeWarpSolver::AddGroupRow(int32_t group, std::span<const double> coefficients,
                                      double residual) {
    if (group < 0) {
        return;
    }
    const RowGroup& g = groups_[static_cast<size_t>(group)];
    const size_t m = g.system.size();
    double* values = system_.valuePtr();
    size_t pair = 0;
    for (size_t a = 0; a < m; ++a) {
        const double ca = coefficients[a];
        rhs_[g.system[a]] -= ca * residual;
        for (size_t b = 0; b < m; ++b) {
            if (g.system[a] > g.system[b]) {
                continue;
            }
            values[g.slots[pair++]] += ca * coefficients[b];
        }
    }
}

// ---------------------------------------------------------------------------
// Solve

bool IterativeWarpSolver::AnalyseSystem() {
    const int32_t dimension = static_cast<int32_t>(systemToFull_.size());
    // Pairs that the iteration terms add beyond the fixed pattern.
    std::vector<std::pair<int32_t, int32_t>> pairs;
    for (const RowGroup& g : groups_) {
        for (int32_t a : g.system) {
            for (int32_t b : g.system) {
                if (a <= b) {
                    pairs.emplace_back(a, b);
                }
            }
        }
    }
    for (const auto& [s, w] : damping_) {
        (void)w;
        pairs.emplace_back(s, s);
    }
    std::sort(pairs.begin(), pairs.end());
    pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());

    std::vector<int32_t> outer{0};
    std::vector<int32_t> inner;
    inner.reserve(static_cast<size_t>(fixed_.nonZeros()) + pairs.size());
    fixedSlots_.resize(static_cast<size_t>(fixed_.nonZeros()));
    size_t p = 0;
    for (int32_t row = 0; row < dimension; ++row) {
        int32_t f = row < meshSystemSize_ ? fixed_.outerIndexPtr()[row] : 0;
        const int32_t fEnd = row < meshSystemSize_ ? fixed_.outerIndexPtr()[row + 1] : 0;
        while (f < fEnd || (p < pairs.size() && pairs[p].first == row)) {
            const bool takeFixed =
                f < fEnd && !(p < pairs.size() && pairs[p].first == row &&
                              pairs[p].second < fixed_.innerIndexPtr()[f]);
            if (takeFixed) {
                const int32_t column = fixed_.innerIndexPtr()[f];
                if (p < pairs.size() && pairs[p].first == row && pairs[p].second == column) {
                    ++p;
                }
                fixedSlots_[static_cast<size_t>(f)] = static_cast<int32_t>(inner.size());
                inner.push_back(column);
                ++f;
            } else {
                inner.push_back(pairs[p].second);
                ++p;
            }
        }
        outer.push_back(static_cast<int32_t>(inner.size()));
    }
    FillMatrix(system_, dimension, outer, inner);

    auto slotOf = [&](int32_t row, int32_t column) {
        const auto begin = inner.begin() + outer[static_cast<size_t>(row)];
        const auto end = inner.begin() + outer[static_cast<size_t>(row) + 1];
        return static_cast<int32_t>(std::lower_bound(begin, end, column) - inner.begin());
    };
    for (RowGroup& g : groups_) {
        g.slots.clear();
        for (int32_t a : g.system) {
            for (int32_t b : g.system) {
                if (a <= b) {
                    g.slots.push_back(slotOf(a, b));
                }
            }
        }
    }
    dampingSlots_.clear();
    for (const auto& [s, w] : damping_) {
        (void)w;
        dampingSlots_.push_back(slotOf(s, s));
    }

    std::vector<int32_t> systemVertexOf(static_cast<size_t>(vertexCount_), -1);
    for (int32_t s = 0; s < meshSystemSize_; s += 2) {
        systemVertexOf[static_cast<size_t>(systemToFull_[static_cast<size_t>(s)] / 2)] = s / 2;
    }
    ordering_ = MeshOrdering::SystemPermutation(n_, systemVertexOf, dimension - meshSystemSize_);
    // A line's residuals all share its first sample, so that sample's quad
    // corners couple with every other sample of the line: left among the mesh
    // unknowns they would fill whole separators (the factor came out twice as
    // large). Like the angle unknowns they go last, just before them.
    constexpr int32_t kHubGroups = 16;
    std::vector<int32_t> groupCount(static_cast<size_t>(dimension), 0);
    for (const RowGroup& g : groups_) {
        for (int32_t a : g.system) {
            ++groupCount[static_cast<size_t>(a)];
        }
    }
    std::stable_partition(ordering_.begin(), ordering_.begin() + meshSystemSize_, [&](int s) {
        return groupCount[static_cast<size_t>(s)] <= kHubGroups;
    });
    rhs_.resize(dimension);
    return cholesky_->Analyze(system_, ordering_) == SparseStatus::Success;
}

bool IterativeWarpSolver::RunIteration(int32_t iteration) {
    auto start = Clock::now();
    const int32_t dimension = static_cast<int32_t>(systemToFull_.size());
    double* values = system_.valuePtr();
    std::fill(values, values + system_.nonZeros(), 0.0);
    const double* fixedValues = fixed_.valuePtr();
    for (size_t k = 0; k < fixedSlots_.size(); ++k) {
        values[fixedSlots_[k]] = fixedValues[k];
    }
    for (size_t k = 0; k < damping_.size(); ++k) {
        values[dampingSlots_[k]] += damping_[k].second;
    }
    Eigen::VectorXd current(dimension);
    for (int32_t s = 0; s < dimension; ++s) {
        current[s] = solution_[systemToFull_[static_cast<size_t>(s)]];
    }
    rhs_.setZero();
    rhs_.head(meshSystemSize_) =
        fixedRhs_ - fixed_.selfadjointView<Eigen::Upper>() * current.head(meshSystemSize_);
    AddIterationTerms(iteration);
    timings_.assembly += SecondsSince(start);

    Eigen::VectorXd update = Eigen::VectorXd::Zero(dimension);
    if (VerifyEigenCurvana()) {
        // The diagnostic path: the one-shot solve, checked against the sparse LU.
        start = Clock::now();
        if (!SolveSparse(system_, update, rhs_)) {
            return false;
        }
        timings_.factorize += SecondsSince(start);
    } else {
        // Without iteration terms the matrix is the fixed one in every
        // iteration: one factorisation serves them all.
        const bool constantMatrix = groups_.empty() && damping_.empty();
        if (iteration == 0 || !constantMatrix) {
            start = Clock::now();
            if (cholesky_->Factorize(system_) != SparseStatus::Success) {
                return false;
            }
            timings_.factorize += SecondsSince(start);
        }
        start = Clock::now();
        if (cholesky_->Solve(rhs_, update) != SparseStatus::Success) {
            return false;
        }
        timings_.substitute += SecondsSince(start);
    }
    if (!update.allFinite()) {
        return false;
    }
    lastUpdate_.setZero();
    for (int32_t s = 0; s < dimension; ++s) {
        lastUpdate_[systemToFull_[static_cast<size_t>(s)]] = update[s];
    }
    solution_ += lastUpdate_;
    return true;
}

void IterativeWarpSolver::Solve() {
    if (!assembled_) {
        ResetSystem();
    }
    const auto start = Clock::now();
    const double fixedAssembly = timings_.fixedAssembly;
    timings_ = SolveTimings{};
    timings_.fixedAssembly = fixedAssembly;
    ResetExtrasInSystem();
    PrepareSolve();
    solved_ = true;
    if (systemToFull_.empty() || !AnalyseSystem()) {
        solved_ = false;
        timings_.prepare += SecondsSince(start);
        return;
    }
    timings_.prepare += SecondsSince(start);
    for (int32_t iteration = 0; iteration < iterationCount_; ++iteration) {
        timings_.iterations = iteration + 1;
        if (!RunIteration(iteration)) {
            solved_ = false;
            return;
        }
        const float measure = ConvergenceMeasure();
        if (measure >= 0.0f && measure < kConvergenceThreshold) {
            break;
        }
    }
}

}  // namespace Project
