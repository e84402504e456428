// The plain-text mineral grid and its conversion to a grain bed grid file.

#include <cstdint>

#include "common/exception.h"
#include "common/logger.h"
#include "fuzz/fuzz_support.h"
#include "io/mineral_grid_text_converter.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    const std::string path = fuzz::writeScratch("grid.txt", data, size);
    NullLogger log;
    try {
        readMineralGridTextHeader(path);
    } catch (const Exception&) {
    }
    try {
        convertMineralGridText(path, fuzz::scratchPath("grid.txt.binc"), log);
    } catch (const Exception&) {
    }
    fuzz::clearScratch();
    return 0;
}
