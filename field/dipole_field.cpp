#include "field/dipole_field.h"

#include <fftw3-mpi.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <memory>
#include <mutex>
#include <new>
#include <sstream>
#include <stdexcept>

#include "common/exception.h"
#include "field/line_transforms.h"
#include "field/spectral_convolution.h"

namespace nmr::field {

namespace {

using detail::Box;
using detail::Complex;
using detail::LineLayout;

bool isSevenSmooth(std::uint64_t n) {
    for (std::uint64_t p : {2u, 3u, 5u, 7u})
        while (n % p == 0) n /= p;
    return n == 1;
}

std::string numberText(double value) {
    std::ostringstream text;
    text << value;
    return text.str();
}

void checkSusceptibilities(const Susceptibilities& susceptibility) {
    for (std::size_t code = 0; code < susceptibility.size(); ++code) {
        if (!std::isfinite(susceptibility[code])) {
            const std::string name = Mineral::name(static_cast<Mineral::Type>(code));
            throw Exception("The volume susceptibility of " +
                            (name.empty() ? "mineral code " + std::to_string(code) : name) +
                            " is not a finite number: " + numberText(susceptibility[code]));
        }
    }
}

Box boxOf(const Grid<Mineral::Type>& grid, const FieldOptions& options) {
    const Extent n{grid.nx(), grid.ny(), grid.nz()};
    return Box{n, paddedExtent(n, options.padding)};
}

// The bytes of each part of the computation for one process holding zSlices of the grid
// and kxPlanes of the spectrum.
struct Footprint {
    std::uint64_t store = 0;   // the complex doubles of stages 1 to 3
    std::uint64_t plane = 0;   // one kx plane of stage 2 and its lines, long double
    std::uint64_t output = 0;  // the process's slab of floats
};

Footprint footprintOf(const Box& box, std::uint64_t zSlices, std::uint64_t kxPlanes) {
    const std::uint64_t nx = box.n[0], ny = box.n[1], nz = box.n[2];
    const std::uint64_t lines = std::max(zSlices * box.halfX(), kxPlanes * nz);
    Footprint f;
    f.store = lines * ny * sizeof(Complex);
    f.plane = (box.padded[1] * nz + box.padded[1] + box.padded[2]) * sizeof(detail::WideComplex) +
              2 * (box.padded[0] + box.halfX()) * sizeof(detail::WideComplex);
    f.output = nx * ny * zSlices * sizeof(float);
    return f;
}

// Every process of comm learns whether all of them got their memory, and all fail alike.
void agreeOnAllocation(bool allocated, std::uint64_t bytes, MPI_Comm comm) {
    int mine = allocated ? 1 : 0;
    int all = 0;
    MPI_Allreduce(&mine, &all, 1, MPI_INT, MPI_LAND, comm);
    if (all == 0) {
        throw MemoryAllocationException(
            "Not enough memory for the field: " + std::to_string(bytes >> 20) +
            " MiB of spectrum per process could not be allocated");
    }
}

// FFTW-MPI's in-place transpose of an n0 x n1 matrix of `howmany` doubles per element,
// distributed by rows, into n1 x n0. It only moves numbers.
class Transpose {
public:
    Transpose(std::size_t n0, std::size_t n1, std::size_t howmany, double* data, MPI_Comm comm) {
        const std::lock_guard<std::mutex> planning(detail::plannerLock());
        plan_ = fftw_mpi_plan_many_transpose(
            static_cast<ptrdiff_t>(n0), static_cast<ptrdiff_t>(n1), static_cast<ptrdiff_t>(howmany),
            FFTW_MPI_DEFAULT_BLOCK, FFTW_MPI_DEFAULT_BLOCK, data, data, comm, FFTW_ESTIMATE);
        if (plan_ == nullptr) throw std::runtime_error("FFTW-MPI could not plan a transpose");
    }
    ~Transpose() {
        const std::lock_guard<std::mutex> planning(detail::plannerLock());
        fftw_destroy_plan(plan_);
    }
    Transpose(const Transpose&) = delete;
    Transpose& operator=(const Transpose&) = delete;
    void execute() { fftw_execute(plan_); }

private:
    fftw_plan plan_ = nullptr;
};

}  // namespace

Axis axisFromName(const std::string& name) {
    if (name == "x") return Axis::X;
    if (name == "y") return Axis::Y;
    if (name == "z") return Axis::Z;
    throw Exception("The direction of B0 must be x, y or z: " + name);
}

std::string axisName(Axis axis) { return axis == Axis::X ? "x" : axis == Axis::Y ? "y" : "z"; }

std::uint32_t paddedLength(std::uint32_t n, double padding) {
    if (!(padding >= 1.0) || !std::isfinite(padding))
        throw Exception("The padding must be a number of at least 1: " + numberText(padding));
    const double least = std::ceil(padding * static_cast<double>(n));
    if (least > static_cast<double>(INT_MAX)) {
        throw Exception("A padding of " + numberText(padding) + " makes an FFT box of " +
                        numberText(least) + " cells along an axis; FFTW takes at most " +
                        std::to_string(INT_MAX));
    }
    auto length = static_cast<std::uint64_t>(least);
    while (!isSevenSmooth(length)) ++length;
    return static_cast<std::uint32_t>(length);
}

Extent paddedExtent(const Extent& n, double padding) {
    return {paddedLength(n[0], padding), paddedLength(n[1], padding), paddedLength(n[2], padding)};
}

Slab slabOf(std::uint32_t nz, int rank, int size) {
    const std::uint32_t count = static_cast<std::uint32_t>(size);
    const std::uint32_t block = (nz + count - 1) / count;
    const std::uint64_t begin =
        std::min<std::uint64_t>(std::uint64_t{block} * static_cast<std::uint64_t>(rank), nz);
    return Slab{static_cast<std::uint32_t>(begin),
                static_cast<std::uint32_t>(std::min<std::uint64_t>(block, nz - begin))};
}

std::uint64_t fieldMemoryBytes(const Extent& n, double padding, int processes) {
    const Box box{n, paddedExtent(n, padding)};
    const auto p = static_cast<std::uint64_t>(std::max(processes, 1));
    const std::uint64_t zSlices = (n[2] + p - 1) / p;
    const std::uint64_t kxPlanes = (box.halfX() + p - 1) / p;
    const Footprint f = footprintOf(box, zSlices, kxPlanes);
    // An in-place transpose among several processes may buffer up to its whole local part.
    const std::uint64_t transpose = p > 1 ? f.store : 0;
    // Stage 2 holds the store and a plane; stage 3 the store and the slab of floats; the
    // gradient statistics the slab, a value per cell of it and two neighbouring slices.
    const std::uint64_t halo = 2 * std::uint64_t{n[0]} * n[1] * sizeof(float);
    // FFTW's plans and twiddles and MPI's buffers: a few MiB measured, whatever the grid.
    constexpr std::uint64_t kFixed = std::uint64_t{16} << 20;
    return kFixed +
           std::max({f.store + transpose + f.plane, f.store + f.output, 2 * f.output + halo});
}

std::vector<float> computeField(const Grid<Mineral::Type>& grid,
                                const Susceptibilities& susceptibility,
                                const FieldOptions& options) {
    checkSusceptibilities(susceptibility);
    const Box box = boxOf(grid, options);
    const std::size_t ny = box.n[1], nz = box.n[2];
    std::vector<Complex> store(box.halfX() * ny * nz);
    detail::Workspace work(box);
    // kx-major within each slice: stage 2 reads the y lines of one kx at a stride.
    const LineLayout layout{1, box.halfX()};
    detail::transformRows(grid, susceptibility, box, 0, box.n[2], store.data(), layout, work);
    detail::convolvePlanes(box, options.direction, 0, box.halfX(), store.data(), layout, work);
    std::vector<float> field(std::size_t{box.n[0]} * ny * nz);
    detail::inverseRows(box, box.n[2], store.data(), layout, field.data(), work);
    return field;
}

FieldSlab computeFieldSlab(const Grid<Mineral::Type>& grid, const Susceptibilities& susceptibility,
                           const FieldOptions& options, MPI_Comm comm) {
    static std::once_flag started;
    std::call_once(started, [] {
        const std::lock_guard<std::mutex> planning(detail::plannerLock());
        fftw_mpi_init();
    });
    checkSusceptibilities(susceptibility);
    const Box box = boxOf(grid, options);
    const std::size_t ny = box.n[1], nz = box.n[2], halfX = box.halfX();

    // The store is an nz x halfX matrix of y lines (2 ny doubles each), split by slices;
    // transposed, a halfX x nz matrix split by wave numbers.
    const ptrdiff_t matrix[2] = {static_cast<ptrdiff_t>(nz), static_cast<ptrdiff_t>(halfX)};
    ptrdiff_t zCount = 0, zBegin = 0, kxCount = 0, kxBegin = 0;
    const ptrdiff_t doubles = fftw_mpi_local_size_many_transposed(
        2, matrix, static_cast<ptrdiff_t>(2 * ny), FFTW_MPI_DEFAULT_BLOCK, FFTW_MPI_DEFAULT_BLOCK,
        comm, &zCount, &zBegin, &kxCount, &kxBegin);
    int rank = 0, size = 1;
    MPI_Comm_rank(comm, &rank);
    MPI_Comm_size(comm, &size);
    const Slab slab = slabOf(box.n[2], rank, size);
    if (slab.zBegin != static_cast<std::uint32_t>(zBegin) ||
        slab.zCount != static_cast<std::uint32_t>(zCount))
        throw std::logic_error("FFTW-MPI distributes the slices otherwise than slabOf");

    // Everything is allocated, and the allocation agreed on, before the first transpose.
    const auto doublesHeld = static_cast<std::size_t>(std::max<ptrdiff_t>(doubles, 1));
    std::unique_ptr<double[]> memory;
    std::unique_ptr<detail::Workspace> work;
    FieldSlab result{box.n, slab, {}};
    try {
        memory.reset(new double[doublesHeld]);
        work = std::make_unique<detail::Workspace>(box);
        result.values.resize(std::size_t{box.n[0]} * ny * slab.zCount);
    } catch (const std::bad_alloc&) {
        memory.reset();
    }
    agreeOnAllocation(memory != nullptr, doublesHeld * sizeof(double), comm);
    auto* store = reinterpret_cast<Complex*>(memory.get());
    Transpose toPlanes(nz, halfX, 2 * ny, memory.get(), comm);
    Transpose toSlices(halfX, nz, 2 * ny, memory.get(), comm);

    const LineLayout slices{1, halfX};
    const LineLayout planes{nz, 1};
    detail::transformRows(grid, susceptibility, box, slab.zBegin, slab.zCount, store, slices,
                          *work);
    toPlanes.execute();
    detail::convolvePlanes(box, options.direction, static_cast<std::size_t>(kxBegin),
                           static_cast<std::size_t>(kxCount), store, planes, *work);
    toSlices.execute();
    detail::inverseRows(box, slab.zCount, store, slices, result.values.data(), *work);
    return result;
}

Susceptibilities susceptibilityTable(const MineralValueMap<double>& given,
                                     const Grid<Mineral::Type>& grid) {
    Susceptibilities table{};
    table.fill(given.valueOr(Mineral::Pore));
    for (const auto& [code, chi] : given.entries()) table[code] = chi;
    for (const Mineral::Type code : Mineral::allTypes()) {
        if (grid.counter(code) > 0 && !given.contains(code))
            throw Exception("volumeSusceptibility has no value for " + Mineral::name(code) +
                            ", which the grid holds (" + std::to_string(grid.counter(code)) +
                            " cells)");
    }
    return table;
}

}  // namespace nmr::field
