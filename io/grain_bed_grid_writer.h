#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "common/logger.h"
#include "common/progress_reporter.h"
#include "grid/grid.h"
#include "grid/mineral.h"

namespace nmr {

class CompressedOutStream;

// Writes a grain bed grid file one z slice at a time, so a grid that is built slice by
// slice never has to exist whole in memory. The file is identical to the one written
// from a whole grid.
class GrainBedGridWriter {
public:
    // Opens the file, writes the comment block and the header (version 1.2, minerals
    // 0..13, "cells"). Throws FileAccessException: "Found empty string as file name.",
    // "Unable to open file: ", "Unable to save description: ", "Unable to save ASCII
    // header: " (the last three followed by the name).
    GrainBedGridWriter(const std::string& path, std::uint32_t nx, std::uint32_t ny,
                       std::uint32_t nz, std::uint32_t marginX, std::uint32_t marginY,
                       std::uint32_t marginZ, double cellSize, LoggerBase* logger = nullptr);
    // Closes the file if still open and never throws; an incomplete file stays incomplete.
    ~GrainBedGridWriter();
    GrainBedGridWriter(const GrainBedGridWriter&) = delete;
    GrainBedGridWriter& operator=(const GrainBedGridWriter&) = delete;

    // nx*ny cells of the next z slice, x fastest. Throws FileAccessException on a write
    // error ("Could not write data to file.") or when all nz slices were already written.
    void writeSlice(const GrainBedGridCell* cells);
    // Flushes and writes the gzip trailer. Throws FileAccessException when that fails or
    // when fewer than nz slices were written (the file is closed in both cases).
    void close();

    std::uint32_t slicesWritten() const { return slicesWritten_; }
    const std::string& path() const { return path_; }

private:
    // Header variants differ only in the message of a failed header write.
    friend void convertMineralGridText(const std::string&, const std::string&, LoggerBase&);
    GrainBedGridWriter(const std::string& path, std::uint32_t nx, std::uint32_t ny,
                       std::uint32_t nz, std::uint32_t marginX, std::uint32_t marginY,
                       std::uint32_t marginZ, double cellSize, LoggerBase* logger,
                       const char* headerError);
    void writeRecords(const GrainBedGridCell* cells, std::size_t count);

    std::string path_;
    std::uint32_t nx_, ny_, nz_;
    std::uint32_t slicesWritten_ = 0;
    LoggerBase* logger_;
    std::unique_ptr<CompressedOutStream> out_;
    std::vector<char> buffer_;
};

// Saves a whole grid. Checks the progress reporter's cancel request before every row and
// then stops with UserCancelException "Saving canceled by user."; file errors are
// FileAccessException as for GrainBedGridWriter.
void saveGrainBedGrid(const Grid<GrainBedGridCell>& grid, const std::string& path,
                      LoggerBase& logger, ProgressReporter& progress);

}  // namespace nmr
