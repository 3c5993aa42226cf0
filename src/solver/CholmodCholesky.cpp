// The production SparseCholesky: CHOLMOD's supernodal LL' through its C API.
//
// Every CHOLMOD object lives in an RAII owner below; the matrices and vectors
// handed to CHOLMOD are non-owning views onto the caller's Eigen storage, so no
// copy is made on the way in.

#include "solver/SparseCholesky.h"

#include <cholmod.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

// OpenBLAS's own control (declared here to avoid depending on where the
// distribution puts its cblas.h).
extern "C" void openblas_set_num_threads(int threads);

namespace Project {
namespace {

// cholmod_common, started in the constructor and finished in the destructor.
// Heap-held by its owner so that its address (which CHOLMOD objects' deleters
// keep) never changes.
class CholmodCommon {
public:
    CholmodCommon() {
        cholmod_start(&common_);
        common_.print = 0;  // failures are reported as values, never on stderr
        common_.error_handler = nullptr;
        common_.supernodal = CHOLMOD_SUPERNODAL;
        common_.quick_return_if_not_posdef = 1;
        common_.final_ll = 1;  // keep LL' (the supernodal factor is LL' anyway)
    }
    ~CholmodCommon() { cholmod_finish(&common_); }
    CholmodCommon(const CholmodCommon&) = delete;
    CholmodCommon& operator=(const CholmodCommon&) = delete;

    cholmod_common* get() { return &common_; }

private:
    cholmod_common common_{};
};

// An owned cholmod_factor (or none).
class FactorHandle {
public:
    explicit FactorHandle(cholmod_common* common) : common_(common) {}
    ~FactorHandle() { reset(); }
    FactorHandle(const FactorHandle&) = delete;
    FactorHandle& operator=(const FactorHandle&) = delete;

    void reset(cholmod_factor* factor = nullptr) {
        if (factor_ != nullptr) {
            cholmod_free_factor(&factor_, common_);
        }
        factor_ = factor;
    }
    cholmod_factor* get() const { return factor_; }

private:
    cholmod_common* common_;
    cholmod_factor* factor_ = nullptr;
};

// An owned cholmod_dense that CHOLMOD itself may (re)allocate through handle(),
// as cholmod_solve2 does with its reusable workspaces.
class DenseHandle {
public:
    explicit DenseHandle(cholmod_common* common) : common_(common) {}
    ~DenseHandle() {
        if (dense_ != nullptr) {
            cholmod_free_dense(&dense_, common_);
        }
    }
    DenseHandle(const DenseHandle&) = delete;
    DenseHandle& operator=(const DenseHandle&) = delete;

    cholmod_dense** handle() { return &dense_; }
    cholmod_dense* get() const { return dense_; }

private:
    cholmod_common* common_;
    cholmod_dense* dense_ = nullptr;
};

// Non-owning view of a SymmetricUpperMatrix as CHOLMOD's lower-triangular
// compressed-column matrix: the same arrays, read with stype = -1.
cholmod_sparse ViewAsLower(const SymmetricUpperMatrix& m, bool withValues) {
    cholmod_sparse view{};
    view.nrow = static_cast<size_t>(m.rows());
    view.ncol = static_cast<size_t>(m.cols());
    view.nzmax = static_cast<size_t>(m.nonZeros());
    // CHOLMOD's C API takes non-const pointers but does not write through them.
    view.p = const_cast<int*>(m.outerIndexPtr());
    view.i = const_cast<int*>(m.innerIndexPtr());
    view.nz = nullptr;
    view.x = withValues ? const_cast<double*>(m.valuePtr()) : nullptr;
    view.z = nullptr;
    view.stype = -1;
    view.itype = CHOLMOD_INT;
    view.xtype = withValues ? CHOLMOD_REAL : CHOLMOD_PATTERN;
    view.dtype = CHOLMOD_DOUBLE;
    view.sorted = 1;  // Eigen keeps the inner indices of each outer vector sorted
    view.packed = 1;
    return view;
}

cholmod_dense ViewAsDense(const Eigen::VectorXd& v) {
    cholmod_dense view{};
    view.nrow = static_cast<size_t>(v.size());
    view.ncol = 1;
    view.nzmax = static_cast<size_t>(v.size());
    view.d = static_cast<size_t>(v.size());
    view.x = const_cast<double*>(v.data());
    view.z = nullptr;
    view.xtype = CHOLMOD_REAL;
    view.dtype = CHOLMOD_DOUBLE;
    return view;
}

bool IsPermutation(std::span<const int> permutation, int n) {
    if (static_cast<int>(permutation.size()) != n) {
        return false;
    }
    std::vector<char> seen(static_cast<size_t>(n), 0);
    for (int k : permutation) {
        if (k < 0 || k >= n || seen[static_cast<size_t>(k)] != 0) {
            return false;
        }
        seen[static_cast<size_t>(k)] = 1;
    }
    return true;
}

// The factorisation runs on the caller's thread and starts no threads of its
// own: OpenBLAS's thread pool, on a machine shared with the renderer and the
// host, spins on busy cores and made factorisations several times slower and
// erratic in our measurements. The setting is process-wide, made once.
void UseSequentialBlas() {
    static std::once_flag once;
    std::call_once(once, [] { openblas_set_num_threads(1); });
}

class CholmodCholesky final : public SparseCholesky {
public:
    explicit CholmodCholesky(const Options& options)
        : options_((UseSequentialBlas(), options)),
          common_(std::make_unique<CholmodCommon>()),
          factor_(common_->get()),
          solution_(common_->get()),
          workY_(common_->get()),
          workE_(common_->get()) {}

    SparseStatus Analyze(const SymmetricUpperMatrix& matrix,
                         std::span<const int> permutation) override {
        factor_.reset();
        factorized_ = false;
        dimension_ = 0;
        outer_.clear();
        inner_.clear();
        if (matrix.rows() != matrix.cols() || !matrix.isCompressed()) {
            return Fail(SparseStatus::InvalidInput, "the matrix is not square and compressed");
        }
        const int n = static_cast<int>(matrix.rows());
        if (!permutation.empty() && !IsPermutation(permutation, n)) {
            return Fail(SparseStatus::InvalidInput, "the ordering is not a permutation");
        }

        cholmod_common* c = common_->get();
        c->nmethods = 1;
        c->postorder = 1;
        std::vector<int> perm;
        if (!permutation.empty()) {
            c->method[0].ordering = CHOLMOD_GIVEN;
            perm.assign(permutation.begin(), permutation.end());
        } else {
            switch (options_.ordering) {
                case Ordering::LibraryDefault:
                    c->nmethods = 0;
                    break;
                case Ordering::Amd:
                    c->method[0].ordering = CHOLMOD_AMD;
                    break;
                case Ordering::NestedDissection:
                    c->method[0].ordering = CHOLMOD_METIS;
                    break;
                case Ordering::Natural:
                    c->method[0].ordering = CHOLMOD_NATURAL;
                    break;
            }
        }

        cholmod_sparse view = ViewAsLower(matrix, false);
        cholmod_factor* factor =
            cholmod_analyze_p(&view, perm.empty() ? nullptr : perm.data(), nullptr, 0, c);
        if (factor == nullptr || c->status < CHOLMOD_OK) {
            factor_.reset(factor);
            factor_.reset();
            return Fail(SparseStatus::Failed, "symbolic analysis failed");
        }
        factor_.reset(factor);
        dimension_ = n;
        outer_.assign(matrix.outerIndexPtr(), matrix.outerIndexPtr() + n + 1);
        inner_.assign(matrix.innerIndexPtr(), matrix.innerIndexPtr() + matrix.nonZeros());
        return Succeed();
    }

    SparseStatus Factorize(const SymmetricUpperMatrix& matrix) override {
        factorized_ = false;
        if (factor_.get() == nullptr) {
            return Fail(SparseStatus::InvalidInput, "no symbolic analysis");
        }
        if (!HasPattern(matrix)) {
            return Fail(SparseStatus::InvalidInput, "the pattern differs from the analysed one");
        }
        cholmod_common* c = common_->get();
        cholmod_sparse view = ViewAsLower(matrix, true);
        const int ok = cholmod_factorize(&view, factor_.get(), c);
        if (c->status == CHOLMOD_NOT_POSDEF) {
            return Fail(SparseStatus::NotPositiveDefinite, "the matrix is not positive definite");
        }
        if (ok == 0 || c->status < CHOLMOD_OK) {
            return Fail(SparseStatus::Failed, "numeric factorisation failed");
        }
        factorized_ = true;
        return Succeed();
    }

    SparseStatus Solve(const Eigen::VectorXd& b, Eigen::VectorXd& x) override {
        if (!factorized_) {
            return Fail(SparseStatus::InvalidInput, "no numeric factorisation");
        }
        if (b.size() != dimension_) {
            return Fail(SparseStatus::InvalidInput, "the right-hand side has the wrong length");
        }
        cholmod_common* c = common_->get();
        cholmod_dense rhs = ViewAsDense(b);
        const int ok = cholmod_solve2(CHOLMOD_A, factor_.get(), &rhs, nullptr, solution_.handle(),
                                      nullptr, workY_.handle(), workE_.handle(), c);
        if (ok == 0 || solution_.get() == nullptr || c->status < CHOLMOD_OK) {
            return Fail(SparseStatus::Failed, "forward and back substitution failed");
        }
        x.resize(dimension_);
        std::memcpy(x.data(), solution_.get()->x, sizeof(double) * static_cast<size_t>(dimension_));
        return Succeed();
    }

    int Dimension() const override { return dimension_; }
    long FactorNonZeros() const override {
        return factor_.get() == nullptr ? 0 : static_cast<long>(common_->get()->lnz);
    }
    const std::string& Message() const override { return message_; }

    bool HasPattern(const SymmetricUpperMatrix& m) const override {
        if (m.rows() != dimension_ || m.cols() != dimension_ || !m.isCompressed() ||
            static_cast<size_t>(m.nonZeros()) != inner_.size()) {
            return false;
        }
        return std::equal(outer_.begin(), outer_.end(), m.outerIndexPtr()) &&
               std::equal(inner_.begin(), inner_.end(), m.innerIndexPtr());
    }

private:
    SparseStatus Fail(SparseStatus status, const char* message) {
        message_ = message;
        return status;
    }
    SparseStatus Succeed() {
        message_.clear();
        return SparseStatus::Success;
    }

    Options options_;
    // Declared first so that it is destroyed last: every handle below frees
    // through it.
    std::unique_ptr<CholmodCommon> common_;
    FactorHandle factor_;
    DenseHandle solution_;
    DenseHandle workY_;
    DenseHandle workE_;
    bool factorized_ = false;
    int dimension_ = 0;
    std::vector<int> outer_;  // the analysed pattern, to check Factorize() against
    std::vector<int> inner_;
    std::string message_;
};

}  // namespace

std::unique_ptr<SparseCholesky> SparseCholesky::Create(const Options& options) {
    return std::make_unique<CholmodCholesky>(options);
}

}  // namespace Project
