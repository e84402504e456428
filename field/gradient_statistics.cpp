#include "field/gradient_statistics.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cmath>
#include <limits>
#include <numeric>
#include <stdexcept>

namespace nmr::field {

namespace {

constexpr int kBinsPerDecade = 10;

// Counts travel as what std::uint64_t is on this platform.
static_assert(sizeof(unsigned long) == sizeof(std::uint64_t));
const MPI_Datatype kCountType = MPI_UNSIGNED_LONG;

// The field of one process with the slices next to its slab, from its neighbours.
class SlabWithHalo {
public:
    SlabWithHalo(const FieldSlab& slab, MPI_Comm comm) : slab_(slab) {
        const std::size_t sliceCells = std::size_t{slab.size[0]} * slab.size[1];
        if (sliceCells > static_cast<std::size_t>(INT_MAX))
            throw std::length_error("A slice of the field is too large to send in one message");
        int rank = 0;
        MPI_Comm_rank(comm, &rank);
        const Slab& s = slab.slab;
        const bool held = s.zCount > 0;
        const int below = held && s.zBegin > 0 ? rank - 1 : MPI_PROC_NULL;
        const int above = held && s.zBegin + s.zCount < slab.size[2] ? rank + 1 : MPI_PROC_NULL;
        below_.resize(below == MPI_PROC_NULL ? 0 : sliceCells);
        above_.resize(above == MPI_PROC_NULL ? 0 : sliceCells);
        const auto count = static_cast<int>(sliceCells);
        const float* first = held ? slab.values.data() : nullptr;
        const float* last = held ? first + (s.zCount - 1) * sliceCells : nullptr;
        MPI_Sendrecv(last, above == MPI_PROC_NULL ? 0 : count, MPI_FLOAT, above, 0, below_.data(),
                     below == MPI_PROC_NULL ? 0 : count, MPI_FLOAT, below, 0, comm,
                     MPI_STATUS_IGNORE);
        MPI_Sendrecv(first, below == MPI_PROC_NULL ? 0 : count, MPI_FLOAT, below, 1, above_.data(),
                     above == MPI_PROC_NULL ? 0 : count, MPI_FLOAT, above, 1, comm,
                     MPI_STATUS_IGNORE);
    }

    // Any cell of the slab or of the two slices beside it.
    double at(std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
        const std::size_t inSlice = std::size_t{y} * slab_.size[0] + x;
        if (z < slab_.slab.zBegin) return below_[inSlice];
        const std::size_t local = z - slab_.slab.zBegin;
        if (local >= slab_.slab.zCount) return above_[inSlice];
        return slab_.values[local * slab_.size[0] * slab_.size[1] + inSlice];
    }

private:
    const FieldSlab& slab_;
    std::vector<float> below_;
    std::vector<float> above_;
};

// d(dB/B0)/d(axis) at one cell, per cell edge.
double derivative(const SlabWithHalo& f, std::array<std::uint32_t, 3> at, int axis,
                  std::uint32_t n) {
    if (n < 2) return 0.0;
    auto shifted = [&](std::uint32_t i) {
        std::array<std::uint32_t, 3> p = at;
        p[static_cast<std::size_t>(axis)] = i;
        return f.at(p[0], p[1], p[2]);
    };
    const std::uint32_t i = at[static_cast<std::size_t>(axis)];
    if (i == 0) return shifted(1) - shifted(0);
    if (i == n - 1) return shifted(n - 1) - shifted(n - 2);
    return (shifted(i + 1) - shifted(i - 1)) / 2.0;
}

struct LocalGradients {
    std::vector<float> values;        // T/m, one per interior pore cell of the slab
    std::vector<double> sliceSums;    // per slab slice, summed in cell order
    std::vector<double> sliceCounts;  // exact below 2^53
};

LocalGradients localGradients(const Grid<Mineral::Type>& grid, const FieldSlab& slab,
                              const SlabWithHalo& field, double staticField) {
    const double perMetre = staticField / (grid.cellSize() * 1e-6);
    LocalGradients local;
    local.sliceSums.assign(slab.slab.zCount, 0.0);
    local.sliceCounts.assign(slab.slab.zCount, 0.0);
    Mineral::Type cell{};
    for (std::uint32_t k = 0; k < slab.slab.zCount; ++k) {
        const std::uint32_t z = slab.slab.zBegin + k;
        for (std::uint32_t y = 0; y < slab.size[1]; ++y)
            for (std::uint32_t x = 0; x < slab.size[0]; ++x) {
                if (!grid.isInterior(x, y, z) || grid.getCell(cell, x, y, z) != Mineral::Pore)
                    continue;
                const std::array<std::uint32_t, 3> at{x, y, z};
                const double dx = derivative(field, at, 0, slab.size[0]);
                const double dy = derivative(field, at, 1, slab.size[1]);
                const double dz = derivative(field, at, 2, slab.size[2]);
                const double g = perMetre * std::sqrt(dx * dx + dy * dy + dz * dz);
                local.values.push_back(static_cast<float>(g));
                local.sliceSums[k] += g;
                local.sliceCounts[k] += 1.0;
            }
    }
    return local;
}

// Every process's per-slice values, in slice order.
std::vector<double> gatherSlices(const std::vector<double>& mine, std::uint32_t nz, MPI_Comm comm) {
    int size = 1;
    MPI_Comm_size(comm, &size);
    std::vector<int> counts(static_cast<std::size_t>(size)), offsets(counts.size());
    for (int r = 0; r < size; ++r) {
        const Slab s = slabOf(nz, r, size);
        counts[static_cast<std::size_t>(r)] = static_cast<int>(s.zCount);
        offsets[static_cast<std::size_t>(r)] = static_cast<int>(s.zBegin);
    }
    std::vector<double> all(nz);
    MPI_Allgatherv(mine.data(), static_cast<int>(mine.size()), MPI_DOUBLE, all.data(),
                   counts.data(), offsets.data(), MPI_DOUBLE, comm);
    return all;
}

// Non-negative floats order as their bit patterns do.
std::uint32_t bitsOf(float value) { return std::bit_cast<std::uint32_t>(value); }

// The 0-based rank-th smallest of all processes' values: the upper 16 bits of its pattern
// from one histogram over all processes, the lower 16 from a second over that bucket.
float selectRank(const std::vector<float>& values, std::uint64_t rank, MPI_Comm comm) {
    std::uint32_t prefix = 0;
    for (int pass = 0; pass < 2; ++pass) {
        std::vector<std::uint64_t> histogram(1u << 16, 0);
        for (float v : values) {
            const std::uint32_t bits = bitsOf(v);
            if (pass == 1 && bits >> 16 != prefix >> 16) continue;
            ++histogram[pass == 0 ? bits >> 16 : bits & 0xFFFFu];
        }
        MPI_Allreduce(MPI_IN_PLACE, histogram.data(), static_cast<int>(histogram.size()),
                      kCountType, MPI_SUM, comm);
        std::uint32_t bucket = 0;
        while (rank >= histogram[bucket]) rank -= histogram[bucket++];
        prefix |= pass == 0 ? bucket << 16 : bucket;
    }
    return std::bit_cast<float>(prefix);
}

void fillHistogram(const std::vector<float>& values, GradientStatistics& stats, MPI_Comm comm) {
    float least = std::numeric_limits<float>::max(), most = 0.0f;
    for (float v : values)
        if (v > 0.0f) least = std::min(least, v), most = std::max(most, v);
    MPI_Allreduce(MPI_IN_PLACE, &least, 1, MPI_FLOAT, MPI_MIN, comm);
    MPI_Allreduce(MPI_IN_PLACE, &most, 1, MPI_FLOAT, MPI_MAX, comm);
    if (most > 0.0f) {
        const auto first = static_cast<int>(std::floor(kBinsPerDecade * std::log10(least)));
        const auto last = static_cast<int>(std::floor(kBinsPerDecade * std::log10(most))) + 1;
        for (int e = first; e <= last; ++e)
            stats.edges.push_back(std::pow(10.0, static_cast<double>(e) / kBinsPerDecade));
        stats.counts.assign(stats.edges.size() - 1, 0);
    }
    std::uint64_t zeros = 0;
    for (float v : values) {
        if (v <= 0.0f) {
            ++zeros;
            continue;
        }
        const auto above = std::upper_bound(stats.edges.begin(), stats.edges.end(), double{v});
        const auto bin =
            static_cast<std::size_t>(std::max<std::ptrdiff_t>(above - stats.edges.begin() - 1, 0));
        ++stats.counts[std::min(bin, stats.counts.size() - 1)];
    }
    MPI_Allreduce(MPI_IN_PLACE, stats.counts.data(), static_cast<int>(stats.counts.size()),
                  kCountType, MPI_SUM, comm);
    MPI_Allreduce(&zeros, &stats.zeros, 1, kCountType, MPI_SUM, comm);
}

}  // namespace

GradientStatistics poreGradientStatistics(const Grid<Mineral::Type>& grid, const FieldSlab& slab,
                                          double staticField, MPI_Comm comm) {
    const SlabWithHalo field(slab, comm);
    const LocalGradients local = localGradients(grid, slab, field, staticField);
    const std::vector<double> sums = gatherSlices(local.sliceSums, slab.size[2], comm);
    const std::vector<double> counts = gatherSlices(local.sliceCounts, slab.size[2], comm);
    GradientStatistics stats;
    const double total = std::accumulate(sums.begin(), sums.end(), 0.0);
    stats.cells = static_cast<std::uint64_t>(std::accumulate(counts.begin(), counts.end(), 0.0));
    if (stats.cells == 0) {
        stats.mean = stats.median = stats.percentile90 = std::numeric_limits<double>::quiet_NaN();
        return stats;
    }
    stats.mean = total / static_cast<double>(stats.cells);
    // Nearest rank ceil(q N), 1-based, as a 0-based index.
    stats.median = selectRank(local.values, (stats.cells + 1) / 2 - 1, comm);
    stats.percentile90 = selectRank(local.values, (9 * stats.cells + 9) / 10 - 1, comm);
    fillHistogram(local.values, stats, comm);
    return stats;
}

}  // namespace nmr::field
