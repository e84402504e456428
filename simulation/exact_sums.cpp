#include "simulation/exact_sums.h"

#include <cstring>

namespace nmr {

namespace {

void addInt128(void* in, void* inout, int* count, MPI_Datatype* /*type*/) {
    const auto* a = static_cast<const Int128*>(in);
    auto* b = static_cast<Int128*>(inout);
    for (int i = 0; i < *count; ++i) b[i] += a[i];
}

// The MPI type and sum of a 128-bit integer, made once.
struct Int128Reduction {
    MPI_Datatype type = MPI_DATATYPE_NULL;
    MPI_Op sum = MPI_OP_NULL;
    Int128Reduction() {
        MPI_Type_contiguous(static_cast<int>(sizeof(Int128)), MPI_BYTE, &type);
        MPI_Type_commit(&type);
        MPI_Op_create(&addInt128, 1, &sum);
    }
};

}  // namespace

double ExactSums::sum(std::size_t i) const {
    return static_cast<double>(static_cast<long double>(sums_[i]) / kUnit);
}

void ExactSums::reduce(MPI_Comm comm, int root) {
    int size = 1;
    MPI_Comm_size(comm, &size);
    if (size == 1 || sums_.empty()) return;
    static const Int128Reduction reduction;
    int rank = 0;
    MPI_Comm_rank(comm, &rank);
    std::vector<Int128> total(sums_.size(), 0);
    MPI_Reduce(sums_.data(), total.data(), static_cast<int>(sums_.size()), reduction.type,
               reduction.sum, root, comm);
    if (rank == root) sums_ = std::move(total);
}

std::string ExactSums::save() const {
    return {reinterpret_cast<const char*>(sums_.data()), sums_.size() * sizeof(Int128)};
}

bool ExactSums::restore(const std::string& bytes) {
    if (bytes.size() != sums_.size() * sizeof(Int128)) return false;
    if (!bytes.empty()) std::memcpy(sums_.data(), bytes.data(), bytes.size());
    return true;
}

}  // namespace nmr
