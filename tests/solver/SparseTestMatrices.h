#pragma once

#include "solver/SparseCholesky.h"

#include <random>
#include <vector>

namespace Project::test {

// A seeded random symmetric positive definite matrix with the pattern of a
// side x side grid Laplacian (5-point stencil) plus a few long-range couplings,
// made diagonally dominant. Upper triangle only.
inline SymmetricUpperMatrix RandomSpdGrid(int side, unsigned seed) {
    const int n = side * side;
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> offDiagonal(-1.0, 1.0);
    std::uniform_int_distribution<int> anyIndex(0, n - 1);
    std::vector<Eigen::Triplet<double>> triplets;
    std::vector<double> rowSums(static_cast<size_t>(n), 0.0);
    auto couple = [&](int a, int b) {
        if (a == b)
            return;
        const double v = offDiagonal(rng);
        triplets.emplace_back(std::min(a, b), std::max(a, b), v);
        rowSums[static_cast<size_t>(a)] += std::abs(v);
        rowSums[static_cast<size_t>(b)] += std::abs(v);
    };
    for (int j = 0; j < side; ++j) {
        for (int i = 0; i < side; ++i) {
            const int k = i + j * side;
            if (i + 1 < side)
                couple(k, k + 1);
            if (j + 1 < side)
                couple(k, k + side);
        }
    }
    for (int extra = 0; extra < side; ++extra)
        couple(anyIndex(rng), anyIndex(rng));
    for (int k = 0; k < n; ++k)
        triplets.emplace_back(k, k, rowSums[static_cast<size_t>(k)] + 0.5);
    SymmetricUpperMatrix m(n, n);
    m.setFromTriplets(triplets.begin(), triplets.end());
    m.makeCompressed();
    return m;
}

// The product of the full symmetric matrix held by `upper` with x.
inline Eigen::VectorXd SymmetricProduct(const SymmetricUpperMatrix& upper,
                                        const Eigen::VectorXd& x) {
    return upper.selfadjointView<Eigen::Upper>() * x;
}

inline Eigen::VectorXd RandomVector(int n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> value(-1.0, 1.0);
    Eigen::VectorXd v(n);
    for (int k = 0; k < n; ++k)
        v[k] = value(rng);
    return v;
}

}  // namespace Project::test
