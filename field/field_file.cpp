#include "field/field_file.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <climits>
#include <cmath>
#include <filesystem>
#include <memory>
#include <sstream>

#include "common/exception.h"
#include "rock/meta_image.h"

namespace nmr::field {

namespace {

static_assert(std::endian::native == std::endian::little,
              "the field file holds little-endian floats, written as they lie in memory");

constexpr char kSuffix[] = ".mhd";
constexpr char kWriting[] = ".writing";

// The shortest text that reads back as the same double.
std::string exactText(double value) {
    char text[32];
    const auto end = std::to_chars(text, text + sizeof text, value).ptr;
    return std::string(text, end);
}

std::string sizeText(const Extent& n) {
    return std::to_string(n[0]) + " x " + std::to_string(n[1]) + " x " + std::to_string(n[2]);
}

std::string headerText(const Extent& n, double cellSizeUm, const std::string& dataName) {
    const std::string s = exactText(cellSizeUm);
    return "ObjectType = Image\nNDims = 3\nBinaryData = True\nElementByteOrderMSB = False\n"
           "CompressedData = False\nDimSize = " +
           std::to_string(n[0]) + " " + std::to_string(n[1]) + " " + std::to_string(n[2]) +
           "\nElementSpacing = " + s + " " + s + " " + s +
           "\nElementType = MET_FLOAT\nElementDataFile = " + dataName + "\n";
}

void removeQuietly(const std::string& path) {
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
}

void renameOrThrow(const std::string& from, const std::string& to) {
    std::error_code error;
    std::filesystem::rename(from, to, error);
    if (error)
        throw FileAccessException("Cannot write the field file " + to + ": " + error.message());
}

std::uint64_t cellCount(const Extent& n, const std::string& path) {
    const std::uint64_t cells = std::uint64_t{n[0]} * n[1];
    if (n[2] != 0 && cells > (UINT64_MAX / sizeof(float)) / n[2])
        throw FileAccessException("The field of " + sizeText(n) + " cells in " + path +
                                  " exceeds what a file can hold");
    return cells * n[2];
}

// Reads count floats at the data file's offset into values, refusing what is not finite.
void readValues(const rock::MetaImageLayout& layout, std::vector<float>& values) {
    const Extent n = layout.size;
    const std::uint64_t count = cellCount(n, layout.headerPath);
    std::error_code error;
    const std::uint64_t bytes = std::filesystem::file_size(layout.dataPath, error);
    if (error) throw FileAccessException("Cannot open the field data file: " + layout.dataPath);
    const std::uint64_t need = count * sizeof(float);
    if (layout.dataOffset > bytes || bytes - layout.dataOffset != need) {
        throw FileAccessException(
            "The field data file " + layout.dataPath + " holds " + std::to_string(bytes) +
            " bytes; " + sizeText(n) + " floats after " + std::to_string(layout.dataOffset) +
            " bytes of header need " + std::to_string(layout.dataOffset + need) + " (" +
            layout.headerPath + ")");
    }
    std::ifstream in(layout.dataPath, std::ios::binary);
    in.seekg(static_cast<std::streamoff>(layout.dataOffset));
    values.resize(count);
    const std::uint64_t slice = std::uint64_t{n[0]} * n[1];
    for (std::uint64_t z = 0; z < n[2]; ++z) {
        float* first = values.data() + z * slice;
        if (!in.read(reinterpret_cast<char*>(first), static_cast<std::streamsize>(slice * 4)))
            throw FileAccessException("Cannot read the field data file: " + layout.dataPath);
        for (std::uint64_t i = 0; i < slice; ++i) {
            if (layout.bigEndian)
                first[i] =
                    std::bit_cast<float>(__builtin_bswap32(std::bit_cast<std::uint32_t>(first[i])));
            if (std::isfinite(first[i])) continue;
            std::ostringstream text;
            text << first[i];
            throw FileAccessException("The field data file " + layout.dataPath + " holds " +
                                      text.str() + " at cell (" + std::to_string(i % n[0]) + ", " +
                                      std::to_string(i / n[0]) + ", " + std::to_string(z) + ")");
        }
    }
}

rock::MetaImageLayout fieldLayout(const std::string& headerPath) {
    static const rock::MetaImageElements floats{{{"MET_FLOAT", sizeof(float)}}, "field values"};
    return rock::readMetaImageLayout(headerPath, floats);
}

// The root's verdict and message on every process of comm; everyone throws it alike.
void agreeWithRoot(bool ok, std::string message, MPI_Comm comm) {
    int verdict = ok ? 1 : 0;
    MPI_Bcast(&verdict, 1, MPI_INT, 0, comm);
    if (verdict != 0) return;
    int length = static_cast<int>(message.size());
    MPI_Bcast(&length, 1, MPI_INT, 0, comm);
    message.resize(static_cast<std::size_t>(length));
    MPI_Bcast(message.data(), length, MPI_CHAR, 0, comm);
    throw FileAccessException(message);
}

}  // namespace

std::string fieldDataPath(const std::string& headerPath) {
    const std::size_t n = headerPath.size(), suffix = sizeof kSuffix - 1;
    if (n <= suffix || headerPath.compare(n - suffix, suffix, kSuffix) != 0)
        throw Exception("The field file must be named <name>.mhd: " + headerPath);
    return headerPath.substr(0, n - suffix) + ".raw";
}

FieldFileWriter::FieldFileWriter(const std::string& headerPath, const Extent& size,
                                 double cellSizeUm)
    : headerPath_(headerPath),
      dataPath_(fieldDataPath(headerPath)),
      size_(size),
      cellSizeUm_(cellSizeUm) {
    data_.open(dataPath_ + kWriting, std::ios::binary | std::ios::trunc);
    if (!data_) throw FileAccessException("Cannot write the field file " + dataPath_);
}

FieldFileWriter::~FieldFileWriter() {
    if (committed_) return;
    data_.close();
    removeQuietly(dataPath_ + kWriting);
    removeQuietly(headerPath_ + kWriting);
}

void FieldFileWriter::writeSlice(const float* values) {
    const std::size_t count = std::size_t{size_[0]} * size_[1];
    data_.write(reinterpret_cast<const char*>(values),
                static_cast<std::streamsize>(count * sizeof(float)));
    if (!data_) throw FileAccessException("Cannot write the field file " + dataPath_);
    ++slicesWritten_;
}

void FieldFileWriter::commit() {
    if (slicesWritten_ != size_[2])
        throw FileAccessException("The field file " + dataPath_ + " got " +
                                  std::to_string(slicesWritten_) + " of " +
                                  std::to_string(size_[2]) + " slices");
    data_.close();
    if (!data_) throw FileAccessException("Cannot write the field file " + dataPath_);
    {
        std::ofstream header(headerPath_ + kWriting, std::ios::trunc);
        header << headerText(size_, cellSizeUm_,
                             std::filesystem::path(dataPath_).filename().string());
        header.close();
        if (!header) throw FileAccessException("Cannot write the field file " + headerPath_);
    }
    renameOrThrow(dataPath_ + kWriting, dataPath_);
    renameOrThrow(headerPath_ + kWriting, headerPath_);
    committed_ = true;
}

void writeFieldFile(const std::string& headerPath, const Extent& size, double cellSizeUm,
                    const std::vector<float>& values) {
    const std::size_t slice = std::size_t{size[0]} * size[1];
    if (values.size() != slice * size[2])
        throw Exception("A field of " + sizeText(size) + " cells cannot hold " +
                        std::to_string(values.size()) + " values");
    FieldFileWriter writer(headerPath, size, cellSizeUm);
    for (std::uint32_t z = 0; z < size[2]; ++z) writer.writeSlice(values.data() + z * slice);
    writer.commit();
}

FieldImage readFieldFile(const std::string& headerPath) {
    const rock::MetaImageLayout layout = fieldLayout(headerPath);
    FieldImage image{layout.size, layout.spacing, {}};
    readValues(layout, image.values);
    return image;
}

std::vector<float> readFieldFile(const std::string& headerPath, const Extent& expected) {
    const rock::MetaImageLayout layout = fieldLayout(headerPath);
    if (layout.size != expected)
        throw FileAccessException("The field file " + headerPath + " holds " +
                                  sizeText(layout.size) + " cells; the grid has " +
                                  sizeText(expected));
    std::vector<float> values;
    readValues(layout, values);
    return values;
}

void writeFieldSlabs(const std::string& headerPath, const FieldSlab& slab, double cellSizeUm,
                     MPI_Comm comm) {
    int rank = 0, size = 1;
    MPI_Comm_rank(comm, &rank);
    MPI_Comm_size(comm, &size);
    const Extent n = slab.size;
    const std::size_t sliceCells = std::size_t{n[0]} * n[1];
    if (sliceCells > static_cast<std::size_t>(INT_MAX))
        throw Exception("A slice of the field is too large to send in one message");
    std::unique_ptr<FieldFileWriter> writer;
    std::string failure;
    if (rank == 0) {
        try {
            writer = std::make_unique<FieldFileWriter>(headerPath, n, cellSizeUm);
        } catch (const Exception& e) {
            failure = e.message();
        }
    }
    agreeWithRoot(failure.empty(), failure, comm);

    // Process 0 takes every slice even after a failed write, so no sender is left waiting.
    std::vector<float> received(rank == 0 ? sliceCells : 0);
    for (std::uint32_t z = 0; z < n[2]; ++z) {
        const int owner = static_cast<int>(z / std::max(slabOf(n[2], 0, size).zCount, 1u));
        const float* mine =
            owner == rank ? slab.values.data() + (z - slab.slab.zBegin) * sliceCells : nullptr;
        if (rank != 0) {
            if (owner == rank) MPI_Send(mine, static_cast<int>(sliceCells), MPI_FLOAT, 0, 0, comm);
            continue;
        }
        if (owner != 0) {
            MPI_Recv(received.data(), static_cast<int>(sliceCells), MPI_FLOAT, owner, 0, comm,
                     MPI_STATUS_IGNORE);
            mine = received.data();
        }
        try {
            if (failure.empty()) writer->writeSlice(mine);
        } catch (const Exception& e) {
            failure = e.message();
        }
    }
    if (rank == 0 && failure.empty()) {
        try {
            writer->commit();
        } catch (const Exception& e) {
            failure = e.message();
        }
    }
    writer.reset();
    agreeWithRoot(failure.empty(), failure, comm);
}

}  // namespace nmr::field
