#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "field/dipole_field.h"
#include "field/line_transforms.h"

// The three stages of the convolution, shared by the one-process and the collective
// computation. The 3-D transform of the padded box is never held: padding cells are zero
// on the way in and not wanted on the way out, so
//   1. every row of the grid (nx cells) is transformed along x into nx' = Nx / 2 + 1 wave
//      numbers, and only the grid's ny * nz rows are stored;
//   2. each kx plane (ny * nz values) is transformed along y and z over the padded lengths
//      in a scratch plane of one kx, multiplied by the kernel, transformed back, and only
//      its grid cells kept;
//   3. every row goes back along x and its first nx cells are the field.
// The store holds nx' * ny * nz complex doubles, about 8 * padding bytes per grid cell,
// against 8 * padding^3 for the padded box. Each line is transformed by the same plan
// whatever the slab a process holds, which is what makes the result independent of the
// process count.
namespace nmr::field::detail {

using Complex = std::complex<double>;

// The grid and its FFT box.
struct Box {
    Extent n{};
    Extent padded{};
    std::size_t halfX() const { return padded[0] / 2 + 1; }
};

// Where the y line of ny values of (local kx, local z) starts in the store, in lines of
// ny: kx * kxStride + z * zStride.
struct LineLayout {
    std::size_t kxStride;
    std::size_t zStride;
};

// The lines and the plane the stages transform in, allocated before any stage runs: in the
// collective computation every process must have them before the first transpose, or a
// process that fails later would leave the others waiting in it.
struct Workspace {
    explicit Workspace(const Box& box);

    RealLine row;
    // One kx plane: the padded y transforms of the grid's nz slices, ky-major
    // (plane[ky * nz + z]).
    std::vector<WideComplex> plane;
    ComplexLine yLine;
    ComplexLine zLine;
    std::vector<double> ky2;  // squared frequencies, cycles per cell
    std::vector<double> kz2;
};

// Stage 1 for slices [zBegin, zBegin + zCount) of the grid, stored at local z from 0.
void transformRows(const Grid<Mineral::Type>& grid, const Susceptibilities& susceptibility,
                   const Box& box, std::uint32_t zBegin, std::uint32_t zCount, Complex* store,
                   LineLayout layout, Workspace& work);

// Stage 2 for wave numbers [kxBegin, kxBegin + kxCount), stored at local kx from 0, each
// with all nz slices. The kernel carries the normalisation of the three transforms.
void convolvePlanes(const Box& box, Axis direction, std::size_t kxBegin, std::size_t kxCount,
                    Complex* store, LineLayout layout, Workspace& work);

// Stage 3 for zCount local slices: nx * ny values per slice into out, x fastest.
void inverseRows(const Box& box, std::uint32_t zCount, const Complex* store, LineLayout layout,
                 float* out, Workspace& work);

}  // namespace nmr::field::detail
