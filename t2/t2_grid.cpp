#include "t2/t2_grid.h"

#include <cmath>
#include <cstddef>

namespace nmr::t2 {

std::vector<double> makeT2Grid(double t2Minimum, double t2Maximum, std::int32_t t2Components) {
    if (t2Components < 1) return {};
    const auto n = static_cast<std::size_t>(t2Components);
    std::vector<double> grid(n);
    grid[0] = t2Minimum;
    // Written after the first element, so a single component holds t2Maximum.
    grid[n - 1] = t2Maximum;
    if (n > 2) {
        const double q = std::pow(t2Maximum / t2Minimum, 1.0 / static_cast<double>(n - 1));
        for (std::size_t k = 1; k + 1 < n; ++k) grid[k] = q * grid[k - 1];
    }
    return grid;
}

}  // namespace nmr::t2
