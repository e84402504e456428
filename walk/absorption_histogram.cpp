#include "walk/absorption_histogram.h"

#include "mpi/message_passing.h"

namespace nmr {

ReducedAbsorptions reduceAbsorptions(AbsorptionHistogram& histogram) {
    ReducedAbsorptions result;
    result.intervalsReached = mpi::allReduce(histogram.localMaximum(), MPI_MAX);
    histogram.counts().resize(result.intervalsReached, 0u);
    result.counts.assign(result.intervalsReached, 0u);
    mpi::reduce(histogram.counts(), result.counts, MPI_SUM, 0);
    return result;
}

}  // namespace nmr
