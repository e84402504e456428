#include "t2/decay_output.h"

#include <cstddef>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "common/exception.h"

namespace nmr::t2 {

bool writeColumns(const std::vector<double>& x, const std::vector<double>& y,
                  const std::string& path) {
    // The lines go to a temporary file beside the output, which takes the output's name
    // only once it is complete: a run killed or out of disk space never leaves a file
    // that looks finished and is not.
    const std::string temporary = path + ".writing";
    {
        std::ofstream out(temporary, std::ios::out | std::ios::trunc);
        if (!out.is_open()) return false;
        for (std::size_t i = 0; i < x.size(); ++i) out << x[i] << ' ' << y[i] << '\n';
        out.flush();
        if (!out) {
            out.close();
            std::remove(temporary.c_str());
            throw FileAccessException("Unable to write output file: " + path);
        }
    }
    if (std::rename(temporary.c_str(), path.c_str()) != 0) {
        std::remove(temporary.c_str());
        return false;
    }
    return true;
}

std::string formatColumns(const std::vector<double>& x, const std::vector<double>& y) {
    std::ostringstream out;
    for (std::size_t i = 0; i < x.size(); ++i) out << x[i] << ' ' << y[i] << '\n';
    return out.str();
}

}  // namespace nmr::t2
