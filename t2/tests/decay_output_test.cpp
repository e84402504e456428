#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "t2/decay_output.h"

namespace nmr::t2 {
namespace {

namespace fs = std::filesystem;

TEST(WriteColumns, DefaultNumberFormatReplacesTheFileAndUnopenablePathFails) {
    const fs::path dir =
        fs::temp_directory_path() / ("nmr_t2_" + std::to_string(std::random_device{}()));
    fs::create_directories(dir);
    const std::string path = (dir / "T2decay.out").string();
    const auto contents = [&] {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    };
    ASSERT_TRUE(writeColumns({9.0, 8.0, 7.0, 6.0, 5.0}, {1.0, 2.0, 3.0, 4.0, 5.0}, path));
    ASSERT_TRUE(writeColumns({1.0 / 240.0, 7.0548023107, 1234567.0, 1e-7},
                             {1.0, 0.999999, 0.0, -2.5, 99.0}, path));
    EXPECT_EQ(contents(), "0.00416667 1\n7.0548 0.999999\n1.23457e+06 0\n1e-07 -2.5\n");
    ASSERT_TRUE(writeColumns({}, {}, path));
    EXPECT_TRUE(fs::exists(path));
    EXPECT_EQ(contents(), "");
    EXPECT_FALSE(writeColumns({1.0}, {2.0}, (dir / "missing" / "T2decay.out").string()));
    EXPECT_FALSE(fs::exists(dir / "missing"));
    fs::remove_all(dir);
}

}  // namespace
}  // namespace nmr::t2
