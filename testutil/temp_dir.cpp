#include "testutil/temp_dir.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace nmr::test {

std::string readFile(const std::filesystem::path& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();
    return bytes.str();
}

void writeFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

TempDir::TempDir(const std::string& prefix) {
    std::string pattern = (std::filesystem::temp_directory_path() / (prefix + "_XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed: " + pattern);
    path_ = pattern;
}

TempDir::~TempDir() {
    // A test may leave read-only or half-removed files; removal must not throw from here.
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace nmr::test
