// The measured decay that nmrwalk-invert inverts. Besides not crashing, an accepted file
// must give what the inversion relies on: one value per time, times strictly increasing
// and finite, a phase-rotated real axis only for four columns.

#include <cmath>
#include <cstdint>

#include "analysis/decay_file.h"
#include "common/exception.h"
#include "fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    const std::string path = fuzz::writeScratch("decay.txt", data, size);
    try {
        const analysis::MeasuredDecay decay = analysis::readDecayFile(path);
        if (decay.times.empty() || decay.times.size() != decay.values.size())
            fuzz::violated("times and values differ in number");
        if (decay.columns != 2 && decay.columns != 4) fuzz::violated("column count not 2 or 4");
        for (std::size_t i = 0; i < decay.times.size(); ++i) {
            if (!std::isfinite(decay.times[i]) || decay.times[i] < 0.0 ||
                (i > 0 && !(decay.times[i] > decay.times[i - 1])))
                fuzz::violated("times not finite, non-negative and increasing");
        }
        if (!std::isfinite(decay.phaseRadians)) fuzz::violated("phase not finite");
    } catch (const Exception&) {
    }
    fuzz::clearScratch();
    return 0;
}
