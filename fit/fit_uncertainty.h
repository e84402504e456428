#pragma once

#include <Eigen/Dense>

#include <cstddef>
#include <utility>
#include <vector>

#include "fit/fit_search.h"
#include "fit/relaxivity_fit.h"

namespace nmr::fit {

// The uncertainty of a fit at its best point u (ln relaxivities).
//
// The noise. The residuals r = model - scale * measured carry two noises. The walk's own
// Monte Carlo noise is known exactly: the model is a mean over chunks of walkers, so its
// covariance is that of the chunks' decays over their count, C_walk = Z Z^T. The
// measurement's is not known; it is modelled as white noise (an instrument's) plus noise
// shaped like a walk's (a simulated measurement, or a smooth misfit of the model), x I +
// (y - 1) C_walk, and x and y are set so that the residuals' sum of squares and the sum of
// squares of their first differences take their expected values: white noise puts twice
// its variance into the differences, a walk's noise, smooth in time, much less.
//
// Why not the residuals' scatter alone: a walk's noise moves whole stretches of the decay
// together, much as a change of relaxivity does, so most of it lies along the directions
// the fit adjusts and never shows in the residuals. The linearised fit (Gauss-Newton, with
// the Jacobian from central differences) turns the covariance C into that of the fitted
// ln relaxivities, (J^T J)^-1 J^T C J (J^T J)^-1, whose correlations are reported.
//
// The interval. For each relaxivity the misfit is profiled: held at a value, every other
// relaxivity and the scale refitted. In a linear model the profile rises by
// T_i = Var(u_i) / [(J^T J)^-1]_ii at one standard deviation; the interval runs out to where
// the profile has risen by T_i on each side, or to the bound. The profile follows the misfit
// where the linear model does not: along a valley of relaxivities the decay cannot tell
// apart, it spans the valley.
class FitUncertainty {
public:
    FitUncertainty(const RelaxivityFit& fit, FitSearch& search, const std::vector<double>& best);

    FitNoise noise() const { return noise_; }
    // M x M, row-major.
    std::vector<double> correlation() const;
    // The one-standard-deviation interval of ln relaxivity i.
    std::pair<double, double> interval(std::size_t i) const { return intervals_[i]; }
    // Variance of a combination of the relaxivities, from its gradient in ln relaxivity.
    double variance(const std::vector<double>& gradient) const;

private:
    struct Linear {
        Eigen::MatrixXd jacobian;  // n x (M + 1): ln relaxivities, then the scale
        Eigen::MatrixXd walk;      // n x chunks: Z, C_walk = Z Z^T
        Eigen::VectorXd residual;
        double sumOfSquares = 0.0;
    };
    Linear linearise(const RelaxivityFit& fit, FitSearch& search,
                     const std::vector<double>& best) const;
    void propagate(const Linear& linear);
    double profileEdge(FitSearch& search, const std::vector<double>& best, double least,
                       std::size_t i, double side) const;

    std::size_t m_ = 0;
    FitNoise noise_;
    Eigen::MatrixXd covariance_;  // of (ln relaxivities, scale)
    std::vector<double> threshold_;
    std::vector<std::pair<double, double>> intervals_;
};

}  // namespace nmr::fit
