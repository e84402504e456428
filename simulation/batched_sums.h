#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "simulation/exact_sums.h"

// Sums kept per batch of walkers, for the jackknife. Walker j of the job adds into batch
// j mod kBatches, so every batch holds the same sums at any process count, and the batches
// together hold exactly what one set of sums would. A result computed from the sums
// without batch k, for each k, gives the jackknife's standard error of that result, for
// any function of the sums: ratios, fitted slopes, fits across experiments that share their
// walkers (leave the same batch out of each).

namespace nmr {

inline constexpr std::size_t kBatches = 32;

// Where the `width` sums of walker j's batch begin.
inline std::size_t batchStart(std::uint64_t walker, std::size_t width) {
    return static_cast<std::size_t>(walker % kBatches) * width;
}

struct BatchedTotals {
    // The sums over all batches, from the exact integers.
    std::vector<double> total;
    // total without one batch, for each batch that holds a walker (its sum at `walkedAt`
    // above 0): the jackknife's replicates. Fewer than kBatches when the job has fewer
    // walkers.
    std::vector<std::vector<double>> leftOut;
};

// `sums` holds kBatches batches of `width` sums each; entry `walkedAt` of a batch counts
// its walkers.
BatchedTotals batchedTotals(const ExactSums& sums, std::size_t width, std::size_t walkedAt);

// sqrt((K - 1) / K * sum_k (x_k - mean)^2) over the K replicates: the jackknife's standard
// error of the estimate they were left out of. NaN for fewer than two, or for any NaN.
double jackknifeError(const std::vector<double>& replicates);

}  // namespace nmr
