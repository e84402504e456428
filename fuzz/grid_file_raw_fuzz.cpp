// The grid file exactly as it lies on disk: gzip, a legacy chunked file or a plain-text
// mineral grid, told apart the way the loader tells them apart. Mutations here mostly break
// the compression, which is the point: the format detection and the decoders must turn
// any byte string into a clean error.

#include <cstdint>

#include "common/exception.h"
#include "common/logger.h"
#include "common/progress_reporter.h"
#include "fuzz/fuzz_support.h"
#include "io/grid_loader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    const std::string path = fuzz::writeScratch("grid.binc", data, size);
    NullLogger log;
    NullProgressReporter progress;
    try {
        readGridFileSummary(path, log);
    } catch (const Exception&) {
    }
    try {
        loadSlicedGrid(path, {}, log, progress);
    } catch (const Exception&) {
    }
    fuzz::clearScratch();
    return 0;
}
