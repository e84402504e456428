#pragma once

#include <memory>
#include <string>
#include <vector>

#include "rock/volume_reader.h"

struct tiff;  // libtiff's handle, kept out of this header

namespace nmr::rock {

// A multi-page TIFF in which page k is slice z = k: one 8- or 16-bit sample per pixel,
// all pages of one size, stored in strips (libtiff undoes any compression).
class TiffStackReader final : public VolumeReader {
public:
    // Reads every page's header once to check the stack. Throws
    // nmr::FileAccessException naming the file and the page or value at fault.
    explicit TiffStackReader(const std::string& path);
    TiffStackReader(const TiffStackReader&) = delete;
    TiffStackReader& operator=(const TiffStackReader&) = delete;

    const VolumeShape& shape() const override { return shape_; }
    const std::string& source() const override { return path_; }
    void readSlice(std::int32_t* labels) override;

    // libtiff reports through callbacks; the last message is kept for the exception.
    void recordError(const std::string& message) { lastError_ = message; }

private:
    // Checks that the current page matches the stack's shape.
    void checkPage(std::uint32_t page);
    [[noreturn]] void fail(const std::string& text);

    // Closes the handle also when the constructor throws half-way.
    struct Closer {
        void operator()(struct tiff* handle) const;
    };

    std::string path_;
    VolumeShape shape_;
    std::unique_ptr<struct tiff, Closer> tif_;
    std::uint32_t nextSlice_ = 0;
    std::vector<unsigned char> line_;
    std::string lastError_;
};

}  // namespace nmr::rock
