#pragma once

#include <cstdint>
#include <vector>

#include "walk/clay_micro_porosity.h"

namespace nmr {

// The magnetization decay on process 0: times in ms and normalised amplitudes.
struct DecayCurve {
    std::vector<double> times;
    std::vector<double> values;
};

// Normalised magnetization at time t (ms) when the fraction f of the walkers has been
// absorbed. The pore water (share w - s) decays as the walkers survive, the clay water
// (share s) with the clay components; both are damped by bulk relaxation (bulkT2 in ms)
// and the gradient term g (1/ms). List B is read at list A's indices.
double decayAmplitude(double f, double t, const ClayComponents& listA, const ClayComponents& listB,
                      double totalWaterSaturation, double clayFraction, double bulkT2,
                      double fieldTerm);

// Turns the summed histogram (M counters) into the curve: the absorbed fraction after
// interval i is the running sum over numberOfWalkers (the requested count, not the
// created one). Points at or below 0.001 are skipped, not a stop.
DecayCurve buildDecayCurve(const std::vector<std::uint32_t>& summedCounts,
                           const std::vector<double>& intervalEndTime, std::int32_t numberOfWalkers,
                           const ClayMicroPorosityModel& clay, double totalWaterSaturation,
                           double clayFraction, double bulkT2, double fieldTerm);

}  // namespace nmr
