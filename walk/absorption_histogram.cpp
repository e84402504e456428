#include "walk/absorption_histogram.h"

#include "mpi/message_passing.h"

namespace nmr {

ReducedAbsorptions reduceAbsorptions(AbsorptionHistogram& histogram, MPI_Comm comm) {
    ReducedAbsorptions result;
    result.intervalsReached = mpi::allReduce(histogram.localMaximum(), MPI_MAX, comm);
    histogram.counts().resize(result.intervalsReached, 0u);
    result.counts.assign(result.intervalsReached, 0u);
    mpi::reduce(histogram.counts(), result.counts, MPI_SUM, 0, comm);
    return result;
}

}  // namespace nmr
