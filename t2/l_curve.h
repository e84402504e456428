#pragma once

#include <Eigen/Dense>
#include <array>
#include <cstdint>

namespace nmr::t2 {

// Number of trial values of the Tikhonov parameter scanned before the Brent search.
inline constexpr int kLCurveCandidates = 100;

// Negative curvature of the L-curve (log rho, log eta) at lambda, in the SVD form of
// Tikhonov regularisation: s are the kept singular values (descending), beta the data
// projected on the kept left singular vectors and xi = beta / s. The residual norm only
// covers the span of the kept vectors. A zero beta gives 0/0, i.e. NaN.
double lCurveNegativeCurvature(double lambda, const Eigen::VectorXd& beta, const Eigen::VectorXd& s,
                               const Eigen::VectorXd& xi);

// The scan that brackets the corner: candidates[k] descend from about s[0] (k = 0) to
// max(16 eps * s[0], s[r-1]) (k = 99); best is the first index of the smallest negative
// curvature, and [lower, upper] = [candidates[min(best+1, 99)], candidates[max(best-1, 0)]].
// Requires s non-empty with s[0] > 0.
struct LCurveBracket {
    std::array<double, kLCurveCandidates> candidates{};
    int best = 0;
    double lower = 0.0;
    double upper = 0.0;
};
LCurveBracket lCurveBracket(const Eigen::VectorXd& beta, const Eigen::VectorXd& s);

// The Tikhonov parameter at the corner of the L-curve: Brent's minimum of the negative
// curvature inside the bracket, 26 bits, no iteration limit. No check of the curvature's
// sign and no fallback to an end of the scan. Without a positive singular value there is
// no curve and the result is 0.
double lCurveCorner(const Eigen::VectorXd& beta, const Eigen::VectorXd& s);

}  // namespace nmr::t2
