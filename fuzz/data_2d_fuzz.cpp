// The 2-D data files of nmrwalk-invert --dt2 and --t1t2 (and the maps it writes, which
// read back the same way). Besides not crashing, an accepted file must give what the
// kernels and the map rely on: at least 2 x 2 values, one amplitude per pair, distinct
// non-negative first-column values, times non-negative and strictly increasing, every
// number finite.

#include <cmath>
#include <cstdint>

#include "common/exception.h"
#include "fuzz/fuzz_support.h"
#include "inversion/data_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    const std::string path = fuzz::writeScratch("data2d.txt", data, size);
    try {
        const inversion::Data2d d = inversion::readData2d(path);
        const auto rows = static_cast<Eigen::Index>(d.first.size());
        const auto cols = static_cast<Eigen::Index>(d.times.size());
        if (rows < 2 || cols < 2) fuzz::violated("fewer than 2 x 2 values");
        if (d.amplitude.rows() != rows || d.amplitude.cols() != cols)
            fuzz::violated("amplitudes do not match the axes");
        if (!d.amplitude.allFinite()) fuzz::violated("amplitude not finite");
        for (std::size_t i = 0; i < d.first.size(); ++i) {
            if (!std::isfinite(d.first[i]) || d.first[i] < 0.0)
                fuzz::violated("first column not finite and non-negative");
            for (std::size_t k = 0; k < i; ++k)
                if (d.first[k] == d.first[i]) fuzz::violated("first-column value repeated");
        }
        for (std::size_t j = 0; j < d.times.size(); ++j) {
            if (!std::isfinite(d.times[j]) || d.times[j] < 0.0 ||
                (j > 0 && !(d.times[j] > d.times[j - 1])))
                fuzz::violated("times not finite, non-negative and increasing");
        }
    } catch (const Exception&) {
    }
    fuzz::clearScratch();
    return 0;
}
