#include "io/grid_loader.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "common/exception.h"
#include "common/output_file.h"
#include "io/compressed_in_stream.h"
#include "io/grain_bed_grid_reader.h"
#include "io/mineral_grid_text_converter.h"

namespace nmr {

namespace {

// Bytes looked at to tell a binary file from a text grid.
constexpr int kProbeCharacters = 100;

std::string checkedName(const std::string& fileName) {
    std::string name = trim(fileName);
    if (name.empty()) throw FileAccessException("Found empty string as file name.");
    return name;
}

std::array<std::uint16_t, 3> permuted(std::array<std::uint16_t, 3> v, int permutation) {
    if (permutation == 1) std::swap(v[0], v[1]);
    if (permutation == 2) std::swap(v[0], v[2]);
    return v;
}

// An open grain bed grid file with its header read.
struct OpenGridFile {
    std::unique_ptr<CompressedInStream> in;
    GrainBedGridHeader header;
};

OpenGridFile openGridFile(const std::string& name, LoggerBase& logger) {
    OpenGridFile file;
    file.in = openGrainBedGridFile(name, file.header, logger);
    return file;
}

[[noreturn]] void noGrid(const std::string& name, LoggerBase& logger) {
    logger.error("Unable to read ASCII header: " + name);
    throw FileAccessException("Could not load grid from file " + name);
}

void checkGridSizes(const GridLoadGeometry& g, const std::string& name, LoggerBase& logger) {
    for (std::uint16_t s : g.size) {
        if (static_cast<std::int16_t>(s) <= 0) noGrid(name, logger);
    }
}

// deflate codes at most 258 bytes in two bits, so a gzip file never decodes to more than
// about 1032 times its size on disk, and the legacy stream refuses chunks above 1040:1.
// A header asking for more records than that can hold is damaged; saying so before the
// grid is made keeps a file of a few hundred bytes from asking for terabytes, and gives
// the error that reading the records would end with anyway.
constexpr std::uint64_t kMaxDecodedBytesPerFileByte = 1100;

void checkRecordsFit(const OpenGridFile& file, LoggerBase& logger) {
    std::error_code error;
    const std::uint64_t onDisk = std::filesystem::file_size(file.in->fileName(), error);
    if (error) return;  // reading will tell
    const GrainBedGridHeader& h = file.header;
    const std::uint64_t records = static_cast<std::uint64_t>(h.nx) * h.ny * h.nz;
    if (records * grain_bed_grid::kRecordBytes > onDisk * kMaxDecodedBytesPerFileByte) {
        logger.error("Binary grain bed grid file corrupted. Did not find enough data for a grid");
        throw FileAccessException(
            "Did not find enough data for a grid",
            file.in->fileName() + ": its header gives " + std::to_string(h.nx) + " x " +
                std::to_string(h.ny) + " x " + std::to_string(h.nz) + " cells (" +
                std::to_string(records * grain_bed_grid::kRecordBytes) +
                " bytes of records), more than its " + std::to_string(onDisk) +
                " bytes on disk can hold: the header or the file is damaged");
    }
}

// Makes the grid, turning every way of failing into the loader's own error.
template <typename Make>
auto createGrid(const std::string& name, LoggerBase& logger, Make make) {
    try {
        return make();
    } catch (const MemoryAllocationException&) {
        noGrid(name, logger);
    } catch (const std::bad_alloc&) {
        noGrid(name, logger);
    }
}

// Hands each cell of source slice z that lies in the loaded box to place(x, y, z, code) in
// grid coordinates; codeAt(x, y) is the cell's mineral code in the source.
template <typename CodeAt, typename Place>
void placeSlice(const GridLoadGeometry& g, std::uint32_t nx, std::uint32_t ny, std::uint32_t z,
                CodeAt&& codeAt, Place&& place) {
    if (z < g.lo[2] || z >= g.hi[2]) return;
    const std::uint32_t x1 = std::min<std::uint32_t>(g.hi[0], nx);
    const std::uint32_t y1 = std::min<std::uint32_t>(g.hi[1], ny);
    const std::uint32_t dz = z - g.lo[2];
    for (std::uint32_t y = g.lo[1]; y < y1; ++y) {
        const std::uint32_t dy = y - g.lo[1];
        for (std::uint32_t x = g.lo[0]; x < x1; ++x) {
            std::uint32_t d[3] = {x - g.lo[0], dy, dz};
            if (g.permutation == 1) std::swap(d[0], d[1]);
            if (g.permutation == 2) std::swap(d[0], d[2]);
            place(g.offset[0] + d[0], g.offset[1] + d[1], g.offset[2] + d[2], codeAt(x, y));
        }
    }
}

// Reads every slice of the file and hands each kept record to place(x, y, z, code) in
// grid coordinates, in file order.
template <typename Place>
void readCells(OpenGridFile& file, const GridLoadGeometry& g, const GridLoadOptions& options,
               LoggerBase& logger, ProgressReporter& progress, Place&& place) {
    const GrainBedGridHeader& h = file.header;
    const std::uint32_t nx = h.nx, ny = h.ny, nz = h.nz;
    GrainBedGridSliceReader reader(*file.in, nx, ny, nz, logger);
    for (std::uint32_t z = 0; z < nz; ++z) {
        if (options.disableCancel) {
            progress.step();
        } else {
            progress.stepChecked();
        }
        // Slices outside the box are read too: a short file is an error wherever it ends.
        const char* records = reader.next();
        placeSlice(
            g, nx, ny, z,
            [records, nx](std::uint32_t x, std::uint32_t y) {
                return grain_bed_grid::recordMineral(records +
                                                     (static_cast<std::size_t>(y) * nx + x) *
                                                         grain_bed_grid::kRecordBytes);
            },
            place);
    }
    progress.finish();
}

// Opens, reads the header, builds the grid with make(geometry) and fills it through
// place(grid, x, y, z, code); the logging and cancel handling every variant shares.
template <typename Make, typename Place>
auto loadInto(const std::string& fileName, const GridLoadOptions& options, LoggerBase& logger,
              ProgressReporter& progress, Make make, Place place) {
    const std::string name = prepareGridFile(checkedName(fileName), logger);
    logger.info("Load: " + name);
    try {
        OpenGridFile file = openGridFile(name, logger);
        progress.start("Loading grain bed grid...", file.header.nz);
        const GridLoadGeometry g = computeGridLoadGeometry(file.header, options);
        checkGridSizes(g, name, logger);
        checkRecordsFit(file, logger);
        auto grid = createGrid(name, logger, [&] { return make(g, file.header); });
        readCells(file, g, options, logger, progress,
                  [&](std::uint32_t x, std::uint32_t y, std::uint32_t z, Mineral::Type code) {
                      place(*grid, x, y, z, code);
                  });
        logger.info("Load complete: " + name);
        return grid;
    } catch (const UserCancelException& e) {
        logger.info("Loading grid aborted: " + e.message());
        throw;
    }
}

}  // namespace

GridLoadGeometry computeGridLoadGeometry(const GrainBedGridHeader& header,
                                         const GridLoadOptions& options) {
    const std::array<std::uint16_t, 3> S{header.nx, header.ny, header.nz};
    const std::array<std::uint16_t, 3> M{header.marginX, header.marginY, header.marginZ};
    const RegionOfInterest& r = options.region;
    const std::array<std::uint16_t, 3> rMin{static_cast<std::uint16_t>(r.xMin),
                                            static_cast<std::uint16_t>(r.yMin),
                                            static_cast<std::uint16_t>(r.zMin)};
    const std::array<std::uint16_t, 3> rMax{static_cast<std::uint16_t>(r.xMax),
                                            static_cast<std::uint16_t>(r.yMax),
                                            static_cast<std::uint16_t>(r.zMax)};
    GridLoadGeometry g;
    g.permutation = options.permutation;
    for (int i = 0; i < 3; ++i) {
        g.size[i] = static_cast<std::uint16_t>(S[i] - 2 * M[i]);
        g.margin[i] = 0;
        g.lo[i] = M[i];
        g.hi[i] = static_cast<std::uint16_t>(S[i] - M[i]);
        if (r.enabled) {
            g.size[i] = static_cast<std::uint16_t>(rMax[i] - rMin[i]);
            g.margin[i] = 0;
            g.lo[i] = static_cast<std::uint16_t>(M[i] + rMin[i]);
            g.hi[i] = static_cast<std::uint16_t>(M[i] + rMax[i]);
        }
    }
    if (r.enabled) {
        for (int i = 0; i < 3; ++i) {
            if (static_cast<std::int16_t>(g.size[i]) > static_cast<std::int16_t>(S[i])) {
                throw FileAccessException("Region of interest is larger than grid size");
            }
        }
    }
    g.size = permuted(g.size, g.permutation);
    g.margin = permuted(g.margin, g.permutation);
    for (int i = 0; i < 3; ++i) {
        const auto extra = static_cast<std::uint16_t>(options.extraMargin[i]);
        g.size[i] = static_cast<std::uint16_t>(g.size[i] + 2 * extra);
        g.margin[i] = static_cast<std::uint16_t>(g.margin[i] + extra);
        g.offset[i] = extra;
    }
    return g;
}

bool isBinaryGridFile(const std::string& fileName) {
    errno = 0;
    std::ifstream in(fileName, std::ios_base::in | std::ios_base::binary);
    if (!in.is_open()) {
        const int reason = errno;
        throw Exception("Could not open file: " + fileName,
                        reason != 0 ? fileName + ": " + systemErrorText(reason) : "");
    }
    char c = 0;
    int seen = 0;
    while (seen < kProbeCharacters && in >> c) {
        if (static_cast<signed char>(c) < 32) return true;
        ++seen;
    }
    if (seen == 0) throw Exception("Unexpected end of file");
    return false;
}

std::string prepareGridFile(const std::string& fileName, LoggerBase& logger) {
    if (isBinaryGridFile(fileName)) return fileName;
    std::string converted = fileName + ".binc";
    convertMineralGridText(fileName, converted, logger);
    return converted;
}

GridFileSummary readGridFileSummary(const std::string& fileName, LoggerBase& logger) {
    const std::string name = checkedName(fileName);
    GridFileSummary s;
    if (!isBinaryGridFile(name)) {
        const MineralGridTextHeader text = readMineralGridTextHeader(name);
        s.nx = text.nx;
        s.ny = text.ny;
        s.nz = text.nz;
        s.cellSize = text.cellSize;
        return s;
    }
    const GrainBedGridHeader h = readGrainBedGridFileHeader(name, logger);
    s.nx = h.nx;
    s.ny = h.ny;
    s.nz = h.nz;
    s.marginX = h.marginX;
    s.marginY = h.marginY;
    s.marginZ = h.marginZ;
    s.cellSize = h.cellSize;
    return s;
}

namespace {

// Every grid cell is placed at most once onto a cleared grid, so moving one count from
// pore to the code keeps the counters exact. Codes 14 and 15 are stored for the caller's
// check and not counted. G is a plain grid with sliceData(z).
template <typename G>
void placeCounted(G& target, std::uint32_t x, std::uint32_t y, std::uint32_t z,
                  Mineral::Type code) {
    using Cell = std::remove_pointer_t<decltype(target.sliceData(z))>;
    target.sliceData(z)[static_cast<std::size_t>(y) * target.nx() + x] = static_cast<Cell>(code);
    if (target.isInterior(x, y, z)) {
        countCellChange(Mineral::Pore, code, target.counters(), UncountedCodes::Skip);
    }
}

}  // namespace

GridLoadGeometry gridLoadGeometry(const GridFileSummary& file, const GridLoadOptions& options) {
    GrainBedGridHeader header;
    header.nx = static_cast<std::uint16_t>(file.nx);
    header.ny = static_cast<std::uint16_t>(file.ny);
    header.nz = static_cast<std::uint16_t>(file.nz);
    header.marginX = static_cast<std::uint16_t>(file.marginX);
    header.marginY = static_cast<std::uint16_t>(file.marginY);
    header.marginZ = static_cast<std::uint16_t>(file.marginZ);
    header.cellSize = file.cellSize;
    return computeGridLoadGeometry(header, options);
}

std::shared_ptr<SlicedGrid<Mineral::Type>> loadSlicedGrid(const std::string& fileName,
                                                          const GridLoadOptions& options,
                                                          LoggerBase& logger,
                                                          ProgressReporter& progress) {
    using Grid = SlicedGrid<Mineral::Type>;
    return loadInto(
        fileName, options, logger, progress,
        [](const GridLoadGeometry& g, const GrainBedGridHeader& h) {
            return std::make_shared<Grid>(g.size[0], g.size[1], g.size[2], g.margin[0], g.margin[1],
                                          g.margin[2], h.cellSize);
        },
        placeCounted<Grid>);
}

std::shared_ptr<ByteMineralGrid> loadByteMineralGrid(const std::string& fileName,
                                                     const GridLoadOptions& options,
                                                     LoggerBase& logger, ProgressReporter& progress,
                                                     const ByteStorageAllocator& allocate) {
    return loadInto(
        fileName, options, logger, progress,
        [&allocate](const GridLoadGeometry& g, const GrainBedGridHeader& h) {
            const std::uint64_t cells =
                static_cast<std::uint64_t>(g.size[0]) * g.size[1] * g.size[2];
            ByteCellStorage storage = allocate(cells);
            // Storage handed out by someone else may hold anything: clear it.
            std::fill(storage.cells, storage.cells + storage.bytes, std::uint8_t{0});
            return std::make_shared<ByteMineralGrid>(g.size[0], g.size[1], g.size[2], g.margin[0],
                                                     g.margin[1], g.margin[2], h.cellSize,
                                                     std::move(storage));
        },
        placeCounted<ByteMineralGrid>);
}

std::shared_ptr<CompressedBlockedGrid<Mineral::Type>> loadCompressedBlockedGrid(
    const std::string& fileName, const GridLoadOptions& options, double availableMb,
    LoggerBase& logger, ProgressReporter& progress, std::uint32_t blockEdge) {
    using Grid = CompressedBlockedGrid<Mineral::Type>;
    auto grid = loadInto(
        fileName, options, logger, progress,
        [&](const GridLoadGeometry& g, const GrainBedGridHeader& h) {
            auto made =
                std::make_shared<Grid>(g.size[0], g.size[1], g.size[2], g.margin[0], g.margin[1],
                                       g.margin[2], h.cellSize, blockEdge, 1, &logger);
            // File order runs along grid z unless x and z are exchanged; then one file
            // slice touches a whole plane of blocks across y and z.
            made->beginFill(g.permutation == 2 ? made->blocksY() * made->blocksZ()
                                               : made->blocksX() * made->blocksY());
            return made;
        },
        [](Grid& target, std::uint32_t x, std::uint32_t y, std::uint32_t z, Mineral::Type code) {
            target.fillCell(x, y, z, code);
        });
    grid->endFill();
    // The caller's logger need not outlive the grid.
    grid->setLogger(nullptr);
    grid->applyMemoryBudget(availableMb);
    return grid;
}

std::shared_ptr<ByteMineralGrid> buildByteMineralGrid(const MineralVolume& volume,
                                                      const GridLoadOptions& options) {
    constexpr std::uint32_t kLargestSide = 32767;
    for (std::uint32_t side : {volume.nx, volume.ny, volume.nz}) {
        if (side < 1 || side > kLargestSide)
            throw Exception(
                "Grid sides must lie between 1 and 32767 cells: " + std::to_string(volume.nx) +
                " x " + std::to_string(volume.ny) + " x " + std::to_string(volume.nz));
    }
    GrainBedGridHeader header;
    header.nx = static_cast<std::uint16_t>(volume.nx);
    header.ny = static_cast<std::uint16_t>(volume.ny);
    header.nz = static_cast<std::uint16_t>(volume.nz);
    header.marginX = header.marginY = header.marginZ = 0;
    header.cellSize = volume.cellSize;
    const GridLoadGeometry g = computeGridLoadGeometry(header, options);
    for (std::uint16_t s : g.size) {
        if (static_cast<std::int16_t>(s) <= 0) throw Exception("The region of interest is empty");
    }
    auto grid = std::make_shared<ByteMineralGrid>(g.size[0], g.size[1], g.size[2], g.margin[0],
                                                  g.margin[1], g.margin[2], volume.cellSize);
    std::vector<std::uint8_t> codes(static_cast<std::size_t>(volume.nx) * volume.ny);
    const std::uint32_t nx = volume.nx;
    for (std::uint32_t z = 0; z < volume.nz; ++z) {
        if (z < g.lo[2] || z >= g.hi[2]) continue;
        volume.slice(z, codes.data());
        placeSlice(
            g, volume.nx, volume.ny, z,
            [&codes, nx](std::uint32_t x, std::uint32_t y) {
                return static_cast<Mineral::Type>(codes[static_cast<std::size_t>(y) * nx + x]);
            },
            [&grid](std::uint32_t x, std::uint32_t y, std::uint32_t zz, Mineral::Type code) {
                placeCounted(*grid, x, y, zz, code);
            });
    }
    return grid;
}

}  // namespace nmr
