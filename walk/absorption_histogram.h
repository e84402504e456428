#pragma once

#include <mpi.h>

#include <cstdint>
#include <vector>

#include "walk/step_schedule.h"

namespace nmr {

// Per-process count of walk results by interval index, with the largest index seen.
class AbsorptionHistogram {
public:
    explicit AbsorptionHistogram(std::uint32_t intervals = kIntervalCount)
        : counts_(intervals, 0u) {}

    // A result outside the histogram is a programming error (std::out_of_range): the
    // walk never returns an index at or above the interval count.
    void count(std::uint32_t result) {
        ++counts_.at(result);
        if (result > localMaximum_) localMaximum_ = result;
    }
    // Takes up a histogram saved part-way through a walk.
    void restore(std::vector<std::uint32_t> counts, std::uint32_t localMaximum) {
        counts_ = std::move(counts);
        localMaximum_ = localMaximum;
    }
    const std::vector<std::uint32_t>& counts() const { return counts_; }
    std::vector<std::uint32_t>& counts() { return counts_; }
    std::uint32_t localMaximum() const { return localMaximum_; }

private:
    std::vector<std::uint32_t> counts_;
    std::uint32_t localMaximum_ = 0;
};

inline void countAbsorption(AbsorptionHistogram& histogram, std::uint32_t result) {
    histogram.count(result);
}

struct ReducedAbsorptions {
    // M: the largest index any process returned, the same on every process.
    std::uint32_t intervalsReached = 0;
    // M counters: the sum over all processes on process 0, zeros elsewhere.
    std::vector<std::uint32_t> counts;
};

// Collective over comm, entered once by every process: the maximum
// index first (all-reduce), then the local histogram is cut or zero-extended to exactly
// M counters, and the histograms are summed onto process 0. Counts at index M and above
// are dropped, so the last interval any walker reached is not part of the curve.
ReducedAbsorptions reduceAbsorptions(AbsorptionHistogram& histogram,
                                     MPI_Comm comm = MPI_COMM_WORLD);

}  // namespace nmr
