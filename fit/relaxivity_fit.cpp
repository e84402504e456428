#include "fit/relaxivity_fit.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#include "fit/fit_search.h"
#include "fit/fit_uncertainty.h"

namespace nmr::fit {

namespace {

// The simulated times a fit compares at: every interval end up to the cut of the decay at
// the floor relaxivities, the lowest the recording serves, whose decay lasts longest.
std::vector<double> simulatedTimes(const ExpandedHistories& histories, const RecordedRun& run,
                                   unsigned threads) {
    const SurvivalSums sums = survivalSums(histories, run, run.floor, threads);
    const std::size_t kept = keptIntervals(totalSurvival(sums, {}));
    return {run.intervalEndTime.begin(),
            run.intervalEndTime.begin() + static_cast<std::ptrdiff_t>(kept)};
}

// Pore surface per fitted mineral, in voxel faces.
std::vector<double> surfaceOf(const RecordedRun& run, const FitRequest& request) {
    std::vector<double> faces;
    for (Mineral::Type code : request.minerals) {
        faces.push_back(code < run.poreFaces.size() ? static_cast<double>(run.poreFaces[code])
                                                    : 0.0);
    }
    return faces;
}

// Groups of minerals joined by not-determined pairs, each group's members ascending.
std::vector<std::vector<std::size_t>> groupsOf(const std::vector<NotDetermined>& pairs,
                                               std::size_t m) {
    std::vector<std::size_t> group(m);
    std::iota(group.begin(), group.end(), 0);
    auto root = [&group](std::size_t i) {
        while (group[i] != i) i = group[i];
        return i;
    };
    for (const NotDetermined& p : pairs) group[root(p.second)] = root(p.first);
    std::vector<std::vector<std::size_t>> groups;
    for (std::size_t i = 0; i < m; ++i) {
        if (root(i) != i) continue;
        std::vector<std::size_t> members;
        for (std::size_t j = 0; j < m; ++j) {
            if (root(j) == i) members.push_back(j);
        }
        if (members.size() > 1) groups.push_back(members);
    }
    return groups;
}

// A side of the search range that the fit pressed against: the suggested range reaches a
// decade further on that side and keeps the other.
std::vector<BoundHit> boundHits(const FitRequest& request, const std::vector<double>& u) {
    constexpr double kTouching = 1e-3;  // in ln(relaxivity): 0.1 %
    constexpr double kFurther = 10.0;
    std::vector<BoundHit> hits;
    for (std::size_t i = 0; i < request.minerals.size(); ++i) {
        const double lower = request.lower[i];
        const double upper = request.upper[i];
        if (u[i] >= std::log(upper) - kTouching) {
            hits.push_back({i, true, upper, lower, upper * kFurther});
        } else if (u[i] <= std::log(lower) + kTouching) {
            hits.push_back({i, false, lower, lower / kFurther, upper});
        }
    }
    return hits;
}

}  // namespace

RelaxivityFit::RelaxivityFit(const ContactHistories& histories, const RecordedRun& run,
                             const MeasuredDecay& measured, unsigned threads)
    : histories_(expandHistories(histories)),
      run_(run),
      threads_(threads),
      times_(simulatedTimes(histories_, run, threads)),
      window_(measured, times_) {}

MineralValueMap<double> RelaxivityFit::relaxivities(const std::vector<Mineral::Type>& minerals,
                                                    const std::vector<double>& values) const {
    MineralValueMap<double> relaxivity = run_.relaxivity;
    for (std::size_t m = 0; m < minerals.size(); ++m) relaxivity.set(minerals[m], values[m]);
    return relaxivity;
}

std::vector<double> RelaxivityFit::amplitudes(const SurvivalSums& sums,
                                              const MineralValueMap<double>& relaxivity) const {
    // The curve is taken as far as the window was laid out for, whatever the relaxivities,
    // so every measured point keeps its two neighbours.
    return decayAmplitudes(totalSurvival(sums, {}), run_, relaxivity, times_.size(),
                           ScheduleEmulation::Smooth);
}

std::vector<double> RelaxivityFit::modelAt(const MineralValueMap<double>& relaxivity,
                                           std::size_t stride) const {
    const SurvivalSums sums = survivalSums(histories_, run_, relaxivity, threads_, stride);
    std::vector<double> atMeasured;
    window_.interpolate(amplitudes(sums, relaxivity), atMeasured);
    return atMeasured;
}

std::vector<std::vector<double>> RelaxivityFit::chunkModels(
    const MineralValueMap<double>& relaxivity) const {
    const SurvivalSums sums = survivalSums(histories_, run_, relaxivity, threads_);
    std::vector<std::vector<double>> models(sums.perChunk.size());
    for (std::size_t c = 0; c < sums.perChunk.size(); ++c) {
        SurvivalTotals chunk;
        chunk.surviving = sums.perChunk[c];
        chunk.walkers = sums.walkers[c];
        window_.interpolate(
            decayAmplitudes(chunk, run_, relaxivity, times_.size(), ScheduleEmulation::Smooth),
            models[c]);
    }
    return models;
}

Misfit RelaxivityFit::misfitAt(const MineralValueMap<double>& relaxivity) const {
    return misfit(modelAt(relaxivity), window_.values());
}

DecayCurve RelaxivityFit::decayAt(const MineralValueMap<double>& relaxivity) const {
    return reweightedDecay(survivalSums(histories_, run_, relaxivity, threads_), run_, relaxivity,
                           false);
}

FitResult RelaxivityFit::fit(const FitRequest& request) const {
    const std::size_t m = request.minerals.size();
    FitSearch search(*this, request);
    const FitSearch::Point best = search.best();

    FitResult result;
    result.value.resize(m);
    for (std::size_t i = 0; i < m; ++i) result.value[i] = std::exp(best.u[i]);
    result.relaxivity = relaxivities(request.minerals, result.value);
    result.misfit = misfitAt(result.relaxivity);
    result.atBound = boundHits(request, best.u);

    const FitUncertainty uncertainty(*this, search, best.u);
    result.noise = uncertainty.noise();
    result.correlation = uncertainty.correlation();
    result.lower.resize(m);
    result.upper.resize(m);
    result.uncertainty.resize(m);
    for (std::size_t i = 0; i < m; ++i) {
        const auto [lo, hi] = uncertainty.interval(i);
        result.lower[i] = std::exp(lo);
        result.upper[i] = std::exp(hi);
        result.uncertainty[i] =
            std::max(result.value[i] - result.lower[i], result.upper[i] - result.value[i]);
    }
    for (std::size_t i = 0; i < m; ++i) {
        for (std::size_t j = i + 1; j < m; ++j) {
            const double r = result.correlationOf(i, j);
            if (std::abs(r) > kDeterminedCorrelation) result.notDetermined.push_back({i, j, r});
        }
    }
    const std::vector<double> surface = surfaceOf(run_, request);
    for (const auto& members : groupsOf(result.notDetermined, m)) {
        SurfaceWeightedMean mean;
        mean.members = members;
        double total = 0.0;
        for (std::size_t k : members) total += surface[k];
        std::vector<double> gradient(m, 0.0);  // of the mean in ln(relaxivity)
        for (std::size_t k : members) {
            const double w =
                total > 0.0 ? surface[k] / total : 1.0 / static_cast<double>(members.size());
            mean.weights.push_back(w);
            mean.value += w * result.value[k];
            gradient[k] = w * result.value[k];
        }
        mean.uncertainty = std::sqrt(std::max(uncertainty.variance(gradient), 0.0));
        result.combinations.push_back(std::move(mean));
    }
    result.evaluations = search.evaluations();
    return result;
}

}  // namespace nmr::fit
