#include "simulation/batched_sums.h"

#include <cmath>
#include <limits>

namespace nmr {

BatchedTotals batchedTotals(const ExactSums& sums, std::size_t width, std::size_t walkedAt) {
    BatchedTotals out;
    const ExactSums folded = sums.folded(width);
    out.total.resize(width);
    for (std::size_t i = 0; i < width; ++i) out.total[i] = folded.sum(i);
    for (std::size_t k = 0; k < kBatches && (k + 1) * width <= sums.size(); ++k) {
        const std::size_t from = k * width;
        if (!(sums.sum(from + walkedAt) > 0.0)) continue;
        std::vector<double> rest(width);
        for (std::size_t i = 0; i < width; ++i) rest[i] = out.total[i] - sums.sum(from + i);
        out.leftOut.push_back(std::move(rest));
    }
    return out;
}

double jackknifeError(const std::vector<double>& replicates) {
    const auto k = static_cast<double>(replicates.size());
    if (replicates.size() < 2) return std::numeric_limits<double>::quiet_NaN();
    double mean = 0.0;
    for (double x : replicates) mean += x;
    mean /= k;
    double squares = 0.0;
    for (double x : replicates) squares += (x - mean) * (x - mean);
    return std::sqrt((k - 1.0) / k * squares);
}

}  // namespace nmr
