#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "parallel/message_passing.h"
#include "params/parameter_broadcast.h"
#include "params/parameter_file.h"

namespace nmr {
namespace {

namespace fs = std::filesystem;

// Every sent field differs from its construction value and its neighbours, so a swapped
// or skipped field shows. Pyrite is absent from the water table; the x end is above the
// signed range. The last block are fields that stay on process 0.
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
        const auto value = static_cast<double>(code);
        if (code != Mineral::Pyrite) p->surfaceRelaxationStrengthWater().set(code, 10.0 + value);
        p->surfaceRelaxationStrengthOil().set(code, 100.0 + value);
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

void expectReceived(NuclearMagneticResonanceParameters& p) {
    EXPECT_EQ(p.numberOfWalkers(), 1234567);
    EXPECT_EQ(p.randomSeed(), -99);
    const std::vector<double> doubles = {
        p.gyroMagneticRatio(),      p.echoSpacing(),          p.magneticFieldGradient(),
        p.waterSaturation(),        p.clayMicroPorosity(),    p.bulkWaterT2(),
        p.diffusionConstantWater(), p.diffusionConstantOil(), p.stepLength()};
    EXPECT_EQ(doubles, (std::vector<double>{1.5, 2.5, 3.5, 4.5, 5.5, 6.5, 7.5, 8.5, 9.5}));
    ASSERT_EQ(p.surfaceRelaxationStrengthWater().size(), 14u);  // Pyrite made explicit
    for (Mineral::Type code : Mineral::allTypes()) {
        const auto value = static_cast<double>(code);
        EXPECT_EQ(p.surfaceRelaxationStrengthWater().valueOr(code, -1.0),
                  code == Mineral::Pyrite ? 0.0 : 10.0 + value);
        EXPECT_EQ(p.surfaceRelaxationStrengthOil().valueOr(code, -1.0), 100.0 + value);
    }
    EXPECT_EQ(p.regionOfInterest()->regionOfInterest(),
              (RegionOfInterest{11, 4000000000u, 13, 14, 15, 16, true}));
    // Not sent: construction values, and the field term recomputed from what arrived.
    EXPECT_TRUE(p.grid().empty() && p.bulkOilT2().empty() && !p.saturationFile());
    EXPECT_EQ(p.t2Components(), 100);
    EXPECT_EQ(p.t2Minimum(), 0.0001);
    EXPECT_EQ(p.magneticFieldContributionWater(), 1.5 * 1.5 * 3.5 * 3.5 * 7.5 * 2.5 * 2.5 / 1000.0);
}

TEST(ParameterBroadcast, PackUnpackRoundTripFillsTheFixedBuffer) {
    const auto packed = packParameters(*distinctRecord());
    EXPECT_EQ(packed.size(), 329u);
    EXPECT_EQ(packedParameterSize(), 329);
    expectReceived(*unpackParameters(packed));
}

TEST(ParameterBroadcast, EveryProcessHoldsTheSentFields) {
    if (mpi::size() < 2) GTEST_SKIP() << "needs 2+ ranks";
    const int rank = mpi::rank();
    auto p = broadcastParameters(rank, rank == 0 ? distinctRecord() : nullptr);
    ASSERT_NE(p, nullptr);
    if (rank == 0) {
        EXPECT_EQ(p->grid(), "rock.binc");  // the root keeps its full record
    } else {
        expectReceived(*p);
    }
}

// Process 0 owns a scratch directory; the others only need its path for the call.
class CollectiveRead : public ::testing::Test {
protected:
    void SetUp() override {
        std::string dir;
        if (mpi::rank() == 0) {
            dir = (fs::temp_directory_path() / "nmr_bcast_XXXXXX").string();
            if (mkdtemp(dir.data()) == nullptr) dir.clear();
        }
        mpi::broadcast(dir, 0);
        ASSERT_FALSE(dir.empty());
        path_ = dir + "/nmr.yaml";
    }
    void TearDown() override {
        mpi::barrier();
        if (mpi::rank() == 0) fs::remove_all(fs::path(path_).parent_path());
    }
    std::string path_;
};

TEST_F(CollectiveRead, AllProcessesGetTheRecordOrNone) {
    const int rank = mpi::rank();
    if (rank == 0) writeTemplateFile(path_);
    auto p = readParametersCollectively(rank, mpi::size(), path_);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->numberOfWalkers(), 300000);
    EXPECT_EQ(p->grid(), rank == 0 ? "grid.binc" : "");

    if (rank == 0) std::ofstream(path_) << "NuclearMagneticResonanceParameters: {}\n";
    if (rank == 0) ::testing::internal::CaptureStdout();
    EXPECT_EQ(readParametersCollectively(rank, mpi::size(), path_), nullptr);
    if (rank == 0) {
        EXPECT_EQ(::testing::internal::GetCapturedStdout(),
                  "An error occurred while reading the input file " + path_ +
                      ": bulkOilT2 parameter is missing. Tag: 'bulkOilT2'.\n");
    }

    // The YAML library's own errors are reported the same way instead of escaping.
    if (rank == 0) std::ofstream(path_) << "NuclearMagneticResonanceParameters: [unclosed\n";
    if (rank == 0) ::testing::internal::CaptureStdout();
    EXPECT_EQ(readParametersCollectively(rank, mpi::size(), path_), nullptr);
    if (rank == 0) {
        EXPECT_EQ(::testing::internal::GetCapturedStdout().rfind(
                      "An error occurred while reading the input file " + path_ +
                          ": yaml-cpp: error at line 2",
                      0),
                  0u);
    }
}

}  // namespace
}  // namespace nmr
