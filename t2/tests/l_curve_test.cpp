#include <gtest/gtest.h>

#include <cmath>

#include "t2/l_curve.h"

namespace nmr::t2 {
namespace {

Eigen::VectorXd vec(std::initializer_list<double> values) {
    return Eigen::Map<const Eigen::VectorXd>(values.begin(),
                                             static_cast<Eigen::Index>(values.size()));
}

// (log rho, log eta) of the filtered SVD solution, straight from the definitions.
Eigen::Vector2d logNorms(double lambda, const Eigen::VectorXd& beta, const Eigen::VectorXd& s) {
    const Eigen::ArrayXd f = s.array().square() / (s.array().square() + lambda * lambda);
    return {std::log(((1.0 - f) * beta.array()).matrix().norm()),
            std::log((f * beta.array() / s.array()).matrix().norm())};
}

TEST(LCurve, NegativeCurvatureMatchesFiniteDifferencesOfTheLogLogCurve) {
    const Eigen::VectorXd s = vec({3.0, 0.7, 0.05, 1e-3}), beta = vec({1.0, -0.4, 0.02, 1e-4});
    for (double lambda : {2e-3, 0.02, 0.3, 1.5}) {
        // Step 1e-3 lambda: truncation ~1e-6 relative, rounding ~1e-10.
        const double h = 1e-3 * lambda;
        const Eigen::Vector2d p0 = logNorms(lambda, beta, s), pp = logNorms(lambda + h, beta, s),
                              pm = logNorms(lambda - h, beta, s);
        const Eigen::Vector2d d = (pp - pm) / (2 * h), dd = (pp - 2 * p0 + pm) / (h * h);
        const double expected = -(d.x() * dd.y() - dd.x() * d.y()) / std::pow(d.squaredNorm(), 1.5);
        EXPECT_NEAR(lCurveNegativeCurvature(lambda, beta, s, (beta.array() / s.array()).matrix()),
                    expected, 1e-4 * std::abs(expected));
    }
}

// With s = (1, 0.01) a large second coefficient puts the sharpest bend at the largest
// candidate, a tiny one at the smallest; the search interval must stay on the grid.
TEST(LCurve, BracketIsClampedToTheFirstAndLastCandidate) {
    const Eigen::VectorXd s = vec({1.0, 0.01});
    for (const auto& [beta1, best] : {std::pair{1000.0, 0}, std::pair{1e-6, 99}}) {
        const Eigen::VectorXd beta = vec({1.0, beta1});
        const LCurveBracket b = lCurveBracket(beta, s);
        EXPECT_EQ(b.candidates[99], s[1]);
        EXPECT_NEAR(b.candidates[0], s[0], 1e-13);
        ASSERT_EQ(b.best, best);
        const std::size_t lower = best == 0 ? 1 : 99;
        EXPECT_EQ(b.lower, b.candidates[lower]);
        EXPECT_EQ(b.upper, b.candidates[lower - 1]);
        const double lambda = lCurveCorner(beta, s);
        EXPECT_GE(lambda, b.lower);
        EXPECT_LE(lambda, b.upper);
    }
    // The smallest candidate is floored at 16 eps of the largest.
    EXPECT_EQ(lCurveBracket(vec({1.0, 1.0}), vec({2.0, 1e-20})).candidates[99],
              2.0 * 3.552713678800501e-15);
}

}  // namespace
}  // namespace nmr::t2
