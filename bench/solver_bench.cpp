// Full mesh warp solves of a 3000 x 2000 fisheye photo (15 mm, full frame)
// with a number of line constraints, at several mesh levels, and the sparse
// factorisation of the resulting normal matrix under several orderings.
//
//   build/.../bench/solver_bench --benchmark_counters_tabular=true

#include <benchmark/benchmark.h>

#include <chrono>
#include <cmath>
#include <memory>
#include <random>

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

bool Inside(PointF p) { return p.x > 30 && p.y > 30 && p.x < kWidth - 30 && p.y < kHeight - 30; }

// `count` lines along room edges: verticals, horizontals on the front wall and
// receding edges on the side walls, seeded.
std::shared_ptr<GeodesicLines> Lines(const std::shared_ptr<const PhotoToSphere>& photo,
                                     const std::shared_ptr<const OctaMap>& mesh, int count) {
    auto lines = std::make_shared<GeodesicLines>(photo, mesh);
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
        const PointF p = Pixel(*photo, a[0], a[1], a[2]), q = Pixel(*photo, b[0], b[1], b[2]);
        if (!Inside(p) || !Inside(q) || std::hypot(p.x - q.x, p.y - q.y) < 200) {
            continue;
        }
        LineConstraint line;
        line.SetEndpoints(p, q);
        line.SetOrientation(orientation, 0.0f);
        line.SetId(id);
        if (lines->FitLine(line)) {
            ++id;
        }
    }
    return lines;
}

void BM_FullSolve(benchmark::State& state) {
    const int32_t level = static_cast<int32_t>(state.range(0));
    const int lineCount = static_cast<int>(state.range(1));
    auto photo = Photo();
    auto mesh = std::make_shared<const OctaMap>(level, false);
    auto lines = Lines(photo, mesh, lineCount);
    SolverSettings settings;
    settings.meshLevel = level;
    SolveTimings sum;
    double unknowns = 0;
    for (auto _ : state) {
        Solver solver(mesh, photo, lines, settings);
        if (!solver.Run()) {
            state.SkipWithError("solve failed");
            break;
        }
        const SolveTimings& t = solver.Warp()->Timings();
        sum.iterations += t.iterations;
        sum.fixedAssembly += t.fixedAssembly;
        sum.prepare += t.prepare;
        sum.assembly += t.assembly;
        sum.factorize += t.factorize;
        sum.substitute += t.substitute;
        unknowns = solver.Warp()->SystemSize();
    }
    const double runs = static_cast<double>(state.iterations());
    const double iterations = std::max(1, sum.iterations);
    state.counters["lines"] = static_cast<double>(lines->ActiveLineCount());
    state.counters["unknowns"] = unknowns;
    state.counters["iters"] = sum.iterations / runs;
    state.counters["fixed_ms"] = 1e3 * sum.fixedAssembly / runs;
    state.counters["prepare_ms"] = 1e3 * sum.prepare / runs;
    state.counters["asm_ms/it"] = 1e3 * sum.assembly / iterations;
    state.counters["fact_ms/it"] = 1e3 * sum.factorize / iterations;
    state.counters["subst_ms/it"] = 1e3 * sum.substitute / iterations;
}
BENCHMARK(BM_FullSolve)
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
    const SparseCholesky::Ordering orderings[] = {SparseCholesky::Ordering::LibraryDefault,
                                                  SparseCholesky::Ordering::LibraryDefault,
                                                  SparseCholesky::Ordering::Amd,
                                                  SparseCholesky::Ordering::NestedDissection};
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
BENCHMARK(BM_Factorize)->DenseRange(0, 3)->ArgName("ordering")->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
