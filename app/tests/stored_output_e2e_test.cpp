// The outputs of a few small runs are part of the program's contract: a change to how the
// grid is held, distributed or laid out in memory must leave T2decay.out and
// T2inversion.out byte for byte as they were. The checksums below were recorded from
// runs of the released program; a deliberate change of results must update them and say
// why in its commit.
#include <gtest/gtest.h>
#include <zlib.h>

#include <cmath>
#include <cstdio>
#include <ostream>

#include "app/tests/layered_rock.h"
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

// The whole 32^3 grain rock, or a sub-region of it walked on its own.
std::string parameters(int walkers, bool region) {
    return parameterFile({{"echoSpacing", "0.0002"},
                          {"magneticFieldGradient", "0.3"},
                          {"clayMicroPorosity", "0.4"},
                          {"bulkWaterT2", "2.5"},
                          {"diffusionConstantWater", "2.3e-09"},
                          {"surfaceRelaxationStrengthWater",
                           "{Clay: 5.0e-06, Quartz: 3.0e-05, Feldspars (dissolvable): 1.0e-05}"},
                          {"numberOfWalkers", std::to_string(walkers)},
                          {"randomSeed", "4242"},
                          {"subsampleCalculation", region ? "true" : "false"},
                          {"regionOfInterest", region ? "{x: [3, 29], y: [0, 32], z: [5, 27]}"
                                                      : "{x: [0, 4], y: [0, 4], z: [0, 4]}"},
                          {"t2Components", "60"}});
}

std::string checksum(const std::string& bytes) {
    const uLong crc = crc32(crc32(0L, Z_NULL, 0), reinterpret_cast<const Bytef*>(bytes.data()),
                            static_cast<uInt>(bytes.size()));
    char text[32];
    std::snprintf(text, sizeof text, "%08lx:%zu", crc, bytes.size());
    return text;
}

enum class Setup {
    Plain,
    NodesOfTwo,  // NMRWALK_RANKS_PER_NODE=2: nodes of two processes, one grid copy each
    Region,      // a sub-region of the grain rock
    Compressed,  // the 200^3 slab rock under -m 3: the grid travels as compressed blocks
};

struct StoredRun {
    std::string name;
    Setup setup;
    int processes;
    int walkers;
    std::string decay;      // crc32:length of T2decay.out
    std::string inversion;  // crc32:length of T2inversion.out
};

void PrintTo(const StoredRun& run, std::ostream* out) { *out << run.name; }

class StoredOutput : public ::testing::TestWithParam<StoredRun> {};

TEST_P(StoredOutput, RunReproducesTheRecordedFiles) {
    const StoredRun& r = GetParam();
    const bool compressed = r.setup == Setup::Compressed;
    TempDir dir;
    if (compressed) {
        writeLayeredRock(dir / "rock.binc", 200, [](std::uint32_t z) { return z % 7 == 0; });
    } else {
        writeGrainRock(dir / "rock.binc");
    }
    dir.write("nmr.yaml", parameters(r.walkers, r.setup == Setup::Region));
    std::vector<std::string> environment = launcherEnvironment();
    if (r.setup == Setup::NodesOfTwo) environment.push_back("NMRWALK_RANKS_PER_NODE=2");
    const auto arguments =
        compressed ? std::vector<std::string>{"-m", "3"} : std::vector<std::string>{};
    const auto result = runCommand(nmrwalkCommand(r.processes, arguments), dir.path(),
                                   std::chrono::seconds(600), environment);
    ASSERT_EQ(result.exitStatus, 0) << result.output << result.errorOutput;
    EXPECT_EQ(checksum(dir.read("T2decay.out")), r.decay);
    EXPECT_EQ(checksum(dir.read("T2inversion.out")), r.inversion);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Runs, StoredOutput, ::testing::Values(
    StoredRun{"plain_np1", Setup::Plain, 1, 3000, "30b2a909:2437", "6244b21c:684"},
    StoredRun{"plain_np2", Setup::Plain, 2, 3000, "1c03e02e:2481", "c204eb7c:689"},
    StoredRun{"plain_np3", Setup::Plain, 3, 3001, "500ec44d:2424", "1d849e0a:720"},
    StoredRun{"plain_np4", Setup::Plain, 4, 3000, "1ba82d15:2459", "6b5fbaee:665"},
    StoredRun{"plain_np4_two_nodes", Setup::NodesOfTwo, 4, 3000, "1ba82d15:2459", "6b5fbaee:665"},
    StoredRun{"plain_np3_nodes_of_two", Setup::NodesOfTwo, 3, 3001, "500ec44d:2424",
              "1d849e0a:720"},
    StoredRun{"region_np2", Setup::Region, 2, 2000, "ab87ec67:2451", "67cadc39:707"},
    StoredRun{"compressed_np2", Setup::Compressed, 2, 1500, "a67a3a6f:2701", "7f3e4f16:640"}),
    [](const ::testing::TestParamInfo<StoredRun>& run) { return run.param.name; });
// clang-format on

}  // namespace
}  // namespace nmr::test
