// Times one T2 inversion of 300 decay points onto 100 and onto 500 T2 components, split
// into kernel, SVD (with the compression A_r = U_r^T K), L-curve search and the
// non-negative solve. Prints figures only; asserts nothing about time.

#include <chrono>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <vector>

#include "t2/l_curve.h"
#include "t2/t2_grid.h"
#include "t2/t2_inversion.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// End times (ms) of the walk's 300 intervals for a 1 um voxel, step 0.5 voxel, water
// diffusion 2.5e-9 m^2/s, switching to the coarse step at once.
std::vector<double> intervalEndTimes() {
    const double voxel = 1e-6;
    const double diffusion = 2.5e-9;
    const double ratio = std::pow(10.0, 0.025);
    double tau = (voxel * 0.25) * (voxel * 0.25) / (6.0 * diffusion) * 1000.0;
    bool armed = true;
    std::int32_t k = 0;
    std::vector<double> times;
    for (int i = 0; i < 300; ++i) {
        const auto next = static_cast<std::int32_t>(std::lround(k * ratio)) + 1;
        k = next;
        const double t = next * tau;
        times.push_back(t);
        if (armed && t > 0.0) {
            armed = false;
            tau = (voxel * 0.5) * (voxel * 0.5) / (6.0 * diffusion) * 1000.0;
            k = static_cast<std::int32_t>(t / tau);
        }
    }
    return times;
}

struct Stages {
    double kernel = 0, svd = 0, lCurve = 0, nnls = 0;
    std::int32_t rank = 0;
};

Stages runOnce(const std::vector<double>& times, const std::vector<double>& values,
               std::int32_t components) {
    using namespace nmr::t2;
    const std::vector<double> grid = makeT2Grid(0.0001, 10000.0, components);
    T2Inversion inversion;
    Stages s;
    auto start = Clock::now();
    inversion.buildKernel(times, grid);
    s.kernel = msSince(start);
    start = Clock::now();
    inversion.compress(values, 1000000.0);
    s.svd = msSince(start);
    start = Clock::now();
    const double lambda = lCurveCorner(inversion.compressedData(), inversion.singularValues());
    s.lCurve = msSince(start);
    start = Clock::now();
    const std::vector<double> amplitudes = inversion.regularizedAmplitudes(lambda);
    s.nnls = msSince(start);
    s.rank = inversion.rank();
    return s;
}

}  // namespace

int main() {
    const std::vector<double> times = intervalEndTimes();
    std::vector<double> values;
    values.reserve(times.size());
    for (double t : times) {
        values.push_back(0.3 * std::exp(-t / 2.0) + 0.4 * std::exp(-t / 40.0) +
                         0.3 * std::exp(-t / 900.0));
    }
    constexpr int kRepeats = 5;
    std::cout << "T2 inversion of " << times.size() << " decay points, best of " << kRepeats
              << " runs (ms)\n";
    for (std::int32_t components : {100, 500}) {
        Stages best;
        double bestTotal = 1e300;
        for (int rep = 0; rep < kRepeats; ++rep) {
            const Stages s = runOnce(times, values, components);
            const double total = s.kernel + s.svd + s.lCurve + s.nnls;
            if (total < bestTotal) {
                bestTotal = total;
                best = s;
            }
        }
        std::cout << components << " components: rank " << best.rank << ", kernel " << best.kernel
                  << ", svd " << best.svd << ", l-curve " << best.lCurve << ", nnls " << best.nnls
                  << ", total " << bestTotal << std::endl;
    }
    return 0;
}
