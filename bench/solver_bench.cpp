// Mesh warp solves of a 3000 x 2000 fisheye photo (15 mm, full frame) with a
// number of line constraints, at mesh levels 5 to 7: whole fresh solves
// (BM_FullSolve), the editor's re-solves after a small edit (BM_ReSolve; at
// level 5 the solve while a constraint is dragged), the sparse factorisation
// under several orderings, and the kernels of the solve with one or two BLAS
// threads. Counters are per solve: Gauss-Newton iterations, factorisations,
// conjugate-gradient steps, stalled iterative solves, and the milliseconds of
// each phase.
//
//   build/.../bench/solver_bench --benchmark_counters_tabular=true

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <random>
#include <vector>

#include "constraints/Constraint.h"
#include "constraints/GeodesicLines.h"
#include "geometry/Projections.h"
#include "solver/Solver.h"
#include "solver/SparseCholesky.h"

namespace {

using namespace Project;

constexpr int32_t kWidth = 3000, kHeight = 2000;

std::shared_ptr<const PhotoToSphere> Photo() {
    return std::make_shared<FisheyeImage>(std::make_shared<SourceRaster>(kWidth, kHeight), 1250.0f,
                                          kWidth * 0.5f, kHeight * 0.5f);
}

PointF Pixel(const PhotoToSphere& photo, double x, double y, double z) {
    const float lambda = static_cast<float>(std::atan2(x, z));
    const float phi = static_cast<float>(std::asin(y / std::sqrt(x * x + y * y + z * z)));
    const ImagePoint p = photo.ToImagePoint(lambda, phi);
    return {p.x + kWidth / 2, p.y + kHeight / 2};
}

bool Inside(PointF p) {
    return p.x > 30 && p.y > 30 && p.x < kWidth - 30 && p.y < kHeight - 30;
}

// `count` line constraints along room edges: verticals, horizontals on the
// front wall and receding edges on the side walls, seeded.
std::vector<std::unique_ptr<LineConstraint>> RoomLines(const PhotoToSphere& photo, int count) {
    std::vector<std::unique_ptr<LineConstraint>> out;
    std::mt19937 rng(42);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    for (int id = 1, attempts = 0; id <= count && attempts < 100 * count; ++attempts) {
        const int kind = id % 3;
        double a[3], b[3];
        Orientation orientation = Orientation::Unfixed;
        if (kind == 0) {
            const double x = -3 + 6 * u(rng), z = 1 + 3 * u(rng);
            a[0] = b[0] = x, a[2] = b[2] = z, a[1] = -1.2 + 0.6 * u(rng), b[1] = 0.6 + 0.6 * u(rng);
            orientation = Orientation::Vertical;
        } else if (kind == 1) {
            const double y = -1.2 + 2.4 * u(rng);
            a[1] = b[1] = y, a[2] = b[2] = 4.0, a[0] = -3 + 2 * u(rng), b[0] = 1 + 2 * u(rng);
            orientation = Orientation::Horizontal;
        } else {
            const double x = u(rng) < 0.5 ? -3.0 : 3.0, y = -1.2 + 2.4 * u(rng);
            a[0] = b[0] = x, a[1] = b[1] = y, a[2] = 1.0 + u(rng), b[2] = 3.0 + u(rng);
        }
        const PointF p = Pixel(photo, a[0], a[1], a[2]), q = Pixel(photo, b[0], b[1], b[2]);
        if (!Inside(p) || !Inside(q) || std::hypot(p.x - q.x, p.y - q.y) < 200) {
            continue;
        }
        auto line = std::make_unique<LineConstraint>();
        line->SetEndpoints(p, q);
        line->SetOrientation(orientation, 0.0f);
        line->SetId(id);
        out.push_back(std::move(line));
        ++id;
    }
    return out;
}

std::shared_ptr<GeodesicLines> Fitted(
    const std::shared_ptr<const PhotoToSphere>& photo, const std::shared_ptr<const OctaMap>& mesh,
    const std::vector<std::unique_ptr<LineConstraint>>& constraints) {
    auto lines = std::make_shared<GeodesicLines>(photo, mesh);
    for (const auto& c : constraints) {
        lines->FitLine(*c);
    }
    return lines;
}

std::shared_ptr<GeodesicLines> Lines(const std::shared_ptr<const PhotoToSphere>& photo,
                                     const std::shared_ptr<const OctaMap>& mesh, int count) {
    return Fitted(photo, mesh, RoomLines(*photo, count));
}

// Per-solve figures, summed over a benchmark's runs.
struct Totals {
    SolveTimings sum;
    double unknowns = 0;
    int64_t solves = 0;

    void Add(const LineSolve& warp) {
        const SolveTimings& t = warp.Timings();
        sum.iterations += t.iterations;
        sum.factorizations += t.factorizations;
        sum.cgIterations += t.cgIterations;
        sum.fallbacks += t.fallbacks;
        sum.fixedAssembly += t.fixedAssembly;
        sum.prepare += t.prepare;
        sum.assembly += t.assembly;
        sum.factorize += t.factorize;
        sum.substitute += t.substitute;
        unknowns = warp.SystemSize();
        ++solves;
    }
    void Report(benchmark::State& state, int lines) const {
        const double runs = static_cast<double>(std::max<int64_t>(1, solves));
        state.counters["lines"] = lines;
        state.counters["unknowns"] = unknowns;
        state.counters["iters"] = sum.iterations / runs;
        state.counters["facts"] = sum.factorizations / runs;
        state.counters["cg"] = sum.cgIterations / runs;
        state.counters["fallbk"] = sum.fallbacks / runs;
        state.counters["fixed_ms"] = 1e3 * sum.fixedAssembly / runs;
        state.counters["prep_ms"] = 1e3 * sum.prepare / runs;
        state.counters["asm_ms"] = 1e3 * sum.assembly / runs;
        state.counters["fact_ms"] = 1e3 * sum.factorize / runs;
        state.counters["subst_ms"] = 1e3 * sum.substitute / runs;
    }
};

// A whole solve as the session runs it: build (the fixed system assembled),
// check, solve, hand over.
void BM_FullSolve(benchmark::State& state) {
    const int32_t level = static_cast<int32_t>(state.range(0));
    const int lineCount = static_cast<int>(state.range(1));
    auto photo = Photo();
    auto mesh = std::make_shared<const OctaMap>(level, false);
    auto lines = Lines(photo, mesh, lineCount);
    SolverSettings settings;
    settings.meshLevel = level;
    Totals totals;
    for (auto _ : state) {
        Solver solver(mesh, photo, lines, settings);
        if (!solver.Run()) {
            state.SkipWithError("solve failed");
            break;
        }
        totals.Add(*solver.Warp());
    }
    totals.Report(state, lines->ActiveLineCount());
}
BENCHMARK(BM_FullSolve)
    ->ArgsProduct({{5, 6, 7}, {0, 20, 60}})
    ->ArgNames({"level", "lines"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(1.0);

// The editor's re-solve after a small edit: one Solver kept across edits, and
// before each re-solve one endpoint of one line (line after line) moved
// across the line by 5 % of its length, alternately to either side, and the
// line fitted again. Timed: the fit and Resolve(). At level 5 this is the
// solve while a constraint is dragged.
void BM_ReSolve(benchmark::State& state) {
    const int32_t level = static_cast<int32_t>(state.range(0));
    const int lineCount = static_cast<int>(state.range(1));
    auto photo = Photo();
    auto mesh = std::make_shared<const OctaMap>(level, false);
    const std::vector<std::unique_ptr<LineConstraint>> constraints = RoomLines(*photo, lineCount);
    auto lines = Fitted(photo, mesh, constraints);
    SolverSettings settings;
    settings.meshLevel = level;
    Solver solver(mesh, photo, lines, settings);
    if (!solver.Run()) {
        state.SkipWithError("solve failed");
        return;
    }
    Totals totals;
    size_t edit = 0;
    for (auto _ : state) {
        if (!constraints.empty()) {
            LineConstraint& line = *constraints[edit % constraints.size()];
            const double side = (edit / constraints.size()) % 2 == 0 ? 1.0 : -1.0;
            const PointF a = line.First(), b = line.Second();
            const double dx = b.x - a.x, dy = b.y - a.y;
            line.SetSecond({static_cast<float>(b.x - 0.05 * side * dy),
                            static_cast<float>(b.y + 0.05 * side * dx)});
            lines->FitLine(line);
        }
        ++edit;
        if (!solver.Resolve()) {
            state.SkipWithError("re-solve failed");
            break;
        }
        totals.Add(*solver.Warp());
    }
    totals.Report(state, lines->ActiveLineCount());
}
BENCHMARK(BM_ReSolve)
    ->ArgsProduct({{5, 6, 7}, {0, 20, 60}})
    ->ArgNames({"level", "lines"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MinTime(1.0);

// The normal matrix of a level-6 solve with 20 lines, analysed and factorised
// under each ordering: 0 the mesh's nested dissection (what the solver uses),
// 1 the library's own choice, 2 AMD, 3 METIS on the matrix itself.
void BM_Factorize(benchmark::State& state) {
    static const auto warp = [] {
        auto photo = Photo();
        auto mesh = std::make_shared<const OctaMap>(6, false);
        Solver solver(mesh, photo, Lines(photo, mesh, 20), SolverSettings{});
        solver.Run();
        return solver.Warp();
    }();
    const SymmetricUpperMatrix& matrix = warp->SystemMatrix();
    const int mode = static_cast<int>(state.range(0));
    const SparseCholesky::Ordering orderings[] = {
        SparseCholesky::Ordering::LibraryDefault, SparseCholesky::Ordering::LibraryDefault,
        SparseCholesky::Ordering::Amd, SparseCholesky::Ordering::NestedDissection};
    double analyse = 0, factor = 0;
    long fill = 0;
    for (auto _ : state) {
        auto cholesky = SparseCholesky::Create(SparseCholesky::Options{orderings[mode]});
        auto t0 = std::chrono::steady_clock::now();
        const std::span<const int> given =
            mode == 0 ? std::span<const int>(warp->SystemOrdering()) : std::span<const int>();
        cholesky->Analyze(matrix, given);
        auto t1 = std::chrono::steady_clock::now();
        if (cholesky->Factorize(matrix) != SparseStatus::Success) {
            state.SkipWithError("factorisation failed");
            break;
        }
        auto t2 = std::chrono::steady_clock::now();
        analyse += std::chrono::duration<double>(t1 - t0).count();
        factor += std::chrono::duration<double>(t2 - t1).count();
        fill = cholesky->FactorNonZeros();
    }
    const double runs = static_cast<double>(state.iterations());
    state.counters["analyse_ms"] = 1e3 * analyse / runs;
    state.counters["factor_ms"] = 1e3 * factor / runs;
    state.counters["nnz(L)"] = static_cast<double>(fill);
}
BENCHMARK(BM_Factorize)
    ->DenseRange(0, 3)
    ->ArgName("ordering")
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

// OpenBLAS's own control (the back end keeps it at one thread).
extern "C" void openblas_set_num_threads(int threads);

namespace {

// The kernels of a level-L solve with 20 lines, on the matrix of its last
// iteration: 0 numeric factorisation, 1 substitution (one step of the
// conjugate gradients), 2 the product with the matrix; with `blas` OpenBLAS
// threads. (CHOLMOD's own threads follow OMP_NUM_THREADS.)
void BM_Kernels(benchmark::State& state) {
    const int32_t level = static_cast<int32_t>(state.range(0));
    const int kernel = static_cast<int>(state.range(1));
    auto photo = Photo();
    auto mesh = std::make_shared<const OctaMap>(level, false);
    SolverSettings settings;
    settings.meshLevel = level;
    Solver solver(mesh, photo, Lines(photo, mesh, 20), settings);
    solver.Run();
    const SymmetricUpperMatrix& matrix = solver.Warp()->SystemMatrix();
    auto cholesky = SparseCholesky::Create();
    cholesky->Analyze(matrix, solver.Warp()->SystemOrdering());
    openblas_set_num_threads(static_cast<int>(state.range(2)));
    cholesky->Factorize(matrix);
    const Eigen::VectorXd b = Eigen::VectorXd::Ones(matrix.rows());
    Eigen::VectorXd x;
    for (auto _ : state) {
        if (kernel == 0) {
            cholesky->Factorize(matrix);
        } else if (kernel == 1) {
            cholesky->Solve(b, x);
        } else {
            x.noalias() = matrix.selfadjointView<Eigen::Upper>() * b;
        }
        benchmark::DoNotOptimize(x.data());
    }
    openblas_set_num_threads(1);
    state.counters["nnz(L)"] = static_cast<double>(cholesky->FactorNonZeros());
}
BENCHMARK(BM_Kernels)
    ->ArgsProduct({{5, 6, 7}, {0, 1, 2}, {1, 2}})
    ->ArgNames({"level", "kernel", "blas"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
