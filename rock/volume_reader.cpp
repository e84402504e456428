#include "rock/volume_reader.h"

#include <filesystem>
#include <limits>
#include <system_error>

#include "common/exception.h"

namespace nmr::rock {

namespace {

// nx * ny * nz voxels of the shape's type in bytes, or nothing when that exceeds 64 bits.
// Sizes up to 2^32 - 1 each can wrap a 64-bit product round to a small number.
std::optional<std::uint64_t> volumeBytes(const VolumeShape& shape) {
    std::uint64_t bytes = bytesPerVoxel(shape.type);
    for (std::uint64_t n : {shape.nx, shape.ny, shape.nz}) {
        if (n != 0 && bytes > std::numeric_limits<std::uint64_t>::max() / n) return std::nullopt;
        bytes *= n;
    }
    return bytes;
}

}  // namespace

std::size_t bytesPerVoxel(VoxelType type) {
    return type == VoxelType::UInt8 || type == VoxelType::Int8 ? 1 : 2;
}

std::string voxelTypeName(VoxelType type) {
    switch (type) {
        case VoxelType::UInt8:
            return "uint8";
        case VoxelType::Int8:
            return "int8";
        case VoxelType::UInt16:
            return "uint16";
        case VoxelType::Int16:
            return "int16";
    }
    return "?";
}

VoxelType parseVoxelType(const std::string& text) {
    if (text == "uint8" || text == "8") return VoxelType::UInt8;
    if (text == "int8") return VoxelType::Int8;
    if (text == "uint16" || text == "16") return VoxelType::UInt16;
    if (text == "int16") return VoxelType::Int16;
    throw Exception("Voxel type must be uint8, int8, uint16 or int16: " + text);
}

void decodeVoxels(const unsigned char* bytes, std::size_t count, VoxelType type, bool bigEndian,
                  std::int32_t* labels) {
    switch (type) {
        case VoxelType::UInt8:
            for (std::size_t i = 0; i < count; ++i) labels[i] = bytes[i];
            break;
        case VoxelType::Int8:
            // Signed on purpose: an 8-bit signed volume keeps its negative labels.
            for (std::size_t i = 0; i < count; ++i) {
                labels[i] =
                    static_cast<std::int8_t>(bytes[i]);  // NOLINT(bugprone-signed-char-misuse)
            }
            break;
        case VoxelType::UInt16:
        case VoxelType::Int16: {
            const std::size_t hi = bigEndian ? 0 : 1, lo = 1 - hi;
            for (std::size_t i = 0; i < count; ++i) {
                const auto word =
                    static_cast<std::uint16_t>(bytes[2 * i + hi] << 8 | bytes[2 * i + lo]);
                labels[i] = type == VoxelType::UInt16
                                ? std::int32_t{word}
                                : std::int32_t{static_cast<std::int16_t>(word)};
            }
            break;
        }
    }
}

RawVolumeReader::RawVolumeReader(const std::string& path, const VolumeShape& shape, bool bigEndian,
                                 std::uint64_t offset)
    : path_(path), shape_(shape), bigEndian_(bigEndian) {
    if (shape.nx == 0 || shape.ny == 0 || shape.nz == 0)
        throw Exception("Volume sizes must be at least 1 for " + path + ": " +
                        std::to_string(shape.nx) + "x" + std::to_string(shape.ny) + "x" +
                        std::to_string(shape.nz));
    std::error_code error;
    const std::uint64_t size = std::filesystem::file_size(path, error);
    in_.open(path, std::ios::binary);
    if (error || !in_) throw FileAccessException("Cannot open the volume file: " + path);
    const std::uint64_t expected = offset + shape.voxelCount() * bytesPerVoxel(shape.type);
    if (size != expected)
        throw FileAccessException(
            "Size of " + path + " does not match " + std::to_string(shape.nx) + "x" +
            std::to_string(shape.ny) + "x" + std::to_string(shape.nz) + " " +
            voxelTypeName(shape.type) + " voxels" +
            (offset ? " after " + std::to_string(offset) + " header bytes" : std::string()) + " (" +
            std::to_string(expected) + " bytes expected): " + std::to_string(size) + " bytes");
    // The count above wraps for sizes whose product exceeds 64 bits, and may then match a
    // small file; such sizes describe no file at all.
    const std::optional<std::uint64_t> voxelBytes = volumeBytes(shape);
    if (!voxelBytes || *voxelBytes > std::numeric_limits<std::uint64_t>::max() - offset)
        throw FileAccessException("Volume sizes exceed any file for " + path + ": " +
                                  std::to_string(shape.nx) + "x" + std::to_string(shape.ny) + "x" +
                                  std::to_string(shape.nz) + " " + voxelTypeName(shape.type));
    in_.seekg(static_cast<std::streamoff>(offset));
    buffer_.resize(std::size_t{shape.nx} * shape.ny * bytesPerVoxel(shape.type));
}

void RawVolumeReader::readSlice(std::int32_t* labels) {
    in_.read(reinterpret_cast<char*>(buffer_.data()), static_cast<std::streamsize>(buffer_.size()));
    if (static_cast<std::size_t>(in_.gcount()) != buffer_.size())
        throw FileAccessException("Unexpected end of voxel data in " + path_ +
                                  " at slice: " + std::to_string(nextSlice_));
    decodeVoxels(buffer_.data(), std::size_t{shape_.nx} * shape_.ny, shape_.type, bigEndian_,
                 labels);
    ++nextSlice_;
}

}  // namespace nmr::rock
