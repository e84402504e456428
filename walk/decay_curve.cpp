#include "walk/decay_curve.h"

#include <cmath>

namespace nmr {

double decayAmplitude(double f, double t, const DecayModel& model) {
    const ClayComponents& listA = model.clay.listA;
    const ClayComponents& listB = model.clay.listB;
    double sumA = 0.0;
    double sumB = 0.0;
    for (std::size_t k = 0; k < listA.size(); ++k) {
        sumA += listA.amplitude[k] * std::exp(-t / listA.t2[k]);
        // A list B shorter than list A contributes nothing past its end.
        if (k < listB.size()) sumB += listB.amplitude[k] * std::exp(-t / listB.t2[k]);
    }
    // 95 % of the clay signal relaxes on clay walls, the rest on quartz; without a
    // quartz signal list A carries it all. The quartz share is 1 - 0.95 as the double
    // it always was, not 0.05.
    constexpr double kQuartzShare = 0.050000000000000044;
    const double weightA = (sumB == 0.0 || listA.empty()) ? 1.0 : 0.95;
    const double claySignal = sumA * weightA + sumB * kQuartzShare;
    return ((model.totalWaterSaturation - model.clayFraction) * (1.0 - f) +
            claySignal * model.clayFraction) *
           (std::exp(-t / model.bulkT2) * std::exp(-t * model.fieldTerm));
}

DecayCurve buildDecayCurve(const std::vector<std::uint32_t>& summedCounts,
                           const std::vector<double>& intervalEndTime, std::int32_t numberOfWalkers,
                           const DecayModel& model) {
    constexpr double kSmallestKept = 0.001;
    DecayCurve curve;
    double absorbed = 0.0;
    for (std::size_t i = 0; i < summedCounts.size(); ++i) {
        absorbed += static_cast<double>(summedCounts[i]);
        const double f = absorbed / static_cast<double>(numberOfWalkers);
        const double t = intervalEndTime.at(i);
        const double a = decayAmplitude(f, t, model);
        if (a > kSmallestKept) {
            curve.times.push_back(t);
            curve.values.push_back(a);
        }
    }
    return curve;
}

}  // namespace nmr
