#include <gtest/gtest.h>
#include "common/exception.h"
TEST(Placeholder, Builds) { EXPECT_EQ(nmr::Exception("a").message(), "a"); }
