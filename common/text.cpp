#include "common/text.h"

namespace nmr {

std::string trim(const std::string& text) {
    static const char* const kBlanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

}  // namespace nmr
