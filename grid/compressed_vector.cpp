#include "grid/compressed_vector.h"

#include <zlib.h>

#include <string>

#include "common/exception.h"

namespace nmr {

namespace {
[[noreturn]] void raiseZlibError(int rc, LoggerBase& logger) {
    std::string text;
    switch (rc) {
        case Z_MEM_ERROR:
            text = "zlib (un)compress failed (memory error)";
            break;
        case Z_BUF_ERROR:
            text = "zlib (un)compress failed (dest buf too small)";
            break;
        default:
            text = "zlib (un)compress failed (data error)";
            break;
    }
    logger.error(text);
    throw Exception(text);
}
}  // namespace

void CompressedVector<char>::compress(const char* data, std::size_t count, LoggerBase& logger) {
    std::vector<char> packed(compressBound(static_cast<uLong>(count)));
    uLongf packedSize = static_cast<uLongf>(packed.size());
    const int rc = ::compress(reinterpret_cast<Bytef*>(packed.data()), &packedSize,
                              reinterpret_cast<const Bytef*>(data), static_cast<uLong>(count));
    if (rc != Z_OK) raiseZlibError(rc, logger);
    packed.resize(packedSize);
    packed.shrink_to_fit();
    bytes_ = std::move(packed);
    originalSize_ = count;
}

void CompressedVector<char>::uncompress(char* out, LoggerBase& logger) const {
    uLongf produced = static_cast<uLongf>(originalSize_);
    const int rc = ::uncompress(reinterpret_cast<Bytef*>(out), &produced,
                                reinterpret_cast<const Bytef*>(bytes_.data()),
                                static_cast<uLong>(bytes_.size()));
    if (rc != Z_OK) raiseZlibError(rc, logger);
    if (produced != originalSize_) raiseZlibError(Z_DATA_ERROR, logger);
}

void CompressedVector<char>::assign(std::vector<char> bytes, std::size_t originalSize) {
    bytes_ = std::move(bytes);
    originalSize_ = originalSize;
}

void CompressedVector<char>::clear() {
    bytes_ = {};
    originalSize_ = 0;
}

}  // namespace nmr
