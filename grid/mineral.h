#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace nmr {

namespace Mineral {

// Codes are stored in grid files and must never be renumbered: the order is neither
// alphabetical nor the order in which minerals were added.
enum Type : std::uint32_t {
    Pore = 0,
    Clay = 1,
    QuartzCement = 2,
    Quartz = 3,
    Mica = 4,
    FeldsparsDissolvable = 5,
    CarbonateCement = 6,
    Pyrite = 7,
    FeldsparsNonDissolvable = 8,
    Matrix = 9,
    Unspecified1 = 10,
    Unspecified2 = 11,
    Unspecified3 = 12,
    Unspecified4 = 13,
    // Accepted in a version 1.2 grid header but never listed.
    Reserved = 14,
    // Result of a failed name lookup.
    Unknown = 15,
};

// Size of the name table (14).
int count();
bool isValid(std::uint32_t code);
// Empty for a code that is not in the table.
std::string name(Type code);
// Exact, case-sensitive match; Unknown (15) when nothing matches.
Type fromName(const std::string& name);
bool isKnownName(const std::string& name);
// Every listed code in ascending order (0..13).
const std::vector<Type>& allTypes();

}  // namespace Mineral

// One 32-bit cell word of a grain bed grid: grain number in bits 0-23, mineral code
// in bits 24-27, a construction state in bits 28-31 that this program carries unchanged.
struct GrainBedGridCell {
    std::uint32_t word = 0;

    static constexpr GrainBedGridCell make(std::uint32_t grain, std::uint32_t mineral,
                                           std::uint32_t state = 0) {
        return GrainBedGridCell{(grain & 0xFFFFFFu) | ((mineral & 0xFu) << 24) |
                                ((state & 0xFu) << 28)};
    }
    constexpr Mineral::Type mineral() const {
        return static_cast<Mineral::Type>((word >> 24) & 15u);
    }
    constexpr std::uint32_t grainNumber() const { return word & 0xFFFFFFu; }
    constexpr std::uint32_t state() const { return word >> 28; }
    constexpr bool isPore() const { return mineral() == Mineral::Pore; }
    friend constexpr bool operator==(GrainBedGridCell a, GrainBedGridCell b) {
        return a.word == b.word;
    }
};

}  // namespace nmr
