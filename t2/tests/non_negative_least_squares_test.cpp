#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "t2/non_negative_least_squares.h"

namespace nmr::t2 {
namespace {

// Against the unconstrained least-squares solution on every subset of free variables that
// comes out non-negative, keeping the smallest residual: the unique minimiser of a strictly
// convex problem. Gaussian columns sharing a common component plus the identity on top:
// full rank, condition below a few hundred, but correlated enough that a freed variable
// sometimes pushes another back to its bound; b = M z + noise with z of mixed signs.
TEST(NonNegativeLeastSquares, MatchesExhaustiveEnumerationAndOptimalityConditions) {
    std::mt19937_64 rng(77);
    std::normal_distribution<double> normal;
    const auto gaussian = [&](Eigen::Index n) {
        return Eigen::VectorXd(Eigen::VectorXd::NullaryExpr(n, [&] { return normal(rng); }));
    };
    int withRemovals = 0, zeroStarts = 0;
    for (int trial = 0; trial < 120; ++trial) {
        const Eigen::Index n = 1 + trial % 8, rows = n + trial % 4;
        const Eigen::VectorXd common = gaussian(rows);
        Eigen::MatrixXd m(rows, n);
        for (Eigen::Index j = 0; j < n; ++j) m.col(j) = gaussian(rows) + 0.7 * common;
        m.topRows(n) += Eigen::MatrixXd::Identity(n, n);
        const Eigen::VectorXd b = m * gaussian(n) + gaussian(rows);
        Eigen::VectorXd best = Eigen::VectorXd::Zero(n);
        for (unsigned mask = 1; mask < (1u << n); ++mask) {
            std::vector<Eigen::Index> free;
            for (Eigen::Index j = 0; j < n; ++j)
                if (mask & (1u << j)) free.push_back(j);
            const Eigen::VectorXd z = m(Eigen::all, free).colPivHouseholderQr().solve(b);
            if ((z.array() < 0.0).any()) continue;
            Eigen::VectorXd x = Eigen::VectorXd::Zero(n);
            for (std::size_t k = 0; k < free.size(); ++k) x[free[k]] = z[Eigen::Index(k)];
            if ((m * x - b).squaredNorm() < (m * best - b).squaredNorm()) best = x;
        }
        NonNegativeLeastSquares nnls(m, 0, 1e-10);  // a limit below 1 is no limit
        ASSERT_TRUE(nnls.solve(b));
        // Both are QR solves of the same well-conditioned subsystem.
        EXPECT_LT((nnls.x() - best).lpNorm<Eigen::Infinity>(), 1e-10) << "trial " << trial;
        // Optimality on its own terms: x >= 0, no descent into the zero set, and a zero
        // gradient on the free set (to rounding of a few hundred units of epsilon).
        const Eigen::VectorXd gradient = m.transpose() * (b - m * nnls.x());
        for (Eigen::Index j = 0; j < n; ++j) {
            EXPECT_GE(nnls.x()[j], 0.0);
            if (nnls.x()[j] == 0.0) {
                EXPECT_LE(gradient[j], 1e-10) << "trial " << trial;
            } else {
                EXPECT_NEAR(gradient[j], 0.0, 1e-9) << "trial " << trial;
            }
        }
        if (nnls.solveCount() > (nnls.x().array() > 0.0).count()) ++withRemovals;
        if (best.isZero(0.0) && nnls.solveCount() == 0) ++zeroStarts;
    }
    EXPECT_GT(withRemovals, 0) << "the blocking-variable branch was never exercised";
    EXPECT_GT(zeroStarts, 0) << "no problem had its optimum at zero";
}

}  // namespace
}  // namespace nmr::t2
