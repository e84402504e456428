#include <gtest/gtest.h>
#include "parallel/message_passing.h"
TEST(MpiPlaceholder, Rank) { EXPECT_GE(nmr::mpi::rank(), 0); }
