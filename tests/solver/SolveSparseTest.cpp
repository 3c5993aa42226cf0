#include "solver/SolveSparse.h"

#include "SparseTestMatrices.h"

#include <gtest/gtest.h>
#include <Eigen/Dense>

#include <string>

namespace Project {
namespace {

using test::RandomSpdGrid;
using test::RandomVector;
using test::SymmetricProduct;

SymmetricUpperMatrix Diagonal(std::initializer_list<double> values) {
    const int n = static_cast<int>(values.size());
    SymmetricUpperMatrix m(n, n);
    int k = 0;
    for (double v : values) {
        m.insert(k, k) = v;
        ++k;
    }
    m.makeCompressed();
    return m;
}

// Restores the process-wide switches whatever a test did.
class SolveSparseTest : public ::testing::Test {
protected:
    void TearDown() override {
        SetVerifyEigenCurvana(false);
        SetVerificationSink({});
        detail::SetVerifyingSolverForTesting({});
    }
};

TEST_F(SolveSparseTest, SolvesASymmetricPositiveDefiniteSystem) {
    const SymmetricUpperMatrix a = RandomSpdGrid(30, 1);
    const int n = static_cast<int>(a.rows());
    const Eigen::VectorXd b = RandomVector(n, 2);
    Eigen::VectorXd x = Eigen::VectorXd::Zero(n);
    ASSERT_TRUE(SolveSparse(a, x, b));
    EXPECT_LT((SymmetricProduct(a, x) - b).norm(), 1e-10 * b.norm());
}

TEST_F(SolveSparseTest, RefusesBadDimensionsOrAnIndefiniteMatrixAndLeavesXUntouched) {
    const SymmetricUpperMatrix a = Diagonal({2.0, 4.0, 8.0});
    const Eigen::VectorXd b = Eigen::VectorXd::Ones(3);

    Eigen::VectorXd empty;
    EXPECT_FALSE(SolveSparse(a, empty, b));
    EXPECT_EQ(empty.size(), 0);

    Eigen::VectorXd shortX = Eigen::VectorXd::Constant(2, 7.0);
    EXPECT_FALSE(SolveSparse(a, shortX, b));
    EXPECT_EQ(shortX, Eigen::VectorXd::Constant(2, 7.0));

    Eigen::VectorXd x = Eigen::VectorXd::Constant(3, 7.0);
    EXPECT_FALSE(SolveSparse(a, x, Eigen::VectorXd::Ones(4)));  // rows != length of b
    EXPECT_EQ(x, Eigen::VectorXd::Constant(3, 7.0));

    SymmetricUpperMatrix rectangular(3, 4);
    Eigen::VectorXd x4 = Eigen::VectorXd::Constant(4, 7.0);
    EXPECT_FALSE(SolveSparse(rectangular, x4, b));
    EXPECT_EQ(x4, Eigen::VectorXd::Constant(4, 7.0));

    EXPECT_FALSE(SolveSparse(Diagonal({2.0, -4.0, 8.0}), x, b));  // not positive definite
    EXPECT_EQ(x, Eigen::VectorXd::Constant(3, 7.0));
}

TEST_F(SolveSparseTest, VerificationDumpsBothSolutionsAsNumpyText) {
    std::string dump;
    SetVerificationSink([&](std::string_view text) { dump.assign(text); });
    SetVerifyEigenCurvana(true);
    ASSERT_TRUE(VerifyEigenCurvana());

    Eigen::VectorXd x = Eigen::VectorXd::Zero(3);
    ASSERT_TRUE(SolveSparse(Diagonal({2.0, 4.0, 8.0}), x, Eigen::VectorXd::Ones(3)));
    EXPECT_DOUBLE_EQ(x[0], 0.5);
    EXPECT_DOUBLE_EQ(x[1], 0.25);
    EXPECT_DOUBLE_EQ(x[2], 0.125);
    EXPECT_EQ(dump,
              "solution_pardiso = np.zeros((3,1), dtype=np.dtype('float64'))\n"
              "solution_pardiso.transpose().flat = [0.5,0.25,0.125,]\n"
              "solution_eigen = np.zeros((3,1), dtype=np.dtype('float64'))\n"
              "solution_eigen.transpose().flat = [0.5,0.25,0.125,]\n");
}

TEST_F(SolveSparseTest, VerificationAgreesOnALargerSystem) {
    SetVerifyEigenCurvana(true);
    const SymmetricUpperMatrix a = RandomSpdGrid(15, 3);
    const int n = static_cast<int>(a.rows());
    const Eigen::VectorXd b = RandomVector(n, 4);
    Eigen::VectorXd eigenSolution;
    detail::SetVerifyingSolverForTesting([&](const Eigen::SparseMatrix<double>& full,
                                             const Eigen::VectorXd& rhs, Eigen::VectorXd& out) {
        out = Eigen::VectorXd(Eigen::MatrixXd(full).ldlt().solve(rhs));
        eigenSolution = out;
        return true;
    });
    Eigen::VectorXd x = Eigen::VectorXd::Zero(n);
    ASSERT_TRUE(SolveSparse(a, x, b));
    EXPECT_LT((x - eigenSolution).norm(), 1e-10 * x.norm());

    // And the real sparse LU agrees too.
    detail::SetVerifyingSolverForTesting({});
    std::string dump;
    SetVerificationSink([&](std::string_view text) { dump.assign(text); });
    ASSERT_TRUE(SolveSparse(a, x, b));
    const auto eigenBlock = dump.find("solution_eigen = np.zeros((" + std::to_string(n) + ",1)");
    EXPECT_NE(eigenBlock, std::string::npos);
}

TEST_F(SolveSparseTest, VerificationFailsWhenOnlyTheSparseLURejects) {
    SetVerifyEigenCurvana(true);
    detail::SetVerifyingSolverForTesting([](const Eigen::SparseMatrix<double>&,
                                            const Eigen::VectorXd&,
                                            Eigen::VectorXd&) { return false; });
    Eigen::VectorXd x = Eigen::VectorXd::Zero(3);
    EXPECT_FALSE(SolveSparse(Diagonal({2.0, 4.0, 8.0}), x, Eigen::VectorXd::Ones(3)));
    EXPECT_DOUBLE_EQ(x[1], 0.25);  // the production solution is there all the same
}

TEST_F(SolveSparseTest, VerificationFailsWhenOnlyTheCholeskyRejects) {
    // Indefinite but regular: the LU solves it, the Cholesky refuses.
    SetVerifyEigenCurvana(true);
    std::string dump;
    SetVerificationSink([&](std::string_view text) { dump.assign(text); });
    Eigen::VectorXd x = Eigen::VectorXd::Constant(2, 7.0);
    EXPECT_FALSE(SolveSparse(Diagonal({2.0, -4.0}), x, Eigen::VectorXd::Ones(2)));
    EXPECT_EQ(x, Eigen::VectorXd::Constant(2, 7.0));
    EXPECT_NE(dump.find("solution_eigen.transpose().flat = [0.5,-0.25,]"), std::string::npos);
}

TEST_F(SolveSparseTest, NumpyColumnFormatUsesTheStreamDefaults) {
    Eigen::VectorXd v(3);
    v << 1.0, -2.5e-7, 1234567.0;
    EXPECT_EQ(FormatNumpyColumn("s", v),
              "s = np.zeros((3,1), dtype=np.dtype('float64'))\n"
              "s.transpose().flat = [1,-2.5e-07,1.23457e+06,]\n");
}

}  // namespace
}  // namespace Project
