#include "rock/meta_image.h"

#include <cctype>
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

const MetaImageElements& labelElements() {
    static const MetaImageElements labels{
        {{"MET_UCHAR", 1}, {"MET_CHAR", 1}, {"MET_USHORT", 2}, {"MET_SHORT", 2}}, "labels"};
    return labels;
}

VoxelType voxelTypeOf(const std::string& elementType) {
    if (elementType == "MET_UCHAR") return VoxelType::UInt8;
    if (elementType == "MET_CHAR") return VoxelType::Int8;
    if (elementType == "MET_USHORT") return VoxelType::UInt16;
    return VoxelType::Int16;
}

// "A, B, C or D"
std::string alternatives(const MetaImageElements& accepted) {
    std::string text;
    for (std::size_t i = 0; i < accepted.types.size(); ++i) {
        if (i > 0) text += i + 1 == accepted.types.size() ? " or " : ", ";
        text += accepted.types[i].first;
    }
    return text;
}

std::size_t elementBytes(const std::string& value, const std::string& path,
                         const MetaImageElements& accepted) {
    for (const auto& [type, bytes] : accepted.types)
        if (type == value) return bytes;
    throw FileAccessException("ElementType in " + path + " must be " + alternatives(accepted) +
                              " for " + accepted.purpose + ": " + value);
}

// The keys of a header as read, before they are checked against each other.
struct HeaderKeys {
    int dims = 3;
    std::vector<std::string> dimSize;
    std::optional<std::string> type;
    std::optional<std::string> dataFile;
    std::int64_t headerSize = 0;
};

// One "key = value" line; spacing and byte order go straight into the layout.
void readKey(const std::string& key, const std::string& value, const std::string& path,
             const std::string& purpose, HeaderKeys& keys, MetaImageLayout& header) {
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
        if (parseInteger(value, what) != 1) {
            std::string subject = purpose;
            if (!subject.empty())
                subject[0] =
                    static_cast<char>(std::toupper(static_cast<unsigned char>(subject[0])));
            throw FileAccessException(subject +
                                      " need one channel per voxel; ElementNumberOfChannels in " +
                                      path + ": " + value);
        }
    } else if (key == "CompressedData") {
        if (parseBool(value, path, key))
            throw FileAccessException("Compressed MetaImage data are not supported (" + path +
                                      "), CompressedData: " + value);
    } else if (key == "ElementDataFile") {
        keys.dataFile = value;
    }
}

// Reads lines up to ElementDataFile, always the last key: with LOCAL the voxels follow it.
HeaderKeys readKeys(std::istream& in, const std::string& path, const std::string& purpose,
                    MetaImageLayout& header) {
    HeaderKeys keys;
    std::string line;
    for (int number = 1; !keys.dataFile && std::getline(in, line); ++number) {
        if (trim(line).empty()) continue;
        const auto eq = line.find('=');
        if (eq == std::string::npos)
            throw FileAccessException("Not a MetaImage header line in " + path + " line " +
                                      std::to_string(number) + ": " + trim(line));
        readKey(trim(line.substr(0, eq)), trim(line.substr(eq + 1)), path, purpose, keys, header);
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

std::array<std::uint32_t, 3> sizeOf(const HeaderKeys& keys, const std::string& path) {
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
    return n;
}

// Where the voxels are: after the header (LOCAL), or in one file beside it.
void locateData(const HeaderKeys& keys, const std::string& path, std::istream& in,
                MetaImageLayout& header) {
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
    const std::uint64_t need =
        std::uint64_t{header.size[0]} * header.size[1] * header.size[2] * header.elementBytes;
    if (error) throw FileAccessException("Cannot open the volume file: " + header.dataPath);
    header.dataOffset = size >= need ? size - need : 0;
}

}  // namespace

MetaImageLayout readMetaImageLayout(const std::string& path, const MetaImageElements& accepted) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw FileAccessException("Cannot open the MetaImage header: " + path);
    MetaImageLayout layout;
    layout.headerPath = path;
    const HeaderKeys keys = readKeys(in, path, accepted.purpose, layout);
    layout.size = sizeOf(keys, path);
    layout.elementBytes = elementBytes(*keys.type, path, accepted);
    layout.elementType = *keys.type;
    locateData(keys, path, in, layout);
    return layout;
}

MetaImageHeader readMetaImageHeader(const std::string& path) {
    const MetaImageLayout layout = readMetaImageLayout(path, labelElements());
    MetaImageHeader header;
    header.headerPath = layout.headerPath;
    header.shape = VolumeShape{layout.size[0], layout.size[1], layout.size[2],
                               voxelTypeOf(layout.elementType)};
    header.bigEndian = layout.bigEndian;
    header.spacing = layout.spacing;
    header.dataPath = layout.dataPath;
    header.dataOffset = layout.dataOffset;
    return header;
}

std::unique_ptr<VolumeReader> openMetaImage(const MetaImageHeader& header) {
    return std::make_unique<RawVolumeReader>(header.dataPath, header.shape, header.bigEndian,
                                             header.dataOffset);
}

}  // namespace nmr::rock
