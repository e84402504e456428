#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fit/reweighted_decay.h"

namespace nmr::fit {

// A measured decay, times in ms, in any amplitude unit.
struct MeasuredDecay {
    std::vector<double> times;
    std::vector<double> values;
};

// The measured points inside the simulated times, with each point's place between two
// interval end times (linear in log time), fixed once: the simulated curve always has a
// point at every interval end up to the same cut.
class MeasuredWindow {
public:
    // Fewer than kLeastPoints points inside is too few to fit; the caller says so.
    MeasuredWindow(const MeasuredDecay& measured, const std::vector<double>& simulatedTimes);
    static constexpr std::size_t kLeastPoints = 10;

    std::size_t size() const { return values_.size(); }
    double first() const { return first_; }
    double last() const { return last_; }
    // The simulated amplitudes (one per simulated time) at the measured times.
    void interpolate(const std::vector<double>& simulated, std::vector<double>& out) const;
    const std::vector<double>& values() const { return values_; }
    const std::vector<double>& times() const { return times_; }
    // Index in the measurement of each point inside.
    const std::vector<std::size_t>& source() const { return source_; }

private:
    std::vector<double> times_;
    std::vector<double> values_;
    std::vector<std::size_t> below_;
    std::vector<double> weight_;  // of the point above
    std::vector<std::size_t> source_;
    double first_ = 0.0;
    double last_ = 0.0;
};

// Sum of squared differences between the simulation and the measurement times a free
// amplitude scale, minimised over the scale in closed form.
struct Misfit {
    double sumOfSquares = 0.0;
    double scale = 0.0;
};
Misfit misfit(const std::vector<double>& simulatedAtMeasured, const std::vector<double>& measured);

struct FitRequest {
    std::vector<Mineral::Type> minerals;  // fitted; every other mineral keeps its value
    std::vector<double> lower;            // bounds per fitted mineral, m/s
    std::vector<double> upper;
};

struct FitResult {
    std::vector<double> value;         // fitted relaxivities, m/s
    std::vector<double> uncertainty;   // one standard deviation, m/s
    std::vector<double> walkerSpread;  // its part from the finite number of walkers
    std::vector<double> dataSpread;    // its part from the scatter of the measurement
    std::vector<bool> atBound;
    Misfit misfit;
    int evaluations = 0;
    MineralValueMap<double> relaxivity;  // every mineral, fitted values in place
};

// Fits the recorded walk to a measurement: the misfit is minimised over the logarithm of
// the fitted relaxivities inside their bounds with NLopt's BOBYQA (Powell's bounded
// derivative-free method on a quadratic model, well suited to a smooth misfit of a few
// variables). The uncertainty of each value combines, in quadrature:
//  - the spread over kResamples bootstrap resamples of the walkers (in chunks), each
//    refitted by one Newton step from the best fit on a finite-difference model of its
//    own misfit, for the finite number of walkers;
//  - the curvature of the misfit scaled by the residual variance (Gauss-Newton), for the
//    scatter of the measurement.
class RelaxivityFit {
public:
    static constexpr int kResamples = 200;

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
    FitResult fit(const FitRequest& request, std::uint32_t seed) const;

private:
    // The fitted point in ln relaxivity, bounds in the same coordinates.
    struct LogPoint {
        std::vector<double> u, lower, upper;
        int evaluations = 0;
    };
    // Survival sums at the stencil points around the fitted point, for a local model.
    struct LocalModel {
        std::vector<std::vector<double>> points;
        std::vector<MineralValueMap<double>> relaxivity;
        std::vector<SurvivalSums> sums;
    };

    LogPoint optimise(const FitRequest& request) const;
    LocalModel localModel(const FitRequest& request, const std::vector<double>& u) const;
    // Spread from the walkers: the fit repeated on resampled chunks, one Newton step each.
    std::vector<double> walkerSpread(const LocalModel& model, const LogPoint& best,
                                     std::uint32_t seed) const;
    // Variances of ln relaxivity from the measurement's scatter (Gauss-Newton).
    std::vector<double> dataVariance(const LocalModel& model, const Misfit& atBest) const;
    // Simulated amplitudes at every interval end up to the cut, per resample weights.
    std::vector<double> amplitudes(const SurvivalSums& sums,
                                   const MineralValueMap<double>& relaxivity,
                                   const std::vector<double>& chunkWeights) const;

    const ExpandedHistories histories_;
    const RecordedRun& run_;
    unsigned threads_;
    std::vector<double> times_;  // interval end times up to the cut
    MeasuredWindow window_;
};

}  // namespace nmr::fit
