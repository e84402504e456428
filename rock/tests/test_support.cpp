#include "rock/tests/test_support.h"

#include <zlib.h>

#include <array>
#include <stdexcept>

namespace nmr::test {

GridFile readGridFile(const std::string& path) {
    GridFile file;
    gzFile in = gzopen(path.c_str(), "rb");
    if (!in) throw std::runtime_error("cannot open " + path);
    std::array<char, 65536> buffer{};
    for (int n; (n = gzread(in, buffer.data(), static_cast<unsigned>(buffer.size()))) > 0;)
        file.bytes.append(buffer.data(), static_cast<std::size_t>(n));
    gzclose(in);
    const std::size_t cells = file.bytes.find("\ncells\n");
    if (cells == std::string::npos) throw std::runtime_error("no cells line in " + path);
    for (std::size_t i = cells + 7; i + 4 <= file.bytes.size(); i += 4) {
        const auto* b = reinterpret_cast<const unsigned char*>(file.bytes.data() + i);
        file.cells.push_back(GrainBedGridCell{std::uint32_t{b[0]} | std::uint32_t{b[1]} << 8 |
                                              std::uint32_t{b[2]} << 16 |
                                              std::uint32_t{b[3]} << 24});
    }
    return file;
}

}  // namespace nmr::test
