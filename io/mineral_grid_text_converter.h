#pragma once

#include <cstdint>
#include <string>

#include "common/logger.h"

namespace nmr {

// The leading numbers of a plain-text mineral grid: two skipped lines, then nx ny nz and
// the sample's extent (x min, x max, y min, y max, z min, z max); cells follow, one
// mineral code each, x fastest.
struct MineralGridTextHeader {
    std::uint32_t nx = 0, ny = 0, nz = 0;
    // (x max - x min) / nx; the y and z extents are read but not used.
    double cellSize = 0.0;
};

// Reads only the leading numbers. Throws FileAccessException as convertMineralGridText.
MineralGridTextHeader readMineralGridTextHeader(const std::string& textFile);

// Writes the text grid as a grain bed grid file (margins 0, version 1.2), each cell as
// grain 0, state 0 and its mineral code. Throws FileAccessException: "Could not open
// ascii containing the MineralGrid.", "Unexpected end of file", "Unexpected read error",
// "Error when importing numbered grains file" (a size not above 0), "Invalid mineral
// type: not a mineral grid file.(<name>)". A failed conversion leaves no output file.
void convertMineralGridText(const std::string& textFile, const std::string& gridFile,
                            LoggerBase& logger);

}  // namespace nmr
