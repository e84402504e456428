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
#include "io/tests/legacy_file.h"
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
