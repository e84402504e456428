#pragma once

// Typed message passing over the world communicator. Each function maps its element
// type to the MPI datatype and forwards to one MPI call; return codes are left to
// MPI's default handler, which aborts the job.

#include <mpi.h>

#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

namespace nmr::mpi {

template <typename T>
MPI_Datatype datatype();
template <>
inline MPI_Datatype datatype<char>() {
    return MPI_CHAR;
}
template <>
inline MPI_Datatype datatype<unsigned char>() {
    return MPI_UNSIGNED_CHAR;
}
template <>
inline MPI_Datatype datatype<std::int32_t>() {
    return MPI_INT;
}
template <>
inline MPI_Datatype datatype<std::uint32_t>() {
    return MPI_UNSIGNED;
}
template <>
inline MPI_Datatype datatype<long long>() {
    return MPI_LONG_LONG_INT;
}
template <>
inline MPI_Datatype datatype<long>() {
    static_assert(sizeof(long) == sizeof(long long));
    return MPI_LONG_LONG_INT;
}
template <>
inline MPI_Datatype datatype<float>() {
    return MPI_FLOAT;
}
template <>
inline MPI_Datatype datatype<double>() {
    return MPI_DOUBLE;
}

inline MPI_Comm world() { return MPI_COMM_WORLD; }

// The root of every rooted operation of a run: the process that reads the files, prints
// and writes the outputs.
inline constexpr int kRoot = 0;

int rank();
int size();

// True on every process exactly when every process passed true.
bool allTrue(bool value, MPI_Comm comm = MPI_COMM_WORLD);

// --- broadcast -------------------------------------------------------------------
template <typename T>
void broadcast(T& value, int root, MPI_Comm comm = MPI_COMM_WORLD) {
    static_assert(!std::is_same_v<T, bool>);
    MPI_Bcast(&value, 1, datatype<T>(), root, comm);
}
// A bool travels as one unsigned byte.
void broadcast(bool& value, int root, MPI_Comm comm = MPI_COMM_WORLD);

template <typename T>
void broadcast(T* data, int count, int root, MPI_Comm comm = world()) {
    MPI_Bcast(data, count, datatype<T>(), root, comm);
}

// The root's length goes first, so receivers need not know it: each receiver's vector
// is resized (truncated or zero-extended) before the elements arrive.
template <typename T>
void broadcast(std::vector<T>& values, int root, MPI_Comm comm = MPI_COMM_WORLD) {
    std::uint32_t length = static_cast<std::uint32_t>(values.size());
    MPI_Bcast(&length, 1, MPI_UINT32_T, root, comm);
    values.resize(length);
    MPI_Bcast(length ? values.data() : nullptr, static_cast<int>(length), datatype<T>(), root,
              comm);
}

void broadcast(std::string& text, int root, MPI_Comm comm = MPI_COMM_WORLD);

// --- reductions ------------------------------------------------------------------
template <typename T>
T allReduce(T value, MPI_Op op, MPI_Comm comm = MPI_COMM_WORLD) {
    static_assert(!std::is_same_v<T, bool>);
    T result{};
    MPI_Allreduce(&value, &result, 1, datatype<T>(), op, comm);
    return result;
}
bool allReduce(bool value, MPI_Op op, MPI_Comm comm = MPI_COMM_WORLD);

// The result is meaningful on the root only.
template <typename T>
T reduce(T value, MPI_Op op, int root) {
    T result{};
    MPI_Reduce(&value, &result, 1, datatype<T>(), op, root, world());
    return result;
}

// Element-wise: the count is send's length; recv must already hold that many
// elements on the root.
template <typename T>
void reduce(const std::vector<T>& send, std::vector<T>& recv, MPI_Op op, int root,
            MPI_Comm comm = world()) {
    const int count = static_cast<int>(send.size());
    MPI_Reduce(count ? send.data() : nullptr, recv.empty() ? nullptr : recv.data(), count,
               datatype<T>(), op, root, comm);
}

// --- point to point --------------------------------------------------------------
template <typename T>
void send(const T& value, int dest, int tag) {
    MPI_Send(&value, 1, datatype<T>(), dest, tag, world());
}
template <typename T>
void send(const T* data, int count, int dest, int tag) {
    MPI_Send(data, count, datatype<T>(), dest, tag, world());
}
template <typename T>
void send(const std::vector<T>& values, int dest, int tag) {
    MPI_Send(values.empty() ? nullptr : values.data(), static_cast<int>(values.size()),
             datatype<T>(), dest, tag, world());
}
template <typename T>
MPI_Status receive(T& value, int source, int tag) {
    MPI_Status status;
    MPI_Recv(&value, 1, datatype<T>(), source, tag, world(), &status);
    return status;
}
template <typename T>
MPI_Status receive(T* data, int count, int source, int tag) {
    MPI_Status status;
    MPI_Recv(data, count, datatype<T>(), source, tag, world(), &status);
    return status;
}
// The vector must already have the expected length.
template <typename T>
MPI_Status receive(std::vector<T>& values, int source, int tag) {
    MPI_Status status;
    MPI_Recv(values.empty() ? nullptr : values.data(), static_cast<int>(values.size()),
             datatype<T>(), source, tag, world(), &status);
    return status;
}
template <typename T>
void sendReceive(const T& sendValue, int dest, T& recvValue, int source, int tag) {
    MPI_Sendrecv(&sendValue, 1, datatype<T>(), dest, tag, &recvValue, 1, datatype<T>(), source, tag,
                 world(), MPI_STATUS_IGNORE);
}
template <typename T>
void sendReceive(const std::vector<T>& sendValues, int dest, std::vector<T>& recvValues, int source,
                 int tag) {
    MPI_Sendrecv(sendValues.empty() ? nullptr : sendValues.data(),
                 static_cast<int>(sendValues.size()), datatype<T>(), dest, tag,
                 recvValues.empty() ? nullptr : recvValues.data(),
                 static_cast<int>(recvValues.size()), datatype<T>(), source, tag, world(),
                 MPI_STATUS_IGNORE);
}

// A string goes as a header {length, sender rank} and then its characters; a receive
// posted for any source takes the characters from the rank named in the header.
void send(const std::string& text, int dest, int tag);
MPI_Status receive(std::string& text, int source, int tag);

template <typename T>
MPI_Request sendNonBlocking(const std::vector<T>& values, int dest, int tag) {
    MPI_Request request;
    MPI_Isend(values.empty() ? nullptr : values.data(), static_cast<int>(values.size()),
              datatype<T>(), dest, tag, world(), &request);
    return request;
}
template <typename T>
MPI_Request receiveNonBlocking(std::vector<T>& values, int source, int tag) {
    MPI_Request request;
    MPI_Irecv(values.empty() ? nullptr : values.data(), static_cast<int>(values.size()),
              datatype<T>(), source, tag, world(), &request);
    return request;
}
inline void wait(MPI_Request& request) { MPI_Wait(&request, MPI_STATUS_IGNORE); }

// --- gather and scatter ------------------------------------------------------------
// One value per process, in rank order; the result is filled on the root only.
template <typename T>
std::vector<T> gather(const T& value, int root) {
    std::vector<T> all(rank() == root ? static_cast<std::size_t>(size()) : 0);
    MPI_Gather(&value, 1, datatype<T>(), all.empty() ? nullptr : all.data(), 1, datatype<T>(), root,
               world());
    return all;
}
template <typename T>
std::vector<T> allGather(const T& value) {
    std::vector<T> all(static_cast<std::size_t>(size()));
    MPI_Allgather(&value, 1, datatype<T>(), all.data(), 1, datatype<T>(), world());
    return all;
}
// Equal-length blocks in rank order.
template <typename T>
std::vector<T> allGather(const std::vector<T>& values) {
    std::vector<T> all(values.size() * static_cast<std::size_t>(size()));
    MPI_Allgather(values.empty() ? nullptr : values.data(), static_cast<int>(values.size()),
                  datatype<T>(), all.empty() ? nullptr : all.data(),
                  static_cast<int>(values.size()), datatype<T>(), world());
    return all;
}
template <typename T>
T scatter(const std::vector<T>& values, int root) {
    T mine{};
    MPI_Scatter(values.empty() ? nullptr : values.data(), 1, datatype<T>(), &mine, 1, datatype<T>(),
                root, world());
    return mine;
}
// Each process receives recv.size() elements: block k of the root's send vector.
template <typename T>
void scatter(const std::vector<T>& send, std::vector<T>& recv, int root) {
    const int count = static_cast<int>(recv.size());
    MPI_Scatter(send.empty() ? nullptr : send.data(), count, datatype<T>(),
                recv.empty() ? nullptr : recv.data(), count, datatype<T>(), root, world());
}

// Records of exactly three doubles (positions) travel as 3 * count doubles; each
// process receives recv.size() points, process k block k of the root's vector.
template <typename Point>
void scatterPoints(const std::vector<Point>& send, std::vector<Point>& recv, int root) {
    static_assert(sizeof(Point) == 3 * sizeof(double) && std::is_trivially_copyable_v<Point>,
                  "a point is three packed doubles");
    const int count = static_cast<int>(recv.size() * 3);
    MPI_Scatter(send.empty() ? nullptr : static_cast<const void*>(send.data()), count, MPI_DOUBLE,
                recv.empty() ? nullptr : static_cast<void*>(recv.data()), count, MPI_DOUBLE, root,
                world());
}

inline void barrier() { MPI_Barrier(world()); }
inline double wallTime() { return MPI_Wtime(); }

}  // namespace nmr::mpi
