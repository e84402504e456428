#include "inversion/kernel.h"

#include <algorithm>
#include <cmath>

#include "common/exception.h"

namespace nmr::inversion {

std::string axisName(KernelKind kind) {
    switch (kind) {
        case KernelKind::Decay:
            return "T2";
        case KernelKind::Diffusion:
            return "D";
        case KernelKind::InversionRecovery:
            return "T1";
    }
    return "?";
}

Eigen::MatrixXd kernelMatrix(KernelKind kind, const std::vector<double>& samples,
                             const std::vector<double>& axis) {
    const auto rows = static_cast<Eigen::Index>(samples.size());
    const auto cols = static_cast<Eigen::Index>(axis.size());
    Eigen::MatrixXd k(rows, cols);
    for (Eigen::Index j = 0; j < cols; ++j) {
        const double y = axis[static_cast<std::size_t>(j)];
        for (Eigen::Index i = 0; i < rows; ++i) {
            const double x = samples[static_cast<std::size_t>(i)];
            const double exponent = kind == KernelKind::Diffusion ? -(x * y) : -(x / y);
            const double e = exponent > kExponentCutoff ? std::exp(exponent) : 0.0;
            k(i, j) = kind == KernelKind::InversionRecovery ? 1.0 - 2.0 * e : e;
        }
    }
    return k;
}

std::vector<double> logAxis(double lo, double hi, int count) {
    if (!(lo > 0.0) || !(hi > lo) || !std::isfinite(hi))
        throw Exception("A map axis needs 0 < lower end < upper end: " + std::to_string(lo) + " " +
                        std::to_string(hi));
    if (count < 2) throw Exception("A map axis needs at least 2 points: " + std::to_string(count));
    std::vector<double> axis(static_cast<std::size_t>(count));
    const double step = std::log(hi / lo) / (count - 1);
    // Each value from the lower end directly (not a running product), so rounding does
    // not accumulate along the axis; the upper end is set exactly.
    for (int k = 0; k < count; ++k) axis[static_cast<std::size_t>(k)] = lo * std::exp(step * k);
    axis.back() = hi;
    return axis;
}

std::pair<double, double> resolvableRange(KernelKind kind, const std::vector<double>& samples) {
    double smallest = 0.0;
    double largest = 0.0;
    for (double x : samples) {
        if (!(x > 0.0)) continue;
        smallest = smallest > 0.0 ? std::min(smallest, x) : x;
        largest = std::max(largest, x);
    }
    if (!(largest > smallest))
        throw Exception("The " + axisName(kind) +
                        " axis needs at least two different positive sample values");
    // Three times the longest record (or a third of the largest b) at the slow end.
    constexpr double kSlowEndFactor = 3.0;
    if (kind == KernelKind::Diffusion) return {1.0 / (kSlowEndFactor * largest), 1.0 / smallest};
    return {smallest, kSlowEndFactor * largest};
}

std::vector<double> mapAxis(KernelKind kind, const std::vector<double>& samples, int count,
                            std::optional<double> lo, std::optional<double> hi) {
    if (!lo || !hi) {
        const auto range = resolvableRange(kind, samples);
        if (!lo) lo = range.first;
        if (!hi) hi = range.second;
    }
    return logAxis(*lo, *hi, count);
}

}  // namespace nmr::inversion
