#pragma once

#include <Eigen/Dense>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace nmr::t2 {

// Exponents at or below this give a kernel element of exactly 0 instead of a value that
// would be denormal or rounding noise: the larger of -100 and ln(2 * DBL_MIN), i.e. -100.
double kernelExponentCutoff();

// rows * cols as an element count; throws std::bad_alloc when the product would not fit
// a signed 64-bit count.
std::int64_t checkedElementCount(std::size_t rows, std::size_t cols);

// Number of singular values kept: the first k (from 0) with s[0] / s[k] > maxConditionRatio
// (strictly), or all of them when there is none. s must be descending.
std::int32_t truncationRank(const Eigen::VectorXd& s, double maxConditionRatio);

// Inversion of a decay curve m(t_i) ~ sum_j a_j exp(-t_i / T2_j) into amplitudes a >= 0 on
// a T2 axis: truncated SVD of the kernel, Tikhonov parameter at the corner of the L-curve,
// then a non-negative least-squares solve of the regularised, compressed system. Times and
// T2 values share one unit (ms).
//
// solve() runs the stages in order; they are public so that each can be inspected or
// timed on its own, and each needs the previous one to have run.
class T2Inversion {
public:
    T2Inversion() = default;

    // times and values must be equally long; amplitudes is resized to the axis length.
    // lambda receives the chosen Tikhonov parameter.
    void solve(const std::vector<double>& times, const std::vector<double>& values,
               const std::vector<double>& grid, double maxConditionRatio,
               std::vector<double>& amplitudes, double& lambda);

    // K(i, j) = exp(-t_i / T2_j), exact zero at or below the cut-off exponent.
    void buildKernel(const std::vector<double>& times, const std::vector<double>& grid);
    // Thin SVD of the kernel itself (never of K^T K, which would square its condition),
    // truncation to the kept rank, A_r = U_r^T K and beta = U_r^T m.
    void compress(const std::vector<double>& values, double maxConditionRatio);
    // min ||A_r a - beta||^2 + lambda^2 ||a||^2 over a >= 0.
    std::vector<double> regularizedAmplitudes(double lambda) const;

    std::int32_t rank() const { return rank_; }
    const Eigen::MatrixXd& kernel() const { return kernel_; }
    const Eigen::MatrixXd& leftVectors() const { return u_; }       // U_r
    const Eigen::VectorXd& singularValues() const { return s_; }    // first r, descending
    const Eigen::MatrixXd& compressedKernel() const { return a_; }  // A_r
    const Eigen::VectorXd& compressedData() const { return beta_; }

private:
    std::int32_t rank_ = 0;
    Eigen::MatrixXd kernel_;
    Eigen::MatrixXd u_;
    Eigen::VectorXd s_;
    // Right singular vectors, truncated like U; kept for inspection only.
    Eigen::MatrixXd v_;
    Eigen::MatrixXd a_;
    Eigen::VectorXd beta_;
};

// Largest ratio of the first to the last kept singular value of a run's kernel.
inline constexpr double kDefaultConditionRatio = 1000000.0;

// A decay inverted onto a T2 axis: what T2inversion.out holds, and how it was chosen.
struct T2Distribution {
    std::vector<double> t2;         // the axis, ms
    std::vector<double> amplitude;  // one per axis point, >= 0
    double lambda = -1.0;           // the Tikhonov parameter at the L-curve's corner
    std::int32_t rank = 0;          // singular values kept
};

// The inversion of a run: makeT2Grid(t2Minimum, t2Maximum, components), then solve().
T2Distribution invertDecay(const std::vector<double>& times, const std::vector<double>& values,
                           double t2Minimum, double t2Maximum, std::int32_t components,
                           double maxConditionRatio = kDefaultConditionRatio);

}  // namespace nmr::t2
