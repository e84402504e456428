#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "params/nmr_parameters.h"
#include "sequence/echo_train.h"
#include "sequence/step_plan.h"
#include "t2/t2_inversion.h"

// A CPMG echo train that feels the rock's internal field and an applied gradient, by the
// phase walk. Unlike nmrwalk's decay it carries no clay micro-porosity signal and no
// analytic gradient factor: the gradient is walked through. Units follow the physics:
// gamma = 2 pi gyroMagneticRatio rad/(s T).

namespace nmr {

// The echo spacings asked for, their echo count (none: until the signal falls below 0.1 %
// of its start) and a uniform gradient along B0.
struct CpmgRequest {
    std::vector<double> echoSpacingsMs;
    std::optional<std::uint32_t> echoes;
    double gradient = 0.0;  // T/m
};

// What one echo spacing is walked with. A half echo is stepsPerHalfEcho steps of tau, as
// planSteps fills it.
struct EchoSpacingPlan {
    double echoSpacingMs = 0.0;
    double tauMs = 0.0;
    PhasePlan phase;  // echoes still 0 until counted
};
inline constexpr std::uint32_t kLeastStepsPerHalfEcho = kLeastSteps;
// The echo count when the signal never falls below 0.1 % of its start.
inline constexpr std::uint32_t kMostEchoes = 100000;

// Throws nmr::Exception for an echo spacing that is not positive, a diffusion constant that
// is not, or a cell size that is not.
EchoSpacingPlan planEchoSpacing(const NuclearMagneticResonanceParameters& parameters,
                                double cellSizeM, double echoSpacingMs, double gradient,
                                const StaticField& field);

// The echoes until the train falls below 0.1 % of its start, at most kMostEchoes, judged
// from the first walkers of the job (2000 at most). They walk trains of 32, 64, ... echoes
// until one falls below 0.1 %, or into its own noise, or bulk relaxation alone would bring
// it there: each walker's stream starts afresh, so a longer train repeats the shorter one
// and the doubling costs at most twice the last train. Run it on one process and send the
// count to the others.
template <typename G>
std::uint32_t countEchoes(const G& grid, const FieldMap& field, EchoSpacingPlan plan,
                          std::int32_t seed, std::int64_t walkers, double bulkT2Ms);

// The echo count from a pilot train: signal[k] the mean of echo k + 1 (bulk relaxation
// included), noise[k] its standard error. The first echo below 0.1 %; or, where the mean
// sinks into its noise (below 3 standard errors) first, that echo plus the echoes the
// decay rate of the half train before it needs to reach 0.1 %, at most three times as
// many again. Nothing when the train does not get that far.
std::optional<std::uint32_t> echoesToFloor(const std::vector<double>& signal,
                                           const std::vector<double>& noise);

// The train of one echo spacing: times (ms) of echoes 1 .. M and their amplitudes, the mean
// over the walkers of cos(phase) (0 for a walker absorbed) times exp(-t / T2 bulk).
struct EchoTrain {
    double echoSpacingMs = 0.0;
    double stepVoxels = 0.0;
    std::uint32_t stepsPerHalfEcho = 0;
    std::vector<double> times;
    std::vector<double> amplitudes;
    t2::T2Distribution distribution;  // through nmrwalk's inversion, on nmr.yaml's T2 axis
    double logMeanT2 = 0.0;           // ms
};
EchoTrain echoTrainOf(const EchoSpacingPlan& plan, const ExactSums& sums, std::int64_t walkers,
                      const NuclearMagneticResonanceParameters& parameters);

// "Warning: ..." when the rock holds clay and clayMicroPorosity is above 0: the clay's own
// micro-porosity signal, part of nmrwalk's decay, is not part of a CPMG of this walk.
std::string clayWarning(const NuclearMagneticResonanceParameters& parameters,
                        const std::vector<std::uint64_t>& counters);

template <typename G>
std::uint32_t countEchoes(const G& grid, const FieldMap& field, EchoSpacingPlan plan,
                          std::int32_t seed, std::int64_t walkers, double bulkT2Ms) {
    constexpr std::int64_t kPilotWalkers = 2000;
    // Bulk relaxation alone brings the signal to 0.1 % at T2 ln 1000.
    const double bulkEnd = bulkT2Ms * 6.907755278982137;
    const double most = std::isfinite(bulkEnd) && bulkEnd > 0.0
                            ? std::ceil(bulkEnd / plan.echoSpacingMs)
                            : static_cast<double>(kMostEchoes);
    const auto last =
        static_cast<std::uint32_t>(std::clamp(most, 1.0, static_cast<double>(kMostEchoes)));
    const auto pilot = static_cast<std::uint32_t>(std::min(walkers, kPilotWalkers));
    if (pilot == 0) return last;
    const WalkGridView<G> view = makeWalkGridView(grid);
    for (std::uint32_t echoes = std::min<std::uint32_t>(32, last);;
         echoes = std::min(2 * echoes, last)) {
        plan.phase.echoes = echoes;
        std::vector<double> sums(echoes, 0.0), squares(echoes, 0.0);
        for (std::uint32_t i = 0; i < pilot; ++i) {
            CounterStream stream(seed, i);
            const Walker start = placeWalker(stream, view);
            walkEchoTrain(stream, start, view, field, plan.phase,
                          [&](std::uint32_t k, double phase) {
                              const double c = stableCos(phase);
                              sums[k] += c;
                              squares[k] += c * c;
                          });
        }
        std::vector<double> signal(echoes), noise(echoes);
        for (std::uint32_t k = 0; k < echoes; ++k) {
            const double bulk =
                std::exp(-static_cast<double>(k + 1) * plan.echoSpacingMs / bulkT2Ms);
            const double mean = sums[k] / pilot;
            signal[k] = mean * bulk;
            noise[k] = std::sqrt(std::max(0.0, squares[k] / pilot - mean * mean) / pilot) * bulk;
        }
        if (const auto count = echoesToFloor(signal, noise))
            return std::min(std::max(*count, 1u), last);
        if (echoes == last) return last;
    }
}

}  // namespace nmr
