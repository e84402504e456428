#include <gtest/gtest.h>

#include <numeric>

#include "mpi/message_passing.h"

namespace nmr {
namespace {

struct Point {
    double x, y, z;
};

TEST(MessagePassing, VectorBroadcastResizesReceivers) {
    const int rank = mpi::rank();
    // Receivers start longer, shorter and empty; all must end with the root's length.
    std::vector<std::uint32_t> values;
    if (rank == 0) {
        values = {7, 8, 9};
    } else {
        values.assign(static_cast<std::size_t>(rank % 2 ? 10 : 1), 42u);
    }
    mpi::broadcast(values, 0);
    EXPECT_EQ(values, (std::vector<std::uint32_t>{7, 8, 9}));

    std::vector<long long> big =
        rank == 0 ? std::vector<long long>{1LL << 40, -5} : std::vector<long long>(5, 3);
    mpi::broadcast(big, 0);
    EXPECT_EQ(big, (std::vector<long long>{1LL << 40, -5}));

    std::vector<double> empty = rank == 0 ? std::vector<double>{} : std::vector<double>(4, 1.0);
    mpi::broadcast(empty, 0);
    EXPECT_TRUE(empty.empty());
}

TEST(MessagePassing, ScalarAndArrayBroadcast) {
    const int rank = mpi::rank();
    bool flag = rank == 0;  // true on the root, false elsewhere
    mpi::broadcast(flag, 0);
    EXPECT_TRUE(flag);
    bool off = rank != 0;
    mpi::broadcast(off, 0);
    EXPECT_FALSE(off);

    double d = rank == 0 ? 0.125 : -1.0;
    mpi::broadcast(d, 0);
    EXPECT_EQ(d, 0.125);
    std::uint32_t u = rank == 0 ? 4000000000u : 0u;
    mpi::broadcast(u, 0);
    EXPECT_EQ(u, 4000000000u);

    char text[6] = {0};
    if (rank == 0) std::copy_n("slice", 6, text);
    mpi::broadcast(text, 6, 0);
    EXPECT_STREQ(text, "slice");

    std::string s = rank == 0 ? "grid.binc" : "longer text here";
    mpi::broadcast(s, 0);
    EXPECT_EQ(s, "grid.binc");
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
