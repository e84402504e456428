#pragma once

#include <cstdint>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace nmr::rock {

enum class VoxelType { UInt8, Int8, UInt16, Int16 };

std::size_t bytesPerVoxel(VoxelType type);
std::string voxelTypeName(VoxelType type);  // "uint8", "int8", "uint16", "int16"
// Accepts the names above (also "8"/"16" for the unsigned ones); throws nmr::Exception.
VoxelType parseVoxelType(const std::string& text);

struct VolumeShape {
    std::uint32_t nx = 0, ny = 0, nz = 0;
    VoxelType type = VoxelType::UInt8;
    std::uint64_t voxelCount() const { return std::uint64_t{nx} * ny * nz; }
};

// A segmented image volume read one z slice at a time, front to back, so that no more
// than a slice is ever held.
class VolumeReader {
public:
    virtual ~VolumeReader() = default;
    virtual const VolumeShape& shape() const = 0;
    // The file the voxels come from, for messages.
    virtual const std::string& source() const = 0;
    // The next slice as labels, nx * ny values, x fastest. Throws nmr::FileAccessException
    // naming the file when the data end early or cannot be read.
    virtual void readSlice(std::int32_t* labels) = 0;
};

// Headerless voxels: nx * ny * nz values of one type, x fastest, starting at a byte
// offset. The file must hold exactly offset + nx * ny * nz * bytes: a size that does not
// match means the dimensions or the type were given wrong, and guessing would scramble
// the image.
class RawVolumeReader final : public VolumeReader {
public:
    RawVolumeReader(const std::string& path, const VolumeShape& shape, bool bigEndian = false,
                    std::uint64_t offset = 0);
    const VolumeShape& shape() const override { return shape_; }
    const std::string& source() const override { return path_; }
    void readSlice(std::int32_t* labels) override;

private:
    std::string path_;
    VolumeShape shape_;
    bool bigEndian_;
    std::ifstream in_;
    std::uint32_t nextSlice_ = 0;
    std::vector<unsigned char> buffer_;
};

// Converts nx*ny voxels of `type` from their file bytes to labels.
void decodeVoxels(const unsigned char* bytes, std::size_t count, VoxelType type, bool bigEndian,
                  std::int32_t* labels);

}  // namespace nmr::rock
