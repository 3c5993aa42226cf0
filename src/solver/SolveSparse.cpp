#include "solver/SolveSparse.h"

#include <Eigen/OrderingMethods>
#include <Eigen/SparseLU>

#include <atomic>
#include <mutex>
#include <sstream>
#include <utility>

namespace Project {
namespace {

std::atomic<bool> g_verify{false};

// The sink and the verifying solver are configuration, set rarely; a mutex
// keeps a concurrent replacement from tearing the std::function.
std::mutex g_hooksMutex;
VerificationSink g_sink;
detail::VerifyingSolver g_verifyingSolver;

bool SolveWithSparseLU(const Eigen::SparseMatrix<double>& full, const Eigen::VectorXd& b,
                       Eigen::VectorXd& x) {
    Eigen::SparseLU<Eigen::SparseMatrix<double>, Eigen::COLAMDOrdering<int>> lu;
    lu.analyzePattern(full);  // reports nothing: info() is only set by factorize()
    lu.factorize(full);
    if (lu.info() != Eigen::Success) {
        return false;
    }
    x = lu.solve(b);
    return lu.info() == Eigen::Success;
}

// The whole symmetric matrix from its upper triangle (entries below the
// diagonal of the input are ignored, as in the production solve).
Eigen::SparseMatrix<double> FullFromUpper(const SymmetricUpperMatrix& upper) {
    Eigen::SparseMatrix<double> full(upper.rows(), upper.cols());
    full = upper.selfadjointView<Eigen::Upper>();
    return full;
}

bool SolveProduction(const SymmetricUpperMatrix& matrix, const Eigen::VectorXd& b,
                     Eigen::VectorXd& x) {
    const std::unique_ptr<SparseCholesky> cholesky = SparseCholesky::Create();
    if (matrix.isCompressed()) {
        return cholesky->Analyze(matrix) == SparseStatus::Success &&
               cholesky->Factorize(matrix) == SparseStatus::Success &&
               cholesky->Solve(b, x) == SparseStatus::Success;
    }
    SymmetricUpperMatrix compressed = matrix;
    compressed.makeCompressed();
    return cholesky->Analyze(compressed) == SparseStatus::Success &&
           cholesky->Factorize(compressed) == SparseStatus::Success &&
           cholesky->Solve(b, x) == SparseStatus::Success;
}

}  // namespace

bool SolveSparse(const SymmetricUpperMatrix& matrix, Eigen::VectorXd& x, const Eigen::VectorXd& b) {
    if (x.size() == 0 || matrix.rows() != matrix.cols() || matrix.cols() != x.size() ||
        matrix.rows() != b.size()) {
        return false;
    }

    if (!g_verify.load(std::memory_order_relaxed)) {
        Eigen::VectorXd solution;
        if (!SolveProduction(matrix, b, solution)) {
            return false;
        }
        x = std::move(solution);
        return true;
    }

    detail::VerifyingSolver verifying;
    VerificationSink sink;
    {
        const std::lock_guard<std::mutex> lock(g_hooksMutex);
        verifying = g_verifyingSolver;
        sink = g_sink;
    }
    Eigen::VectorXd scratch = Eigen::VectorXd::Zero(x.size());
    const Eigen::SparseMatrix<double> full = FullFromUpper(matrix);
    const bool luOk = verifying ? verifying(full, b, scratch) : SolveWithSparseLU(full, b, scratch);

    Eigen::VectorXd solution;
    const bool productionOk = SolveProduction(matrix, b, solution);
    if (productionOk) {
        x = std::move(solution);
    }

    std::ostringstream stream;
    stream << FormatNumpyColumn("solution_pardiso", x)
           << FormatNumpyColumn("solution_eigen", scratch);
    if (sink) {
        sink(stream.view());
    }
    return productionOk && luOk;
}

void SetVerifyEigenCurvana(bool on) {
    g_verify.store(on, std::memory_order_relaxed);
}
bool VerifyEigenCurvana() {
    return g_verify.load(std::memory_order_relaxed);
}

std::string FormatNumpyColumn(std::string_view name, const Eigen::VectorXd& values) {
    std::ostringstream out;
    out << name << " = np.zeros((" << values.size() << ",1), dtype=np.dtype('float64'))" << '\n';
    out << name << ".transpose().flat = [";
    for (Eigen::Index k = 0; k < values.size(); ++k) {
        out << values[k] << ",";
    }
    out << "]" << '\n';
    return std::move(out).str();
}

void SetVerificationSink(VerificationSink sink) {
    const std::lock_guard<std::mutex> lock(g_hooksMutex);
    g_sink = std::move(sink);
}

namespace detail {
void SetVerifyingSolverForTesting(VerifyingSolver solver) {
    const std::lock_guard<std::mutex> lock(g_hooksMutex);
    g_verifyingSolver = std::move(solver);
}
}  // namespace detail

}  // namespace Project
