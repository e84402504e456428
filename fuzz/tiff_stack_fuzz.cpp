// A multi-page TIFF read as a stack of label slices, through libtiff as nmrwalk-import
// reads it.

#include <cstdint>

#include "common/exception.h"
#include "fuzz/fuzz_support.h"
#include "fuzz/volume_support.h"
#include "rock/tiff_stack_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    const std::string path = fuzz::writeScratch("volume.tif", data, size);
    try {
        rock::TiffStackReader reader(path);
        // nmrwalk-import refuses an axis above 32767 cells before it reads anything, and
        // within that holds one slice of labels as large as the pages claim: by design, as
        // a real 20000 x 20000 scan needs it, and a page whose strips cannot fill it then
        // fails at its first row. The pages of a few hundred bytes that claim such sizes are
        // left out here; they would only test the allocator under libFuzzer's memory limit.
        const rock::VolumeShape& shape = reader.shape();
        constexpr std::uint64_t kMaxSliceCells = std::uint64_t{1} << 22;
        if (std::uint64_t{shape.nx} * shape.ny <= kMaxSliceCells) fuzz::readAllSlices(reader);
    } catch (const Exception&) {
    }
    fuzz::clearScratch();
    return 0;
}
