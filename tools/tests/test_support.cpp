#include "tools/tests/test_support.h"

#include <sys/wait.h>
#include <zlib.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace nmr::tools::testing {

TempDir::TempDir() {
    std::string pattern =
        (std::filesystem::temp_directory_path() / "nmrwalk-tools-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

CommandResult run(const std::vector<std::string>& argv) {
    std::string command;
    for (const std::string& word : argv) {
        command += " '";
        for (char c : word) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
        command += "'";
    }
    CommandResult result;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe) return result;
    std::array<char, 4096> buffer{};
    for (std::size_t n; (n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
        result.output.append(buffer.data(), n);
    const int status = pclose(pipe);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

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

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

std::string readText(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

}  // namespace nmr::tools::testing
