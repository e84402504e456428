#include <gtest/gtest.h>

#include "t2/decay_output.h"
#include "testutil/temp_dir.h"

namespace nmr::t2 {
namespace {

TEST(WriteColumns, DefaultNumberFormatReplacesTheFileAndUnopenablePathFails) {
    const test::TempDir dir;
    const std::string path = dir.file("T2decay.out");
    ASSERT_TRUE(writeColumns({9.0, 8.0, 7.0, 6.0, 5.0}, {1.0, 2.0, 3.0, 4.0, 5.0}, path));
    ASSERT_TRUE(writeColumns({1.0 / 240.0, 7.0548023107, 1234567.0, 1e-7},
                             {1.0, 0.999999, 0.0, -2.5, 99.0}, path));
    EXPECT_EQ(dir.read("T2decay.out"),
              "0.00416667 1\n7.0548 0.999999\n1.23457e+06 0\n1e-07 -2.5\n");
    ASSERT_TRUE(writeColumns({}, {}, path));
    EXPECT_TRUE(dir.exists("T2decay.out"));
    EXPECT_EQ(dir.read("T2decay.out"), "");
    EXPECT_FALSE(writeColumns({1.0}, {2.0}, dir.file("missing/T2decay.out")));
    EXPECT_FALSE(dir.exists("missing"));
}

}  // namespace
}  // namespace nmr::t2
