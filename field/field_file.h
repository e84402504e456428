#pragma once

#include <mpi.h>

#include <array>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "field/dipole_field.h"

// The field file: a MetaImage header (<name>.mhd) and its data (<name>.raw beside it),
// nx * ny * nz little-endian 32-bit floats of dB/B0, x fastest, then y, then z, with the
// cell size in micrometres as ElementSpacing; ParaView and ITK read it as it is.
namespace nmr::field {

// The data file of a header: "<name>.raw" for "<name>.mhd". Throws nmr::Exception for a
// path that does not end in ".mhd".
std::string fieldDataPath(const std::string& headerPath);

// Writes the two files slice by slice under "<file>.writing" and renames them when every
// slice is in: the data file first, then the header, so a header never names a data file
// that is not whole. Destroyed before commit(), it removes what it wrote. Throws
// nmr::FileAccessException naming the file that cannot be written.
class FieldFileWriter {
public:
    FieldFileWriter(const std::string& headerPath, const Extent& size, double cellSizeUm);
    ~FieldFileWriter();
    FieldFileWriter(const FieldFileWriter&) = delete;
    FieldFileWriter& operator=(const FieldFileWriter&) = delete;

    // The next z slice, nx * ny values.
    void writeSlice(const float* values);
    void commit();

private:
    std::string headerPath_;
    std::string dataPath_;
    Extent size_;
    double cellSizeUm_;
    std::ofstream data_;
    std::uint32_t slicesWritten_ = 0;
    bool committed_ = false;
};

void writeFieldFile(const std::string& headerPath, const Extent& size, double cellSizeUm,
                    const std::vector<float>& values);

struct FieldImage {
    Extent size{};
    std::optional<std::array<double, 3>> spacing;  // micrometres, as written
    std::vector<float> values;
};

// Reads a field file of any size. Throws nmr::FileAccessException naming the file: a
// header that is not a MetaImage of MET_FLOAT, a data file that is not exactly as long as
// DimSize says, a value that is NaN or infinite (naming its cell).
FieldImage readFieldFile(const std::string& headerPath);
// The same for a field of a given grid: a DimSize other than `expected` is refused before
// the data are read.
std::vector<float> readFieldFile(const std::string& headerPath, const Extent& expected);

// Collective over comm: process 0 writes the slabs of every process (computeFieldSlab's),
// taking the slices in z order from their owners, one slice in memory at a time. A failure
// throws the same nmr::FileAccessException on every process and leaves no file.
void writeFieldSlabs(const std::string& headerPath, const FieldSlab& slab, double cellSizeUm,
                     MPI_Comm comm);

}  // namespace nmr::field
