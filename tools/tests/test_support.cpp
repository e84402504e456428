#include "tools/tests/test_support.h"

#include <sys/wait.h>
#include <zlib.h>

#include <array>
#include <cstdio>
#include <cstdlib>
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

TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

CommandResult runCommand(const std::string& command) {
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

std::string shellQuote(const std::string& text) {
    std::string quoted = "'";
    for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string toolPath(const std::string& name) {
    return std::string(NMR_TOOLS_BINARY_DIR) + "/" + name;
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
    std::istringstream header(file.bytes.substr(0, cells));
    for (std::string line; std::getline(header, line);) {
        const auto eq = line.find(" = ");
        if (line.empty() || line[0] == '#' || eq == std::string::npos ||
            line.rfind("mineral", 0) == 0)
            continue;
        file.header[line.substr(0, eq)] = line.substr(eq + 3);
    }
    const std::size_t begin = cells + 7;
    for (std::size_t i = begin; i + 4 <= file.bytes.size(); i += 4) {
        const auto* b = reinterpret_cast<const unsigned char*>(file.bytes.data() + i);
        file.cells.push_back(GrainBedGridCell{std::uint32_t{b[0]} | std::uint32_t{b[1]} << 8 |
                                              std::uint32_t{b[2]} << 16 |
                                              std::uint32_t{b[3]} << 24});
    }
    return file;
}

void writeBytes(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string readText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::filesystem::path sharedDataDir() {
    const char* source = std::getenv("NMR_SOURCE_DIR");
    if (!source) return {};
    const std::filesystem::path dir = std::filesystem::path(source) / ".." / "shared" / "data";
    return std::filesystem::is_directory(dir) ? dir : std::filesystem::path{};
}

}  // namespace nmr::tools::testing
