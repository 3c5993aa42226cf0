#include "solver/SparseCholesky.h"

#include "SparseTestMatrices.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

namespace Project {
namespace {

using test::RandomSpdGrid;
using test::RandomVector;
using test::SymmetricProduct;

// Every ordering, plus a given permutation (a random one, so that a wrong
// reading of the permutation's direction would show in the residual).
struct OrderingCase {
    const char* name;
    SparseCholesky::Ordering ordering;
    bool givenPermutation;
};

class SparseCholeskyOrderingTest : public ::testing::TestWithParam<OrderingCase> {};

std::vector<int> RandomPermutation(int n, unsigned seed) {
    std::vector<int> p(static_cast<size_t>(n));
    std::iota(p.begin(), p.end(), 0);
    std::shuffle(p.begin(), p.end(), std::mt19937(seed));
    return p;
}

TEST_P(SparseCholeskyOrderingTest, SolvesAndRefactorisesWithTheSameAnalysis) {
    const OrderingCase& param = GetParam();
    SymmetricUpperMatrix a = RandomSpdGrid(23, 7);
    const int n = static_cast<int>(a.rows());
    const auto cholesky = SparseCholesky::Create({param.ordering});
    const std::vector<int> permutation =
        param.givenPermutation ? RandomPermutation(n, 11) : std::vector<int>{};
    ASSERT_EQ(cholesky->Analyze(a, permutation), SparseStatus::Success) << cholesky->Message();
    EXPECT_EQ(cholesky->Dimension(), n);
    EXPECT_GE(cholesky->FactorNonZeros(), a.nonZeros());

    for (unsigned round = 0; round < 3; ++round) {
        // New values on the same pattern: scale the diagonal up.
        for (int k = 0; k < n; ++k)
            a.coeffRef(k, k) += round;
        ASSERT_EQ(cholesky->Factorize(a), SparseStatus::Success) << cholesky->Message();
        const Eigen::VectorXd b = RandomVector(n, 100 + round);
        Eigen::VectorXd x;
        ASSERT_EQ(cholesky->Solve(b, x), SparseStatus::Success);
        ASSERT_EQ(x.size(), n);
        EXPECT_LT((SymmetricProduct(a, x) - b).norm(), 1e-10 * b.norm());
    }
}

INSTANTIATE_TEST_SUITE_P(
    AllOrderings, SparseCholeskyOrderingTest,
    ::testing::Values(
        OrderingCase{"LibraryDefault", SparseCholesky::Ordering::LibraryDefault, false},
        OrderingCase{"Amd", SparseCholesky::Ordering::Amd, false},
        OrderingCase{"NestedDissection", SparseCholesky::Ordering::NestedDissection, false},
        OrderingCase{"Natural", SparseCholesky::Ordering::Natural, false},
        OrderingCase{"Given", SparseCholesky::Ordering::LibraryDefault, true}),
    [](const ::testing::TestParamInfo<OrderingCase>& caseInfo) { return caseInfo.param.name; });

TEST(SparseCholeskyTest, NotPositiveDefiniteFailsAndTheNextFactorisationRecovers) {
    SymmetricUpperMatrix a = RandomSpdGrid(12, 3);
    const int n = static_cast<int>(a.rows());
    const auto cholesky = SparseCholesky::Create();
    ASSERT_EQ(cholesky->Analyze(a), SparseStatus::Success);

    SymmetricUpperMatrix indefinite = a;
    indefinite.coeffRef(n / 2, n / 2) = -1.0;
    EXPECT_EQ(cholesky->Factorize(indefinite), SparseStatus::NotPositiveDefinite);
    EXPECT_FALSE(cholesky->Message().empty());
    Eigen::VectorXd x;
    EXPECT_EQ(cholesky->Solve(RandomVector(n, 1), x), SparseStatus::InvalidInput);
    EXPECT_EQ(x.size(), 0);

    ASSERT_EQ(cholesky->Factorize(a), SparseStatus::Success);
    const Eigen::VectorXd b = RandomVector(n, 2);
    ASSERT_EQ(cholesky->Solve(b, x), SparseStatus::Success);
    EXPECT_LT((SymmetricProduct(a, x) - b).norm(), 1e-10 * b.norm());
}

TEST(SparseCholeskyTest, SingularMatrixIsNotPositiveDefinite) {
    // The graph Laplacian of a path: positive semidefinite, constant null space.
    const int n = 50;
    std::vector<Eigen::Triplet<double>> t;
    for (int k = 0; k < n; ++k) {
        t.emplace_back(k, k, (k == 0 || k == n - 1) ? 1.0 : 2.0);
        if (k + 1 < n)
            t.emplace_back(k, k + 1, -1.0);
    }
    SymmetricUpperMatrix a(n, n);
    a.setFromTriplets(t.begin(), t.end());
    a.makeCompressed();
    const auto cholesky = SparseCholesky::Create();
    ASSERT_EQ(cholesky->Analyze(a), SparseStatus::Success);
    EXPECT_EQ(cholesky->Factorize(a), SparseStatus::NotPositiveDefinite);
}

TEST(SparseCholeskyTest, RefusesMisuse) {
    const SymmetricUpperMatrix a = RandomSpdGrid(6, 5);
    const int n = static_cast<int>(a.rows());
    const auto cholesky = SparseCholesky::Create();
    EXPECT_EQ(cholesky->Factorize(a), SparseStatus::InvalidInput);  // before any analysis

    std::vector<int> notAPermutation(static_cast<size_t>(n), 0);
    EXPECT_EQ(cholesky->Analyze(a, notAPermutation), SparseStatus::InvalidInput);
    EXPECT_EQ(cholesky->Dimension(), 0);

    ASSERT_EQ(cholesky->Analyze(a), SparseStatus::Success);
    const SymmetricUpperMatrix other = RandomSpdGrid(6, 6);  // other long-range couplings
    ASSERT_NE(other.nonZeros(), 0);
    const bool samePattern =
        other.nonZeros() == a.nonZeros() &&
        std::equal(a.innerIndexPtr(), a.innerIndexPtr() + a.nonZeros(), other.innerIndexPtr());
    if (!samePattern) {
        EXPECT_EQ(cholesky->Factorize(other), SparseStatus::InvalidInput);
    }
    ASSERT_EQ(cholesky->Factorize(a), SparseStatus::Success);
    Eigen::VectorXd x;
    EXPECT_EQ(cholesky->Solve(Eigen::VectorXd::Ones(n + 1), x), SparseStatus::InvalidInput);

    SymmetricUpperMatrix rectangular(3, 4);
    EXPECT_EQ(cholesky->Analyze(rectangular), SparseStatus::InvalidInput);
}

TEST(SparseCholeskyTest, IgnoresEntriesBelowTheDiagonal) {
    SymmetricUpperMatrix upper = RandomSpdGrid(8, 9);
    const int n = static_cast<int>(upper.rows());
    // The same matrix stored in full: the strictly lower part must be ignored,
    // so put garbage there.
    Eigen::SparseMatrix<double, Eigen::RowMajor, int> full = upper;
    full += SymmetricUpperMatrix(upper.transpose()) * 5.0;
    full.makeCompressed();
    for (int r = 0; r < n; ++r)
        full.coeffRef(r, r) = upper.coeff(r, r);
    const auto cholesky = SparseCholesky::Create();
    ASSERT_EQ(cholesky->Analyze(full), SparseStatus::Success);
    ASSERT_EQ(cholesky->Factorize(full), SparseStatus::Success);
    const Eigen::VectorXd b = RandomVector(n, 4);
    Eigen::VectorXd x;
    ASSERT_EQ(cholesky->Solve(b, x), SparseStatus::Success);
    EXPECT_LT((SymmetricProduct(upper, x) - b).norm(), 1e-10 * b.norm());
}

}  // namespace
}  // namespace Project
