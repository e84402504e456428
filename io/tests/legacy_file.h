#pragma once

// Files in the older chunked grid format, for the reader's tests and the fuzz seeds.

#include <zlib.h>

#include <sstream>
#include <string>
#include <vector>

namespace nmr::test {

// The older chunked format: decimal tags, each chunk's bytes a zlib stream. Odd chunks use
// the alternative marker and binary tags, which the reader accepts as well.
inline std::string legacyFile(const std::string& content, std::size_t chunkBytes) {
    std::ostringstream out;
    out << "500124\n393988 1\n393989 6\n";
    std::size_t chunks = 0, packedTotal = 0;
    for (std::size_t at = 0; at < content.size(); at += chunkBytes, ++chunks) {
        const std::string part = content.substr(at, chunkBytes);
        std::vector<Bytef> packed(compressBound(part.size()));
        uLongf packedSize = packed.size();
        compress(packed.data(), &packedSize, reinterpret_cast<const Bytef*>(part.data()),
                 part.size());
        packedTotal += packedSize;
        out << (chunks % 2 ? "393993 393999" : "393992 393998") << " 393990 " << part.size()
            << " 393991 " << packedSize << " 377594\n";
        out.write(reinterpret_cast<const char*>(packed.data()),
                  static_cast<std::streamsize>(packedSize));
        out << "\n377595\n";
    }
    out << "393994 393995 " << chunks << " 393996 " << content.size() << " 393997 " << packedTotal
        << "\n";
    return out.str();
}

}  // namespace nmr::test
