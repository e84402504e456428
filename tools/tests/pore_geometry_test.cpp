#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "common/exception.h"
#include "grid/grid.h"
#include "tools/grid_export.h"
#include "tools/pore_geometry.h"
#include "tools/pore_statistics.h"
#include "tools/tests/test_support.h"

namespace nmr::tools {
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

TEST(PoreStatistics, CountsFacesBetweenPoreAndAnySolid) {
    // 3x2x2: one pore voxel at (1,0,0) next to Quartz at x and z, Clay at y.
    // Faces: (0,0,0)|(1,0,0), (1,0,0)|(2,0,0), (1,0,0)|(1,1,0), (1,0,0)|(1,0,1) = 4.
    std::vector<GrainBedGridCell> z0(6, GrainBedGridCell::make(1, Mineral::Quartz));
    z0[1] = GrainBedGridCell::make(0, Mineral::Pore);
    z0[4] = GrainBedGridCell::make(2, Mineral::Clay);
    const std::vector<GrainBedGridCell> z1(6, GrainBedGridCell::make(1, Mineral::Quartz));
    PoreStatistics stats(3, 2);
    stats.addSlice(z0.data());
    stats.addSlice(z1.data());
    EXPECT_EQ(stats.poreSolidFaces(), 4u);
    EXPECT_EQ(stats.poreCount(), 1u);
    EXPECT_EQ(stats.count(Mineral::Clay), 1u);
    EXPECT_DOUBLE_EQ(stats.porosity(), 1.0 / 12.0);
    EXPECT_DOUBLE_EQ(stats.surfaceToVolume(2.0), 4.0 / (1.0 * 2.0));
}

TEST(SlabPore, IsExactlyWidthWideWithClayOnBothWalls) {
    const SlabPore slab(12, 5, 3, 6, SolidSpec{Mineral::Quartz, 2.0});
    const PoreStatistics stats = measure(slab);
    // Pore x = 3..8, clay on x = 3,4 and 7,8: the open pore is 2 wide.
    EXPECT_EQ(stats.count(Mineral::Clay), 4u * 5 * 3);
    EXPECT_EQ(stats.poreCount(), 2u * 5 * 3);
    EXPECT_EQ(stats.count(Mineral::Quartz), 6u * 5 * 3);
    // Two faces per row: S/V = 2 / open width.
    EXPECT_DOUBLE_EQ(stats.surfaceToVolume(1.5), 2.0 / (2.0 * 1.5));

    const SlabPore open(10, 4, 4, 8, SolidSpec{});
    EXPECT_DOUBLE_EQ(measure(open).porosity(), 0.8);
    EXPECT_DOUBLE_EQ(measure(open).surfaceToVolume(1.0), 2.0 / 8.0);
}

TEST(SinglePores, RejectSizesWhereTheMirrorImageWouldTouch) {
    EXPECT_THROW(SlabPore(10, 1, 1, 9, SolidSpec{}), Exception);
    EXPECT_THROW(CylinderPore(20, 21, 1, 10.0, SolidSpec{}), Exception);
    EXPECT_NO_THROW(CylinderPore(21, 21, 1, 10.0, SolidSpec{}));
    EXPECT_THROW(SpherePore(30, 30, 20, 10.0, SolidSpec{}), Exception);
    EXPECT_THROW(SpherePore(30, 30, 30, 10.0, SolidSpec{Mineral::Pore, 0.0}), Exception);
}

struct RoundPoreCase {
    bool sphere;
    double radius;
};

class RoundPoreTest : public ::testing::TestWithParam<RoundPoreCase> {};

TEST_P(RoundPoreTest, PorosityAndFaceSurfaceMatchClosedForms) {
    const auto [sphere, r] = GetParam();
    const auto n = static_cast<std::uint32_t>(2 * std::ceil(r) + 4);
    const double cell = 2.0;
    PoreStatistics stats(1, 1);
    double volume = 0.0, faceRatio = 0.0;
    if (sphere) {
        stats = measure(SpherePore(n, n, n, r, SolidSpec{}));
        volume = 4.0 / 3.0 * M_PI * r * r * r / (double(n) * n * n);
        // Every voxel face is axis-aligned: the face count of a digital sphere is twice its
        // three projections, 6 pi r^2, against a volume of 4/3 pi r^3.
        faceRatio = 4.5 / r;
    } else {
        stats = measure(CylinderPore(n, n, 3, r, SolidSpec{}));
        volume = M_PI * r * r / (double(n) * n);
        // The staircase perimeter of a digital disk is 8r (two faces per row and column).
        faceRatio = 8.0 / (M_PI * r);
    }
    // Voxelisation error of centre sampling: a few voxels along the rim, relative
    // O(1/r^(4/3)) for the volume and O(1/r) for the staircase surface.
    EXPECT_NEAR(stats.porosity() / volume, 1.0, 2.0 / std::pow(r, 4.0 / 3.0));
    EXPECT_NEAR(stats.surfaceToVolume(cell) * cell / faceRatio, 1.0, 1.5 / r);
}

INSTANTIATE_TEST_SUITE_P(Radii, RoundPoreTest,
                         ::testing::Values(RoundPoreCase{false, 6.0}, RoundPoreCase{false, 15.5},
                                           RoundPoreCase{false, 40.0}, RoundPoreCase{true, 6.0},
                                           RoundPoreCase{true, 12.5}, RoundPoreCase{true, 25.0}),
                         [](const ::testing::TestParamInfo<RoundPoreCase>& c) {
                             return std::string(c.param.sphere ? "Sphere" : "Cylinder") + "R" +
                                    std::to_string(static_cast<int>(c.param.radius * 10)) + "e_1";
                         });

TEST(RoundPore, ClayLinesTheWallAndShrinksTheOpenPore) {
    const double r = 12.0, t = 2.0;
    const PoreStatistics coated = measure(SpherePore(28, 28, 28, r, SolidSpec{Mineral::Quartz, t}));
    const PoreStatistics open = measure(SpherePore(28, 28, 28, r - t, SolidSpec{}));
    EXPECT_EQ(coated.poreCount(), open.poreCount());
    EXPECT_EQ(coated.poreSolidFaces(), open.poreSolidFaces());
    EXPECT_NEAR(static_cast<double>(coated.count(Mineral::Clay)),
                4.0 / 3.0 * M_PI * (r * r * r - (r - t) * (r - t) * (r - t)),
                0.03 * 4.0 / 3.0 * M_PI * r * r * r);
}

SpherePackSpec packSpec(double porosity, std::uint64_t seed) {
    SpherePackSpec spec;
    spec.radius = 5.0;
    spec.targetPorosity = porosity;
    spec.seed = seed;
    return spec;
}

TEST(SpherePack, HitsTheTargetPorosityAndTheBooleanModelSurface) {
    for (const double target : {0.15, 0.35}) {
        SpherePackSpec spec = packSpec(target, 7);
        spec.radius = 8.0;
        const SpherePack pack(64, 56, 60, spec);
        const PoreStatistics stats = measure(pack);
        // The prefix is chosen on exact counts, so the result is within one grain
        // (~2100 voxels of 215040) of the target.
        EXPECT_NEAR(stats.porosity(), target, 0.01) << target;
        EXPECT_DOUBLE_EQ(stats.porosity(), pack.porosity());
        // Boolean model: S/V of the pore space = -ln(phi) * 3/R, times 3/2 for counting
        // axis-aligned voxel faces. The staircase loses faces along the lines where
        // grains meet, a deficit of about 0.7/R at this porosity range (measured 0.09 at
        // R = 8 and 0.06 at R = 12 for porosity 0.15): allow 1/R.
        const double expected = 1.5 * 3.0 * -std::log(stats.porosity()) / spec.radius;
        EXPECT_NEAR(stats.surfaceToVolume(1.0) / expected, 1.0, 1.0 / spec.radius) << target;
    }
}

TEST(SpherePack, SeedDecidesTheRockAndSlicesAreIndependent) {
    const SpherePack a(30, 30, 30, packSpec(0.3, 1));
    const SpherePack b(30, 30, 30, packSpec(0.3, 1));
    const SpherePack c(30, 30, 30, packSpec(0.3, 2));
    std::vector<GrainBedGridCell> sa(900), sb(900), sc(900), again(900);
    bool differs = false;
    for (std::uint32_t z = 0; z < 30; ++z) {
        a.fillSlice(z, sa.data());
        b.fillSlice(z, sb.data());
        c.fillSlice(z, sc.data());
        EXPECT_EQ(sa, sb) << "slice " << z;
        differs = differs || sa != sc;
    }
    EXPECT_TRUE(differs);
    // Asking for a slice out of order gives the same cells as in order.
    a.fillSlice(17, sa.data());
    a.fillSlice(3, again.data());
    a.fillSlice(17, again.data());
    EXPECT_EQ(sa, again);
}

TEST(SpherePack, ClayCoatsOnlyTheChosenShareOfGrains) {
    SpherePackSpec spec = packSpec(0.25, 3);
    spec.solid = SolidSpec{Mineral::Quartz, 1.0};
    spec.clayFraction = 0.5;
    const SpherePack pack(40, 40, 40, spec);
    const PoreStatistics stats = measure(pack);
    EXPECT_NEAR(stats.porosity(), 0.25, 0.01);
    EXPECT_GT(stats.volumeFraction(Mineral::Clay), 0.01);
    std::size_t coated = 0;
    for (const auto& s : pack.spheres()) coated += s.coating > 0.0;
    const double share = static_cast<double>(coated) / static_cast<double>(pack.spheres().size());
    // Binomial spread of a few hundred grains: 4 sigma is below 0.12.
    EXPECT_NEAR(share, 0.5, 0.12);

    spec.clayFraction = 0.0;
    EXPECT_EQ(measure(SpherePack(40, 40, 40, spec)).count(Mineral::Clay), 0u);
    spec.targetPorosity = 1.0;
    EXPECT_THROW(SpherePack(10, 10, 10, spec), Exception);
}

TEST(WriteGeometry, FileHoldsTheGeometryWithMirroredMargins) {
    testing::TempDir dir;
    const CylinderPore cylinder(9, 8, 2, 3.0, SolidSpec{Mineral::Mica, 1.0});
    const std::string path = dir.file("cyl.binc");
    const PoreStatistics stats = writeGeometry(cylinder, path, 2.5, {2, 1, 3});
    const testing::GridFile file = testing::readGridFile(path);
    EXPECT_EQ(file.header.at("nx"), "13");
    EXPECT_EQ(file.header.at("ny"), "10");
    EXPECT_EQ(file.header.at("nz"), "8");
    EXPECT_EQ(file.header.at("marginX"), "2");
    EXPECT_EQ(file.header.at("marginZ"), "3");
    EXPECT_EQ(file.header.at("cellSize"), "2.5");
    ASSERT_EQ(file.cells.size(), 13u * 10 * 8);
    std::vector<GrainBedGridCell> slice(72);
    cylinder.fillSlice(0, slice.data());
    for (std::uint32_t z = 0; z < 8; ++z)
        for (std::uint32_t y = 0; y < 10; ++y)
            for (std::uint32_t x = 0; x < 13; ++x) {
                const std::uint32_t sx = mirrorIndex(static_cast<std::int32_t>(x) - 2, 9);
                const std::uint32_t sy = mirrorIndex(static_cast<std::int32_t>(y) - 1, 8);
                ASSERT_EQ(file.cells[(std::size_t{z} * 10 + y) * 13 + x], slice[sy * 9 + sx])
                    << x << "," << y << "," << z;
            }
    // Statistics describe the interior only.
    EXPECT_EQ(stats.cellCount(), 9u * 8 * 2);
}

TEST(WriteGeometry, FailureLeavesNoFileBehind) {
    testing::TempDir dir;
    const SlabPore slab(4, 4, 4, 2, SolidSpec{});
    EXPECT_THROW(writeGeometry(slab, dir.file("slab.binc"), 0.0), Exception);
    EXPECT_THROW(writeGeometry(slab, dir.file("no/such/dir/slab.binc"), 1.0), Exception);
    EXPECT_THROW(writeGeometry(slab, dir.file("big.binc"), 1.0, {20000, 0, 0}), Exception);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
}

}  // namespace
}  // namespace nmr::tools
