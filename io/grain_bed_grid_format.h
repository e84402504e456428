#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "common/text.h"
#include "grid/mineral.h"

namespace nmr {

// Building blocks of the grain bed grid file shared by its writers and readers: the
// version text, the comment block, the keyword header and the 4-byte cell record.
namespace grain_bed_grid {

// The version line reads magic() followed by "<major>.<minor>".
std::string magic();
int majorVersion();
int minorVersion();

// The 29 comment lines written at the top of every file. They describe an older layout
// ("grid" keyword, 5-byte records) and are kept byte for byte anyway: existing tools
// compare them, and readers skip them.
const std::vector<std::string>& descriptionLines();
// The lines joined, each ended by a single line feed.
std::string descriptionBlock();

// The keyword lines from "version" to "cells", each ended by a line feed.
std::string headerBlock(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz, std::uint32_t marginX,
                        std::uint32_t marginY, std::uint32_t marginZ, double cellSize);

constexpr std::size_t kRecordBytes = 4;

// Little-endian record bytes for count cells, independent of the host's byte order.
inline void encodeRecords(const GrainBedGridCell* cells, std::size_t count, char* out) {
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint32_t w = cells[i].word;
        out[4 * i + 0] = static_cast<char>(w & 0xFFu);
        out[4 * i + 1] = static_cast<char>((w >> 8) & 0xFFu);
        out[4 * i + 2] = static_cast<char>((w >> 16) & 0xFFu);
        out[4 * i + 3] = static_cast<char>((w >> 24) & 0xFFu);
    }
}

// The mineral code of a record: the low nibble of its fourth byte.
inline Mineral::Type recordMineral(const char* record) {
    return static_cast<Mineral::Type>(static_cast<unsigned char>(record[3]) & 0x0Fu);
}

}  // namespace grain_bed_grid

// What a file's header says. Sizes and margins are 16-bit, as the format has always held
// them; 0xFFFF means "not given".
struct GrainBedGridHeader {
    static constexpr std::uint16_t kUnset = 0xFFFF;
    std::uint16_t nx = kUnset, ny = kUnset, nz = kUnset;
    std::uint16_t marginX = kUnset, marginY = kUnset, marginZ = kUnset;
    double cellSize = -1.0;
    int majorVersion = -1;
    int minorVersion = -1;
    // Mineral code -> name as listed in the file.
    std::map<int, std::string> minerals;
};

}  // namespace nmr
