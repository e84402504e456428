#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "common/logger.h"
#include "common/progress_reporter.h"
#include "grid/byte_mineral_grid.h"
#include "grid/compressed_blocked_grid.h"
#include "grid/mineral.h"
#include "grid/region_of_interest.h"
#include "grid/sliced_grid.h"
#include "io/grain_bed_grid_format.h"

namespace nmr {

// A run always cuts the file's margins off: they belong to the stored box, not the sample.
struct GridLoadOptions {
    // Used only when enabled; counted from the file's first interior cell, max exclusive.
    RegionOfInterest region;
    // 0 keeps the axes, 1 exchanges x and y, 2 exchanges x and z.
    int permutation = 0;
    // Cells added around the loaded box on each grid axis (after the permutation).
    std::array<std::uint32_t, 3> extraMargin{0, 0, 0};
    // Loading then ignores cancel requests of the progress reporter.
    bool disableCancel = false;
};

// Where a file's cells go. All values are 16-bit, as the file's header holds them, and so
// wrap exactly as they always have for out-of-range regions.
struct GridLoadGeometry {
    std::array<std::uint16_t, 3> size{};    // the grid's sizes, margins included
    std::array<std::uint16_t, 3> margin{};  // the grid's margins
    std::array<std::uint16_t, 3> lo{};      // file box that is read: lo <= p < hi
    std::array<std::uint16_t, 3> hi{};
    std::array<std::uint16_t, 3> offset{};  // grid cell of file cell lo (the extra margin)
    int permutation = 0;
};

// Throws FileAccessException "Region of interest is larger than grid size".
GridLoadGeometry computeGridLoadGeometry(const GrainBedGridHeader& header,
                                         const GridLoadOptions& options);

// True when one of the first 100 non-blank bytes is a control byte or above 127.
// Throws Exception "Could not open file: " + name, or "Unexpected end of file" for a file
// with nothing but blanks.
bool isBinaryGridFile(const std::string& fileName);

// The file to read cells from: the name itself for a binary file; for a plain-text
// mineral grid the name with ".binc" appended, converted first (every time).
std::string prepareGridFile(const std::string& fileName, LoggerBase& logger);

// Sizes, margins and cell size as the file states them (text grids: margins 0), without
// converting or reading any cell. For deciding how to hold the grid before loading it.
struct GridFileSummary {
    std::uint32_t nx = 0, ny = 0, nz = 0;
    std::uint32_t marginX = 0, marginY = 0, marginZ = 0;
    double cellSize = 0.0;
};
GridFileSummary readGridFileSummary(const std::string& fileName, LoggerBase& logger);

// Sizes and margins that loading the file with these options will give, from its summary
// alone (a text grid is not converted for this). Throws FileAccessException "Region of
// interest is larger than grid size" as the load itself would.
GridLoadGeometry gridLoadGeometry(const GridFileSummary& file, const GridLoadOptions& options);

// Loads a grid file (grain bed grid or plain text) into a plain grid. Cells hold the
// mineral code of each record; codes 14 and 15 are stored but not counted, so the caller
// can find and report them. Throws FileAccessException for file problems,
// UserCancelException when cancelled.
std::shared_ptr<SlicedGrid<Mineral::Type>> loadSlicedGrid(const std::string& fileName,
                                                          const GridLoadOptions& options,
                                                          LoggerBase& logger,
                                                          ProgressReporter& progress);

// The same at one byte per cell. The cells go into the storage that allocate(bytes) hands
// out once the sizes are known (by default memory of this process).
using ByteStorageAllocator = std::function<ByteCellStorage(std::uint64_t bytes)>;
std::shared_ptr<ByteMineralGrid> loadByteMineralGrid(
    const std::string& fileName, const GridLoadOptions& options, LoggerBase& logger,
    ProgressReporter& progress, const ByteStorageAllocator& allocate = ByteCellStorage::allocate);

// The same into a block-compressed grid, then sized to availableMb megabytes (MiB):
// throws Exception "Not enough memory available, need at least ..." when not even one
// expanded block fits.
std::shared_ptr<CompressedBlockedGrid<Mineral::Type>> loadCompressedBlockedGrid(
    const std::string& fileName, const GridLoadOptions& options, double availableMb,
    LoggerBase& logger, ProgressReporter& progress,
    std::uint32_t blockEdge = CompressedBlockedGrid<Mineral::Type>::kDefaultBlockEdge);

// A rock already in memory, handed over one z slice at a time: the counterpart of a grid
// file without margins, for callers that build their rock themselves. Its sides obey the
// limits of the file's header (1 to 32767 cells).
struct MineralVolume {
    std::uint32_t nx = 0, ny = 0, nz = 0;
    double cellSize = 0.0;  // micrometres
    // Writes the nx * ny mineral codes of slice z, x fastest; may throw to abandon the build.
    std::function<void(std::uint32_t z, std::uint8_t* codes)> slice;
};

// The one-byte grid that loading a grid file of the same cells with these options gives:
// same sizes, margins, cells and counters. Throws Exception for sides out of range,
// FileAccessException "Region of interest is larger than grid size" as a load would.
std::shared_ptr<ByteMineralGrid> buildByteMineralGrid(const MineralVolume& volume,
                                                      const GridLoadOptions& options);

}  // namespace nmr
