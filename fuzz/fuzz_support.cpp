#include "fuzz/fuzz_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "common/logger.h"

namespace nmr::fuzz {

namespace {

std::string makeScratchDir() {
    // Readers that log without an injected logger go to the process-wide core; a line per
    // input on standard error would slow fuzzing down to the terminal's speed.
    LogCore::instance().setThreshold(LogLevel::Off);
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") +
                          "/nmr-fuzz-" + std::to_string(getpid()) + "-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) violated("cannot make a scratch directory");
    return pattern;
}

void removeScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(scratchDir(), ignored);
}

}  // namespace

const std::string& scratchDir() {
    // Never destroyed: the exit handler below still needs the name after static
    // destructors have run.
    static const std::string* const dir = [] {
        auto* made = new std::string(makeScratchDir());
        std::atexit(removeScratchDir);
        return made;
    }();
    return *dir;
}

std::string scratchPath(const std::string& name) { return scratchDir() + "/" + name; }

std::string writeScratch(const std::string& name, const std::uint8_t* data, std::size_t size) {
    std::string path = scratchPath(name);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    out.close();
    if (!out) violated("cannot write " + path);
    return path;
}

void clearScratch() {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(scratchDir(), ignored)) {
        std::filesystem::remove_all(entry.path(), ignored);
    }
}

void violated(const std::string& what) {
    std::fprintf(stderr, "fuzz property violated: %s\n", what.c_str());
    std::abort();
}

}  // namespace nmr::fuzz
