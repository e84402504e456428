#pragma once

#include <cstddef>
#include <vector>

#include "common/logger.h"

namespace nmr {

template <typename T>
class CompressedVector;

// A byte array held squeezed by zlib's one-shot compress. Used for grid blocks that are
// not in use; the bytes are also what travels between processes, so they are never
// re-encoded on the way.
template <>
class CompressedVector<char> {
public:
    // Replaces the content with the compressed form of count bytes.
    void compress(const char* data, std::size_t count, LoggerBase& logger);
    // Expands into exactly originalSize() bytes at out. Throws Exception on a zlib error
    // or when the data do not expand to that size.
    void uncompress(char* out, LoggerBase& logger) const;
    // Takes bytes produced elsewhere by compress().
    void assign(std::vector<char> bytes, std::size_t originalSize);
    void clear();

    const std::vector<char>& bytes() const { return bytes_; }
    std::size_t size() const { return bytes_.size(); }
    std::size_t originalSize() const { return originalSize_; }
    bool empty() const { return bytes_.empty(); }

private:
    std::vector<char> bytes_;
    std::size_t originalSize_ = 0;
};

}  // namespace nmr
