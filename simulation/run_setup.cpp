#include "simulation/run_setup.h"

#include "parallel/distribution_steps.h"

namespace nmr {

DistributionRequest distributionRequest(const NuclearMagneticResonanceParameters& parameters,
                                        int rank, int size, std::uint32_t memoryLimitMb) {
    DistributionRequest request;
    request.rank = rank;
    request.size = size;
    request.gridPath = parameters.grid();
    if (const auto* region = parameters.regionOfInterest()) {
        request.region = region->regionOfInterest();
    } else {
        request.region.enabled = false;
    }
    request.memoryLimitMb = memoryLimitMb;
    request.numberOfWalkers = parameters.numberOfWalkers();
    return request;
}

GridLoadOptions runLoadOptions(const NuclearMagneticResonanceParameters& parameters) {
    return distribution::loadOptions(distributionRequest(parameters, 0, 1));
}

}  // namespace nmr
