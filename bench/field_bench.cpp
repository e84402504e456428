// field_bench [n] [padding]: the internal field of an n^3 grain pack (default 256) as
// nmrwalk-field computes it, under mpiexec at any process count: seconds of the field and of
// the gradient statistics, peak resident memory per process against the estimate that
// nmrwalk-field checks, and bytes per cell over all processes.
#include <mpi.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include "field/dipole_field.h"
#include "field/gradient_statistics.h"
#include "grid/byte_mineral_grid.h"
#include "rock/pore_geometry.h"

namespace {

using namespace nmr;

// VmHWM or VmRSS of this process in bytes.
double statusBytes(const char* key) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(key, 0) == 0)
            return std::atof(line.c_str() + std::string(key).size()) * 1024;
    return 0.0;
}

// Restarts the peak at the current resident set, so that the peak measures the field alone.
void resetPeak() { std::ofstream("/proc/self/clear_refs") << "5"; }

ByteMineralGrid grainPack(std::uint32_t n) {
    rock::SpherePackSettings settings;
    settings.radius = 8.0;
    settings.radiusSpread = 0.3;
    settings.targetPorosity = 0.3;
    settings.solid.clayThickness = 1.0;
    settings.clayFraction = 0.3;
    settings.seed = 7;
    const rock::SpherePack pack(n, n, n, settings);
    ByteMineralGrid grid(n, n, n, 0, 0, 0, 2.0);
    std::vector<GrainBedGridCell> slice(std::size_t{n} * n);
    for (std::uint32_t z = 0; z < n; ++z) {
        pack.fillSlice(z, slice.data());
        for (std::uint32_t y = 0; y < n; ++y)
            for (std::uint32_t x = 0; x < n; ++x)
                grid.setCell(x, y, z, slice[std::size_t{y} * n + x].mineral());
    }
    return grid;
}

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

double maxOver(double value) {
    MPI_Allreduce(MPI_IN_PLACE, &value, 1, MPI_DOUBLE, MPI_MAX, MPI_COMM_WORLD);
    return value;
}

}  // namespace

int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    int rank = 0, size = 1;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    MPI_Comm_size(MPI_COMM_WORLD, &size);
    const auto n = static_cast<std::uint32_t>(argc > 1 ? std::atoi(argv[1]) : 256);
    const double padding = argc > 2 ? std::atof(argv[2]) : field::kDefaultPadding;

    const ByteMineralGrid grid = grainPack(n);
    field::Susceptibilities chi{};
    chi.fill(-9.05e-6);               // water
    chi[Mineral::Quartz] = -1.65e-5;  // quartz
    chi[Mineral::Clay] = 2.0e-4;      // an iron-bearing clay
    const double cells = static_cast<double>(n) * n * n;
    const double before = statusBytes("VmRSS:");
    resetPeak();
    MPI_Barrier(MPI_COMM_WORLD);

    auto start = std::chrono::steady_clock::now();
    const std::clock_t cpuStart = std::clock();
    const field::FieldSlab slab = field::computeFieldSlab(
        grid, chi, field::FieldOptions{field::Axis::Z, padding}, MPI_COMM_WORLD);
    const double fieldSeconds = maxOver(seconds(start));
    // CPU time too: on a shared machine it is the figure that compares across runs.
    const double fieldCpu = maxOver(static_cast<double>(std::clock() - cpuStart) / CLOCKS_PER_SEC);
    start = std::chrono::steady_clock::now();
    const field::GradientStatistics stats =
        field::poreGradientStatistics(grid, slab, 0.05, MPI_COMM_WORLD);
    const double statisticsSeconds = maxOver(seconds(start));
    const double peak = maxOver(statusBytes("VmHWM:") - before);
    double total = statusBytes("VmHWM:") - before;
    MPI_Allreduce(MPI_IN_PLACE, &total, 1, MPI_DOUBLE, MPI_SUM, MPI_COMM_WORLD);

    if (rank == 0) {
        const field::Extent box = field::paddedExtent({n, n, n}, padding);
        const double estimate =
            static_cast<double>(field::fieldMemoryBytes({n, n, n}, padding, size));
        std::printf("grain pack %u^3, porosity %.3f, padding %g (FFT box %u^3), %d process(es)\n",
                    n, grid.porosity(), padding, box[0], size);
        std::printf(
            "field: %.2f s (%.2f s of CPU on the busiest process); gradient statistics: "
            "%.2f s (median %.4g T/m at 0.05 T)\n",
            fieldSeconds, fieldCpu, statisticsSeconds, stats.median);
        std::printf(
            "peak resident memory above the grid: %.1f MiB per process (estimate %.1f MiB)\n",
            peak / 1048576.0, estimate / 1048576.0);
        std::printf("bytes per cell over all processes: %.1f (the grid adds 1 per node)\n",
                    total / cells);
    }
    MPI_Finalize();
    return 0;
}
