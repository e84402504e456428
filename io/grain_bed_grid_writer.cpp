#include "io/grain_bed_grid_writer.h"

#include <cerrno>

#include "common/exception.h"
#include "common/output_file.h"
#include "grid/sliced_grid.h"
#include "io/compressed_out_stream.h"
#include "io/grain_bed_grid_format.h"

namespace nmr {

namespace {
LoggerBase& orNull(LoggerBase* logger) {
    static NullLogger silent;
    return logger ? *logger : silent;
}
}  // namespace

GrainBedGridWriter::GrainBedGridWriter(const std::string& path, std::uint32_t nx, std::uint32_t ny,
                                       std::uint32_t nz, std::uint32_t marginX,
                                       std::uint32_t marginY, std::uint32_t marginZ,
                                       double cellSize, LoggerBase* logger)
    : GrainBedGridWriter(path, nx, ny, nz, marginX, marginY, marginZ, cellSize, logger,
                         "Unable to save ASCII header: ") {}

GrainBedGridWriter::GrainBedGridWriter(const std::string& path, std::uint32_t nx, std::uint32_t ny,
                                       std::uint32_t nz, std::uint32_t marginX,
                                       std::uint32_t marginY, std::uint32_t marginZ,
                                       double cellSize, LoggerBase* logger, const char* headerError)
    : path_(trim(path)),
      nx_(nx),
      ny_(ny),
      nz_(nz),
      logger_(&orNull(logger)),
      out_(std::make_unique<CompressedOutStream>()) {
    if (path_.empty()) throw FileAccessException("Found empty string as file name.");
    errno = 0;
    if (!out_->open(path_)) {
        // The message is the format's own; why the system refused goes with it as detail.
        const int reason = errno;
        logger_->error("Unable to open: " + path_);
        throw FileAccessException("Unable to open file: " + path_,
                                  reason != 0 ? path_ + ": " + systemErrorText(reason) : "");
    }
    const std::string description = grain_bed_grid::descriptionBlock();
    out_->write(description.data(), description.size());
    if (out_->failed()) {
        out_->close();
        throw FileAccessException("Unable to save description: " + path_);
    }
    const std::string header =
        grain_bed_grid::headerBlock(nx, ny, nz, marginX, marginY, marginZ, cellSize);
    out_->write(header.data(), header.size());
    if (out_->failed()) {
        out_->close();
        throw FileAccessException(headerError + path_);
    }
}

GrainBedGridWriter::~GrainBedGridWriter() {
    // CompressedOutStream::close reports through its flags only, so nothing can escape.
    if (out_->isOpen()) out_->close();
}

void GrainBedGridWriter::writeRecords(const GrainBedGridCell* cells, std::size_t count) {
    buffer_.resize(count * grain_bed_grid::kRecordBytes);
    grain_bed_grid::encodeRecords(cells, count, buffer_.data());
    out_->write(buffer_.data(), buffer_.size());
    if (out_->failed() || out_->bad()) {
        logger_->error("Could not write data to file.");
        throw FileAccessException("Could not write data to file.");
    }
}

void GrainBedGridWriter::writeSlice(const GrainBedGridCell* cells) {
    if (!out_->isOpen()) throw FileAccessException("File is already closed: " + path_);
    if (slicesWritten_ >= nz_) {
        throw FileAccessException("All slices of the grid were already written: " + path_);
    }
    writeRecords(cells, static_cast<std::size_t>(nx_) * ny_);
    ++slicesWritten_;
}

void GrainBedGridWriter::close() {
    if (!out_->isOpen()) return;
    out_->close();
    if (out_->failed() || out_->bad()) {
        logger_->error("Could not write data to file.");
        throw FileAccessException("Could not write data to file.");
    }
    if (slicesWritten_ < nz_) {
        throw FileAccessException("Not all slices of the grid were written to file: " + path_);
    }
    logger_->info("Save complete: " + path_);
}

void saveGrainBedGrid(const Grid<GrainBedGridCell>& grid, const std::string& path,
                      LoggerBase& logger, ProgressReporter& progress) {
    const std::uint32_t nx = grid.nx(), ny = grid.ny(), nz = grid.nz();
    GrainBedGridWriter writer(path, nx, ny, nz, grid.marginX(), grid.marginY(), grid.marginZ(),
                              grid.cellSize(), &logger);
    progress.start("Saving grain bed grid...", nz);
    const auto* sliced = dynamic_cast<const SlicedGrid<GrainBedGridCell>*>(&grid);
    std::vector<GrainBedGridCell> slice;
    if (sliced == nullptr) slice.resize(static_cast<std::size_t>(nx) * ny);
    GrainBedGridCell buffer;
    for (std::uint32_t z = 0; z < nz; ++z) {
        for (std::uint32_t y = 0; y < ny; ++y) {
            if (progress.cancelRequested()) {
                logger.info("Saving canceled by user.");
                throw UserCancelException("Saving canceled by user.");
            }
            if (sliced != nullptr) continue;
            for (std::uint32_t x = 0; x < nx; ++x) {
                slice[static_cast<std::size_t>(y) * nx + x] = grid.getCell(buffer, x, y, z);
            }
        }
        writer.writeSlice(sliced != nullptr ? sliced->sliceData(z) : slice.data());
        progress.step();
    }
    writer.close();
    progress.finish();
}

}  // namespace nmr
