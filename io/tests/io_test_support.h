#pragma once

#include <gtest/gtest.h>
#include <zlib.h>

#include <sstream>
#include <string>
#include <vector>

#include "common/progress_reporter.h"
#include "io/compressed_in_stream.h"
#include "io/compressed_out_stream.h"
#include "io/grain_bed_grid_format.h"
#include "testutil/checks.h"
#include "testutil/temp_dir.h"

namespace nmr::test {

inline void writeGzip(const std::string& path, const std::string& content) {
    CompressedOutStream out;
    ASSERT_TRUE(out.open(path));
    out.write(content.data(), content.size());
    out.close();
    ASSERT_FALSE(out.failed());
}

// Everything a reader delivers, in reads of an awkward size to cross buffer edges.
inline std::string readAllThrough(CompressedInStream& in) {
    std::string all;
    char buffer[1000];
    std::size_t n = 0;
    while ((n = in.read(buffer, sizeof buffer)) > 0) all.append(buffer, n);
    return all;
}

// A legacy chunked file holding content in chunks of chunkBytes.
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

// Decompressed content of a grain bed grid file: header lines, then one record per code.
inline std::string gridFileContent(std::uint32_t nx, std::uint32_t ny, std::uint32_t nz,
                                   std::uint32_t margin, const std::vector<std::uint32_t>& codes) {
    std::string content = grain_bed_grid::descriptionBlock() +
                          grain_bed_grid::headerBlock(nx, ny, nz, margin, margin, margin, 2.5);
    for (std::uint32_t code : codes) {
        const std::uint32_t word = GrainBedGridCell::make(7, code, 3).word;
        for (int shift = 0; shift < 32; shift += 8) content += static_cast<char>(word >> shift);
    }
    return content;
}

}  // namespace nmr::test
