#pragma once

#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <variant>
#include <vector>

#include "grid/grid.h"
#include "params/nmr_parameters.h"
#include "walk/clay_micro_porosity.h"
#include "walk/decay_curve.h"
#include "walk/saturation.h"
#include "walk/walk_plan.h"

namespace nmr {

// The rock model as every process computes it before walking: the same numbers on every
// process, because each holds the same grid and the same broadcast parameters.
struct RockSummary {
    SaturationSummary saturation;
    double bulkT2Ms = 0.0;        // bulkWaterT2 * 1000
    double resolutionM = 0.0;     // cell size (um) * 1e-6
    double step = 0.0;            // stepLength, voxels
    double halfStep = 0.0;        // the fine step
    ClayMicroPorosityModel clay;  // its t2Micro is T2_micro (ms)
    double fieldTerm = 0.0;       // magnetic field contribution water (1/ms)
};

RockSummary computeRockSummary(NuclearMagneticResonanceParameters& parameters,
                               const Grid<Mineral::Type>& grid);

// One line of the summary block: its label and its value (the grid's sizes, a whole
// number or a real one).
using RockSummaryValue = std::variant<std::array<std::uint32_t, 3>, long long, double>;
struct RockSummaryEntry {
    std::string label;
    RockSummaryValue value;
};
std::vector<RockSummaryEntry> rockSummaryEntries(
    const RockSummary& summary, const NuclearMagneticResonanceParameters& parameters,
    const Grid<Mineral::Type>& grid);

// The summary block of process 0, each line flushed, then a blank pair of lines.
void printRockSummary(std::ostream& out, const RockSummary& summary,
                      const NuclearMagneticResonanceParameters& parameters,
                      const Grid<Mineral::Type>& grid);

// The terms of the decay that the walk does not simulate, from the summary.
DecayModel decayModelOf(const RockSummary& summary);

// The step schedule, both step lengths and both absorption tables, read-only while walking.
WalkPlan buildWalkPlan(const RockSummary& summary,
                       const NuclearMagneticResonanceParameters& parameters);

}  // namespace nmr
