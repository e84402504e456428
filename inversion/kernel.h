#pragma once

#include <Eigen/Dense>
#include <optional>
#include <string>
#include <vector>

namespace nmr::inversion {

// The one-dimensional experiments a map axis can come from. Each names the kernel
// K(i, j) between a sampled quantity x_i and an axis value y_j:
//   Decay               exp(-x / y): echo time and T2 in one unit (ms);
//   Diffusion           exp(-x * y): b in s/m^2 and D in m^2/s;
//   InversionRecovery   1 - 2 exp(-x / y): recovery time and T1 in one unit (ms).
enum class KernelKind { Decay, Diffusion, InversionRecovery };

// "T2", "D" or "T1": how messages and outputs name the axis of a kind.
std::string axisName(KernelKind kind);

// Exponents at or below this give an element of exactly 0 (or exactly 1 in the recovery
// kernel) instead of a denormal that costs time and carries no information.
inline constexpr double kExponentCutoff = -100.0;

// The kernel of a kind between samples and axis, samples.size() x axis.size(). The values
// are not checked: axis values must be positive, samples non-negative.
Eigen::MatrixXd kernelMatrix(KernelKind kind, const std::vector<double>& samples,
                             const std::vector<double>& axis);

// Ascending axis of count values from lo to hi, equally spaced in log; the ends are
// exact. Throws nmr::Exception unless 0 < lo < hi and count >= 2.
std::vector<double> logAxis(double lo, double hi, int count);

// The axis range the samples can resolve, as [lo, hi]:
//   time-like kinds (Decay, InversionRecovery): from the smallest positive sample to
//     three times the largest;
//   Diffusion: from 1 / (3 * largest b) to 1 / (smallest positive b).
// A component faster than the first sample is gone (or recovered) by e^-1 before it is
// seen; the factor three at the slow end keeps a component that changes by only
// 1 - e^(-1/3) = 28 % over the record on the axis, so that a slow peak near the end of
// the record is not piled against the edge. Throws nmr::Exception naming the axis when
// fewer than two distinct positive samples exist.
std::pair<double, double> resolvableRange(KernelKind kind, const std::vector<double>& samples);

// The axis of a map: count log-spaced values over resolvableRange(kind, samples), with
// either end replaced by the caller's. Throws as resolvableRange and logAxis do.
std::vector<double> mapAxis(KernelKind kind, const std::vector<double>& samples, int count,
                            std::optional<double> lo = std::nullopt,
                            std::optional<double> hi = std::nullopt);

}  // namespace nmr::inversion
