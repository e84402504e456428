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

// The terms of the decay that the walk does not simulate. The pore water (share
// totalWaterSaturation - clayFraction) decays as the walkers survive, the clay water
// (share clayFraction) with the clay components; both are damped by bulk relaxation
// (bulkT2 in ms) and the gradient term (fieldTerm, 1/ms).
struct DecayModel {
    ClayMicroPorosityModel clay;
    double totalWaterSaturation = 0.0;
    double clayFraction = 0.0;
    double bulkT2 = 0.0;
    double fieldTerm = 0.0;
};

// Normalised magnetization at time t (ms) when the fraction f of the walkers has been
// absorbed. List B of the clay model is read at list A's indices.
double decayAmplitude(double f, double t, const DecayModel& model);

// Turns the summed histogram (M counters) into the curve: the absorbed fraction after
// interval i is the running sum over numberOfWalkers (the requested count, not the
// created one). Points at or below 0.001 are skipped, not a stop.
DecayCurve buildDecayCurve(const std::vector<std::uint32_t>& summedCounts,
                           const std::vector<double>& intervalEndTime, std::int32_t numberOfWalkers,
                           const DecayModel& model);

}  // namespace nmr
