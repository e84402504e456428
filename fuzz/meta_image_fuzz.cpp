// A MetaImage header, with its voxels after it (ElementDataFile = LOCAL) or in a data
// file. The input is written both as "volume.mhd" and as "volume.raw", so a header naming
// volume.raw finds data in the same folder. A header naming any other file is parsed but
// its data are not read: the target must not read files outside its own directory.

#include <cstdint>
#include <filesystem>

#include "common/exception.h"
#include "fuzz/fuzz_support.h"
#include "fuzz/volume_support.h"
#include "rock/meta_image.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    const std::string path = fuzz::writeScratch("volume.mhd", data, size);
    fuzz::writeScratch("volume.raw", data, size);
    try {
        const rock::MetaImageHeader header = rock::readMetaImageHeader(path);
        const std::filesystem::path dataPath(header.dataPath);
        if (dataPath == path || dataPath == fuzz::scratchPath("volume.raw")) {
            const auto reader = rock::openMetaImage(header);
            fuzz::readAllSlices(*reader);
        }
    } catch (const Exception&) {
    }
    fuzz::clearScratch();
    return 0;
}
