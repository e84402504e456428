#include <gtest/gtest.h>

#include <numeric>

#include "mpi/message_passing.h"

namespace nmr {
namespace {

struct Point {
    double x, y, z;
};

// Receivers start with other values and, for vectors and strings, longer, shorter or empty
// storage: all must end with exactly the root's.
TEST(MessagePassing, BroadcastOfEveryKindGivesTheRootsValue) {
    const bool root = mpi::rank() == 0;
    std::vector<std::uint32_t> values = root ? std::vector<std::uint32_t>{7, 8, 9}
                                             : std::vector<std::uint32_t>(mpi::rank() % 2 ? 10 : 1);
    std::vector<long long> big =
        root ? std::vector<long long>{1LL << 40, -5} : std::vector<long long>(5);
    std::vector<double> empty = root ? std::vector<double>{} : std::vector<double>(4, 1.0);
    std::string text = root ? "grid.binc" : "longer text here";
    bool on = root, off = !root;  // a bool travels as one byte
    double d = root ? 0.125 : -1.0;
    std::uint32_t u = root ? 4000000000u : 0u;
    char chars[6] = {0};
    if (root) std::copy_n("slice", 6, chars);
    mpi::broadcast(values, 0);
    mpi::broadcast(big, 0);
    mpi::broadcast(empty, 0);
    mpi::broadcast(text, 0);
    mpi::broadcast(on, 0);
    mpi::broadcast(off, 0);
    mpi::broadcast(d, 0);
    mpi::broadcast(u, 0);
    mpi::broadcast(chars, 6, 0);
    EXPECT_EQ(values, (std::vector<std::uint32_t>{7, 8, 9}));
    EXPECT_EQ(big, (std::vector<long long>{1LL << 40, -5}));
    EXPECT_TRUE(empty.empty());
    EXPECT_EQ(text, "grid.binc");
    EXPECT_TRUE(on && !off);
    EXPECT_EQ(std::tuple(d, u), std::tuple(0.125, 4000000000u));
    EXPECT_STREQ(chars, "slice");
}

TEST(MessagePassing, AgreementAndReductions) {
    const int rank = mpi::rank();
    const int size = mpi::size();
    EXPECT_TRUE(mpi::allTrue(true));
    EXPECT_FALSE(mpi::allTrue(rank != size - 1));  // the last rank says no
    EXPECT_EQ(mpi::allReduce(rank, MPI_MAX), size - 1);
    EXPECT_EQ(mpi::allReduce(static_cast<std::uint32_t>(rank + 1), MPI_SUM),
              static_cast<std::uint32_t>(size * (size + 1) / 2));
    EXPECT_EQ(mpi::allReduce(static_cast<std::uint32_t>(rank + 3), MPI_MIN), 3u);

    const double maxTime = mpi::reduce(static_cast<double>(rank) * 1.5, MPI_MAX, 0);
    if (rank == 0) {
        EXPECT_EQ(maxTime, 1.5 * (size - 1));
    }

    // Element-wise sum onto the root; the receive vector is sized on every process.
    std::vector<std::uint32_t> local = {1, static_cast<std::uint32_t>(rank), 0};
    std::vector<std::uint32_t> summed(local.size(), 0);
    mpi::reduce(local, summed, MPI_SUM, 0);
    if (rank == 0) {
        EXPECT_EQ(summed, (std::vector<std::uint32_t>{
                              static_cast<std::uint32_t>(size),
                              static_cast<std::uint32_t>(size * (size - 1) / 2), 0}));
    }
    std::vector<std::uint32_t> none, noneOut;
    mpi::reduce(none, noneOut, MPI_SUM, 0);  // empty vectors pass null buffers
}

TEST(MessagePassing, ScatterOfPointsGoesInRankOrder) {
    const int rank = mpi::rank();
    const int size = mpi::size();
    const std::size_t perProcess = 3;
    std::vector<Point> all;
    if (rank == 0) {
        for (int r = 0; r < size; ++r)
            for (std::size_t i = 0; i < perProcess; ++i)
                all.push_back({static_cast<double>(r), static_cast<double>(i), 0.5 + r});
    }
    std::vector<Point> mine(perProcess);
    mpi::scatterPoints(all, mine, 0);
    for (std::size_t i = 0; i < perProcess; ++i) {
        EXPECT_EQ(mine[i].x, rank);
        EXPECT_EQ(mine[i].y, static_cast<double>(i));
        EXPECT_EQ(mine[i].z, 0.5 + rank);
    }
}

TEST(MessagePassing, StringFromAnySourceUsesTheHeaderRank) {
    const int rank = mpi::rank();
    const int size = mpi::size();
    if (size < 3) GTEST_SKIP() << "needs 3+ ranks";
    // Every non-root sends to rank 0; rank 0 receives from any source and must match
    // each text to the rank the header names, even when messages arrive out of order.
    if (rank == 0) {
        for (int i = 1; i < size; ++i) {
            std::string text;
            MPI_Status status = mpi::receive(text, MPI_ANY_SOURCE, 7);
            EXPECT_EQ(text, std::string(static_cast<std::size_t>(status.MPI_SOURCE) * 3,
                                        'a' + static_cast<char>(status.MPI_SOURCE)));
        }
    } else {
        mpi::send(std::string(static_cast<std::size_t>(rank) * 3, 'a' + static_cast<char>(rank)), 0,
                  7);
    }
}

}  // namespace
}  // namespace nmr
