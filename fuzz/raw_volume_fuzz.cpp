// Headerless voxels with the shape given on nmrwalk-import's command line. The input's
// first 13 bytes stand for the command line: a flag byte (bits 0-1 the voxel type, bit 2
// big-endian), then nx, ny and nz as 32-bit little-endian numbers, which the command line
// accepts up to 2^32 - 1. nz = 0 asks for as many slices as the data hold, so that
// mutated data still often match their shape and reach the decoding. The rest is the file.

#include <cstdint>

#include "common/exception.h"
#include "fuzz/fuzz_support.h"
#include "fuzz/volume_support.h"

namespace {

std::uint32_t le32(const std::uint8_t* p) {
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 |
           std::uint32_t{p[3]} << 24;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace nmr;
    constexpr std::size_t kShapeBytes = 13;
    if (size < kShapeBytes) return 0;
    rock::VolumeShape shape;
    shape.type = static_cast<rock::VoxelType>(data[0] & 3u);
    const bool bigEndian = (data[0] & 4u) != 0;
    shape.nx = le32(data + 1);
    shape.ny = le32(data + 5);
    shape.nz = le32(data + 9);
    const std::size_t bytes = size - kShapeBytes;
    if (shape.nz == 0 && shape.nx != 0 && shape.ny != 0) {
        const std::uint64_t slice =
            std::uint64_t{shape.nx} * shape.ny * rock::bytesPerVoxel(shape.type);
        shape.nz = static_cast<std::uint32_t>(std::min<std::uint64_t>(bytes / slice, 0xFFFFFFFFu));
    }
    const std::string path = fuzz::writeScratch("volume.raw", data + kShapeBytes, bytes);
    try {
        rock::RawVolumeReader reader(path, shape, bigEndian);
        fuzz::readAllSlices(reader);
    } catch (const Exception&) {
    }
    fuzz::clearScratch();
    return 0;
}
