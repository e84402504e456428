#pragma once

#include <mpi.h>

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "grid/grid.h"
#include "grid/mineral.h"
#include "grid/mineral_value_map.h"

// The internal magnetic field of a rock in the static field B0 of an NMR magnet, to first
// order in the susceptibility. Conventions:
// - The result is dB/B0 (dimensionless) along B0 at every cell centre, x fastest, then y,
//   then z, over the whole grid (margins included).
// - The sample is embedded in its own pore fluid: the source is chi(cell) - chi(Pore), and
//   it is zero outside the grid. A grid of pore fluid alone, or of minerals whose
//   susceptibility equals the fluid's, has no field at all.
// - The field is the one a nucleus feels: the Lorentz-sphere correction is applied, so the
//   dipole kernel is 1/3 - k_par^2 / k^2 with k_par the wave vector's component along B0,
//   and its k = 0 term is 0. A uniformly magnetised sphere has no field inside; outside it
//   is (dchi / 3) (R / r)^3 (3 cos^2(theta) - 1).
// - The convolution is cyclic over an FFT box that holds the grid and zero padding: at least
//   `padding` times the grid along each axis, so that the images of the box do not reach
//   into the grid. With padding 2 the field of a sphere of radius 8 to 16 cells in a box of
//   6R + 8 is within 2.5 % (largest) and 0.55 % (RMS) of the closed form at 1.5R to 3R.
// - Cells are cubic; the cell size does not enter dB/B0.
namespace nmr::field {

enum class Axis { X = 0, Y = 1, Z = 2 };
// "x", "y" or "z"; anything else throws nmr::Exception naming the text.
Axis axisFromName(const std::string& name);
std::string axisName(Axis axis);

// SI volume susceptibility per mineral code; code 0 (Pore) is that of the pore fluid.
using Susceptibilities = std::array<double, 16>;

// The table of a grid from susceptibilities by mineral (Pore: the pore fluid, which also
// fills the codes nothing names). Throws nmr::Exception naming a mineral the grid holds
// without a value.
Susceptibilities susceptibilityTable(const MineralValueMap<double>& given,
                                     const Grid<Mineral::Type>& grid);

// The FFT box per axis: 2 keeps the largest error of a sphere's field at 1.5 radii within
// 2.5 % of the local dipole amplitude; 1 (no padding) makes it 60 % and more.
inline constexpr double kDefaultPadding = 2.0;

struct FieldOptions {
    Axis direction = Axis::Z;
    double padding = kDefaultPadding;
};

using Extent = std::array<std::uint32_t, 3>;  // cells along x, y, z

// The FFT length for n cells: the least integer at least padding * n with no prime factor
// above 7 (the lengths FFTW handles fastest). Throws nmr::Exception for a padding below 1
// or not a number, or a length beyond what FFTW takes (2^31 - 1).
std::uint32_t paddedLength(std::uint32_t n, double padding);
Extent paddedExtent(const Extent& n, double padding);

// The z slices of one process in the collective computation: FFTW's block distribution,
// ceil(nz / size) slices to each process in rank order, so the last ones may hold fewer or
// none.
struct Slab {
    std::uint32_t zBegin = 0;
    std::uint32_t zCount = 0;
};
Slab slabOf(std::uint32_t nz, int rank, int size);

// Bytes that one process needs at the peak of computeFieldSlab among `processes` (the one
// with the most), beyond the grid itself; with 1 process, those of computeField. For a
// caller to refuse a field before anything is allocated. With the default padding this is
// about 20 bytes per grid cell at one process and about 30 per cell among several (each
// in-place transpose buffers its share).
std::uint64_t fieldMemoryBytes(const Extent& n, double padding, int processes);

// The field of the whole grid in this process. Throws nmr::Exception for a susceptibility
// that is not finite or a bad padding, std::bad_alloc when memory runs out.
std::vector<float> computeField(const Grid<Mineral::Type>& grid,
                                const Susceptibilities& susceptibility,
                                const FieldOptions& options);

// One process's z slices of the field: slab.zCount * ny * nx values, x fastest.
struct FieldSlab {
    Extent size{};  // the whole grid
    Slab slab;
    std::vector<float> values;
};

// Collective over comm: every process passes the same grid cells, susceptibilities and
// options, and gets its own slab (slabOf its rank). The result has the bits of
// computeField whatever the number of processes. A bad padding or susceptibility throws the
// same nmr::Exception on every process, and so does a process that cannot hold its part
// (MemoryAllocationException, agreed before the first transpose).
FieldSlab computeFieldSlab(const Grid<Mineral::Type>& grid, const Susceptibilities& susceptibility,
                           const FieldOptions& options, MPI_Comm comm);

}  // namespace nmr::field
