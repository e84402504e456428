#include "sequence/cpmg.h"

#include <cmath>

#include "analysis/t2_summary.h"
#include "common/exception.h"
#include "common/text.h"
#include "sequence/step_plan.h"

namespace nmr {

EchoSpacingPlan planEchoSpacing(const NuclearMagneticResonanceParameters& parameters,
                                double cellSizeM, double echoSpacingMs, double gradient,
                                const StaticField& field) {
    if (!(echoSpacingMs > 0.0) || !std::isfinite(echoSpacingMs))
        throw Exception("An echo spacing must be a positive number of ms: " +
                        shortNumber(echoSpacingMs));
    StepPlan steps = planSteps(parameters, cellSizeM, 0.5 * echoSpacingMs);
    EchoSpacingPlan plan;
    plan.echoSpacingMs = echoSpacingMs;
    plan.tauMs = steps.tauMs;
    plan.phase.step = steps.step;
    plan.phase.stepsPerHalfEcho = steps.steps;
    plan.phase.table = std::move(steps.table);
    const double gamma = gammaOf(parameters);
    const double tauSeconds = plan.tauMs / 1000.0;
    plan.phase.fieldPhase = gamma * field.b0 * tauSeconds;
    plan.phase.gradientPhase = gamma * gradient * cellSizeM * tauSeconds;
    plan.phase.axis = field.axis;
    return plan;
}

EchoTrain echoTrainOf(const EchoSpacingPlan& plan, const ExactSums& sums, std::int64_t walkers,
                      const NuclearMagneticResonanceParameters& parameters) {
    EchoTrain train;
    train.echoSpacingMs = plan.echoSpacingMs;
    train.stepVoxels = plan.phase.step;
    train.stepsPerHalfEcho = plan.phase.stepsPerHalfEcho;
    const double bulkT2Ms = parameters.bulkWaterT2() * 1000.0;
    const double count = walkers > 0 ? static_cast<double>(walkers) : 1.0;
    for (std::size_t k = 0; k < sums.size(); ++k) {
        const double t = static_cast<double>(k + 1) * plan.echoSpacingMs;
        train.times.push_back(t);
        train.amplitudes.push_back(sums.sum(k) / count * std::exp(-t / bulkT2Ms));
    }
    train.distribution = t2::invertDecay(train.times, train.amplitudes, parameters.t2Minimum(),
                                         parameters.t2Maximum(), parameters.t2Components());
    train.logMeanT2 =
        analysis::summariseT2(train.distribution.t2, train.distribution.amplitude).logMeanT2;
    return train;
}

std::optional<std::uint32_t> echoesToFloor(const std::vector<double>& signal,
                                           const std::vector<double>& noise) {
    constexpr double kFloor = 1e-3;
    for (std::size_t k = 0; k < signal.size(); ++k) {
        if (signal[k] < kFloor) return static_cast<std::uint32_t>(k + 1);
        if (signal[k] >= 3.0 * noise[k]) continue;
        // Lost in the noise above the floor: go on at the rate of the half train before.
        const std::size_t half = k / 2;
        if (half == k || !(signal[half] > signal[k])) continue;
        const double rate = std::log(signal[half] / signal[k]) / static_cast<double>(k - half);
        // A rate read so close to the noise is rough: at most three times as many again.
        const double more = std::min(std::ceil(std::log(signal[k] / kFloor) / rate),
                                     3.0 * static_cast<double>(k + 1));
        return static_cast<std::uint32_t>(
            std::min(static_cast<double>(k + 1) + more, static_cast<double>(kMostEchoes)));
    }
    return std::nullopt;
}

std::string clayWarning(const NuclearMagneticResonanceParameters& parameters,
                        const std::vector<std::uint64_t>& counters) {
    const bool clay = Mineral::Clay < counters.size() && counters[Mineral::Clay] > 0;
    if (!clay || !(parameters.clayMicroPorosity() > 0.0)) return {};
    return "Warning: the rock holds Clay and clayMicroPorosity is " +
           shortNumber(parameters.clayMicroPorosity()) +
           ": the signal of the water in the clay's micro-pores, part of nmrwalk's decay, is "
           "not part of this echo train, which holds the walkers' signal alone. Set "
           "clayMicroPorosity to 0 to compare the two.";
}

}  // namespace nmr
