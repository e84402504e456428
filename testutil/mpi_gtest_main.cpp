// GoogleTest entry point for tests run under mpiexec: MPI is started around the whole
// run and only rank 0 prints, so a failing rank reports through the exit status.
#include <gtest/gtest.h>
#include <mpi.h>

int main(int argc, char** argv) {
    MPI_Init(&argc, &argv);
    ::testing::InitGoogleTest(&argc, argv);
    int rank = 0;
    MPI_Comm_rank(MPI_COMM_WORLD, &rank);
    if (rank != 0) {
        auto& listeners = ::testing::UnitTest::GetInstance()->listeners();
        delete listeners.Release(listeners.default_result_printer());
    }
    int result = RUN_ALL_TESTS();
    // Every rank's verdict counts: a failure on any rank fails the test.
    int worst = 0;
    MPI_Allreduce(&result, &worst, 1, MPI_INT, MPI_MAX, MPI_COMM_WORLD);
    MPI_Finalize();
    return worst;
}
