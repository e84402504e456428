// Diffusion editing against free water: the D-T2 map of its data holds one peak at (D0,
// bulk T2). A statistical check with many walkers: labelled physics.
#include <gtest/gtest.h>

#include <cmath>

#include "grid/byte_mineral_grid.h"
#include "inversion/kernel.h"
#include "inversion/map_inversion.h"
#include "sequence/dt2.h"

namespace nmr {
namespace {

constexpr double kDiffusion = 2.5e-9;  // m^2/s
constexpr double kBulkT2Ms = 100.0;

// Free water in an all-pore box (its mirror images continue it), so every walker lives and
// the data are E(b) exp(-t / T2 bulk) with t the time since excitation, E(b) = exp(-b D0)
// from the walk. Their map, with the kernel exp(-b D) exp(-t / T2) and t so counted, has
// its log-means within 5 % of D0 and the bulk T2, as its one peak must, and its total
// within 5 % of 1 (E(0) = 1; the noise is that of 4000 walkers). Counting t from the first
// echo after the encoding, which leaves the relaxation of Delta = 20 ms out of the kernel,
// loses 18 % of the total; q taken as sqrt(b) without Delta moves D by far more.
TEST(Dt2Physics, FreeWaterGivesOnePeakAtD0AndTheBulkT2) {
    const ByteMineralGrid box(8, 8, 8, 0, 0, 0, 10.0);
    NuclearMagneticResonanceParameters parameters;
    parameters.setDiffusionConstantWater(kDiffusion);
    parameters.setStepLength(0.5);
    parameters.setBulkWaterT2(kBulkT2Ms / 1000.0);
    std::vector<double> b;
    b.reserve(12);
    for (int j = 0; j < 12; ++j) b.push_back(3.0 / kDiffusion * j / 11.0);
    const Dt2Plan plan = planDt2(parameters, 10e-6, 20.0, b, 2.0, 350);
    constexpr std::uint32_t kWalkers = 4000;
    DiffusionEditingWalk<ByteMineralGrid> walk(box, plan, 7, 0);
    ExactSums sums = walk.emptyTally();
    for (std::uint32_t i = 0; i < kWalkers; ++i) walk.walk(i, sums);
    const Dt2Data data = dt2Data(plan, sums, kWalkers, kBulkT2Ms);
    EXPECT_NEAR(data.amplitude(0, 0), std::exp(-data.timesMs[0] / kBulkT2Ms), 1e-12);

    using inversion::KernelKind;
    const std::vector<double> dAxis = inversion::mapAxis(KernelKind::Diffusion, data.b, 30);
    const std::vector<double> t2Axis = inversion::mapAxis(KernelKind::Decay, data.timesMs, 30);
    const inversion::MapResult map =
        inversion::invertMap(inversion::separableKernel(KernelKind::Diffusion, data.b, dAxis,
                                                        KernelKind::Decay, data.timesMs, t2Axis),
                             data.amplitude);
    EXPECT_NEAR(map.logMean1 / kDiffusion, 1.0, 0.05);
    EXPECT_NEAR(map.logMean2 / kBulkT2Ms, 1.0, 0.05);
    EXPECT_NEAR(map.map.sum(), 1.0, 0.05);
}

}  // namespace
}  // namespace nmr
