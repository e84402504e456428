#pragma once

#include <dSFMT.h>

#include <cstdint>

namespace nmr {

// Seed of one process's stream: the run's base seed plus the rank, added as unsigned
// 32-bit integers so that a base seed near the top of the range wraps round instead of
// overflowing. Consecutive ranks therefore draw the streams of consecutive seeds.
std::uint32_t streamSeed(std::int32_t randomSeed, std::int32_t rank);

// The one random stream of a process: a dSFMT-19937 state whose block of 382 doubles,
// uniform in [1, 2), is read in order.
//
// next() reads the block inline with exactly the rule of the library's own
// dsfmt_genrand_close1_open2 (regenerate when the index reaches the block's end), so
// draws through next() and through the library interleave on one sequence. The state
// holds 128-bit words that the library loads with aligned SSE2 moves: the class is
// 16-byte aligned, which heap allocation honours through aligned operator new.
class RandomStream {
public:
    explicit RandomStream(std::uint32_t seed);

    // Uniform in [1, 2).
    double next() {
        if (state_.idx >= DSFMT_N64) [[unlikely]]
            refill();
        return block()[state_.idx++];
    }

    // Numbers left in the block before the next regeneration is due.
    int available() const { return DSFMT_N64 - state_.idx; }

    // The underlying generator, for callers that draw through the library directly.
    dsfmt_t& state() { return state_; }
    const dsfmt_t& state() const { return state_; }

    // Draws of a tight loop: the same sequence as next(), with the read index held in
    // the reader (a register) and written back when the reader ends, instead of a
    // load and store of the state's index on every draw. While a reader is alive,
    // draw from the stream through that reader only.
    class Reader {
    public:
        explicit Reader(RandomStream& stream)
            : stream_(stream), block_(stream.block()), index_(stream.state_.idx) {}
        ~Reader() { stream_.state_.idx = index_; }
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;

        int available() const { return DSFMT_N64 - index_; }
        // Only while numbers are left (available() > 0): a loop that knows how many draws
        // a run of its iterations takes checks once per run, with no call in its body.
        double nextUnchecked() { return block_[index_++]; }
        double next() {
            if (index_ >= DSFMT_N64) [[unlikely]] {
                stream_.refill();
                index_ = 0;
            }
            return block_[index_++];
        }

    private:
        RandomStream& stream_;
        const double* block_;
        int index_;
    };

private:
    const double* block() const { return &state_.status[0].d[0]; }
    // Out of line and cold: taken once per 382 draws.
    [[gnu::cold]] void refill();

    dsfmt_t state_;
};

static_assert(alignof(RandomStream) >= 16, "the dSFMT state needs 16-byte alignment");

}  // namespace nmr
