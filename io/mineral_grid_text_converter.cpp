#include "io/mineral_grid_text_converter.h"

#include <filesystem>
#include <fstream>
#include <limits>
#include <vector>

#include "common/exception.h"
#include "grid/mineral.h"
#include "io/grain_bed_grid_writer.h"

namespace nmr {

namespace {

template <typename V>
V readValue(std::istream& in) {
    V value{};
    if (!(in >> value)) {
        throw FileAccessException(in.eof() ? "Unexpected end of file" : "Unexpected read error");
    }
    return value;
}

MineralGridTextHeader readHeader(std::istream& in) {
    for (int i = 0; i < 2; ++i) {
        if (!in.ignore(std::numeric_limits<std::streamsize>::max(), '\n') || in.gcount() == 0) {
            throw FileAccessException("Unexpected end of file");
        }
    }
    std::int64_t sizes[3];
    for (auto& n : sizes) n = readValue<std::int64_t>(in);
    for (auto n : sizes) {
        // A grid file holds its sizes in 16 bits (signed when read back).
        if (n <= 0 || n > std::numeric_limits<std::int16_t>::max()) {
            throw FileAccessException("Error when importing numbered grains file");
        }
    }
    double extent[6];
    for (double& e : extent) e = readValue<double>(in);
    MineralGridTextHeader header;
    header.nx = static_cast<std::uint32_t>(sizes[0]);
    header.ny = static_cast<std::uint32_t>(sizes[1]);
    header.nz = static_cast<std::uint32_t>(sizes[2]);
    header.cellSize = (extent[1] - extent[0]) / static_cast<double>(header.nx);
    return header;
}

std::ifstream openText(const std::string& textFile) {
    std::ifstream in(textFile);
    if (!in.is_open()) {
        throw FileAccessException("Could not open ascii containing the MineralGrid.");
    }
    return in;
}

}  // namespace

MineralGridTextHeader readMineralGridTextHeader(const std::string& textFile) {
    std::ifstream in = openText(textFile);
    return readHeader(in);
}

void convertMineralGridText(const std::string& textFile, const std::string& gridFile,
                            LoggerBase& logger) {
    std::ifstream in = openText(textFile);
    const MineralGridTextHeader header = readHeader(in);
    GrainBedGridWriter writer(gridFile, header.nx, header.ny, header.nz, 0, 0, 0, header.cellSize,
                              &logger, "Unable to save binary file header: ");
    try {
        // The slice grows with the cells actually read instead of being sized from the
        // header: a damaged header of a few bytes (32767 x 32767 cells a slice) must end in
        // "Unexpected end of file", not in a 4 GB allocation first.
        const std::size_t sliceCells = static_cast<std::size_t>(header.nx) * header.ny;
        std::vector<GrainBedGridCell> slice;
        for (std::uint32_t z = 0; z < header.nz; ++z) {
            slice.clear();
            while (slice.size() < sliceCells) {
                const auto code = readValue<std::int64_t>(in);
                if (code < 0 || code >= Mineral::count()) {
                    throw FileAccessException("Invalid mineral type: not a mineral grid file.(" +
                                              textFile + ")");
                }
                slice.push_back(GrainBedGridCell::make(0, static_cast<std::uint32_t>(code)));
            }
            writer.writeSlice(slice.data());
        }
        writer.close();
    } catch (...) {
        try {
            writer.close();
        } catch (const Exception&) {
            // Incomplete by design here; the file goes away below.
        }
        std::error_code ignored;
        std::filesystem::remove(writer.path(), ignored);
        throw;
    }
}

}  // namespace nmr
