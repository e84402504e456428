#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fit/measured_window.h"
#include "fit/reweighted_decay.h"

namespace nmr::fit {

struct FitRequest {
    std::vector<Mineral::Type> minerals;  // fitted; every other mineral keeps its value
    std::vector<double> lower;            // bounds per fitted mineral, m/s
    std::vector<double> upper;
};

// A fitted value that sits on a bound of its search range: the best fit may lie outside,
// so the caller warns and suggests a range that reaches further on that side.
struct BoundHit {
    std::size_t index = 0;  // into FitRequest::minerals
    bool upper = false;
    double value = 0.0;  // the bound, m/s
    double suggestedLower = 0.0;
    double suggestedUpper = 0.0;
};

// Two fitted relaxivities whose estimates are so strongly correlated that the decay fixes
// only a combination of them (typically minerals that line the same pores).
struct NotDetermined {
    std::size_t first = 0;
    std::size_t second = 0;
    double correlation = 0.0;
};

// The combination a group of not separately determined minerals does fix: their mean
// relaxivity weighted by the pore surface each offers.
struct SurfaceWeightedMean {
    std::vector<std::size_t> members;  // into FitRequest::minerals
    std::vector<double> weights;       // shares of the pore surface, summing to 1
    double value = 0.0;                // m/s
    double uncertainty = 0.0;          // one standard deviation, m/s
};

// The noise the uncertainties are built on, as an rms per measured point in the units of
// the simulated decay: the walk's own Monte Carlo noise (known from its chunks of walkers)
// and the measurement's, as white noise plus noise shaped like a walk's, each scaled to what
// the residuals show.
struct FitNoise {
    double walk = 0.0;
    double measurementWhite = 0.0;
    double measurementShaped = 0.0;
};

struct FitResult {
    std::vector<double> value;  // fitted relaxivities, m/s
    // One standard deviation, m/s: the larger side of `lower`..`upper`.
    std::vector<double> uncertainty;
    // Where the profile of the misfit along each relaxivity (every other relaxivity and the
    // scale refitted) has risen by what one standard deviation of the noise explains; a
    // side that reaches its bound first ends there.
    std::vector<double> lower;
    std::vector<double> upper;
    std::vector<double> correlation;  // M x M, row-major, from the linearised fit
    std::vector<NotDetermined> notDetermined;
    std::vector<SurfaceWeightedMean> combinations;
    std::vector<BoundHit> atBound;
    FitNoise noise;
    Misfit misfit;
    int evaluations = 0;
    MineralValueMap<double> relaxivity;  // every mineral, fitted values in place

    double correlationOf(std::size_t i, std::size_t j) const {
        return correlation[i * value.size() + j];
    }
};

// Fits the recorded walk to a measurement by least squares over the logarithm of the
// fitted relaxivities inside their bounds, the amplitude scale free:
//  1. a coarse look over the whole box in log space (a grid, or a low-discrepancy set of
//     points for many minerals), with a quarter of the walkers, so that a second valley is
//     not missed;
//  2. NLopt's BOBYQA (Powell's bounded derivative-free method on a quadratic model; COBYLA
//     for a single relaxivity) from the best few valleys of that look, with every walker;
//  3. the uncertainty: the misfit is profiled along each relaxivity, every other relaxivity
//     and the scale refitted, out to where it has risen by what one standard deviation of
//     the noise explains. That threshold comes from the linearised fit with the noise's
//     own covariance: the decay's residuals are strongly correlated in time (the walk's
//     Monte Carlo error moves whole stretches of the curve together), so it is the noise's
//     variance along the direction in which each relaxivity changes the decay, not the
//     residuals' scatter, that sets the threshold.
class RelaxivityFit {
public:
    // Keeps its own expanded copy of the histories (see ExpandedHistories), so the caller
    // may release its byte stream once the fit is made.
    RelaxivityFit(const ContactHistories& histories, const RecordedRun& run,
                  const MeasuredDecay& measured, unsigned threads);

    const MeasuredWindow& window() const { return window_; }
    // The relaxivities of the parameter file with `values` in place of the fitted ones.
    MineralValueMap<double> relaxivities(const std::vector<Mineral::Type>& minerals,
                                         const std::vector<double>& values) const;
    // Misfit of the simulation at these relaxivities.
    Misfit misfitAt(const MineralValueMap<double>& relaxivity) const;
    // The decay at these relaxivities as a run would report it (points above 0.001).
    DecayCurve decayAt(const MineralValueMap<double>& relaxivity) const;
    FitResult fit(const FitRequest& request) const;

    // Above this correlation two relaxivities count as not separately determined: the decay
    // then pins each of them at least 2.3 times less well than their combination.
    static constexpr double kDeterminedCorrelation = 0.9;

private:
    friend class FitSearch;
    friend class FitUncertainty;

    // The simulated decay at the measured points, from every chunk (stride 1) or every
    // stride-th chunk.
    std::vector<double> modelAt(const MineralValueMap<double>& relaxivity,
                                std::size_t stride = 1) const;
    // The same per chunk of walkers, for the walk's own Monte Carlo noise.
    std::vector<std::vector<double>> chunkModels(const MineralValueMap<double>& relaxivity) const;
    std::vector<double> amplitudes(const SurvivalSums& sums,
                                   const MineralValueMap<double>& relaxivity) const;

    const ExpandedHistories histories_;
    const RecordedRun& run_;
    unsigned threads_;
    std::vector<double> times_;  // interval end times up to the cut
    MeasuredWindow window_;
};

}  // namespace nmr::fit
