#include "rock/pore_statistics.h"

namespace nmr::rock {

PoreStatistics::PoreStatistics(std::uint32_t nx, std::uint32_t ny) : nx_(nx), ny_(ny) {}

void PoreStatistics::addSlice(const GrainBedGridCell* cells) {
    const std::size_t area = std::size_t{nx_} * ny_;
    std::vector<std::uint8_t> pore(area);
    for (std::size_t i = 0; i < area; ++i) {
        pore[i] = cells[i].isPore() ? 1 : 0;
        ++counts_[cells[i].mineral()];
    }
    // A face separates pore from solid exactly when the two masks differ.
    for (std::uint32_t y = 0; y < ny_; ++y) {
        const std::uint8_t* row = pore.data() + std::size_t{y} * nx_;
        for (std::uint32_t x = 1; x < nx_; ++x) faces_ += row[x] != row[x - 1];
        if (y > 0) {
            const std::uint8_t* below = row - nx_;
            for (std::uint32_t x = 0; x < nx_; ++x) faces_ += row[x] != below[x];
        }
    }
    if (!previousPore_.empty())
        for (std::size_t i = 0; i < area; ++i) faces_ += pore[i] != previousPore_[i];
    previousPore_ = std::move(pore);
    cells_ += area;
}

double PoreStatistics::porosity() const { return volumeFraction(Mineral::Pore); }

double PoreStatistics::volumeFraction(Mineral::Type mineral) const {
    return cells_ == 0 ? 0.0 : static_cast<double>(count(mineral)) / static_cast<double>(cells_);
}

double PoreStatistics::surfaceToVolume(double cellSize) const {
    if (poreCount() == 0) return 0.0;
    return static_cast<double>(faces_) / (static_cast<double>(poreCount()) * cellSize);
}

}  // namespace nmr::rock
