// The grain bed grid file as the simulator reads it. The input is the decompressed file
// content (comment block, keyword header, 4-byte records); it is gzip-compressed with the
// writer the project uses for its own grid files, so the mutations land in the header and
// records rather than in the deflate stream. Both loaders the simulator uses read it: the
// plain one-byte grid and the block-compressed grid, which must agree cell for cell.

#include <cstdint>

#include "common/exception.h"
#include "common/logger.h"
#include "common/progress_reporter.h"
#include "fuzz/fuzz_support.h"
#include "io/compressed_out_stream.h"
#include "io/grid_loader.h"

namespace {

using namespace nmr;

void compareGrids(const ByteMineralGrid& plain,
                  const CompressedBlockedGrid<Mineral::Type>& packed) {
    if (plain.nx() != packed.nx() || plain.ny() != packed.ny() || plain.nz() != packed.nz() ||
        plain.marginX() != packed.marginX() || plain.marginY() != packed.marginY() ||
        plain.marginZ() != packed.marginZ()) {
        fuzz::violated("the two loaders give grids of different sizes");
    }
    for (std::uint32_t z = 0; z < plain.nz(); ++z)
        for (std::uint32_t y = 0; y < plain.ny(); ++y)
            for (std::uint32_t x = 0; x < plain.nx(); ++x)
                if (plain.at(x, y, z) != packed.at(x, y, z))
                    fuzz::violated("the two loaders give different cells");
    if (plain.counters() != packed.counters())
        fuzz::violated("the two loaders count the minerals differently");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string path = fuzz::scratchPath("grid.binc");
    {
        CompressedOutStream out;
        if (!out.open(path)) fuzz::violated("cannot write " + path);
        out.write(reinterpret_cast<const char*>(data), size);
        out.close();
    }
    NullLogger log;
    NullProgressReporter progress;
    try {
        readGridFileSummary(path, log);
    } catch (const Exception&) {
    }
    std::shared_ptr<ByteMineralGrid> plain;
    std::shared_ptr<CompressedBlockedGrid<Mineral::Type>> packed;
    try {
        plain = loadByteMineralGrid(path, {}, log, progress);
    } catch (const Exception&) {
    }
    try {
        // Small blocks, so that files of a few cells still span several blocks; a budget
        // that any grid of a fuzz input fits, so that only the file decides.
        packed = loadCompressedBlockedGrid(path, {}, 64.0, log, progress, 4);
    } catch (const Exception&) {
    }
    if ((plain == nullptr) != (packed == nullptr)) {
        fuzz::violated("one loader accepts the file and the other does not");
    }
    if (plain != nullptr) {
        // Two expanded blocks at most: the comparison reads through evictions.
        packed->setMaxExpandedBlocks(2);
        compareGrids(*plain, *packed);
    }
    fuzz::clearScratch();
    return 0;
}
