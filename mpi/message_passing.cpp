#include "mpi/message_passing.h"

namespace nmr::mpi {

int rank() {
    int r = 0;
    MPI_Comm_rank(world(), &r);
    return r;
}

int size() {
    int s = 1;
    MPI_Comm_size(world(), &s);
    return s;
}

bool allTrue(bool value, MPI_Comm comm) {
    unsigned char mine = value ? 1 : 0;
    unsigned char all = 0;
    MPI_Allreduce(&mine, &all, 1, MPI_UNSIGNED_CHAR, MPI_LAND, comm);
    return all != 0;
}

void broadcast(bool& value, int root, MPI_Comm comm) {
    unsigned char byte = value ? 1 : 0;
    MPI_Bcast(&byte, 1, MPI_UNSIGNED_CHAR, root, comm);
    value = byte != 0;
}

void broadcast(std::string& text, int root, MPI_Comm comm) {
    std::uint32_t length = static_cast<std::uint32_t>(text.size());
    MPI_Bcast(&length, 1, MPI_UINT32_T, root, comm);
    text.resize(length);
    MPI_Bcast(length ? text.data() : nullptr, static_cast<int>(length), MPI_CHAR, root, comm);
}

bool allReduce(bool value, MPI_Op op, MPI_Comm comm) {
    unsigned char mine = value ? 1 : 0;
    unsigned char result = 0;
    MPI_Allreduce(&mine, &result, 1, MPI_UNSIGNED_CHAR, op, comm);
    return result != 0;
}

void send(const std::string& text, int dest, int tag) {
    int header[2] = {static_cast<int>(text.size()), rank()};
    MPI_Send(header, 2, MPI_INT, dest, tag, world());
    MPI_Send(text.data(), header[0], MPI_CHAR, dest, tag, world());
}

MPI_Status receive(std::string& text, int source, int tag) {
    int header[2] = {0, 0};
    MPI_Status status;
    MPI_Recv(header, 2, MPI_INT, source, tag, world(), &status);
    // Posted for any source: the characters must come from the one that sent the header.
    const int from = source == MPI_ANY_SOURCE ? header[1] : source;
    text.resize(static_cast<std::size_t>(header[0]));
    MPI_Recv(text.data(), header[0], MPI_CHAR, from, status.MPI_TAG, world(), &status);
    return status;
}

}  // namespace nmr::mpi
