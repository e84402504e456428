// The outputs of a few small runs are part of the program's contract: a change to how the
// grid is held, distributed or laid out in memory must leave T2decay.out and
// T2inversion.out byte for byte as they were. The checksums below were recorded from
// runs of the released program; a deliberate change of results must update them and say
// why in its commit.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <cstdio>
#include <sstream>

#include "io/grain_bed_grid_writer.h"
#include "testutil/command.h"
#include "testutil/temp_dir.h"

namespace nmr::test {
namespace {

// A 32^3 rock of 2 um cells: quartz grains on a jittered lattice, a one-voxel clay rim on
// every third grain and a feldspar grain here and there, so the walk meets three minerals
// and the clay model sets the fine-to-coarse switch.
void writeGrainRock(const std::filesystem::path& path) {
    constexpr std::uint32_t n = 32;
    struct Grain {
        double x, y, z, r;
        std::uint32_t mineral;
        bool clayRim;
    };
    std::vector<Grain> grains;
    int index = 0;
    for (int gz = 0; gz < 4; ++gz)
        for (int gy = 0; gy < 4; ++gy)
            for (int gx = 0; gx < 4; ++gx, ++index) {
                const double jitter = static_cast<double>((index * 37) % 11) / 11.0 - 0.5;
                grains.push_back({8.0 * gx + 4.0 + 2.0 * jitter, 8.0 * gy + 4.0 - 1.5 * jitter,
                                  8.0 * gz + 4.0 + jitter, 3.2 + 0.8 * jitter,
                                  index % 7 == 3 ? Mineral::FeldsparsDissolvable : Mineral::Quartz,
                                  index % 3 == 0});
            }
    GrainBedGridWriter writer(path.string(), n, n, n, 0, 0, 0, 2.0);
    std::vector<GrainBedGridCell> slice(static_cast<std::size_t>(n) * n);
    for (std::uint32_t z = 0; z < n; ++z) {
        for (std::uint32_t y = 0; y < n; ++y)
            for (std::uint32_t x = 0; x < n; ++x) {
                std::uint32_t mineral = Mineral::Pore;
                for (const Grain& g : grains) {
                    const double d = std::sqrt((x + 0.5 - g.x) * (x + 0.5 - g.x) +
                                               (y + 0.5 - g.y) * (y + 0.5 - g.y) +
                                               (z + 0.5 - g.z) * (z + 0.5 - g.z));
                    if (d <= g.r) {
                        mineral = g.mineral;
                        break;
                    }
                    if (g.clayRim && d <= g.r + 1.0) mineral = Mineral::Clay;
                }
                slice[y * n + x] = GrainBedGridCell::make(0, mineral);
            }
        writer.writeSlice(slice.data());
    }
    writer.close();
}

// Quartz slabs every 7 cells along z, as large as the compressed-grid tests need.
void writeSlabRock(const std::filesystem::path& path, std::uint32_t n) {
    GrainBedGridWriter writer(path.string(), n, n, n, 0, 0, 0, 1.0);
    std::vector<GrainBedGridCell> slice(static_cast<std::size_t>(n) * n);
    for (std::uint32_t z = 0; z < n; ++z) {
        std::fill(slice.begin(), slice.end(),
                  GrainBedGridCell::make(0, z % 7 == 0 ? Mineral::Quartz : Mineral::Pore));
        writer.writeSlice(slice.data());
    }
    writer.close();
}

std::string parameters(int walkers, const std::string& region, bool subsample) {
    std::ostringstream yaml;
    yaml << "NuclearMagneticResonanceParameters:\n"
         << "  grid: rock.binc\n"
         << "  gyroMagneticRatio: 42580000.0\n  echoSpacing: 0.0002\n"
         << "  magneticFieldGradient: 0.3\n  saturationFile: false\n  waterSaturation: 1.0\n"
         << "  clayMicroPorosity: 0.4\n  bulkWaterT2: 2.5\n"
         << "  diffusionConstantWater: 2.3e-09\n  diffusionConstantOil: 1e-10\n"
         << "  surfaceRelaxationStrengthWater: {Clay: 5.0e-06, Quartz: 3.0e-05, "
            "Feldspars (dissolvable): 1.0e-05}\n"
         << "  bulkOilT2: [1.0]\n  intensityT2: [1.0]\n"
         << "  surfaceRelaxationStrengthOil: {Quartz: 1.6e-15}\n"
         << "  numberOfWalkers: " << walkers << "\n  stepLength: 0.5\n  randomSeed: 4242\n"
         << "  subsampleCalculation: " << (subsample ? "true" : "false") << "\n"
         << "  regionOfInterest: " << region << "\n"
         << "  t2Components: 60\n  t2Minimum: 0.01\n  t2Maximum: 10000.0\n";
    return yaml.str();
}

std::string checksum(const std::string& bytes) {
    const uLong crc = crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(bytes.data()),
                            static_cast<uInt>(bytes.size()));
    char text[32];
    std::snprintf(text, sizeof text, "%08lx:%zu", crc, bytes.size());
    return text;
}

struct StoredRun {
    std::string name;
    int processes;
    std::vector<std::string> arguments;
    std::vector<std::string> environment;
    bool slabs;  // the 200^3 slab rock instead of the 32^3 grain rock
    int walkers;
    std::string region;
    bool subsample;
    std::string decay;      // crc32:length of T2decay.out
    std::string inversion;  // crc32:length of T2inversion.out
};

void PrintTo(const StoredRun& run, std::ostream* out) { *out << run.name; }

class StoredOutput : public ::testing::TestWithParam<StoredRun> {};

TEST_P(StoredOutput, RunReproducesTheRecordedFiles) {
    const StoredRun& r = GetParam();
    TempDir dir;
    if (r.slabs) {
        writeSlabRock(dir / "rock.binc", 200);
    } else {
        writeGrainRock(dir / "rock.binc");
    }
    dir.write("nmr.yaml", parameters(r.walkers, r.region, r.subsample));
    std::vector<std::string> environment = launcherEnvironment();
    environment.insert(environment.end(), r.environment.begin(), r.environment.end());
    const auto result = runCommand(nmrwalkCommand(r.processes, r.arguments), dir.path(),
                                   std::chrono::seconds(600), environment);
    ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
    EXPECT_EQ(checksum(dir.read("T2decay.out")), r.decay);
    EXPECT_EQ(checksum(dir.read("T2inversion.out")), r.inversion);
}

const char* const kWholeGrid = "{x: [0, 4], y: [0, 4], z: [0, 4]}";
const char* const kRegion = "{x: [3, 29], y: [0, 32], z: [5, 27]}";

INSTANTIATE_TEST_SUITE_P(
    Runs, StoredOutput,
    ::testing::Values(
        StoredRun{"plain_np1",
                  1,
                  {},
                  {},
                  false,
                  3000,
                  kWholeGrid,
                  false,
                  "30b2a909:2437",
                  "6244b21c:684"},
        StoredRun{"plain_np2",
                  2,
                  {},
                  {},
                  false,
                  3000,
                  kWholeGrid,
                  false,
                  "1c03e02e:2481",
                  "c204eb7c:689"},
        StoredRun{"plain_np3",
                  3,
                  {},
                  {},
                  false,
                  3001,
                  kWholeGrid,
                  false,
                  "500ec44d:2424",
                  "1d849e0a:720"},
        StoredRun{"plain_np4",
                  4,
                  {},
                  {},
                  false,
                  3000,
                  kWholeGrid,
                  false,
                  "1ba82d15:2459",
                  "6b5fbaee:665"},
        StoredRun{"plain_np4_two_nodes",
                  4,
                  {},
                  {"NMRWALK_RANKS_PER_NODE=2"},
                  false,
                  3000,
                  kWholeGrid,
                  false,
                  "1ba82d15:2459",
                  "6b5fbaee:665"},
        StoredRun{"plain_np3_nodes_of_two",
                  3,
                  {},
                  {"NMRWALK_RANKS_PER_NODE=2"},
                  false,
                  3001,
                  kWholeGrid,
                  false,
                  "500ec44d:2424",
                  "1d849e0a:720"},
        StoredRun{
            "region_np2", 2, {}, {}, false, 2000, kRegion, true, "ab87ec67:2451", "67cadc39:707"},
        StoredRun{"compressed_np2",
                  2,
                  {"-m", "3"},
                  {},
                  true,
                  1500,
                  kWholeGrid,
                  false,
                  "a67a3a6f:2701",
                  "7f3e4f16:640"}),
    [](const ::testing::TestParamInfo<StoredRun>& run) { return run.param.name; });

}  // namespace
}  // namespace nmr::test
