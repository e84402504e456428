#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <random>
#include <vector>

#include "grid/byte_mineral_grid.h"
#include "sequence/cpmg.h"
#include "sequence/echo_train.h"
#include "simulation/exact_sums.h"
#include "walk/field_map.h"
#include "walk/stable_trig.h"
#include "walk/walker.h"

namespace nmr {
namespace {

// An all-pore box: ByteMineralGrid cells start as pore.
std::shared_ptr<ByteMineralGrid> porousBox(std::uint32_t n) {
    return std::make_shared<ByteMineralGrid>(n, n, n, 0, 0, 0, 1.0);
}

TEST(PhaseWalk, FrozenSpinsRefocusExactlyInAnyStaticField) {
    // Walkers that never move (a step of length 0) in a field that varies from cell to cell:
    // the pi pulses cancel every phase at every echo, to the last bit. A
    // pulse left out, or put at the echo instead of half-way, leaves phases of order 1.
    const auto grid = porousBox(6);
    std::vector<float> cells(216);
    std::mt19937 random(5);
    for (float& c : cells) c = std::uniform_real_distribution<float>(-1e-5f, 1e-5f)(random);
    const FieldMap field = bricked(cells.data(), 6, 6, 6);
    PhasePlan plan;
    plan.step = 0.0;
    plan.stepsPerHalfEcho = 9;
    plan.echoes = 40;
    plan.table.assign(Mineral::count(), 0.0);
    plan.fieldPhase = 3e4;  // rad per unit of dB/B0 per step: 0.3 rad a step here
    const WalkGridView<ByteMineralGrid> view = makeWalkGridView(*grid);
    for (std::uint64_t w = 0; w < 20; ++w) {
        CounterStream stream(3, w);
        const Walker start = placeWalker(stream, view);
        std::uint32_t echoes = 0;
        walkEchoTrain(stream, start, view, field, plan, [&](std::uint32_t, double phase) {
            ASSERT_EQ(phase, 0.0);
            ++echoes;
        });
        EXPECT_EQ(echoes, plan.echoes);
    }
}

TEST(PhaseWalk, EchoSumsDoNotDependOnHowTheWalkersAreDivided) {
    // Per-walker values summed in one go, and in two parts merged the other way round: the
    // same bits, which a floating-point sum does not give; and the sum itself.
    std::mt19937 random(9);
    std::vector<double> values(5000);
    for (double& v : values) v = std::uniform_real_distribution<double>(-1.0, 1.0)(random);
    ExactSums whole(1), first(1), second(1);
    for (std::size_t i = 0; i < values.size(); ++i) {
        whole.add(0, values[i]);
        (i < 1777 ? first : second).add(0, values[i]);
    }
    second.merge(first);
    EXPECT_EQ(whole.sum(0), second.sum(0));
    // Truncation to 2^-52 loses under 5000 * 2^-52 in all.
    EXPECT_NEAR(whole.sum(0), std::accumulate(values.begin(), values.end(), 0.0), 1e-11);
    ExactSums restored(1);
    EXPECT_TRUE(restored.restore(whole.save()));
    EXPECT_EQ(restored.sum(0), whole.sum(0));
    EXPECT_FALSE(restored.restore(std::string(15, '\0')));  // another size
}

TEST(PhaseWalk, StableCosineAgreesWithTheLibraryToAFewUnitsInTheLastPlace) {
    // Over phases of thousands of radians; a quadrant or a series term wrong misses by far
    // more than this.
    std::mt19937 random(2);
    std::uniform_real_distribution<double> phase(-5000.0, 5000.0);
    constexpr double kEpsilon = 2.220446049250313e-16;
    for (int i = 0; i < 200000; ++i) {
        const double x = i < 1000 ? (i - 500) * 0.0031415 : phase(random);
        const double expected = std::cos(x);
        ASSERT_NEAR(stableCos(x), expected, 1e-15 + 4.0 * kEpsilon * std::abs(expected)) << x;
    }
}

TEST(FieldMap, BricksHoldEveryCellAndInterpolationIsTrilinearAndMirrored) {
    // Sizes that are not multiples of the brick, one of them 1 and one 7.
    const std::uint32_t nx = 7, ny = 1, nz = 10;
    std::vector<float> cells(std::size_t{nx} * ny * nz);
    for (std::size_t c = 0; c < cells.size(); ++c) cells[c] = static_cast<float>(c);
    const FieldMap field = bricked(cells.data(), nx, ny, nz);
    for (std::uint32_t z = 0; z < nz; ++z)
        for (std::uint32_t x = 0; x < nx; ++x) ASSERT_EQ(field.at(x, 0, z), cells[z * nx + x]);
    // A field linear in x and z is reproduced exactly between cell centres...
    EXPECT_DOUBLE_EQ(field.interpolate(2.5, 0.5, 3.5), cells[3 * nx + 2]);
    EXPECT_DOUBLE_EQ(field.interpolate(2.75, 0.3, 3.5), cells[3 * nx + 2] + 0.25);
    EXPECT_DOUBLE_EQ(field.interpolate(2.5, 0.9, 4.25), cells[3 * nx + 2] + 0.75 * nx);
    // Outside, the field follows the walk's mirrored extension of the rock: at the centre
    // of every cell of the extension it is the value of the grid's cell that the walk reads
    // there. Reflecting at the faces instead puts it a cell off past the first face, and
    // further at every image.
    MirrorAxis mirrorX(nx), mirrorZ(nz);
    for (int i = -40; i < 40; ++i) {
        const std::uint32_t x = mirrorX(i), z = mirrorZ(i);
        ASSERT_DOUBLE_EQ(field.interpolate(i + 0.5, 7.5, i + 0.5), cells[z * nx + x]) << i;
    }
    EXPECT_DOUBLE_EQ(field.interpolate(-0.25, 0.5, 0.5), field.interpolate(1.25, 0.5, 0.5));
}

}  // namespace
}  // namespace nmr

namespace nmr {
namespace {

TEST(EchoCount, ReachesTheFloorOrExtrapolatesFromWhereTheSignalSinksIntoItsNoise) {
    // exp(-k / 100) falls below 0.1 % at echo 692 (k = 691).
    std::vector<double> signal(1000), quiet(1000, 0.0), noisy(1000, 0.01);
    for (std::size_t k = 0; k < signal.size(); ++k)
        signal[k] = std::exp(-static_cast<double>(k) / 100.0);
    EXPECT_EQ(echoesToFloor(signal, quiet), 692u);
    // With a standard error of 0.01 it sinks below 3 of them at k = 351; the rate of the
    // half train before it carries it on to the same echo.
    const auto extrapolated = echoesToFloor(signal, noisy);
    ASSERT_TRUE(extrapolated.has_value());
    EXPECT_NEAR(*extrapolated, 692.0, 2.0);
    // A train that neither falls nor sinks gives no count.
    EXPECT_FALSE(echoesToFloor(std::vector<double>(50, 0.5), quiet).has_value());
}

}  // namespace
}  // namespace nmr
