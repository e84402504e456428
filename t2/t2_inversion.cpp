#include "t2/t2_inversion.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <new>

#include "t2/l_curve.h"
#include "t2/non_negative_least_squares.h"
#include "t2/t2_grid.h"

namespace nmr::t2 {

namespace {

// Smallest gradient that frees a variable in the non-negative solve.
constexpr double kNonNegativeTolerance = 1e-10;

}  // namespace

double kernelExponentCutoff() {
    static const double cutoff =
        std::max(-100.0, std::log(2.0 * std::numeric_limits<double>::min()));
    return cutoff;
}

std::int64_t checkedElementCount(std::size_t rows, std::size_t cols) {
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    const auto r = static_cast<std::uint64_t>(rows);
    const auto c = static_cast<std::uint64_t>(cols);
    if (c != 0 && r > kMax / c) throw std::bad_alloc();
    return static_cast<std::int64_t>(r * c);
}

std::int32_t truncationRank(const Eigen::VectorXd& s, double maxConditionRatio) {
    for (Eigen::Index k = 0; k < s.size(); ++k) {
        if (s[0] / s[k] > maxConditionRatio) return static_cast<std::int32_t>(k);
    }
    return static_cast<std::int32_t>(s.size());
}

void T2Inversion::solve(const std::vector<double>& times, const std::vector<double>& values,
                        const std::vector<double>& grid, double maxConditionRatio,
                        std::vector<double>& amplitudes, double& lambda) {
    buildKernel(times, grid);
    compress(values, maxConditionRatio);
    lambda = lCurveCorner(beta_, s_);
    amplitudes = regularizedAmplitudes(lambda);
}

void T2Inversion::buildKernel(const std::vector<double>& times, const std::vector<double>& grid) {
    checkedElementCount(times.size(), grid.size());
    const auto rows = static_cast<Eigen::Index>(times.size());
    const auto cols = static_cast<Eigen::Index>(grid.size());
    const double cutoff = kernelExponentCutoff();
    kernel_.resize(rows, cols);
    for (Eigen::Index j = 0; j < cols; ++j) {
        const double t2 = grid[static_cast<std::size_t>(j)];
        for (Eigen::Index i = 0; i < rows; ++i) {
            const double e = -(times[static_cast<std::size_t>(i)] / t2);
            kernel_(i, j) = e > cutoff ? std::exp(e) : 0.0;
        }
    }
}

void T2Inversion::compress(const std::vector<double>& values, double maxConditionRatio) {
    const Eigen::Index rows = kernel_.rows();
    const Eigen::Index cols = kernel_.cols();
    if (rows == 0 || cols == 0) {
        // No data point (or no axis): nothing to decompose, rank 0.
        rank_ = 0;
        u_.resize(rows, 0);
        s_.resize(0);
        v_.resize(cols, 0);
        a_.resize(0, cols);
        beta_.resize(0);
        return;
    }
    Eigen::JacobiSVD<Eigen::MatrixXd> svd(kernel_, Eigen::ComputeThinU | Eigen::ComputeThinV);
    rank_ = truncationRank(svd.singularValues(), maxConditionRatio);
    const Eigen::Index r = rank_;
    s_ = svd.singularValues().head(r);
    u_ = svd.matrixU().leftCols(r);
    v_ = svd.matrixV().leftCols(r);
    a_.noalias() = u_.transpose() * kernel_;
    beta_.resize(r);
    for (Eigen::Index k = 0; k < r; ++k) {
        // Summed in order of i, not by a vectorised dot product, so the result does not
        // depend on the SIMD width of the build.
        double sum = 0.0;
        for (Eigen::Index i = 0; i < rows; ++i)
            sum += u_(i, k) * values[static_cast<std::size_t>(i)];
        beta_[k] = sum;
    }
}

std::vector<double> T2Inversion::regularizedAmplitudes(double lambda) const {
    const Eigen::Index r = rank_;
    const Eigen::Index n = kernel_.cols();
    checkedElementCount(static_cast<std::size_t>(r + n), static_cast<std::size_t>(n));
    Eigen::MatrixXd m = Eigen::MatrixXd::Zero(r + n, n);
    m.topRows(r) = a_;
    m.bottomRows(n).diagonal().setConstant(lambda);
    Eigen::VectorXd b = Eigen::VectorXd::Zero(r + n);
    b.head(r) = beta_;

    NonNegativeLeastSquares nnls(m, -1, kNonNegativeTolerance);
    // With no iteration limit the solve always ends on the optimality test.
    nnls.solve(b);
    return {nnls.x().data(), nnls.x().data() + n};
}

T2Distribution invertDecay(const std::vector<double>& times, const std::vector<double>& values,
                           double t2Minimum, double t2Maximum, std::int32_t components,
                           double maxConditionRatio) {
    T2Distribution d;
    d.t2 = makeT2Grid(t2Minimum, t2Maximum, components);
    T2Inversion inversion;
    inversion.solve(times, values, d.t2, maxConditionRatio, d.amplitude, d.lambda);
    d.rank = inversion.rank();
    return d;
}

}  // namespace nmr::t2
