#include "t2/decay_output.h"

#include <cstddef>
#include <fstream>

namespace nmr::t2 {

bool writeColumns(const std::vector<double>& x, const std::vector<double>& y,
                  const std::string& path) {
    std::ofstream out(path, std::ios::out | std::ios::trunc);
    if (!out.is_open()) return false;
    for (std::size_t i = 0; i < x.size(); ++i) out << x[i] << ' ' << y[i] << std::endl;
    return true;
}

}  // namespace nmr::t2
