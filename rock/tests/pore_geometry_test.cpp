#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "common/exception.h"
#include "grid/grid.h"
#include "rock/grid_export.h"
#include "rock/pore_geometry.h"
#include "rock/pore_statistics.h"
#include "rock/tests/test_support.h"
#include "testutil/temp_dir.h"

namespace nmr::rock {
namespace {

PoreStatistics measure(const PoreGeometry& g) {
    PoreStatistics stats(g.nx(), g.ny());
    std::vector<GrainBedGridCell> slice(std::size_t{g.nx()} * g.ny());
    for (std::uint32_t z = 0; z < g.nz(); ++z) {
        g.fillSlice(z, slice.data());
        stats.addSlice(slice.data());
    }
    return stats;
}

TEST(SlabPore, IsExactlyWidthWideWithClayOnBothWalls) {
    const auto stats = measure(SlabPore(12, 5, 3, 6, SolidMaterial{Mineral::Quartz, 2.0}));
    // Pore x = 3..8, clay on x = 3,4 and 7,8: the open pore is 2 wide.
    EXPECT_EQ(stats.count(Mineral::Clay), 4u * 5 * 3);
    EXPECT_EQ(stats.poreCount(), 2u * 5 * 3);
    EXPECT_EQ(stats.count(Mineral::Quartz), 6u * 5 * 3);
    EXPECT_DOUBLE_EQ(stats.surfaceToVolume(1.5), 2.0 / (2.0 * 1.5));  // two faces per row
    const PoreStatistics open = measure(SlabPore(10, 4, 4, 8, SolidMaterial{}));
    EXPECT_DOUBLE_EQ(open.porosity(), 0.8);
    EXPECT_DOUBLE_EQ(open.surfaceToVolume(1.0), 2.0 / 8.0);
    EXPECT_THROW(SlabPore(10, 1, 1, 9, SolidMaterial{}), Exception);  // mirror image would touch
}

class RoundPoreTest : public ::testing::TestWithParam<std::pair<bool, double>> {};

TEST_P(RoundPoreTest, PorosityAndFaceSurfaceMatchClosedForms) {
    const auto [sphere, r] = GetParam();
    const auto n = static_cast<std::uint32_t>(2 * std::ceil(r) + 4);
    // Every voxel face is axis-aligned: a digital sphere shows 6 pi r^2 faces (twice its
    // three projections) against 4/3 pi r^3, a digital disk a staircase perimeter of 8r.
    const PoreStatistics stats = sphere ? measure(SpherePore(n, n, n, r, SolidMaterial{}))
                                        : measure(CylinderPore(n, n, 3, r, SolidMaterial{}));
    const double volume = sphere ? 4.0 / 3.0 * M_PI * r * r * r / (double(n) * n * n)
                                 : M_PI * r * r / (double(n) * n);
    const double faceRatio = sphere ? 4.5 / r : 8.0 / (M_PI * r);
    // Voxelisation error of centre sampling: a few voxels along the rim, relative
    // O(1/r^(4/3)) for the volume and O(1/r) for the staircase surface.
    EXPECT_NEAR(stats.porosity() / volume, 1.0, 2.0 / std::pow(r, 4.0 / 3.0));
    EXPECT_NEAR(stats.surfaceToVolume(2.0) * 2.0 / faceRatio, 1.0, 1.5 / r);
}

INSTANTIATE_TEST_SUITE_P(CylindersAndSpheres, RoundPoreTest,
                         ::testing::Values(std::pair{false, 6.0}, std::pair{false, 15.5},
                                           std::pair{false, 40.0}, std::pair{true, 6.0},
                                           std::pair{true, 12.5}, std::pair{true, 25.0}));

TEST(SpherePack, HitsTheTargetPorosityAndTheBooleanModelSurface) {
    for (const double target : {0.15, 0.35}) {
        SpherePackSettings settings;
        settings.targetPorosity = target;
        settings.seed = 7;
        const SpherePack pack(64, 56, 60, settings);
        const PoreStatistics stats = measure(pack);
        // The prefix is chosen on exact counts: within one grain (~2100 of 215040 voxels).
        EXPECT_NEAR(stats.porosity(), target, 0.01);
        EXPECT_DOUBLE_EQ(stats.porosity(), pack.porosity());
        // Boolean model: S/V = -ln(phi) * 3/R, times 3/2 for axis-aligned voxel faces. The
        // staircase loses faces where grains meet, about 0.7/R here: allow 1/R.
        const double expected = 1.5 * 3.0 * -std::log(stats.porosity()) / settings.radius;
        EXPECT_NEAR(stats.surfaceToVolume(1.0) / expected, 1.0, 1.0 / settings.radius) << target;
    }
}

TEST(SpherePack, SeedDecidesTheRockAndSlicesDoNotDependOnCallOrder) {
    SpherePackSettings settings;
    settings.radius = 5.0;
    const SpherePack a(30, 30, 30, settings), b(30, 30, 30, settings);
    settings.seed = 2;
    const SpherePack c(30, 30, 30, settings);
    std::vector<GrainBedGridCell> sa(900), sb(900), sc(900);
    b.fillSlice(29, sb.data());
    b.fillSlice(3, sb.data());
    a.fillSlice(3, sa.data());
    c.fillSlice(3, sc.data());
    EXPECT_EQ(sa, sb);
    EXPECT_NE(sa, sc);
}

TEST(WriteGeometry, FileHoldsTheGeometryWithMirroredMargins) {
    test::TempDir dir;
    const CylinderPore cylinder(9, 8, 2, 3.0, SolidMaterial{Mineral::Mica, 1.0});
    const PoreStatistics stats = writeGeometry(cylinder, dir.file("c.binc"), 2.5, {2, 1, 3});
    EXPECT_EQ(stats.cellCount(), 9u * 8 * 2);  // the interior only
    const test::GridFile file = test::readGridFile(dir.file("c.binc"));
    for (const char* line : {"nx = 13", "ny = 10", "nz = 8", "marginX = 2", "cellSize = 2.5"})
        EXPECT_TRUE(file.hasLine(line)) << line;
    ASSERT_EQ(file.cells.size(), 13u * 10 * 8);
    std::vector<GrainBedGridCell> slice(72);
    cylinder.fillSlice(0, slice.data());
    for (std::uint32_t i = 0; i < file.cells.size(); ++i) {
        const std::uint32_t sx = mirrorIndex(static_cast<std::int32_t>(i % 13) - 2, 9);
        const std::uint32_t sy = mirrorIndex(static_cast<std::int32_t>(i / 13 % 10) - 1, 8);
        ASSERT_EQ(file.cells[i], slice[sy * 9 + sx]) << "cell " << i;
    }
    // A failed write leaves no file behind.
    const SlabPore slab(4, 4, 4, 2, SolidMaterial{});
    ASSERT_TRUE(std::filesystem::remove(dir.file("c.binc")));
    EXPECT_THROW(writeGeometry(slab, dir.file("slab.binc"), 0.0), Exception);
    EXPECT_THROW(writeGeometry(slab, dir.file("no/dir/slab.binc"), 1.0), Exception);
    EXPECT_THROW(writeGeometry(slab, dir.file("big.binc"), 1.0, {20000, 0, 0}), Exception);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

}  // namespace
}  // namespace nmr::rock
