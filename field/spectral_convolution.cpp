#include "field/spectral_convolution.h"

#include <algorithm>
#include <vector>

#include "field/line_transforms.h"

namespace nmr::field::detail {

namespace {

Complex* lineAt(Complex* store, LineLayout layout, std::size_t ny, std::size_t kx, std::size_t z) {
    return store + (kx * layout.kxStride + z * layout.zStride) * ny;
}
const Complex* lineAt(const Complex* store, LineLayout layout, std::size_t ny, std::size_t kx,
                      std::size_t z) {
    return store + (kx * layout.kxStride + z * layout.zStride) * ny;
}

// Squared frequency in cycles per cell of wave number m of an n-point transform: m / n for
// m up to n / 2, (m - n) / n above. Its sign does not matter to the kernel.
double squaredFrequency(std::size_t m, std::size_t n) {
    const double signedIndex =
        m <= n / 2 ? static_cast<double>(m) : static_cast<double>(m) - static_cast<double>(n);
    const double f = signedIndex / static_cast<double>(n);
    return f * f;
}

std::vector<double> squaredFrequencies(std::size_t n) {
    std::vector<double> values(n);
    for (std::size_t m = 0; m < n; ++m) values[m] = squaredFrequency(m, n);
    return values;
}

// The kernel times the normalisation, along one z line of the plane (kx, ky). The sum of
// the squares is taken in one fixed order; nothing here may be contracted into a fused
// multiply-add (the library is built with -ffp-contract=off).
void applyKernel(WideComplex* line, std::size_t nz, double kx2, double ky2,
                 const std::vector<double>& kz2, Axis direction, double normalisation) {
    for (std::size_t kz = 0; kz < nz; ++kz) {
        const double k2 = kx2 + ky2 + kz2[kz];
        const double along = direction == Axis::X ? kx2 : direction == Axis::Y ? ky2 : kz2[kz];
        // k = 0 is the mean of the source over the box: with the Lorentz correction a
        // spherical sample's mean field is 0, and so is this term.
        const double kernel = k2 > 0.0 ? (1.0 / 3.0 - along / k2) * normalisation : 0.0;
        line[kz] *= static_cast<Wide>(kernel);
    }
}

void convolvePlane(const Box& box, Axis direction, double kx2, double normalisation, Complex* store,
                   LineLayout layout, std::size_t localKx, Workspace& s) {
    const std::size_t ny = box.n[1], nz = box.n[2];
    const std::size_t paddedY = box.padded[1], paddedZ = box.padded[2];
    WideComplex* y = s.yLine.data();
    WideComplex* z = s.zLine.data();
    for (std::size_t iz = 0; iz < nz; ++iz) {
        const Complex* line = lineAt(store, layout, ny, localKx, iz);
        std::copy(line, line + ny, y);
        std::fill(y + ny, y + paddedY, WideComplex{});
        s.yLine.forward();
        for (std::size_t ky = 0; ky < paddedY; ++ky) s.plane[ky * nz + iz] = y[ky];
    }
    for (std::size_t ky = 0; ky < paddedY; ++ky) {
        WideComplex* row = s.plane.data() + ky * nz;
        std::copy(row, row + nz, z);
        std::fill(z + nz, z + paddedZ, WideComplex{});
        s.zLine.forward();
        applyKernel(z, paddedZ, kx2, s.ky2[ky], s.kz2, direction, normalisation);
        s.zLine.backward();
        std::copy(z, z + nz, row);
    }
    for (std::size_t iz = 0; iz < nz; ++iz) {
        for (std::size_t ky = 0; ky < paddedY; ++ky) y[ky] = s.plane[ky * nz + iz];
        s.yLine.backward();
        Complex* line = lineAt(store, layout, ny, localKx, iz);
        for (std::size_t iy = 0; iy < ny; ++iy) line[iy] = Complex(y[iy]);
    }
}

}  // namespace

Workspace::Workspace(const Box& box)
    : row(box.padded[0]),
      plane(box.padded[1] * std::size_t{box.n[2]}),
      yLine(box.padded[1]),
      zLine(box.padded[2]),
      ky2(squaredFrequencies(box.padded[1])),
      kz2(squaredFrequencies(box.padded[2])) {}

void transformRows(const Grid<Mineral::Type>& grid, const Susceptibilities& susceptibility,
                   const Box& box, std::uint32_t zBegin, std::uint32_t zCount, Complex* store,
                   LineLayout layout, Workspace& work) {
    // The source of each mineral code: its contrast with the fluid the sample sits in.
    std::array<double, 16> contrast{};
    for (std::size_t m = 0; m < contrast.size(); ++m)
        contrast[m] = susceptibility[m] - susceptibility[Mineral::Pore];
    const std::size_t nx = box.n[0], ny = box.n[1], halfX = box.halfX();
    RealLine& row = work.row;
    Wide* values = row.real();
    std::fill(values + nx, values + box.padded[0], Wide{0});
    Mineral::Type cell{};
    for (std::uint32_t iz = 0; iz < zCount; ++iz) {
        for (std::uint32_t iy = 0; iy < ny; ++iy) {
            for (std::uint32_t ix = 0; ix < nx; ++ix) {
                const Mineral::Type code = grid.getCell(cell, ix, iy, zBegin + iz);
                values[ix] = static_cast<Wide>(contrast.at(code));
            }
            row.forward();
            const WideComplex* spectrum = row.spectrum();
            for (std::size_t kx = 0; kx < halfX; ++kx)
                lineAt(store, layout, ny, kx, iz)[iy] = Complex(spectrum[kx]);
        }
    }
}

void convolvePlanes(const Box& box, Axis direction, std::size_t kxBegin, std::size_t kxCount,
                    Complex* store, LineLayout layout, Workspace& work) {
    const double normalisation =
        1.0 / (static_cast<double>(box.padded[0]) * static_cast<double>(box.padded[1]) *
               static_cast<double>(box.padded[2]));
    for (std::size_t k = 0; k < kxCount; ++k) {
        const double kx2 = squaredFrequency(kxBegin + k, box.padded[0]);
        convolvePlane(box, direction, kx2, normalisation, store, layout, k, work);
    }
}

void inverseRows(const Box& box, std::uint32_t zCount, const Complex* store, LineLayout layout,
                 float* out, Workspace& work) {
    const std::size_t nx = box.n[0], ny = box.n[1], halfX = box.halfX();
    RealLine& row = work.row;
    WideComplex* spectrum = row.spectrum();
    const Wide* values = row.real();
    for (std::uint32_t iz = 0; iz < zCount; ++iz) {
        for (std::uint32_t iy = 0; iy < ny; ++iy) {
            for (std::size_t kx = 0; kx < halfX; ++kx)
                spectrum[kx] = WideComplex(lineAt(store, layout, ny, kx, iz)[iy]);
            row.backward();
            float* cells = out + (std::size_t{iz} * ny + iy) * nx;
            for (std::size_t ix = 0; ix < nx; ++ix) cells[ix] = static_cast<float>(values[ix]);
        }
    }
}

}  // namespace nmr::field::detail
