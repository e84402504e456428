#include "walk/random_stream.h"

namespace nmr {

std::uint32_t streamSeed(std::int32_t randomSeed, std::int32_t rank) {
    return static_cast<std::uint32_t>(randomSeed) + static_cast<std::uint32_t>(rank);
}

RandomStream::RandomStream(std::uint32_t seed) {
    // The checked initialiser compares the exponent this code was compiled for with
    // the one the library was built for; a mismatch would silently change the sequence.
    dsfmt_chk_init_gen_rand(&state_, seed, DSFMT_MEXP);
}

void RandomStream::refill() {
    dsfmt_gen_rand_all(&state_);
    state_.idx = 0;
}

}  // namespace nmr
