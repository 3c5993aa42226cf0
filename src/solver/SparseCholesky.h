#pragma once

#include <Eigen/Core>
#include <Eigen/SparseCore>

#include <memory>
#include <span>
#include <string>

namespace Project {

// A symmetric matrix stored as its upper triangle (column >= row) in compressed
// rows, zero-based. The arrays are exactly those of the lower triangle in
// compressed columns, which is how the Cholesky back end reads them. Entries
// below the diagonal, if present, are ignored by every consumer.
using SymmetricUpperMatrix = Eigen::SparseMatrix<double, Eigen::RowMajor, int>;

// Outcome of a sparse factorisation step. Numeric failure is a value, never an
// exception; Message() of the solver says more.
enum class SparseStatus {
    Success,
    InvalidInput,         // dimensions, pattern mismatch, missing analysis
    NotPositiveDefinite,  // the numeric factorisation met a non-positive pivot
    Failed,               // out of memory or another library failure
};

// A sparse Cholesky factorisation LL' of a symmetric positive definite matrix,
// split so that the symbolic part can be reused.
//
// Instances cache the symbolic factorisation of the pattern given to the last
// Analyze(); every Factorize() must then be given a matrix with exactly that
// pattern (same dimension, same row pointers and column indices), which it
// checks, and only the values are read. Solve() uses the last successful
// Factorize(). After a failed Factorize() the symbolic analysis stays valid and
// the next Factorize() may succeed with other values; Solve() is refused until
// then. Every resource is released by the destructor, whatever failed.
//
// Not thread-safe: one instance per thread of use. Distinct instances share
// nothing.
class SparseCholesky {
public:
    // The fill-reducing ordering used when Analyze() is not given one.
    enum class Ordering {
        LibraryDefault,    // the library's own choice (tries several, keeps the best)
        Amd,               // approximate minimum degree
        NestedDissection,  // METIS nested dissection of the matrix graph
        Natural,           // no permutation
    };
    struct Options {
        Ordering ordering = Ordering::LibraryDefault;
    };

    // The production back end: CHOLMOD's supernodal factorisation on OpenBLAS.
    static std::unique_ptr<SparseCholesky> Create(const Options& options);
    static std::unique_ptr<SparseCholesky> Create() { return Create(Options{}); }

    virtual ~SparseCholesky() = default;
    SparseCholesky(const SparseCholesky&) = delete;
    SparseCholesky& operator=(const SparseCholesky&) = delete;

    // Symbolic analysis of the pattern of `matrix` (its values are not read).
    // `permutation`, when not empty, is the fill-reducing ordering to use:
    // permutation[k] = the row of `matrix` that becomes row k of the permuted
    // matrix (new to old); it must be a permutation of 0 .. n-1.
    virtual SparseStatus Analyze(const SymmetricUpperMatrix& matrix,
                                 std::span<const int> permutation = {}) = 0;
    // Numeric factorisation of `matrix`, whose pattern must be the analysed one.
    virtual SparseStatus Factorize(const SymmetricUpperMatrix& matrix) = 0;
    // x = A^-1 b with the current factor; x is resized to the dimension.
    virtual SparseStatus Solve(const Eigen::VectorXd& b, Eigen::VectorXd& x) = 0;

    // Dimension of the analysed pattern, 0 before the first Analyze().
    virtual int Dimension() const = 0;
    // Whether `matrix` has exactly the analysed pattern (Factorize accepts it).
    virtual bool HasPattern(const SymmetricUpperMatrix& matrix) const = 0;
    // Non-zeros of the factor L (after Analyze: its symbolic count).
    virtual long FactorNonZeros() const = 0;
    // Why the last call failed; empty after a success.
    virtual const std::string& Message() const = 0;

protected:
    SparseCholesky() = default;
};

}  // namespace Project
