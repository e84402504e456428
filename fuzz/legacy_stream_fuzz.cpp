// The legacy chunked stream: text tags and sizes, zlib data per chunk. The decoded bytes
// are taken with a mix of line reads, skips and block reads, as the grid reader does.

#include <cstdint>

#include "common/logger.h"
#include "fuzz/fuzz_support.h"
#include "io/compressed_in_stream_legacy.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    const std::string path = fuzz::writeScratch("legacy.binc", data, size);
    NullLogger log;
    {
        CompressedInStreamLegacy in(&log);
        in.open(path, std::ios_base::in | std::ios_base::binary);
        char line[255];
        for (int i = 0; i < 4 && in.good(); ++i) in.getLine(line, sizeof line, '\n');
        if (in.good()) in.ignore(7, '\n');
        char block[1000];
        // Bounded, as every read delivers at least one byte or ends the loop.
        while (in.good() && in.read(block, sizeof block) > 0) {
        }
        in.close();
    }
    fuzz::clearScratch();
    return 0;
}
