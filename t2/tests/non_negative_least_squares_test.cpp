#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "t2/non_negative_least_squares.h"

namespace nmr::t2 {
namespace {

struct Problem {
    Eigen::MatrixXd m;
    Eigen::VectorXd b;
};

// Gaussian columns sharing a common component, plus the identity on top: full column
// rank with a condition number below a few hundred, but correlated enough that a freed
// variable sometimes pushes another back to its bound. b = M z + noise with z of mixed
// signs, so that some bounds are active at the optimum.
Problem randomProblem(std::mt19937_64& rng, Eigen::Index rows, Eigen::Index cols) {
    std::normal_distribution<double> normal;
    const auto gaussian = [&](Eigen::Index n) {
        return Eigen::VectorXd(Eigen::VectorXd::NullaryExpr(n, [&] { return normal(rng); }));
    };
    const Eigen::VectorXd common = gaussian(rows);
    Problem p{Eigen::MatrixXd(rows, cols), Eigen::VectorXd()};
    for (Eigen::Index j = 0; j < cols; ++j) p.m.col(j) = gaussian(rows) + 0.7 * common;
    p.m.topRows(cols) += Eigen::MatrixXd::Identity(cols, cols);
    p.b = p.m * gaussian(cols) + gaussian(rows);
    return p;
}

TEST(NonNegativeLeastSquares, SatisfiesTheOptimalityConditionsOnRandomProblems) {
    std::mt19937_64 rng(20240611);
    int withRemovals = 0;
    for (int trial = 0; trial < 200; ++trial) {
        const Eigen::Index cols = 5 + trial % 30;
        const Problem p = randomProblem(rng, cols + 3 + trial % 7, cols);
        // A few solves per variable suffice; an update that cycles is stopped by this
        // limit instead of hanging the test.
        NonNegativeLeastSquares nnls(p.m, static_cast<std::int32_t>(20 * cols), 1e-10);
        ASSERT_TRUE(nnls.solve(p.b)) << "trial " << trial;
        const Eigen::VectorXd& x = nnls.x();
        const Eigen::VectorXd gradient = p.m.transpose() * (p.b - p.m * x);
        for (Eigen::Index j = 0; j < cols; ++j) {
            ASSERT_GE(x[j], 0.0);
            // Bound variables stop at a gradient <= 1e-10; on free ones it is zero up to
            // the rounding of a QR solve with entries of order 10.
            const double bound = x[j] == 0.0 ? 1e-10 : 1e-9;
            EXPECT_LE(x[j] == 0.0 ? gradient[j] : std::abs(gradient[j]), bound) << trial;
        }
        // Every variable that left the passive set cost one solve more than it freed.
        if (nnls.solveCount() > (x.array() > 0.0).count()) ++withRemovals;
    }
    EXPECT_GT(withRemovals, 0) << "the blocking-variable branch was never exercised";
}

// Against the unconstrained least-squares solution on every subset of free variables
// that comes out non-negative, keeping the smallest residual: the unique minimiser of a
// strictly convex problem.
TEST(NonNegativeLeastSquares, MatchesExhaustiveActiveSetEnumeration) {
    std::mt19937_64 rng(77);
    for (int trial = 0; trial < 60; ++trial) {
        const Eigen::Index n = 1 + trial % 7;
        const Problem p = randomProblem(rng, n + trial % 4, n);
        Eigen::VectorXd best = Eigen::VectorXd::Zero(n);
        for (unsigned mask = 1; mask < (1u << n); ++mask) {
            std::vector<Eigen::Index> free;
            for (Eigen::Index j = 0; j < n; ++j) {
                if (mask & (1u << j)) free.push_back(j);
            }
            const Eigen::MatrixXd sub = p.m(Eigen::all, free);
            const Eigen::VectorXd z = sub.colPivHouseholderQr().solve(p.b);
            if ((z.array() < 0.0).any()) continue;
            Eigen::VectorXd x = Eigen::VectorXd::Zero(n);
            for (Eigen::Index k = 0; k < z.size(); ++k) x[free[static_cast<std::size_t>(k)]] = z[k];
            if ((p.m * x - p.b).squaredNorm() < (p.m * best - p.b).squaredNorm()) best = x;
        }
        NonNegativeLeastSquares nnls(p.m, 0, 1e-10);  // a limit below 1 is no limit
        ASSERT_TRUE(nnls.solve(p.b));
        // Both are QR solves of the same well-conditioned subsystem.
        EXPECT_LT((nnls.x() - best).lpNorm<Eigen::Infinity>(), 1e-10) << "trial " << trial;
    }
}

TEST(NonNegativeLeastSquares, NonPositiveStartingGradientReturnsZeroWithoutASolve) {
    std::mt19937_64 rng(3);
    Problem p = randomProblem(rng, 9, 6);
    p.m = p.m.cwiseAbs();
    // A zero right-hand side, and one that every (positive) column points away from.
    for (const Eigen::VectorXd& b :
         {Eigen::VectorXd(Eigen::VectorXd::Zero(9)), Eigen::VectorXd(-p.b.cwiseAbs())}) {
        NonNegativeLeastSquares nnls(p.m, -1, 1e-10);
        ASSERT_TRUE(nnls.solve(b));
        EXPECT_EQ(nnls.solveCount(), 0);
        EXPECT_TRUE(nnls.x().isZero(0.0));
    }
}

TEST(NonNegativeLeastSquares, IterationLimitStopsWithAFeasibleIterate) {
    std::mt19937_64 rng(11);
    const Problem p = randomProblem(rng, 60, 40);
    // Every variable is free at the optimum of M x = M 1: at least 40 solves are needed.
    NonNegativeLeastSquares limited(p.m, 3, 1e-10);
    EXPECT_FALSE(limited.solve(p.m * Eigen::VectorXd::Ones(40)));
    EXPECT_EQ(limited.solveCount(), 3);
    EXPECT_TRUE((limited.x().array() >= 0.0).all());
}

}  // namespace
}  // namespace nmr::t2
