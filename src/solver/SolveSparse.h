#pragma once

#include "solver/SparseCholesky.h"

#include <functional>
#include <string>
#include <string_view>

namespace Project {

// Solves matrix * x = b for a symmetric positive definite `matrix` given as its
// upper triangle (see SymmetricUpperMatrix). True when x holds the solution.
//
// Refused (false, x untouched) unless x is non-empty, the matrix is square, its
// column count equals x's length and its row count equals b's length. x must
// therefore be sized by the caller. The production solve is the supernodal
// Cholesky back end with the library's own ordering, analysed for this one
// call; a failed factorisation (not positive definite) or solve returns false
// and leaves x untouched.
//
// With the verification switch on (SetVerifyEigenCurvana), the same system is
// also solved with Eigen's sparse LU (on the full symmetric matrix), both
// solutions are formatted as numpy text (FormatNumpyColumn, the production one
// as "solution_pardiso" first, then "solution_eigen") and the text is handed to
// the verification sink, if any, then discarded. The result is then true only
// when both solves succeeded; x holds the production solution whenever that one
// succeeded.
bool SolveSparse(const SymmetricUpperMatrix& matrix, Eigen::VectorXd& x, const Eigen::VectorXd& b);

// The process-wide diagnostic switch "VerifyEigenCurvana" (off by default).
// Safe to flip from any thread; each SolveSparse call reads it once.
void SetVerifyEigenCurvana(bool on);
bool VerifyEigenCurvana();

// Two lines of numpy text for a column vector:
//   <name> = np.zeros((<n>,1), dtype=np.dtype('float64'))
//   <name>.transpose().flat = [<v0>,<v1>,...,]
// each value written with the default stream formatting and followed by ",".
std::string FormatNumpyColumn(std::string_view name, const Eigen::VectorXd& values);

// Receives the verification text of each verified SolveSparse call. Empty by
// default (the text is discarded); tests and diagnostics may install one.
using VerificationSink = std::function<void(std::string_view)>;
void SetVerificationSink(VerificationSink sink);

namespace detail {
// The verifying solver, replaceable for tests: true when it solved the full
// symmetric system `full` for b into x.
using VerifyingSolver = std::function<bool(const Eigen::SparseMatrix<double>& full,
                                           const Eigen::VectorXd& b, Eigen::VectorXd& x)>;
// Installs a replacement; an empty function restores Eigen's sparse LU.
void SetVerifyingSolverForTesting(VerifyingSolver solver);
}  // namespace detail

}  // namespace Project
