#include "rock/meta_image.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

#include "common/exception.h"
#include "common/text.h"

namespace nmr::rock {

namespace {

std::vector<std::string> words(const std::string& text) {
    std::istringstream in(text);
    std::vector<std::string> result;
    for (std::string w; in >> w;) result.push_back(w);
    return result;
}

bool parseBool(const std::string& value, const std::string& path, const std::string& key) {
    if (value == "True" || value == "true" || value == "1") return true;
    if (value == "False" || value == "false" || value == "0") return false;
    throw FileAccessException("Value of " + key + " in " + path +
                              " is not True or False: " + value);
}

VoxelType elementType(const std::string& value, const std::string& path) {
    if (value == "MET_UCHAR") return VoxelType::UInt8;
    if (value == "MET_CHAR") return VoxelType::Int8;
    if (value == "MET_USHORT") return VoxelType::UInt16;
    if (value == "MET_SHORT") return VoxelType::Int16;
    throw FileAccessException(
        "ElementType in " + path +
        " must be MET_UCHAR, MET_CHAR, MET_USHORT or MET_SHORT for labels: " + value);
}

// The keys of a header as read, before they are checked against each other.
struct HeaderKeys {
    int dims = 3;
    std::vector<std::string> dimSize;
    std::optional<std::string> type;
    std::optional<std::string> dataFile;
    std::int64_t headerSize = 0;
};

// One "key = value" line; spacing and byte order go straight into the header.
void readKey(const std::string& key, const std::string& value, const std::string& path,
             HeaderKeys& keys, MetaImageHeader& header) {
    const std::string what = "Bad " + key + " in " + path;
    if (key == "NDims") {
        keys.dims = static_cast<int>(parseInteger(value, what));
        if (keys.dims != 2 && keys.dims != 3)
            throw FileAccessException("NDims in " + path + " must be 2 or 3: " + value);
    } else if (key == "DimSize") {
        keys.dimSize = words(value);
    } else if (key == "ElementType") {
        keys.type = value;
    } else if (key == "ElementSpacing" || (key == "ElementSize" && !header.spacing)) {
        const auto w = words(value);
        if (w.size() < 2 || w.size() > 3) throw FileAccessException(what + ": " + value);
        std::array<double, 3> s{};
        for (std::size_t i = 0; i < 3; ++i) s[i] = parseDouble(w[std::min(i, w.size() - 1)], what);
        if (s[0] <= 0.0 || s[1] <= 0.0 || s[2] <= 0.0)
            throw FileAccessException(what + ": " + value);
        header.spacing = s;
    } else if (key == "HeaderSize") {
        keys.headerSize = parseInteger(value, what);
        if (keys.headerSize < -1) throw FileAccessException(what + ": " + value);
    } else if (key == "BinaryDataByteOrderMSB" || key == "ElementByteOrderMSB") {
        header.bigEndian = parseBool(value, path, key);
    } else if (key == "ElementNumberOfChannels") {
        if (parseInteger(value, what) != 1)
            throw FileAccessException(
                "Labels need one channel per voxel; ElementNumberOfChannels in " + path + ": " +
                value);
    } else if (key == "CompressedData") {
        if (parseBool(value, path, key))
            throw FileAccessException("Compressed MetaImage data are not supported (" + path +
                                      "), CompressedData: " + value);
    } else if (key == "ElementDataFile") {
        keys.dataFile = value;
    }
}

// Reads lines up to ElementDataFile, always the last key: with LOCAL the voxels follow it.
HeaderKeys readKeys(std::istream& in, const std::string& path, MetaImageHeader& header) {
    HeaderKeys keys;
    std::string line;
    for (int number = 1; !keys.dataFile && std::getline(in, line); ++number) {
        if (trim(line).empty()) continue;
        const auto eq = line.find('=');
        if (eq == std::string::npos)
            throw FileAccessException("Not a MetaImage header line in " + path + " line " +
                                      std::to_string(number) + ": " + trim(line));
        readKey(trim(line.substr(0, eq)), trim(line.substr(eq + 1)), path, keys, header);
    }
    for (const auto& [missing, name] : {std::pair{keys.dimSize.empty(), "DimSize"},
                                        {!keys.type, "ElementType"},
                                        {!keys.dataFile, "ElementDataFile"}}) {
        if (missing)
            throw FileAccessException(std::string("MetaImage header lacks a key: ") + name + " (" +
                                      path + ")");
    }
    return keys;
}

VolumeShape shapeOf(const HeaderKeys& keys, const std::string& path) {
    if (keys.dimSize.size() != static_cast<std::size_t>(keys.dims))
        throw FileAccessException("DimSize in " + path + " does not have NDims entries: " +
                                  std::to_string(keys.dimSize.size()));
    std::array<std::uint32_t, 3> n{1, 1, 1};
    for (std::size_t i = 0; i < keys.dimSize.size(); ++i) {
        const std::int64_t v = parseInteger(keys.dimSize[i], "Bad DimSize in " + path);
        if (v < 1 || v > 0xFFFFFFFFll)
            throw FileAccessException("Bad DimSize in " + path + ": " + keys.dimSize[i]);
        n[i] = static_cast<std::uint32_t>(v);
    }
    return VolumeShape{n[0], n[1], n[2], elementType(*keys.type, path)};
}

// Where the voxels are: after the header (LOCAL), or in one file beside it.
void locateData(const HeaderKeys& keys, const std::string& path, std::istream& in,
                MetaImageHeader& header) {
    const std::string& dataFile = *keys.dataFile;
    if (dataFile == "LOCAL") {
        header.dataPath = path;
        header.dataOffset = static_cast<std::uint64_t>(in.tellg());
        return;
    }
    if (dataFile == "LIST" || dataFile.find('%') != std::string::npos || words(dataFile).size() > 1)
        throw FileAccessException("Voxel data split over several files are not supported (" + path +
                                  "), ElementDataFile: " + dataFile);
    const std::filesystem::path data(dataFile);
    header.dataPath = data.is_absolute()
                          ? data.string()
                          : (std::filesystem::path(path).parent_path() / data).string();
    if (keys.headerSize >= 0) {
        header.dataOffset = static_cast<std::uint64_t>(keys.headerSize);
        return;
    }
    // HeaderSize = -1: the voxels are the last bytes of the data file.
    std::error_code error;
    const std::uint64_t size = std::filesystem::file_size(header.dataPath, error);
    const std::uint64_t need = header.shape.voxelCount() * bytesPerVoxel(header.shape.type);
    if (error) throw FileAccessException("Cannot open the volume file: " + header.dataPath);
    header.dataOffset = size >= need ? size - need : 0;
}

}  // namespace

MetaImageHeader readMetaImageHeader(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw FileAccessException("Cannot open the MetaImage header: " + path);
    MetaImageHeader header;
    header.headerPath = path;
    const HeaderKeys keys = readKeys(in, path, header);
    header.shape = shapeOf(keys, path);
    locateData(keys, path, in, header);
    return header;
}

std::unique_ptr<VolumeReader> openMetaImage(const MetaImageHeader& header) {
    return std::make_unique<RawVolumeReader>(header.dataPath, header.shape, header.bigEndian,
                                             header.dataOffset);
}

}  // namespace nmr::rock
