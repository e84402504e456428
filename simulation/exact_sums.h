#pragma once

#include <mpi.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace nmr {

__extension__ using Int128 = __int128;

// Sums over walkers that come out the same, bit for bit, however the walkers are divided
// among processes and in whatever order the parts are added: each value is taken in fixed
// point (2^-52 a unit, truncated) and added as a 128-bit integer, and integer sums do not
// depend on order. Values must lie within +-2048; 2^75 walkers of them fit.
class ExactSums {
public:
    static constexpr double kUnit = 4503599627370496.0;  // 2^52 per 1

    explicit ExactSums(std::size_t size = 0) : sums_(size, 0) {}

    void add(std::size_t i, double value) {
        sums_[i] += static_cast<Int128>(static_cast<std::int64_t>(value * kUnit));
    }
    std::size_t size() const { return sums_.size(); }
    // The sum as a double, from the exact integer (through long double: the same bits
    // wherever the sum was taken).
    double sum(std::size_t i) const;

    // Entry i of the result is the exact sum of entries i, i + width, i + 2 width, ...
    ExactSums folded(std::size_t width) const {
        ExactSums out(width);
        for (std::size_t i = 0; i < sums_.size(); ++i) out.sums_[i % width] += sums_[i];
        return out;
    }

    // Adds another set of sums of the same size.
    void merge(const ExactSums& other) {
        for (std::size_t i = 0; i < sums_.size(); ++i) sums_[i] += other.sums_[i];
    }

    // Collective over comm: every process's sums added onto root; the other processes keep
    // theirs. Every process must hold as many sums.
    void reduce(MPI_Comm comm, int root);

    // As bytes, for a checkpoint; restore refuses bytes of another size.
    std::string save() const;
    bool restore(const std::string& bytes);

private:
    std::vector<Int128> sums_;
};

}  // namespace nmr
