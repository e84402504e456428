#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "grid/mineral_value_map.h"
#include "grid/region_of_interest.h"

namespace nmr {

// Every physical and numerical setting of a run. Process 0 fills it from the parameter
// file; the other processes rebuild the part they need from the broadcast. After that
// it is read-only for the rest of the run.
//
// Units are those of the file, stored unscaled: bulk T2 in seconds, the step length in
// voxels, the gyromagnetic ratio in Hz/T.
class NuclearMagneticResonanceParameters {
public:
    NuclearMagneticResonanceParameters() = default;
    // Owns its region, so a copy would have to decide whether to share it; nothing
    // needs one, so the record is move-only.
    NuclearMagneticResonanceParameters(const NuclearMagneticResonanceParameters&) = delete;
    NuclearMagneticResonanceParameters& operator=(const NuclearMagneticResonanceParameters&) =
        delete;
    NuclearMagneticResonanceParameters(NuclearMagneticResonanceParameters&&) noexcept = default;
    NuclearMagneticResonanceParameters& operator=(NuclearMagneticResonanceParameters&&) noexcept =
        default;
    ~NuclearMagneticResonanceParameters() = default;

    // Total over all processes.
    std::int32_t numberOfWalkers() const { return numberOfWalkers_; }
    void setNumberOfWalkers(std::int32_t value) { numberOfWalkers_ = value; }

    double gyroMagneticRatio() const { return gyroMagneticRatio_; }
    void setGyroMagneticRatio(double value) { gyroMagneticRatio_ = value; }

    double echoSpacing() const { return echoSpacing_; }
    void setEchoSpacing(double value) { echoSpacing_ = value; }

    double magneticFieldGradient() const { return magneticFieldGradient_; }
    void setMagneticFieldGradient(double value) { magneticFieldGradient_ = value; }

    // Kept as read; the run derives its saturations from the grid instead.
    double waterSaturation() const { return waterSaturation_; }
    void setWaterSaturation(double value) { waterSaturation_ = value; }

    // Porosity inside Clay voxels, 0..1.
    double clayMicroPorosity() const { return clayMicroPorosity_; }
    void setClayMicroPorosity(double value) { clayMicroPorosity_ = value; }

    // Seconds.
    double bulkWaterT2() const { return bulkWaterT2_; }
    void setBulkWaterT2(double value) { bulkWaterT2_ = value; }

    double diffusionConstantWater() const { return diffusionConstantWater_; }
    void setDiffusionConstantWater(double value) { diffusionConstantWater_ = value; }

    double diffusionConstantOil() const { return diffusionConstantOil_; }
    void setDiffusionConstantOil(double value) { diffusionConstantOil_ = value; }

    // Voxels.
    double stepLength() const { return stepLength_; }
    void setStepLength(double value) { stepLength_ = value; }

    // Derived on first request and cached; see the .cpp for the formula.
    double magneticFieldContributionWater();
    void setMagneticFieldContributionWater(double value) {
        magneticFieldContributionWater_ = value;
    }

    // Base seed; each process adds its rank.
    std::int32_t randomSeed() const { return randomSeed_; }
    void setRandomSeed(std::int32_t value) { randomSeed_ = value; }

    // Never read from or written to the file; only carried.
    bool secondFlag() const { return secondFlag_; }
    void setSecondFlag(bool value) { secondFlag_ = value; }

    // Read from the file and written back; nothing else in a run looks at it.
    bool saturationFile() const { return saturationFile_; }
    void setSaturationFile(bool value) { saturationFile_ = value; }

    const std::string& grid() const { return grid_; }
    void setGrid(std::string value) { grid_ = std::move(value); }

    const std::vector<double>& bulkOilT2() const { return bulkOilT2_; }
    void setBulkOilT2(std::vector<double> value) { bulkOilT2_ = std::move(value); }

    // One intensity per bulkOilT2 entry.
    const std::vector<double>& intensityT2() const { return intensityT2_; }
    void setIntensityT2(std::vector<double> value) { intensityT2_ = std::move(value); }

    const MineralValueMap<double>& surfaceRelaxationStrengthWater() const {
        return surfaceRelaxationStrengthWater_;
    }
    MineralValueMap<double>& surfaceRelaxationStrengthWater() {
        return surfaceRelaxationStrengthWater_;
    }
    void setSurfaceRelaxationStrengthWater(const MineralValueMap<double>& value) {
        surfaceRelaxationStrengthWater_ = value;
    }

    const MineralValueMap<double>& surfaceRelaxationStrengthOil() const {
        return surfaceRelaxationStrengthOil_;
    }
    MineralValueMap<double>& surfaceRelaxationStrengthOil() {
        return surfaceRelaxationStrengthOil_;
    }
    void setSurfaceRelaxationStrengthOil(const MineralValueMap<double>& value) {
        surfaceRelaxationStrengthOil_ = value;
    }

    // May be null. Its enabled flag is the file's subsampleCalculation.
    const RegionOfInterestCapableThing* regionOfInterest() const { return regionOfInterest_.get(); }
    RegionOfInterestCapableThing* regionOfInterest() { return regionOfInterest_.get(); }
    // Takes ownership; the previous region is deleted.
    void setRegionOfInterest(std::unique_ptr<RegionOfInterestCapableThing> value) {
        regionOfInterest_ = std::move(value);
    }

    double t2Minimum() const { return t2Minimum_; }
    void setT2Minimum(double value) { t2Minimum_ = value; }

    double t2Maximum() const { return t2Maximum_; }
    void setT2Maximum(double value) { t2Maximum_ = value; }

    std::int32_t t2Components() const { return t2Components_; }
    void setT2Components(std::int32_t value) { t2Components_ = value; }

    // Seconds between checkpoints of the walk; 0 (or less) takes none. Optional in the
    // file and never written to it: the template stays as it always was. Only process 0
    // reads it, and it decides for every process.
    double checkpointInterval() const { return checkpointInterval_; }
    void setCheckpointInterval(double value) { checkpointInterval_ = value; }

private:
    std::int32_t numberOfWalkers_ = 0;
    double gyroMagneticRatio_ = 0.0;
    double echoSpacing_ = 0.0;
    double magneticFieldGradient_ = 0.0;
    double waterSaturation_ = 0.0;
    double clayMicroPorosity_ = 0.0;
    double bulkWaterT2_ = 0.0;
    double diffusionConstantWater_ = 0.0;
    double diffusionConstantOil_ = 0.0;
    double stepLength_ = 0.0;
    // Negative means "not computed yet".
    double magneticFieldContributionWater_ = -1.0;
    std::int32_t randomSeed_ = 8008;
    bool secondFlag_ = false;
    bool saturationFile_ = false;
    std::string grid_;
    std::vector<double> bulkOilT2_;
    std::vector<double> intensityT2_;
    MineralValueMap<double> surfaceRelaxationStrengthWater_;
    MineralValueMap<double> surfaceRelaxationStrengthOil_;
    std::unique_ptr<RegionOfInterestCapableThing> regionOfInterest_;
    double t2Minimum_ = 0.0001;
    double t2Maximum_ = 10000.0;
    std::int32_t t2Components_ = 100;
    double checkpointInterval_ = 600.0;
};

}  // namespace nmr
