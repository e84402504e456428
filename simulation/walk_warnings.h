#pragma once

#include <string>
#include <vector>

#include "grid/grid.h"
#include "params/nmr_parameters.h"
#include "simulation/rock_summary.h"
#include "walk/walk_plan.h"

namespace nmr {

// Settings that a run accepts, because its rules accept them, but that give a wrong answer
// without a word or a walk that does not end. Each check returns the text of a warning,
// "Warning: ..." on one line, naming the setting, the cause and the remedy; empty when
// there is nothing to say. The run itself is not changed by any of them.

// The walk starts with the fine step (half of stepLength) and switches to the coarse one at
// T2_micro. When the switch never fires (the Clay relaxivity is 0 or missing, so T2_micro
// is infinite; or T2_micro lies beyond the walk's last time) or is never armed (stepLength
// 0.1 or less), every interval is walked with the coarse step on a time axis computed for
// the fine one: every time of the decay comes out 4 times too short.
std::string stepSwitchWarning(const RockSummary& summary, const WalkPlan& plan,
                              const NuclearMagneticResonanceParameters& parameters);

// One warning per negative relaxivity, naming the key and the mineral: a walker is never
// absorbed by such a mineral (the run's validation lets it through).
std::vector<std::string> negativeRelaxivityWarnings(
    const NuclearMagneticResonanceParameters& parameters);

// True when no walker can ever be absorbed: no solid of the grid has a positive absorption
// probability (every relaxivity of the rock's minerals 0 or below, only Matrix, or no solid
// at all). Every walker then walks the whole schedule.
// What the programs other than nmrwalk say instead of walking when a relaxivity is negative:
// "surfaceRelaxationStrengthWater of Quartz is -1e-05 m/s: a relaxivity cannot be negative
// (0 makes a mineral inert)" for the first one; empty when none is.
std::string negativeRelaxivityRefusal(const NuclearMagneticResonanceParameters& parameters);

bool nothingAbsorbs(const Grid<Mineral::Type>& grid, const WalkPlan& plan);

// The warning for such a walk: the steps per walker (the schedule's total), and, when
// stepsPerSecond (of one process, see measureStepRate) is positive, the time the walk
// will take on `processes` processes. Empty when something absorbs.
std::string noAbsorptionWarning(const Grid<Mineral::Type>& grid, const WalkPlan& plan,
                                const NuclearMagneticResonanceParameters& parameters,
                                double stepsPerSecond, int processes);

// Every check above, in that order (negative relaxivities, the step switch, no absorption):
// what a program shows on standard error before it walks. The warnings of the parameters
// alone (meaninglessParameterWarnings) are not repeated here.
std::vector<std::string> walkWarnings(const NuclearMagneticResonanceParameters& parameters,
                                      const RockSummary& summary, const WalkPlan& plan,
                                      const Grid<Mineral::Type>& grid, double stepsPerSecond,
                                      int processes);

}  // namespace nmr
