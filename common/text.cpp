#include "common/text.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <limits>
#include <sstream>
#include <vector>

#include "common/exception.h"

namespace nmr {

std::string trim(const std::string& text) {
    static const char* const kBlanks = " \t\r\n";
    const std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::int64_t parseInteger(const std::string& text, const std::string& what) {
    const std::string t = trim(text);
    char* end = nullptr;
    errno = 0;
    const long long v = std::strtoll(t.c_str(), &end, 10);
    if (t.empty() || *end != '\0' || errno == ERANGE) throw Exception(what + ": " + text);
    return v;
}

double parseDouble(const std::string& text, const std::string& what) {
    const std::string t = trim(text);
    char* end = nullptr;
    errno = 0;
    const double v = std::strtod(t.c_str(), &end);
    if (t.empty() || *end != '\0' || errno == ERANGE || !std::isfinite(v))
        throw Exception(what + ": " + text);
    return v;
}

std::array<std::uint32_t, 3> parseTriple(const std::string& text, const std::string& what,
                                         std::uint32_t minimum) {
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (;;) {
        const auto x = text.find_first_of("xX", begin);
        parts.push_back(text.substr(begin, x == std::string::npos ? std::string::npos : x - begin));
        if (x == std::string::npos) break;
        begin = x + 1;
    }
    if (parts.size() != 1 && parts.size() != 3) throw Exception(what + ": " + text);
    std::array<std::uint32_t, 3> result{};
    for (std::size_t i = 0; i < 3; ++i) {
        const std::int64_t v = parseInteger(parts[parts.size() == 1 ? 0 : i], what);
        if (v < minimum || v > std::numeric_limits<std::uint32_t>::max())
            throw Exception(what + ": " + text);
        result[i] = static_cast<std::uint32_t>(v);
    }
    return result;
}

std::vector<double> parsePositiveList(const std::string& text, const std::string& what) {
    std::vector<double> values;
    std::istringstream in(text);
    for (std::string part; std::getline(in, part, ',');) {
        const double value = parseDouble(part, what);
        if (!(value > 0.0)) throw Exception(what + ": " + text);
        values.push_back(value);
    }
    if (values.empty()) throw Exception(what + ": " + text);
    return values;
}

std::string shortNumber(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%g", value);
    return text;
}

std::string fullNumber(double value) {
    std::ostringstream text;
    text << std::setprecision(17) << value;
    return text.str();
}

}  // namespace nmr
