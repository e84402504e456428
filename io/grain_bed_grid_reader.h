#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/logger.h"
#include "io/compressed_in_stream.h"
#include "io/grain_bed_grid_format.h"

namespace nmr {

// Reads the keyword header up to and including the "cells" line. Returns whether every
// size, margin and the cell size were given and valid; a false result leaves whatever was
// read so far in header, which the caller must not use. Type and range errors are logged
// at error level, oddities that reading survives at warning level. Throws
// FileAccessException for a version newer than this reader's and for a mineral line
// before any version line.
bool readGrainBedGridHeader(CompressedInStream& in, GrainBedGridHeader& header, LoggerBase& logger);

// Opens a grain bed grid file and reads its header; the stream is left at the first
// record. Throws FileAccessException: "Unable to open file " + name, "An error occurred
// when reading file header.".
std::unique_ptr<CompressedInStream> openGrainBedGridFile(const std::string& fileName,
                                                         GrainBedGridHeader& header,
                                                         LoggerBase& logger);
// The header alone.
GrainBedGridHeader readGrainBedGridFileHeader(const std::string& fileName, LoggerBase& logger);

// Delivers the cell records one z slice (nx * ny records of 4 bytes) at a time, nz slices.
class GrainBedGridSliceReader {
public:
    GrainBedGridSliceReader(CompressedInStream& in, std::uint32_t nx, std::uint32_t ny,
                            std::uint32_t nz, LoggerBase& logger);
    // The next slice's records. Throws FileAccessException "Did not find enough data for a
    // grid" when the file ends early, with the file, the slice and the bytes missing as
    // its detail.
    const char* next();
    std::size_t recordsPerSlice() const { return records_; }

private:
    CompressedInStream& in_;
    LoggerBase& logger_;
    std::uint32_t nx_, ny_, nz_;
    std::uint32_t slicesRead_ = 0;
    std::size_t records_;
    std::vector<char> buffer_;
};

}  // namespace nmr
