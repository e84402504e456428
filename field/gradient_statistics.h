#pragma once

#include <mpi.h>

#include <cstdint>
#include <vector>

#include "field/dipole_field.h"
#include "grid/grid.h"

namespace nmr::field {

// The magnitude of the internal gradient, |grad dB| = B0 |grad (dB/B0)| in T/m, over the
// interior pore cells of the grid (margins are not sample). Derivatives are central
// differences over the neighbouring cell centres, one-sided on the faces of the grid, zero
// along an axis of one cell; the cell size is in micrometres (1e-6 m). Percentiles are
// nearest-rank: the value at rank ceil(q N) of the N gradients in ascending order, so the
// median of an even count is the lower of the middle two. With no pore cell, cells is 0
// and the figures are NaN.
struct GradientStatistics {
    std::uint64_t cells = 0;
    double mean = 0.0;
    double median = 0.0;
    double percentile90 = 0.0;
    // A histogram for plots: counts[i] gradients in [edges[i], edges[i + 1]), ten bins per
    // decade over the range of the positive gradients; gradients of exactly 0 go to zeros.
    std::vector<double> edges;
    std::vector<std::uint64_t> counts;
    std::uint64_t zeros = 0;
};

// Collective over comm: each process passes its slab of computeFieldSlab (the neighbouring
// slices travel between processes), and all get the same statistics, with the same bits
// at any process count: sums are taken per slice and then in slice order, and percentiles
// are selected exactly. The gradients are held as floats, like the field they come from.
GradientStatistics poreGradientStatistics(const Grid<Mineral::Type>& grid, const FieldSlab& slab,
                                          double staticField, MPI_Comm comm);

}  // namespace nmr::field
