#include "io/file_checksum.h"

#include <zlib.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <vector>

#include "common/exception.h"

namespace nmr {

std::string fileChecksum(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw FileAccessException("Unable to read file: " + path);
    uLong crc = crc32(0L, Z_NULL, 0);
    std::vector<char> buffer(1 << 20);
    std::uint64_t size = 0;
    while (in.read(buffer.data(), static_cast<std::streamsize>(buffer.size())) || in.gcount() > 0) {
        const auto n = static_cast<uInt>(in.gcount());
        crc = crc32(crc, reinterpret_cast<const Bytef*>(buffer.data()), n);
        size += n;
    }
    char text[64];
    std::snprintf(text, sizeof text, "crc32 %08lx, %llu bytes", crc,
                  static_cast<unsigned long long>(size));
    return text;
}

}  // namespace nmr
