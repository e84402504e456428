#include "io/grain_bed_grid_format.h"

#include <sstream>

namespace nmr::grain_bed_grid {

std::string magic() { return "Granix GrainBedGrid binary v"; }
int majorVersion() { return 1; }
int minorVersion() { return 2; }

const std::vector<std::string>& descriptionLines() {
    static const std::vector<std::string> lines = {
        "# Format description:",
        "#",
        "#   version = <version>",
        "#   nx = <number of cells in X direction>",
        "#   ny = <number of cells in Y direction>",
        "#   nz = <number of cells in Z direction>",
        "#   marginX = <margin in X direction>",
        "#   marginY = <margin in Y direction>",
        "#   marginZ = <margin in Z direction>",
        "#   cellSize = <size of cell in each direction>",
        "#   mineral = <code1:name1>",
        "#   mineral = <code2:name2>",
        "#   :",
        "#   cells",
        "#   <cell records>",
        "# ",
        "# Blank lines and lines starting with '#' are comments",
        "# Other than for the 'grid' keyword which marks the",
        "# start of the binary section, the order of the keywords",
        "# insignificant.",
        "# All keywords must be present.",
        "# ",
        "# Grain record is little-endian binary compound of:",
        "#   grainNumber:int(4)",
        "#   mineralType:char(1)",
        "# ",
        "# Cells are ordered with direction x moving fastest, ",
        "# then y and then z.",
        "# ",
    };
    return lines;
}

std::string descriptionBlock() {
    std::string block;
    for (const std::string& line : descriptionLines()) {
        block += line;
        block += '\n';
    }
    return block;
}

std::string headerBlock(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, std::uint32_t marginX,
                        std::uint32_t marginY, std::uint32_t marginZ, double cellSize) {
    // Default stream formatting on purpose: six significant digits for the cell size.
    std::ostringstream out;
    out << "version = " << magic() << majorVersion() << "." << minorVersion() << "\n"
        << "nx = " << nx << "\n"
        << "ny = " << ny << "\n"
        << "nz = " << nz << "\n"
        << "marginX = " << marginX << "\n"
        << "marginY = " << marginY << "\n"
        << "marginZ = " << marginZ << "\n"
        << "cellSize = " << cellSize << "\n";
    for (Mineral::Type code : Mineral::allTypes()) {
        out << "mineral = " << static_cast<std::uint32_t>(code) << ":" << Mineral::name(code)
            << "\n";
    }
    out << "cells\n";
    return out.str();
}

}  // namespace nmr::grain_bed_grid
