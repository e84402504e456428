#include "t2/l_curve.h"

#include <algorithm>
#include <boost/math/tools/minima.hpp>
#include <cmath>
#include <cstdint>
#include <limits>

namespace nmr::t2 {

namespace {

// 16 times the double machine epsilon: the smallest candidate never goes below the
// level at which the singular values are rounding noise.
constexpr double kSmallestCandidateFactor = 3.552713678800501e-15;
// Relative tolerance 2^-25 for the Brent search.
constexpr int kBrentBits = 26;

}  // namespace

double lCurveNegativeCurvature(double lambda, const Eigen::VectorXd& beta, const Eigen::VectorXd& s,
                               const Eigen::VectorXd& xi) {
    const Eigen::Index r = s.size();
    const double lambda2 = lambda * lambda;
    double eta2 = 0.0;
    double rho2 = 0.0;
    double phi = 0.0;
    double psi = 0.0;
    double dphi = 0.0;
    double dpsi = 0.0;
    // One pass in order of k; every sum is accumulated in that order.
    for (Eigen::Index k = 0; k < r; ++k) {
        const double s2 = s[k] * s[k];
        const double f = s2 / (s2 + lambda2);  // filter factor
        const double c = 1.0 - f;
        const double f1 = -2.0 * f * c / lambda;  // d f / d lambda
        const double f2 = -f1 * (3.0 - 4.0 * f) / lambda;
        const double xi2 = xi[k] * xi[k];
        const double beta2 = beta[k] * beta[k];
        eta2 += (f * xi[k]) * (f * xi[k]);
        rho2 += (c * beta[k]) * (c * beta[k]);
        phi += f * f1 * xi2;
        psi += c * f1 * beta2;
        dphi += (f1 * f1 + f * f2) * xi2;
        dpsi += (-f1 * f1 + c * f2) * beta2;
    }
    const double eta = std::sqrt(eta2);
    const double rho = std::sqrt(rho2);
    const double deta = phi / eta;
    const double drho = -psi / rho;
    const double ddeta = dphi / eta - deta * (deta / eta);
    const double ddrho = -dpsi / rho - drho * (drho / rho);
    // Derivatives of log eta and log rho with respect to lambda.
    const double lDeta = deta / eta;
    const double lDrho = drho / rho;
    const double lDdeta = ddeta / eta - lDeta * lDeta;
    const double lDdrho = ddrho / rho - lDrho * lDrho;
    return -(lDrho * lDdeta - lDdrho * lDeta) / std::pow(lDrho * lDrho + lDeta * lDeta, 1.5);
}

namespace {

Eigen::VectorXd ratios(const Eigen::VectorXd& beta, const Eigen::VectorXd& s) {
    Eigen::VectorXd xi(s.size());
    for (Eigen::Index k = 0; k < s.size(); ++k) xi[k] = beta[k] / s[k];
    return xi;
}

LCurveBracket bracketWith(const Eigen::VectorXd& beta, const Eigen::VectorXd& s,
                          const Eigen::VectorXd& xi) {
    constexpr int last = kLCurveCandidates - 1;
    LCurveBracket b;
    b.candidates[last] = std::max(s[0] * kSmallestCandidateFactor, s[s.size() - 1]);
    // A running product from the small end, so the smallest candidate is exact.
    const double q = std::pow(s[0] / b.candidates[last], 1.0 / last);
    for (int k = last - 1; k >= 0; --k) b.candidates[k] = q * b.candidates[k + 1];

    double smallest = lCurveNegativeCurvature(b.candidates[0], beta, s, xi);
    for (int k = 1; k < kLCurveCandidates; ++k) {
        const double g = lCurveNegativeCurvature(b.candidates[k], beta, s, xi);
        if (g < smallest) {
            smallest = g;
            b.best = k;
        }
    }
    b.lower = b.candidates[std::min(b.best + 1, last)];
    b.upper = b.candidates[std::max(b.best - 1, 0)];
    return b;
}

}  // namespace

LCurveBracket lCurveBracket(const Eigen::VectorXd& beta, const Eigen::VectorXd& s) {
    return bracketWith(beta, s, ratios(beta, s));
}

double lCurveCorner(const Eigen::VectorXd& beta, const Eigen::VectorXd& s) {
    // An empty or all-zero spectrum (no data point, or a kernel of exact zeros) has no
    // L-curve; the candidates would be 0/0 and the search would never narrow.
    if (s.size() == 0 || !(s[0] > 0.0)) return 0.0;
    const Eigen::VectorXd xi = ratios(beta, s);
    const LCurveBracket b = bracketWith(beta, s, xi);
    std::uintmax_t maxIter = std::numeric_limits<std::uintmax_t>::max();
    const auto minimum = boost::math::tools::brent_find_minima(
        [&](double lambda) { return lCurveNegativeCurvature(lambda, beta, s, xi); }, b.lower,
        b.upper, kBrentBits, maxIter);
    return minimum.first;
}

}  // namespace nmr::t2
