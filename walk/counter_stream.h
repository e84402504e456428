#pragma once

#include <Random123/philox.h>

#include <cstdint>
#include <cstring>

namespace nmr {

// A walker's own random stream, for experiments whose results must not depend on how the
// walkers are divided among processes: Philox4x64-10, keyed by the run's seed and the
// walker's index, its counter counting blocks of four numbers. The same seed and walker
// give the same numbers on any process and any machine (integer arithmetic only).
class CounterStream {
public:
    CounterStream(std::int32_t seed, std::uint64_t walker) {
        key_[0] = static_cast<std::uint32_t>(seed);
        key_[1] = walker;
        counter_[0] = 0;
        counter_[1] = 0;
        counter_[2] = 0;
        counter_[3] = 0;
    }

    // Uniform in [1, 2), as the process streams draw: the top 52 bits of a 64-bit word as
    // the mantissa of a double of exponent 0.
    double next() {
        const std::uint64_t bits = (word() >> 12) | 0x3FF0000000000000ull;
        double value;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }

    // The next 64-bit word itself, for a caller that makes several numbers of one.
    std::uint64_t word() {
        if (at_ == kBuffered) [[unlikely]]
            refill();
        return block_[at_++];
    }

    // Blocks of four drawn so far.
    std::uint64_t blocks() const { return counter_[0]; }

private:
    static constexpr int kBuffered = 4;

    void refill() {
        const auto out = r123::Philox4x64()(counter_, key_);
        for (int i = 0; i < 4; ++i) block_[i] = out[static_cast<std::size_t>(i)];
        ++counter_[0];
        at_ = 0;
    }

    r123::Philox4x64::ctr_type counter_;
    r123::Philox4x64::key_type key_;
    std::uint64_t block_[kBuffered] = {};
    int at_ = kBuffered;
};

}  // namespace nmr
