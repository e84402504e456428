#include <gtest/gtest.h>

#include <sstream>

#include "mpi/message_passing.h"
#include "params/parameter_broadcast.h"
#include "params/parameter_file.h"
#include "testutil/temp_dir.h"

namespace nmr {
namespace {

// Sent fields differ from their construction values and each other; Pyrite is absent from
// the water table; x's end is above the signed range; the last block stays on process 0.
std::unique_ptr<NuclearMagneticResonanceParameters> distinctRecord() {
    auto p = std::make_unique<NuclearMagneticResonanceParameters>();
    p->setNumberOfWalkers(1234567);
    p->setRandomSeed(-99);
    p->setGyroMagneticRatio(1.5);
    p->setEchoSpacing(2.5);
    p->setMagneticFieldGradient(3.5);
    p->setWaterSaturation(4.5);
    p->setClayMicroPorosity(5.5);
    p->setBulkWaterT2(6.5);
    p->setDiffusionConstantWater(7.5);
    p->setDiffusionConstantOil(8.5);
    p->setStepLength(9.5);
    for (Mineral::Type code : Mineral::allTypes()) {
        if (code != Mineral::Pyrite) p->surfaceRelaxationStrengthWater().set(code, 10.0 + +code);
        p->surfaceRelaxationStrengthOil().set(code, 100.0 + +code);
    }
    auto region = std::make_unique<RegionOfInterestCapableThing>();
    region->setRegionOfInterest({11, 4000000000u, 13, 14, 15, 16, true});
    p->setRegionOfInterest(std::move(region));
    p->setGrid("rock.binc");
    p->setT2Components(250);
    p->setT2Minimum(0.5);
    p->setBulkOilT2({1.0});
    p->setSaturationFile(true);
    p->setMagneticFieldContributionWater(123.0);
    return p;
}

TEST(ParameterBroadcast, EveryProcessHoldsTheSentFields) {
    if (mpi::size() < 2) GTEST_SKIP() << "needs 2+ ranks";
    auto p = broadcastParameters(mpi::rank(), mpi::rank() == 0 ? distinctRecord() : nullptr);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->grid(), mpi::rank() == 0 ? "rock.binc" : "");  // the root keeps its record
    if (mpi::rank() == 0) return;
    EXPECT_EQ(std::pair(p->numberOfWalkers(), p->randomSeed()), std::pair(1234567, -99));
    EXPECT_EQ((std::vector<double>{
                  p->gyroMagneticRatio(), p->echoSpacing(), p->magneticFieldGradient(),
                  p->waterSaturation(), p->clayMicroPorosity(), p->bulkWaterT2(),
                  p->diffusionConstantWater(), p->diffusionConstantOil(), p->stepLength()}),
              (std::vector<double>{1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, 8.5, 9.5}));
    ASSERT_EQ(p->surfaceRelaxationStrengthWater().size(), 14u);  // Pyrite made explicit
    for (Mineral::Type code : Mineral::allTypes()) {
        EXPECT_EQ(p->surfaceRelaxationStrengthWater().valueOr(code, -1.0),
                  code == Mineral::Pyrite ? 0.0 : 10.0 + +code);
        EXPECT_EQ(p->surfaceRelaxationStrengthOil().valueOr(code, -1.0), 100.0 + +code);
    }
    EXPECT_EQ(p->regionOfInterest()->regionOfInterest(),
              (RegionOfInterest{11, 4000000000u, 13, 14, 15, 16, true}));
    // Not sent: construction values, and the field term recomputed from what arrived.
    EXPECT_TRUE(p->bulkOilT2().empty() && !p->saturationFile() && p->t2Components() == 100 &&
                p->t2Minimum() == 0.0001);
    EXPECT_EQ(p->magneticFieldContributionWater(),
              1.5 * 1.5 * 3.5 * 3.5 * 7.5 * 2.5 * 2.5 / 1000.0);
}

// The YAML library's own errors are reported on process 0 and end the read everywhere.
TEST(ParameterBroadcast, CollectiveReadReportsLibraryErrors) {
    const test::SharedTempDir dir;
    const std::string path = dir.file("nmr.yaml");
    if (mpi::rank() == 0) test::writeFile(path, "NuclearMagneticResonanceParameters: [unclosed\n");
    std::ostringstream console;
    EXPECT_EQ(readParametersCollectively(mpi::rank(), mpi::size(), path, console), nullptr);
    if (mpi::rank() == 0) {
        EXPECT_TRUE(console.str().starts_with("An error occurred while reading the input file " +
                                              path + ": yaml-cpp: error at line 2"));
    } else {
        EXPECT_TRUE(console.str().empty());
    }
}

}  // namespace
}  // namespace nmr
