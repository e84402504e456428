#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "common/bytes.h"
#include "walk/absorption_histogram.h"
#include "walk/random_stream.h"
#include "walk/walk.h"
#include "walk/walk_plan.h"
#include "walk/walker.h"

namespace nmr {

// nmrwalk's own experiment: each walker walks until a wall absorbs it or the schedule
// ends, drawing from the one stream of its process, and the interval it ended in is
// counted. The stream runs on from walker to walker, so a checkpoint keeps it beside the
// counts.
template <typename G>
class AbsorptionWalk {
public:
    using Tally = AbsorptionHistogram;

    AbsorptionWalk(const G& grid, const std::vector<Walker>& walkers, RandomStream& stream,
                   const WalkPlan& plan)
        : view_(makeWalkGridView(grid)), walkers_(walkers), stream_(stream), plan_(plan) {}

    void walk(std::uint32_t i, Tally& tally) {
        countAbsorption(tally, walkWalker(stream_, walkers_[i], view_, plan_));
    }

    std::string save(const Tally& tally) const {
        ByteWriter out;
        // The generator's state as the bytes it is: a checkpoint is read back by the same
        // program on the same kind of machine.
        out.put(stream_.state());
        out.put(tally.counts());
        out.put(tally.localMaximum());
        return out.take();
    }

    bool accepts(const std::string& state, const Tally& tally) const {
        try {
            const Saved saved = read(state);
            return saved.state.idx >= 0 && saved.state.idx <= DSFMT_N64 &&
                   saved.counts.size() == tally.counts().size();
        } catch (const Exception&) {
            return false;
        }
    }

    void restore(const std::string& state, Tally& tally) {
        Saved saved = read(state);
        stream_.state() = saved.state;
        tally.restore(std::move(saved.counts), saved.localMaximum);
    }

private:
    struct Saved {
        dsfmt_t state;
        std::vector<std::uint32_t> counts;
        std::uint32_t localMaximum = 0;
    };
    static Saved read(const std::string& state) {
        ByteReader in(state, "checkpoint");
        Saved saved;
        saved.state = in.get<dsfmt_t>();
        saved.counts = in.getVector<std::uint32_t>();
        saved.localMaximum = in.get<std::uint32_t>();
        if (in.left() != 0) throw Exception("checkpoint carries trailing bytes");
        return saved;
    }

    WalkGridView<G> view_;
    const std::vector<Walker>& walkers_;
    RandomStream& stream_;
    const WalkPlan& plan_;
};

}  // namespace nmr
