// Grid file and grid container figures: write and load MB/s of an n^3 grain bed grid file,
// and the compressed grid's bytes per voxel and cell reads per second against the plain
// sliced grid. Usage: grid_bench [n = 512] [directory = system temp]
// Prints figures only; nothing here asserts a speed.

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "common/logger.h"
#include "common/progress_reporter.h"
#include "io/grain_bed_grid_writer.h"
#include "io/grid_loader.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Sphere {
    double x, y, z, r;
    std::uint32_t grain;
    nmr::Mineral::Type mineral;
};

// Overlapping spheres placed at random (a Boolean model): porosity = exp(-density * volume),
// so the sphere count is chosen for about 20 % pore space.
std::vector<Sphere> spherePack(std::uint32_t n, double radius, std::mt19937_64& rng) {
    const double volume = 4.0 / 3.0 * M_PI * radius * radius * radius;
    const double cells = static_cast<double>(n) * n * n;
    const auto count = static_cast<std::size_t>(-std::log(0.20) * cells / volume);
    std::uniform_real_distribution<double> pos(0.0, n);
    std::uniform_real_distribution<double> size(0.7 * radius, 1.3 * radius);
    std::vector<Sphere> spheres(count);
    for (std::size_t i = 0; i < count; ++i) {
        const auto mineral = i % 10 == 0 ? nmr::Mineral::Clay : nmr::Mineral::Quartz;
        spheres[i] = {pos(rng), pos(rng), pos(rng), size(rng), static_cast<std::uint32_t>(i + 1),
                      mineral};
    }
    return spheres;
}

// Fills slice z of the pack, x fastest.
void rasterise(const std::vector<Sphere>& spheres, std::uint32_t n, std::uint32_t z,
               std::vector<nmr::GrainBedGridCell>& slice) {
    std::fill(slice.begin(), slice.end(), nmr::GrainBedGridCell{});
    const double cz = z + 0.5;
    for (const Sphere& s : spheres) {
        const double dz = cz - s.z;
        const double r2 = s.r * s.r - dz * dz;
        if (r2 <= 0.0) continue;
        const double rr = std::sqrt(r2);
        const int y0 = std::max(0, static_cast<int>(std::ceil(s.y - rr - 0.5)));
        const int y1 = std::min<int>(n - 1, static_cast<int>(std::floor(s.y + rr - 0.5)));
        for (int y = y0; y <= y1; ++y) {
            const double dy = y + 0.5 - s.y;
            const double w2 = r2 - dy * dy;
            if (w2 <= 0.0) continue;
            const double w = std::sqrt(w2);
            const int x0 = std::max(0, static_cast<int>(std::ceil(s.x - w - 0.5)));
            const int x1 = std::min<int>(n - 1, static_cast<int>(std::floor(s.x + w - 0.5)));
            for (int x = x0; x <= x1; ++x) {
                slice[static_cast<std::size_t>(y) * n + x] =
                    nmr::GrainBedGridCell::make(s.grain, s.mineral, 3);
            }
        }
    }
}

// Reads per second at random cells (no locality: the compressed grid's worst case).
template <typename G>
double randomReads(const G& grid, std::uint32_t n, std::size_t reads, std::uint64_t& sink) {
    std::mt19937_64 rng(5);
    std::vector<std::uint32_t> coords(std::size_t{3} * 4096);
    double spent = 0.0;
    for (std::size_t done = 0; done < reads; done += 4096) {
        for (auto& c : coords) c = static_cast<std::uint32_t>(rng() % n);
        const auto t = Clock::now();
        for (std::size_t i = 0; i < 4096; ++i) {
            sink += grid.at(coords[3 * i], coords[3 * i + 1], coords[3 * i + 2]);
        }
        spent += secondsSince(t);
    }
    return static_cast<double>(reads) / spent;
}

using Start = std::array<std::uint32_t, 3>;

// Walker start cells at random, optionally ordered by block number as the run orders its
// walkers, so that consecutive walkers start in the same block.
std::vector<Start> walkerStarts(const nmr::CompressedBlockedGrid<nmr::Mineral::Type>& layout,
                                std::size_t walkers, bool sortByBlock) {
    std::mt19937_64 rng(9);
    const std::uint32_t n = layout.nx();
    std::vector<Start> starts(walkers);
    for (Start& s : starts) {
        s = {static_cast<std::uint32_t>(rng() % n), static_cast<std::uint32_t>(rng() % n),
             static_cast<std::uint32_t>(rng() % n)};
    }
    if (sortByBlock) {
        std::sort(starts.begin(), starts.end(), [&](const Start& a, const Start& b) {
            return layout.blockNumber(a[0], a[1], a[2]) < layout.blockNumber(b[0], b[1], b[2]);
        });
    }
    return starts;
}

// Reads per second along random walks of unit steps, as walkers read the grid.
template <typename G>
double walkReads(const G& grid, std::uint32_t n, const std::vector<Start>& starts,
                 std::size_t steps, std::uint64_t& sink) {
    std::mt19937_64 rng(9);
    const auto start = Clock::now();
    for (const Start& s : starts) {
        std::int64_t p[3] = {s[0], s[1], s[2]};
        std::uint64_t bits = 0;
        for (std::size_t i = 0; i < steps; ++i) {
            if (i % 21 == 0) bits = rng();
            const int axis = static_cast<int>(bits % 3);
            bits /= 3;
            p[axis] += (bits & 1) ? 1 : -1;
            bits >>= 1;
            if (p[axis] < 0) p[axis] = 1;
            if (p[axis] >= n) p[axis] = n - 2;
            sink += grid.at(static_cast<std::uint32_t>(p[0]), static_cast<std::uint32_t>(p[1]),
                            static_cast<std::uint32_t>(p[2]));
        }
    }
    return static_cast<double>(starts.size() * steps) / secondsSince(start);
}

}  // namespace

int main(int argc, char** argv) {
    const std::uint32_t n = argc > 1 ? static_cast<std::uint32_t>(std::atoi(argv[1])) : 512;
    const std::filesystem::path dir =
        argc > 2 ? std::filesystem::path(argv[2]) : std::filesystem::temp_directory_path();
    const std::string file = (dir / ("nmr_grid_bench_" + std::to_string(n) + ".binc")).string();
    const double recordMb = static_cast<double>(n) * n * n * 4 / (1024.0 * 1024.0);
    nmr::NullLogger logger;
    nmr::NullProgressReporter progress;
    std::cout << std::unitbuf << "grid " << n << "^3, records " << recordMb << " MiB\n";

    std::mt19937_64 rng(1);
    const auto spheres = spherePack(n, 8.0, rng);
    std::vector<std::vector<nmr::GrainBedGridCell>> slices;
    std::vector<nmr::GrainBedGridCell> slice(static_cast<std::size_t>(n) * n);
    {
        // Rasterise first so that the write time is the writer's alone.
        double rasterTime = 0.0, writeTime = 0.0;
        nmr::GrainBedGridWriter writer(file, n, n, n, 0, 0, 0, 1.0, &logger);
        for (std::uint32_t z = 0; z < n; ++z) {
            auto t = Clock::now();
            rasterise(spheres, n, z, slice);
            rasterTime += secondsSince(t);
            t = Clock::now();
            writer.writeSlice(slice.data());
            writeTime += secondsSince(t);
        }
        const auto t = Clock::now();
        writer.close();
        writeTime += secondsSince(t);
        std::cout << "rasterise pack: " << rasterTime << " s (" << spheres.size() << " spheres)\n"
                  << "write: " << writeTime << " s, " << recordMb / writeTime << " MB/s, file "
                  << static_cast<double>(std::filesystem::file_size(file)) / (1024.0 * 1024.0)
                  << " MiB\n";
    }

    auto start = Clock::now();
    auto sliced = nmr::loadSlicedGrid(file, {}, logger, progress);
    double t = secondsSince(start);
    std::cout << "load sliced: " << t << " s, " << recordMb / t << " MB/s, porosity "
              << sliced->porosity() << "\n";

    start = Clock::now();
    auto packed = nmr::loadCompressedBlockedGrid(file, {}, 200.0, logger, progress);
    t = secondsSince(start);
    std::uint64_t packedBytes = 0;
    for (std::int64_t b : packed->blockIndex()) packedBytes += static_cast<std::uint64_t>(b);
    const double cells = static_cast<double>(n) * n * n;
    std::cout << "load compressed (200 MiB budget): " << t << " s, " << recordMb / t
              << " MB/s, blocks " << packed->blockCount() << ", max expanded "
              << packed->maxExpandedBlocks() << "\n"
              << "compressed grid: " << static_cast<double>(packedBytes) / cells
              << " bytes/voxel in blocks, " << static_cast<double>(packed->overheadBytes()) / cells
              << " bytes/voxel with bookkeeping (sliced grid: 4)\n";

    std::uint64_t sink = 0;
    const std::size_t reads = 20'000'000;
    const double slicedRandom = randomReads(*sliced, n, reads, sink);
    const auto randomStarts = walkerStarts(*packed, 2000, false);
    const auto sortedStarts = walkerStarts(*packed, 2000, true);
    const std::size_t steps = 20'000;
    std::cout << "sliced reads/s: random " << slicedRandom << ", walk "
              << walkReads(*sliced, n, randomStarts, steps, sink) << ", sorted walk "
              << walkReads(*sliced, n, sortedStarts, steps, sink) << "\n";
    for (std::uint32_t limit : {packed->maxExpandedBlocks(), 8u}) {
        packed->setMaxExpandedBlocks(limit);
        const double walk = walkReads(*packed, n, randomStarts, steps, sink);
        const double sortedWalk = walkReads(*packed, n, sortedStarts, steps, sink);
        // Random reads mostly miss the expanded blocks and each miss expands a whole block:
        // a few thousand give the rate.
        const double random = randomReads(*packed, n, 8192, sink);
        std::cout << "compressed reads/s (" << limit << " expanded of " << packed->blockCount()
                  << "): random " << random << ", walk " << walk << ", sorted walk " << sortedWalk
                  << "\n";
    }
    std::cout << "(checksum " << sink << ")\n";
    std::filesystem::remove(file);
    return 0;
}
