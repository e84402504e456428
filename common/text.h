#pragma once

#include <string>

namespace nmr {

// The text without leading and trailing blanks, tabs, carriage returns and line feeds: the
// white space that file formats and command lines alike ignore around a value.
std::string trim(const std::string& text);

}  // namespace nmr
