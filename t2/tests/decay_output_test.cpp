#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

#include "t2/decay_output.h"

namespace nmr::t2 {
namespace {

namespace fs = std::filesystem;

class WriteColumns : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = fs::temp_directory_path() / ("nmr_t2_" + std::to_string(std::random_device{}()));
        fs::create_directories(dir_);
    }
    void TearDown() override { fs::remove_all(dir_); }
    static std::string contents(const fs::path& path) {
        std::ostringstream text;
        text << std::ifstream(path).rdbuf();
        return text.str();
    }
    fs::path dir_;
};

TEST_F(WriteColumns, DefaultNumberFormatNoHeaderAndReplacesTheFile) {
    const std::string path = (dir_ / "T2decay.out").string();
    ASSERT_TRUE(writeColumns({9.0, 8.0, 7.0, 6.0, 5.0}, {1.0, 2.0, 3.0, 4.0, 5.0}, path));
    ASSERT_TRUE(writeColumns({1.0 / 240.0, 7.0548023107, 1234567.0, 1e-7},
                             {1.0, 0.999999, 0.0, -2.5, 99.0}, path));
    EXPECT_EQ(contents(path), "0.00416667 1\n7.0548 0.999999\n1.23457e+06 0\n1e-07 -2.5\n");
    ASSERT_TRUE(writeColumns({}, {}, path));
    EXPECT_TRUE(fs::exists(path));
    EXPECT_EQ(contents(path), "");
}

TEST_F(WriteColumns, UnopenablePathReturnsFalseAndCreatesNothing) {
    EXPECT_FALSE(writeColumns({1.0}, {2.0}, (dir_ / "missing" / "T2decay.out").string()));
    EXPECT_FALSE(fs::exists(dir_ / "missing"));
}

}  // namespace
}  // namespace nmr::t2
