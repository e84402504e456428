#pragma once

#include <string>
#include <vector>

#include "grid/mineral.h"

namespace nmr::test {

// A grain bed grid file decompressed: its cells, and every line of its header.
struct GridFile {
    std::vector<GrainBedGridCell> cells;
    std::string bytes;  // the whole decompressed content
    bool hasLine(const std::string& line) const {
        return bytes.find("\n" + line + "\n") < bytes.find("\ncells\n");
    }
};
GridFile readGridFile(const std::string& path);

}  // namespace nmr::test
