#pragma once

#include <cstdint>

namespace nmr {

// A half-open sub-box of a grid file's interior (minimum inclusive, maximum
// exclusive), counted from the first interior cell after the file's margin.
// The setters store values unchanged; the loader checks the box against the grid.
struct RegionOfInterest {
    std::uint32_t xMin = 0;
    std::uint32_t xMax = 1;
    std::uint32_t yMin = 0;
    std::uint32_t yMax = 1;
    std::uint32_t zMin = 0;
    std::uint32_t zMax = 1;
    bool enabled = false;

    friend bool operator==(const RegionOfInterest&, const RegionOfInterest&) = default;
};

// Base of anything that carries a region. It starts at 1..2 on every axis, unlike a
// bare RegionOfInterest (0..1), so that an unset region is recognisable.
class RegionOfInterestCapableThing {
public:
    RegionOfInterestCapableThing() : region_{1, 2, 1, 2, 1, 2, false} {}
    virtual ~RegionOfInterestCapableThing() = default;

    virtual void setRegionOfInterest(const RegionOfInterest& region) { region_ = region; }
    virtual const RegionOfInterest& regionOfInterest() const { return region_; }
    virtual RegionOfInterest& regionOfInterest() { return region_; }
    virtual void setXRange(std::uint32_t min, std::uint32_t max) {
        region_.xMin = min;
        region_.xMax = max;
    }
    virtual void setYRange(std::uint32_t min, std::uint32_t max) {
        region_.yMin = min;
        region_.yMax = max;
    }
    virtual void setZRange(std::uint32_t min, std::uint32_t max) {
        region_.zMin = min;
        region_.zMax = max;
    }
    virtual std::uint32_t xMin() const { return region_.xMin; }
    virtual std::uint32_t yMin() const { return region_.yMin; }
    virtual std::uint32_t zMin() const { return region_.zMin; }
    virtual std::uint32_t xMax() const { return region_.xMax; }
    virtual std::uint32_t yMax() const { return region_.yMax; }
    virtual std::uint32_t zMax() const { return region_.zMax; }
    virtual void setEnabled(bool enabled) { region_.enabled = enabled; }
    virtual bool isEnabled() const { return region_.enabled; }

private:
    RegionOfInterest region_;
};

}  // namespace nmr
