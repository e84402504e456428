#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace nmr {

// The text without leading and trailing blanks, tabs, carriage returns and line feeds: the
// white space that file formats and command lines alike ignore around a value.
std::string trim(const std::string& text);

// Whole-string conversions; `what` starts the message, the text follows after ": ".
std::int64_t parseInteger(const std::string& text, const std::string& what);
double parseDouble(const std::string& text, const std::string& what);
// "N" for a cube or "NXxNYxNZ"; every entry at least `minimum`.
std::array<std::uint32_t, 3> parseTriple(const std::string& text, const std::string& what,
                                         std::uint32_t minimum);
// "a,b,..." of numbers above 0, at least one.
std::vector<double> parsePositiveList(const std::string& text, const std::string& what);

// A number for a message ("%g"), and one with every digit of its double (17 significant).
std::string shortNumber(double value);
std::string fullNumber(double value);

}  // namespace nmr
