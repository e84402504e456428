#include "rock/tiff_stack_reader.h"

#include <tiffio.h>

#include <bit>
#include <cstdarg>
#include <cstdio>

#include "common/exception.h"

namespace nmr::rock {

namespace {

int keepError(TIFF*, void* user, const char* module, const char* format, va_list args) {
    char text[512];
    std::vsnprintf(text, sizeof text, format, args);
    static_cast<TiffStackReader*>(user)->recordError(std::string(module ? module : "") + ": " +
                                                     text);
    return 1;  // handled: libtiff must not print on its own
}

int ignoreWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

}  // namespace

TiffStackReader::TiffStackReader(const std::string& path) : path_(path) {
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    TIFFOpenOptionsSetErrorHandlerExtR(options, keepError, this);
    TIFFOpenOptionsSetWarningHandlerExtR(options, ignoreWarning, this);
    tif_.reset(TIFFOpenExt(path.c_str(), "r", options));
    TIFFOpenOptionsFree(options);
    if (!tif_) fail("Cannot open the TIFF stack: " + path);

    const tdir_t pages = TIFFNumberOfDirectories(tif_.get());
    if (pages == 0) fail("TIFF file holds no page: " + path);
    std::uint32_t width = 0, height = 0;
    TIFFGetField(tif_.get(), TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tif_.get(), TIFFTAG_IMAGELENGTH, &height);
    shape_.nx = width;
    shape_.ny = height;
    shape_.nz = pages;
    std::uint16_t bits = 0, format = SAMPLEFORMAT_UINT;
    TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_SAMPLEFORMAT, &format);
    const bool isSigned = format == SAMPLEFORMAT_INT;
    if (bits == 8) {
        shape_.type = isSigned ? VoxelType::Int8 : VoxelType::UInt8;
    } else if (bits == 16) {
        shape_.type = isSigned ? VoxelType::Int16 : VoxelType::UInt16;
    } else {
        fail("Labels need 8 or 16 bits per sample; " + path + " has: " + std::to_string(bits));
    }
    for (tdir_t page = 0; page < pages; ++page) {
        if (!TIFFSetDirectory(tif_.get(), page))
            fail("Cannot read page " + std::to_string(page) + " of: " + path);
        checkPage(page);
    }
    if (!TIFFSetDirectory(tif_.get(), 0)) fail("Cannot read page 0 of: " + path);
}

void TiffStackReader::Closer::operator()(TIFF* handle) const { TIFFClose(handle); }

void TiffStackReader::fail(const std::string& text) {
    throw FileAccessException(lastError_.empty() ? text : text + " (" + lastError_ + ")");
}

void TiffStackReader::checkPage(std::uint32_t page) {
    const std::string where = "page " + std::to_string(page) + " of " + path_;
    std::uint32_t width = 0, height = 0;
    std::uint16_t bits = 0, samples = 1, format = SAMPLEFORMAT_UINT;
    TIFFGetField(tif_.get(), TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tif_.get(), TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetFieldDefaulted(tif_.get(), TIFFTAG_SAMPLEFORMAT, &format);
    if (width != shape_.nx || height != shape_.ny)
        fail("All pages must have the size of the first (" + std::to_string(shape_.nx) + "x" +
             std::to_string(shape_.ny) + "), " + where + ": " + std::to_string(width) + "x" +
             std::to_string(height));
    if (bits != 8 * bytesPerVoxel(shape_.type) ||
        (format == SAMPLEFORMAT_INT) !=
            (shape_.type == VoxelType::Int8 || shape_.type == VoxelType::Int16))
        fail("All pages must have the sample type of the first (" + voxelTypeName(shape_.type) +
             "), " + where + ": " + std::to_string(bits) + " bits");
    if (samples != 1)
        fail("Labels need one sample per pixel, " + where + ": " + std::to_string(samples));
    if (TIFFIsTiled(tif_.get())) fail("Tiled TIFF pages are not supported, " + where + ": tiled");
}

void TiffStackReader::readSlice(std::int32_t* labels) {
    if (nextSlice_ >= shape_.nz)
        fail("No more pages in " + path_ + " after page: " + std::to_string(shape_.nz - 1));
    if (nextSlice_ > 0 && !TIFFReadDirectory(tif_.get()))
        fail("Cannot read page " + std::to_string(nextSlice_) + " of: " + path_);
    // The row buffer is sized at the first read, not when the stack is opened: a page that
    // claims billions of pixels a row (which the importer then refuses) must not cost
    // gigabytes before anyone has looked at its shape.
    if (line_.empty()) line_.resize(static_cast<std::size_t>(TIFFScanlineSize64(tif_.get())));
    // Samples are in host byte order once libtiff has read them.
    constexpr bool hostBigEndian = std::endian::native == std::endian::big;
    for (std::uint32_t y = 0; y < shape_.ny; ++y) {
        if (TIFFReadScanline(tif_.get(), line_.data(), y, 0) < 0)
            fail("Cannot read row " + std::to_string(y) + " of page " + std::to_string(nextSlice_) +
                 " of: " + path_);
        decodeVoxels(line_.data(), shape_.nx, shape_.type, hostBigEndian,
                     labels + std::size_t{y} * shape_.nx);
    }
    ++nextSlice_;
}

}  // namespace nmr::rock
