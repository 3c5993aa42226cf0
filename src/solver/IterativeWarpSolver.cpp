#include "solver/IterativeWarpSolver.h"

#include "core/Vector3.h"
#include "solver/MeshOrdering.h"
#include "solver/SolveSparse.h"

#include <Eigen/SparseCholesky>
#include <Eigen/SparseCore>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <numbers>
#include <numeric>
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

// The fixed terms over the mesh unknowns, immutable once ResetSystem has
// built them.
struct IterativeWarpSolver::FixedSystem {
    struct Block {
        int32_t column;               // canonical vertex index
        std::array<double, 4> value;  // [2 * ca + cb]
    };
    // While assembling: per canonical vertex, 2 x 2 blocks against the
    // vertices of higher or equal index, and the right-hand side.
    std::vector<std::vector<Block>> blocks;
    Eigen::VectorXd rhsFull;

    // The mesh unknowns some fixed term touches, in ascending order.
    std::vector<int32_t> fullToSystem;  // 2 N^2 entries, -1 when not in the system
    std::vector<int32_t> systemToFull;
    SymmetricUpperMatrix matrix;
    Eigen::VectorXd rhs;
    // The nested-dissection order of the system's mesh unknowns (new to old).
    std::vector<int> ordering;
};

namespace {

// Just short of the back seam (longitude +-pi) and of the poles.
constexpr float kSeamLongitude = 3.1405927f;
constexpr float kPoleLatitude = 1.5697963f;

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
    // Validity is asked of every term many times: ask the photo once. With
    // two passes, a vertex outside the ranges stays valid next to one inside
    // them: the quads across a range's edge are kept whole, so the renderer
    // can clip the picture at the range itself (a smooth edge) instead of at
    // the mesh's steps.
    std::vector<uint8_t> inRanges(static_cast<size_t>(vertexCount_), 0);
    for (int32_t j = 0; j < n_; ++j) {
        for (int32_t i = 0; i < n_; ++i) {
            inRanges[static_cast<size_t>(i + j * n_)] = IsVertexInRanges(i, j) ? 1 : 0;
        }
    }
    // The ring stops short of the back seam and the poles, where a quad's
    // corners would lie on opposite sides of the photo.
    auto nearRanges = [&](int32_t i, int32_t j) {
        if (inRanges[static_cast<size_t>(i + j * n_)] != 0) {
            return true;
        }
        const SphereDirection angles = mesh_->UnrotatedAngles(i, j);
        if (std::abs(angles.lambda) >= kSeamLongitude || std::abs(angles.phi) >= kPoleLatitude) {
            return false;
        }
        for (int32_t dj = -1; dj <= 1; ++dj) {
            for (int32_t di = -1; di <= 1; ++di) {
                const int32_t a = i + di, b = j + dj;
                if (a >= 0 && a < n_ && b >= 0 && b < n_ &&
                    inRanges[static_cast<size_t>(a + b * n_)] != 0) {
                    return true;
                }
            }
        }
        return false;
    };
    auto valid = std::make_shared<std::vector<uint8_t>>(static_cast<size_t>(vertexCount_), 0);
    for (int32_t j = 0; j < n_; ++j) {
        for (int32_t i = 0; i < n_; ++i) {
            bool visible = false;
            if (photo_) {
                const SphereDirection a = mesh_->UnrotatedAngles(i, j);
                visible = photo_->IsVisible(a.lambda, a.phi) && nearRanges(i, j);
            }
            (*valid)[static_cast<size_t>(i + j * n_)] = visible ? 1 : 0;
        }
    }
    valid_ = std::move(valid);
    solution_ = Eigen::VectorXd::Zero(MeshUnknownCount());
    lastUpdate_ = Eigen::VectorXd::Zero(MeshUnknownCount());
}

IterativeWarpSolver::IterativeWarpSolver(IterativeWarpSolver& previous, Continuation how)
    : regulariserWeight_(previous.regulariserWeight_),
      iterationCount_(previous.iterationCount_),
      pinCentre_(previous.pinCentre_),
      modeValue_(previous.modeValue_),
      boundaryOnly_(previous.boundaryOnly_),
      mesh_(previous.mesh_),
      photo_(previous.photo_),
      regulariser_(previous.regulariser_),
      regulariserCode_(previous.regulariserCode_),
      n_(previous.n_),
      vertexCount_(previous.vertexCount_),
      extraCount_(previous.extraCount_),
      twoPass_(previous.twoPass_),
      latitudeRange_(previous.latitudeRange_),
      longitudeRange_(previous.longitudeRange_),
      valid_(previous.valid_),
      options_(previous.options_),
      fixed_(previous.fixed_),
      meshSystemSize_(previous.meshSystemSize_),
      // The pattern and its analysis go on with the new warp: the next solve
      // keeps them when its terms couple the same unknowns.
      patternGroups_(std::move(previous.patternGroups_)),
      patternDamping_(std::move(previous.patternDamping_)),
      system_(previous.system_),  // Eigen 3.4 sparse matrices copy; they have no move
      fixedSlots_(std::move(previous.fixedSlots_)),
      cholesky_(std::move(previous.cholesky_)),
      analysed_(previous.analysed_),
      timings_{} {
    patternFixed_ = std::move(previous.patternFixed_);
    analysedOrdering_ = std::move(previous.analysedOrdering_);
    if (!cholesky_) {
        cholesky_ = SparseCholesky::Create(SparseCholesky::Options{});
        analysed_ = false;
    }
    const bool warm = how == Continuation::WarmStart && previous.solvedOnce_ && previous.solved_;
    if (warm) {
        solution_ = previous.solution_;
        solvedOnce_ = true;
        factorUsable_ = previous.factorUsable_;
        factorUnknowns_ = std::move(previous.factorUnknowns_);
        factorFixed_ = std::move(previous.factorFixed_);
    } else {
        solution_ = Eigen::VectorXd::Zero(MeshUnknownCount() + extraCount_);
    }
    lastUpdate_ = Eigen::VectorXd::Zero(solution_.size());
    previous.analysed_ = false;
    previous.factorUsable_ = false;
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
    return (*valid_)[static_cast<size_t>(i + j * n_)] != 0;
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

bool IterativeWarpSolver::InSystem(int32_t unknown) const {
    if (unknown < 0 || unknown >= MeshUnknownCount() || !fixed_) {
        return false;
    }
    return fixed_->fullToSystem[static_cast<size_t>(unknown)] >= 0;
}

void IterativeWarpSolver::SetExtraUnknownCount(int32_t count) {
    extraCount_ = std::max(count, 0);
    const Eigen::Index total = MeshUnknownCount() + extraCount_;
    // A re-solve may lay out more constraints than the last solve: the new
    // ones have no system row yet.
    if (!fullToSystem_.empty()) {
        fullToSystem_.resize(static_cast<size_t>(total), -1);
    }
    if (solution_.size() == total) {
        return;
    }
    Eigen::VectorXd solution = Eigen::VectorXd::Zero(total);
    const Eigen::Index kept = std::min<Eigen::Index>(solution_.size(), total);
    solution.head(kept) = solution_.head(kept);
    solution_ = std::move(solution);
    lastUpdate_ = Eigen::VectorXd::Zero(total);
}

// ---------------------------------------------------------------------------
// Fixed system

void IterativeWarpSolver::AddBlock(int32_t a, int32_t b, int32_t ca, int32_t cb, double value) {
    auto& row = building_->blocks[static_cast<size_t>(a)];
    for (FixedSystem::Block& block : row) {
        if (block.column == b) {
            block.value[static_cast<size_t>(2 * ca + cb)] += value;
            return;
        }
    }
    FixedSystem::Block block{b, {0.0, 0.0, 0.0, 0.0}};
    block.value[static_cast<size_t>(2 * ca + cb)] = value;
    row.push_back(block);
}

void IterativeWarpSolver::AddFixedRow(std::span<const int32_t> unknowns,
                                      std::span<const double> coefficients, double rhs) {
    if (!building_) {
        throw std::logic_error("AddFixedRow outside ResetSystem");
    }
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
        building_->rhsFull[index[a]] += coefficient[a] * rhs;
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
    double s = la / lb;
    double theta = std::atan2(ay, ax) - std::atan2(by, bx);
    // The shape to keep is the closed form's own triangle where it has one:
    // the sphere's shape is right only for a conformal form with little
    // change of scale across a triangle, and Mercator's and Panini's are not
    // (their pictures strayed by pixels from the form with no constraint at
    // all). Where the form gives no fair triangle (outside its domain, across
    // its seam, near its singular points) the sphere's shape stands.
    if (regulariser_->InDomain(p.i, p.j) && regulariser_->InDomain(q.i, q.j) &&
        regulariser_->InDomain(r.i, r.j)) {
        float px = 0, py = 0, qx = 0, qy = 0, rx = 0, ry = 0;
        regulariser_->ProjectVertex(p.i, p.j, px, py);
        regulariser_->ProjectVertex(q.i, q.j, qx, qy);
        regulariser_->ProjectVertex(r.i, r.j, rx, ry);
        const double fax = double(qx) - px, fay = double(qy) - py;
        const double fbx = double(rx) - px, fby = double(ry) - py;
        const double fla = std::hypot(fax, fay), flb = std::hypot(fbx, fby);
        if (std::isfinite(fla) && std::isfinite(flb) && fla > 0.0 && flb > 0.0) {
            const double fs = fla / flb;
            const double fTheta = std::atan2(fay, fax) - std::atan2(fby, fbx);
            const double turn = std::remainder(fTheta - theta, 2.0 * std::numbers::pi);
            if (fs < 64.0 * s && fs > s / 64.0 && std::abs(turn) < 1.5) {
                s = fs;
                theta = fTheta;
            }
        }
    }
    const double sc = s * std::cos(theta);
    const double ss = s * std::sin(theta);
    const int32_t kp = CanonicalIndex(p.i, p.j);
    const int32_t kq = CanonicalIndex(q.i, q.j);
    const int32_t kr = CanonicalIndex(r.i, r.j);
    const std::array<int32_t, 6> unknowns{2 * kp,     2 * kp + 1, 2 * kq,
                                          2 * kq + 1, 2 * kr,     2 * kr + 1};
    const std::array<double, 6> rowX{weight * (sc - 1.0), weight * -ss, weight, 0.0,
                                     weight * -sc,        weight * ss};
    const std::array<double, 6> rowY{weight * ss, weight * (sc - 1.0), 0.0,
                                     weight,      weight * -ss,        weight * -sc};
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
        building_->rhsFull[2 * k] += w * gx;
        building_->rhsFull[2 * k + 1] += w * gy;
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
            const bool interior = sides && IsVertexValid(i + 1, j + 1) &&
                                  IsVertexValid(i - 1, j + 1) && IsVertexValid(i, j + 1) &&
                                  IsVertexValid(i, j - 1) && IsVertexValid(i + 1, j - 1) &&
                                  IsVertexValid(i - 1, j - 1);
            if (!interior) {
                add(i, j, regulariserWeight_);
            }
        }
    }
}

void IterativeWarpSolver::ResetSystem() {
    const auto start = Clock::now();
    building_ = std::make_unique<FixedSystem>();
    building_->blocks.assign(static_cast<size_t>(vertexCount_), {});
    building_->rhsFull = Eigen::VectorXd::Zero(MeshUnknownCount());
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
    building_->blocks = {};
    building_->rhsFull = Eigen::VectorXd();
    fixed_ = std::shared_ptr<const FixedSystem>(std::move(building_));
    meshSystemSize_ = static_cast<int32_t>(fixed_->systemToFull.size());
    timings_.fixedAssembly = SecondsSince(start);
}

void IterativeWarpSolver::BuildFixedMatrix() {
    FixedSystem& f = *building_;
    // The system takes every vertex that some fixed term touched, in
    // ascending vertex order (so that upper stays upper).
    std::vector<uint8_t> touched(static_cast<size_t>(vertexCount_), 0);
    for (int32_t v = 0; v < vertexCount_; ++v) {
        for (const FixedSystem::Block& block : f.blocks[static_cast<size_t>(v)]) {
            touched[static_cast<size_t>(v)] = 1;
            touched[static_cast<size_t>(block.column)] = 1;
        }
    }
    f.fullToSystem.assign(static_cast<size_t>(MeshUnknownCount()), -1);
    f.systemToFull.clear();
    std::vector<int32_t> systemVertexOf(static_cast<size_t>(vertexCount_), -1);
    for (int32_t v = 0; v < vertexCount_; ++v) {
        if (touched[static_cast<size_t>(v)] != 0) {
            systemVertexOf[static_cast<size_t>(v)] =
                static_cast<int32_t>(f.systemToFull.size() / 2);
            f.fullToSystem[static_cast<size_t>(2 * v)] =
                static_cast<int32_t>(f.systemToFull.size());
            f.systemToFull.push_back(2 * v);
            f.fullToSystem[static_cast<size_t>(2 * v + 1)] =
                static_cast<int32_t>(f.systemToFull.size());
            f.systemToFull.push_back(2 * v + 1);
        }
    }
    const int32_t size = static_cast<int32_t>(f.systemToFull.size());

    std::vector<int32_t> outer;
    std::vector<int32_t> inner;
    std::vector<double> values;
    outer.reserve(static_cast<size_t>(size) + 1);
    outer.push_back(0);
    for (int32_t v = 0; v < vertexCount_; ++v) {
        if (touched[static_cast<size_t>(v)] == 0) {
            continue;
        }
        auto& row = f.blocks[static_cast<size_t>(v)];
        if (std::none_of(row.begin(), row.end(),
                         [&](const FixedSystem::Block& b) { return b.column == v; })) {
            row.push_back(FixedSystem::Block{v, {0.0, 0.0, 0.0, 0.0}});
        }
        std::sort(row.begin(), row.end(),
                  [](const FixedSystem::Block& a, const FixedSystem::Block& b) {
                      return a.column < b.column;
                  });
        for (int32_t component = 0; component < 2; ++component) {
            for (const FixedSystem::Block& block : row) {
                const int32_t column = f.fullToSystem[static_cast<size_t>(2 * block.column)];
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
    FillMatrix(f.matrix, size, outer, inner);
    std::copy(values.begin(), values.end(), f.matrix.valuePtr());
    f.rhs.resize(size);
    for (int32_t s = 0; s < size; ++s) {
        f.rhs[s] = f.rhsFull[f.systemToFull[static_cast<size_t>(s)]];
    }
    f.ordering = MeshOrdering::SystemPermutation(n_, systemVertexOf, 0);
}

// ---------------------------------------------------------------------------
// Iteration terms

void IterativeWarpSolver::ResetPerSolve() {
    fullToSystem_ = fixed_->fullToSystem;
    fullToSystem_.resize(static_cast<size_t>(MeshUnknownCount() + extraCount_), -1);
    systemToFull_ = fixed_->systemToFull;
    groups_.clear();
    damping_.clear();
    changed_.clear();
    deflation_.reset();
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

void IterativeWarpSolver::DeclareChanged(std::span<const int32_t> unknowns) {
    changed_.insert(changed_.end(), unknowns.begin(), unknowns.end());
}

void IterativeWarpSolver::AddGroupRow(int32_t group, std::span<const double> coefficients,
                                      double residual) {
    if (group < 0) {
        return;
    }
    const RowGroup& g = groups_[static_cast<size_t>(group)];
    const size_t m = g.system.size();
    double* values = system_.valuePtr();
    for (size_t a = 0; a < m; ++a) {
        const double ca = coefficients[a];
        rhs_[g.system[a]] -= ca * residual;
        const int32_t* slots = g.slots.data() + a * m;
        for (size_t b = a; b < m; ++b) {
            values[slots[b]] += ca * coefficients[b];
        }
    }
}

void IterativeWarpSolver::AddGroupBlock(int32_t group, std::span<const double> normal,
                                        std::span<const double> gradient) {
    if (group < 0) {
        return;
    }
    const RowGroup& g = groups_[static_cast<size_t>(group)];
    const size_t m = g.system.size();
    double* values = system_.valuePtr();
    for (size_t a = 0; a < m; ++a) {
        rhs_[g.system[a]] -= gradient[a];
        const int32_t* slots = g.slots.data() + a * m;
        for (size_t b = a; b < m; ++b) {
            values[slots[b]] += normal[a + b * m];
        }
    }
}

// ---------------------------------------------------------------------------
// Solve phases

void IterativeWarpSolver::BuildPattern() {
    const int32_t dimension = static_cast<int32_t>(systemToFull_.size());
    std::vector<int32_t> dampedUnknowns;
    for (const auto& [s, w] : damping_) {
        (void)w;
        dampedUnknowns.push_back(s);
    }
    // The previous solve's pattern serves when its groups coupled the same
    // unknowns (the common case while constraints are only re-solved).
    const bool same =
        patternFixed_ == fixed_ && system_.rows() == dimension &&
        patternGroups_.size() == groups_.size() && patternDamping_ == dampedUnknowns &&
        std::equal(groups_.begin(), groups_.end(), patternGroups_.begin(),
                   [](const RowGroup& a, const RowGroup& b) { return a.system == b.system; });
    if (same) {
        for (size_t k = 0; k < groups_.size(); ++k) {
            groups_[k].slots = patternGroups_[k].slots;
        }
    } else {
        const SymmetricUpperMatrix& fixed = fixed_->matrix;
        const int32_t* fixedOuter = fixed.outerIndexPtr();
        const int32_t* fixedInner = fixed.innerIndexPtr();
        auto inFixed = [&](int32_t row, int32_t column) {
            const int32_t* begin = fixedInner + fixedOuter[row];
            const int32_t* end = fixedInner + fixedOuter[row + 1];
            return std::binary_search(begin, end, column);
        };
        // Pairs that the iteration terms add beyond the fixed pattern.
        std::vector<std::pair<int32_t, int32_t>> pairs;
        for (const RowGroup& g : groups_) {
            for (int32_t a : g.system) {
                for (int32_t b : g.system) {
                    if (a <= b && !(b < meshSystemSize_ && inFixed(a, b))) {
                        pairs.emplace_back(a, b);
                    }
                }
            }
        }
        for (int32_t s : dampedUnknowns) {
            if (s >= meshSystemSize_) {
                pairs.emplace_back(s, s);
            }
        }
        std::sort(pairs.begin(), pairs.end());
        pairs.erase(std::unique(pairs.begin(), pairs.end()), pairs.end());

        std::vector<int32_t> outer{0};
        std::vector<int32_t> inner;
        outer.reserve(static_cast<size_t>(dimension) + 1);
        inner.reserve(static_cast<size_t>(fixed.nonZeros()) + pairs.size());
        fixedSlots_.resize(static_cast<size_t>(fixed.nonZeros()));
        size_t p = 0;
        for (int32_t row = 0; row < dimension; ++row) {
            int32_t f = row < meshSystemSize_ ? fixedOuter[row] : 0;
            const int32_t fEnd = row < meshSystemSize_ ? fixedOuter[row + 1] : 0;
            while (f < fEnd || (p < pairs.size() && pairs[p].first == row)) {
                const bool takeFixed = f < fEnd && !(p < pairs.size() && pairs[p].first == row &&
                                                     pairs[p].second < fixedInner[f]);
                if (takeFixed) {
                    fixedSlots_[static_cast<size_t>(f)] = static_cast<int32_t>(inner.size());
                    inner.push_back(fixedInner[f]);
                    ++f;
                } else {
                    inner.push_back(pairs[p].second);
                    ++p;
                }
            }
            outer.push_back(static_cast<int32_t>(inner.size()));
        }
        FillMatrix(system_, dimension, outer, inner);

        auto slotOf = [&](int32_t a, int32_t b) {
            const int32_t row = std::min(a, b), column = std::max(a, b);
            const auto begin = inner.begin() + outer[static_cast<size_t>(row)];
            const auto end = inner.begin() + outer[static_cast<size_t>(row) + 1];
            return static_cast<int32_t>(std::lower_bound(begin, end, column) - inner.begin());
        };
        for (RowGroup& g : groups_) {
            const size_t m = g.system.size();
            g.slots.assign(m * m, -1);
            for (size_t a = 0; a < m; ++a) {
                for (size_t b = a; b < m; ++b) {
                    g.slots[a * m + b] = slotOf(g.system[a], g.system[b]);
                }
            }
        }
        patternGroups_ = groups_;
        patternDamping_ = dampedUnknowns;
        patternFixed_ = fixed_;
    }
    dampingSlots_.clear();
    for (int32_t s : dampedUnknowns) {
        const int32_t* begin = system_.innerIndexPtr() + system_.outerIndexPtr()[s];
        const int32_t* end = system_.innerIndexPtr() + system_.outerIndexPtr()[s + 1];
        dampingSlots_.push_back(
            static_cast<int32_t>(std::lower_bound(begin, end, s) - system_.innerIndexPtr()));
    }
    rhs_.resize(dimension);
}

void IterativeWarpSolver::BuildOrdering() {
    // The mesh's own order, then the extra unknowns: lines and planes couple
    // with many vertices, and last they only add rows below the mesh factor.
    const int32_t dimension = static_cast<int32_t>(systemToFull_.size());
    ordering_ = fixed_->ordering;
    ordering_.resize(static_cast<size_t>(dimension));
    std::iota(ordering_.begin() + meshSystemSize_, ordering_.end(), meshSystemSize_);
}

bool IterativeWarpSolver::EnsureAnalysed() {
    if (analysed_ && cholesky_->Dimension() == system_.rows() && analysedOrdering_ == ordering_ &&
        cholesky_->HasPattern(system_)) {
        return true;
    }
    const auto start = Clock::now();
    analysed_ = cholesky_->Analyze(system_, ordering_) == SparseStatus::Success;
    factorUsable_ = false;
    analysedOrdering_ = analysed_ ? ordering_ : std::vector<int>{};
    timings_.prepare += SecondsSince(start);
    return analysed_;
}

bool IterativeWarpSolver::FactorizeSystem(bool constantMatrix) {
    if (!EnsureAnalysed()) {
        return false;
    }
    const auto start = Clock::now();
    factorUsable_ = cholesky_->Factorize(system_) == SparseStatus::Success;
    timings_.factorize += SecondsSince(start);
    ++timings_.factorizations;
    if (!factorUsable_) {
        return false;
    }
    factorUnknowns_ = systemToFull_;
    factorFixed_ = constantMatrix ? fixed_ : nullptr;
    Factorized();
    return true;
}

void IterativeWarpSolver::AssembleIteration(int32_t iteration) {
    const auto start = Clock::now();
    const int32_t dimension = static_cast<int32_t>(systemToFull_.size());
    double* values = system_.valuePtr();
    std::fill(values, values + system_.nonZeros(), 0.0);
    const double* fixedValues = fixed_->matrix.valuePtr();
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
    rhs_.head(meshSystemSize_) = fixed_->rhs - fixed_->matrix.selfadjointView<Eigen::Upper>() *
                                                   current.head(meshSystemSize_);
    AddIterationTerms(iteration);
    timings_.assembly += SecondsSince(start);
}

// The deflation space W of the iterative solves: the unit vectors of the
// changed unknowns. With A W (sparse columns) and W'AW (sparse too: the
// changed unknowns lie along a few lines), the conjugate gradients keep their
// residual orthogonal to W and so solve that part exactly; the factor need
// only serve the rest, where the matrix did not change. Built once per solve
// (and again when more unknowns are declared changed); each iteration only
// refills the values from the matrix.
struct IterativeWarpSolver::Deflation {
    size_t declared = 0;             // changed_.size() it was built for
    std::vector<int32_t> index;      // system indices
    Eigen::SparseMatrix<double> aw;  // A W, dimension x k
    std::vector<int32_t> awSource;   // system_ value slot of each entry of aw
    Eigen::SparseMatrix<double> e;   // W'AW
    std::vector<int32_t> eSource;    // entry of aw of each entry of e
    Eigen::SimplicialLLT<Eigen::SparseMatrix<double>> llt;

    bool Refill(const double* values) {
        for (size_t k = 0; k < awSource.size(); ++k) {
            aw.valuePtr()[k] = values[awSource[k]];
        }
        for (size_t k = 0; k < eSource.size(); ++k) {
            e.valuePtr()[k] = aw.valuePtr()[eSource[k]];
        }
        llt.factorize(e);
        return llt.info() == Eigen::Success;
    }
    // v - W (W'AW)^-1 (AW)' v
    void Project(Eigen::VectorXd& v) const {
        const Eigen::VectorXd y = llt.solve(aw.transpose() * v);
        for (size_t k = 0; k < index.size(); ++k) {
            v[index[k]] -= y[static_cast<Eigen::Index>(k)];
        }
    }
};

std::unique_ptr<IterativeWarpSolver::Deflation> IterativeWarpSolver::BuildDeflation() const {
    const int32_t dimension = static_cast<int32_t>(systemToFull_.size());
    std::vector<int32_t> column(static_cast<size_t>(dimension), -1);
    auto d = std::make_unique<Deflation>();
    d->declared = changed_.size();
    for (int32_t u : changed_) {
        if (u < 0 || u >= static_cast<int32_t>(fullToSystem_.size())) {
            continue;
        }
        const int32_t s = fullToSystem_[static_cast<size_t>(u)];
        if (s >= 0 && column[static_cast<size_t>(s)] < 0) {
            column[static_cast<size_t>(s)] = static_cast<int32_t>(d->index.size());
            d->index.push_back(s);
        }
    }
    if (d->index.empty()) {
        return d;
    }
    // Columns of the symmetric matrix from its upper rows, in one pass; the
    // entries hold the value slots they come from (exact in a double).
    std::vector<Eigen::Triplet<double>> entries;
    const int32_t* outer = system_.outerIndexPtr();
    const int32_t* inner = system_.innerIndexPtr();
    for (int32_t row = 0; row < dimension; ++row) {
        const int32_t rowColumn = column[static_cast<size_t>(row)];
        for (int32_t k = outer[row]; k < outer[row + 1]; ++k) {
            const int32_t c = inner[k];
            if (const int32_t at = column[static_cast<size_t>(c)]; at >= 0) {
                entries.emplace_back(row, at, k);
            }
            if (rowColumn >= 0 && c != row) {
                entries.emplace_back(c, rowColumn, k);
            }
        }
    }
    const Eigen::Index k = static_cast<Eigen::Index>(d->index.size());
    d->aw.resize(dimension, k);
    d->aw.setFromTriplets(entries.begin(), entries.end());
    d->awSource.resize(static_cast<size_t>(d->aw.nonZeros()));
    std::vector<Eigen::Triplet<double>> block;
    for (Eigen::Index p = 0; p < d->aw.nonZeros(); ++p) {
        d->awSource[static_cast<size_t>(p)] = static_cast<int32_t>(d->aw.valuePtr()[p]);
    }
    for (Eigen::Index c = 0; c < k; ++c) {
        for (int32_t p = d->aw.outerIndexPtr()[c]; p < d->aw.outerIndexPtr()[c + 1]; ++p) {
            if (const int32_t at = column[static_cast<size_t>(d->aw.innerIndexPtr()[p])]; at >= 0) {
                block.emplace_back(at, c, p);
            }
        }
    }
    d->e.resize(k, k);
    d->e.setFromTriplets(block.begin(), block.end());
    d->eSource.resize(static_cast<size_t>(d->e.nonZeros()));
    for (Eigen::Index p = 0; p < d->e.nonZeros(); ++p) {
        d->eSource[static_cast<size_t>(p)] = static_cast<int32_t>(d->e.valuePtr()[p]);
    }
    d->llt.analyzePattern(d->e);
    return d;
}

// Conjugate gradients on system_ x = rhs_, preconditioned with the current
// factor (of this or an earlier matrix), deflated by the changed unknowns.
// Converged when the preconditioned residual r' M^-1 r, which with M close to
// the matrix measures the error in the matrix's own norm, has fallen by the
// tolerance squared; the plain residual would be ruled by the stiffest terms
// (lines weigh 10^5 times the regulariser) and stagnate long after the
// positions have settled.
bool IterativeWarpSolver::ConjugateGradients(Eigen::VectorXd& x) {
    const auto start = Clock::now();
    const Eigen::Index dimension = rhs_.size();
    if (!deflation_ || deflation_->declared != changed_.size()) {
        deflation_ = BuildDeflation();
    }
    const Deflation* deflation = deflation_->index.empty() ? nullptr : deflation_.get();
    if (deflation && !deflation_->Refill(system_.valuePtr())) {
        deflation = nullptr;
    }
    x = Eigen::VectorXd::Zero(dimension);
    Eigen::VectorXd r = rhs_;
    if (deflation) {
        // Start with the changed unknowns solved for: W' r = 0 from here on.
        Eigen::VectorXd wb(static_cast<Eigen::Index>(deflation->index.size()));
        for (size_t k = 0; k < deflation->index.size(); ++k) {
            wb[static_cast<Eigen::Index>(k)] = rhs_[deflation->index[k]];
        }
        const Eigen::VectorXd y = deflation->llt.solve(wb);
        for (size_t k = 0; k < deflation->index.size(); ++k) {
            x[deflation->index[k]] = y[static_cast<Eigen::Index>(k)];
        }
        r -= deflation->aw * y;
    }
    Eigen::VectorXd z(dimension), q(dimension);
    bool converged = false;
    if (cholesky_->Solve(r, z) == SparseStatus::Success) {
        Eigen::VectorXd p = z;
        if (deflation) {
            deflation->Project(p);
        }
        double rz = r.dot(z);
        const double limit = options_.cgTolerance * options_.cgTolerance * rz;
        converged = rz == 0.0;
        for (int32_t step = 0; step < options_.maxCgIterations && !converged; ++step) {
            q.noalias() = system_.selfadjointView<Eigen::Upper>() * p;
            const double pq = p.dot(q);
            if (!(pq > 0.0) || !std::isfinite(pq)) {
                break;
            }
            const double a = rz / pq;
            x.noalias() += a * p;
            r.noalias() -= a * q;
            ++timings_.cgIterations;
            if (cholesky_->Solve(r, z) != SparseStatus::Success) {
                break;
            }
            const double rzNext = r.dot(z);
            converged = rzNext <= limit;
            const double beta = rzNext / rz;
            p *= beta;
            if (deflation) {
                Eigen::VectorXd projected = z;
                deflation->Project(projected);
                p += projected;
            } else {
                p += z;
            }
            rz = rzNext;
        }
    }
    timings_.substitute += SecondsSince(start);
    return converged;
}

bool IterativeWarpSolver::SolveUpdate(int32_t iteration, bool constantMatrix,
                                      Eigen::VectorXd& update) {
    update = Eigen::VectorXd::Zero(rhs_.size());
    if (VerifyEigenCurvana()) {
        // The diagnostic path: the one-shot solve, checked against the sparse LU.
        const auto start = Clock::now();
        const bool ok = SolveSparse(system_, update, rhs_);
        timings_.factorize += SecondsSince(start);
        ++timings_.factorizations;
        return ok;
    }
    const bool sameUnknowns = HasPreconditioner();
    if (constantMatrix) {
        // The matrix is the fixed one in every iteration: one factorisation
        // serves them all, and serves the next solve too.
        if (!(sameUnknowns && factorFixed_ == fixed_) && !FactorizeSystem(true)) {
            return false;
        }
    } else if (sameUnknowns && (iteration > 0 || warmStart_)) {
        if (ConjugateGradients(update)) {
            return true;
        }
        // Stalled: this matrix has moved too far from the factorised one.
        ++timings_.fallbacks;
        if (!FactorizeSystem(false)) {
            return false;
        }
    } else if (!FactorizeSystem(false)) {
        return false;
    }
    const auto start = Clock::now();
    const bool ok = cholesky_->Solve(rhs_, update) == SparseStatus::Success;
    timings_.substitute += SecondsSince(start);
    return ok;
}

bool IterativeWarpSolver::RunIteration(int32_t iteration) {
    AssembleIteration(iteration);
    const bool constantMatrix = groups_.empty() && damping_.empty();
    Eigen::VectorXd update;
    if (!SolveUpdate(iteration, constantMatrix, update) || !update.allFinite()) {
        factorUsable_ = false;
        return false;
    }
    lastUpdate_.setZero();
    const int32_t dimension = static_cast<int32_t>(systemToFull_.size());
    for (int32_t s = 0; s < dimension; ++s) {
        lastUpdate_[systemToFull_[static_cast<size_t>(s)]] = update[s];
    }
    solution_ += lastUpdate_;
    return true;
}

void IterativeWarpSolver::Solve() {
    if (!fixed_) {
        ResetSystem();
    }
    const auto start = Clock::now();
    const double fixedAssembly = timings_.fixedAssembly;
    timings_ = SolveTimings{};
    timings_.fixedAssembly = fixedAssembly;
    warmStart_ = solvedOnce_ && solved_;
    if (!warmStart_) {
        // Nothing usable to go on from (never solved, or the last solve
        // failed): start from the zero warp.
        solution_.setZero();
        factorUsable_ = false;
    }
    solvedOnce_ = false;
    ResetPerSolve();
    PrepareSolve();
    if (solution_.size() != MeshUnknownCount() + extraCount_) {
        SetExtraUnknownCount(extraCount_);
    }
    lastUpdate_ = Eigen::VectorXd::Zero(solution_.size());
    solved_ = true;
    if (systemToFull_.empty()) {
        solved_ = false;
        timings_.prepare += SecondsSince(start);
        return;
    }
    BuildPattern();
    BuildOrdering();
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
    solvedOnce_ = true;
}

}  // namespace Project
