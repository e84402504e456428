#include <gtest/gtest.h>
#include "grid/mineral.h"
TEST(MineralPlaceholder, Count) { EXPECT_EQ(nmr::Mineral::count(), 14); }
