#include "rock/grid_export.h"

#include <filesystem>
#include <system_error>
#include <vector>

#include "common/exception.h"
#include "grid/grid.h"
#include "io/grain_bed_grid_writer.h"

namespace nmr::rock {

namespace {

void checkCellSize(double cellSize) {
    if (!(cellSize > 0.0))
        throw Exception("The cell size must be positive: " + std::to_string(cellSize));
}

// Runs the writing steps and removes the output when any of them throws: a grid file cut
// short would only fail later, far from the cause.
template <typename Body>
PoreStatistics writeOrRemove(const std::string& path, Body body) {
    try {
        return body();
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
        throw;
    }
}

// Grid readers hold sizes and margins in 16 bits and compare some of them signed, so an
// axis longer than 32767 cells would be written but never read back.
constexpr std::uint64_t kMaxAxisCells = 32767;

std::uint32_t widened(std::uint32_t n, std::uint32_t margin) {
    const std::uint64_t total = std::uint64_t{n} + 2ull * margin;
    if (total > kMaxAxisCells)
        throw Exception("Grid files hold at most 32767 cells per axis, margins included: " +
                        std::to_string(total));
    return static_cast<std::uint32_t>(total);
}

}  // namespace

PoreStatistics writeGeometry(const PoreGeometry& geometry, const std::string& path, double cellSize,
                             const Margins& margins, LoggerBase* logger) {
    checkCellSize(cellSize);
    const std::uint32_t nx = geometry.nx(), ny = geometry.ny(), nz = geometry.nz();
    const std::uint32_t tx = widened(nx, margins[0]), ty = widened(ny, margins[1]),
                        tz = widened(nz, margins[2]);
    return writeOrRemove(path, [&] {
        PoreStatistics stats(nx, ny);
        GrainBedGridWriter writer(path, tx, ty, tz, margins[0], margins[1], margins[2], cellSize,
                                  logger);
        std::vector<GrainBedGridCell> interior(std::size_t{nx} * ny);
        std::vector<GrainBedGridCell> full(std::size_t{tx} * ty);
        const bool plain = margins == Margins{0, 0, 0};
        for (std::uint32_t z = 0; z < tz; ++z) {
            const auto iz = static_cast<std::int32_t>(z) - static_cast<std::int32_t>(margins[2]);
            const std::uint32_t sourceZ = mirrorIndex(iz, nz);
            geometry.fillSlice(sourceZ, interior.data());
            if (iz >= 0 && static_cast<std::uint32_t>(iz) < nz) stats.addSlice(interior.data());
            if (plain) {
                writer.writeSlice(interior.data());
                continue;
            }
            for (std::uint32_t y = 0; y < ty; ++y) {
                const std::uint32_t sy = mirrorIndex(
                    static_cast<std::int32_t>(y) - static_cast<std::int32_t>(margins[1]), ny);
                for (std::uint32_t x = 0; x < tx; ++x) {
                    const std::uint32_t sx = mirrorIndex(
                        static_cast<std::int32_t>(x) - static_cast<std::int32_t>(margins[0]), nx);
                    full[std::size_t{y} * tx + x] = interior[std::size_t{sy} * nx + sx];
                }
            }
            writer.writeSlice(full.data());
        }
        writer.close();
        return stats;
    });
}

PoreStatistics importVolume(VolumeReader& reader, const LabelMap& labels, const std::string& path,
                            double cellSize, LoggerBase* logger) {
    checkCellSize(cellSize);
    const VolumeShape& shape = reader.shape();
    for (std::uint32_t n : {shape.nx, shape.ny, shape.nz}) widened(n, 0);
    return writeOrRemove(path, [&] {
        PoreStatistics stats(shape.nx, shape.ny);
        GrainBedGridWriter writer(path, shape.nx, shape.ny, shape.nz, 0, 0, 0, cellSize, logger);
        const std::size_t area = std::size_t{shape.nx} * shape.ny;
        std::vector<std::int32_t> values(area);
        std::vector<GrainBedGridCell> cells(area);
        for (std::uint32_t z = 0; z < shape.nz; ++z) {
            reader.readSlice(values.data());
            for (std::size_t i = 0; i < area; ++i) {
                const Mineral::Type mineral = labels.mineralOf(values[i]);
                if (mineral == Mineral::Unknown)
                    throw Exception("Label not in the label map (" + reader.source() + ", voxel " +
                                    std::to_string(i % shape.nx) + "," +
                                    std::to_string(i / shape.nx) + "," + std::to_string(z) +
                                    "): " + std::to_string(values[i]));
                cells[i] = GrainBedGridCell::make(0, mineral);
            }
            stats.addSlice(cells.data());
            writer.writeSlice(cells.data());
        }
        writer.close();
        return stats;
    });
}

}  // namespace nmr::rock
