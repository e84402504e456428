#include <gtest/gtest.h>

#include <cmath>
#include <string>

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

TEST(LCurveNegativeCurvature, MatchesTheCurvatureOfTheLogLogCurve) {
    const Eigen::VectorXd s = vec({3.0, 0.7, 0.05, 1e-3});
    const Eigen::VectorXd beta = vec({1.0, -0.4, 0.02, 1e-4});
    const Eigen::VectorXd xi = (beta.array() / s.array()).matrix();
    for (double lambda : {2e-3, 0.02, 0.3, 1.5}) {
        // Central differences with step 1e-3 lambda: truncation ~1e-6 relative, rounding
        // ~1e-10, so the analytic value must agree to 1e-4 relative.
        const double h = 1e-3 * lambda;
        const Eigen::Vector2d p0 = logNorms(lambda, beta, s);
        const Eigen::Vector2d pp = logNorms(lambda + h, beta, s);
        const Eigen::Vector2d pm = logNorms(lambda - h, beta, s);
        const Eigen::Vector2d d = (pp - pm) / (2 * h);
        const Eigen::Vector2d dd = (pp - 2 * p0 + pm) / (h * h);
        const double expected = -(d.x() * dd.y() - dd.x() * d.y()) / std::pow(d.squaredNorm(), 1.5);
        EXPECT_NEAR(lCurveNegativeCurvature(lambda, beta, s, xi), expected,
                    1e-4 * std::abs(expected));
    }
}

struct EndCase {
    const char* name;
    double beta1;
    int best;
};

class LCurveEnds : public ::testing::TestWithParam<EndCase> {};

// With s = (1, 0.01), a large second coefficient puts the sharpest bend at the largest candidate, a
// tiny one at the smallest; the search interval must stay on the candidate grid.
TEST_P(LCurveEnds, BrentIntervalIsClampedToTheCandidateGrid) {
    const EndCase& c = GetParam();
    const Eigen::VectorXd s = vec({1.0, 0.01});
    const Eigen::VectorXd beta = vec({1.0, c.beta1});
    const LCurveBracket b = lCurveBracket(beta, s);
    // The smallest candidate is the last singular value; 99 multiplications by q bring
    // the largest back to s0 within a few ulps.
    EXPECT_EQ(b.candidates[99], s[1]);
    EXPECT_NEAR(b.candidates[0], s[0], 1e-13 * s[0]);
    ASSERT_EQ(b.best, c.best);
    const int lower = c.best == 0 ? 1 : 99;
    EXPECT_EQ(b.lower, b.candidates[static_cast<std::size_t>(lower)]);
    EXPECT_EQ(b.upper, b.candidates[static_cast<std::size_t>(lower - 1)]);
    const double lambda = lCurveCorner(beta, s);
    EXPECT_GE(lambda, b.lower);
    EXPECT_LE(lambda, b.upper);
}

INSTANTIATE_TEST_SUITE_P(Ends, LCurveEnds,
                         ::testing::Values(EndCase{"First", 1000.0, 0}, EndCase{"Last", 1e-6, 99}),
                         [](const ::testing::TestParamInfo<EndCase>& c) {
                             return std::string(c.param.name);
                         });

TEST(LCurveBracket, SmallestCandidateIsFlooredAtSixteenEpsilonOfTheLargest) {
    EXPECT_EQ(lCurveBracket(vec({1.0, 1.0}), vec({2.0, 1e-20})).candidates[99],
              2.0 * 3.552713678800501e-15);
}

}  // namespace
}  // namespace nmr::t2
