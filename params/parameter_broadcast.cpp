#include "params/parameter_broadcast.h"

#include <mpi.h>

#include <array>
#include <exception>
#include <ostream>

#include "common/exception.h"
#include "grid/mineral.h"
#include "mpi/message_passing.h"
#include "params/parameter_file.h"

namespace nmr {

namespace {

using mpi::kRoot;

using Record = NuclearMagneticResonanceParameters;

constexpr int kIntCount = 2;
constexpr int kDoubleCount = 9;
constexpr int kBoundCount = 6;

// Cursor over a pack buffer; MPI advances the position.
class Packer {
public:
    explicit Packer(std::vector<char>& buffer) : buffer_(buffer) {}
    template <typename T>
    void pack(const T* values, int count, MPI_Datatype type) {
        MPI_Pack(values, count, type, buffer_.data(), static_cast<int>(buffer_.size()), &position_,
                 mpi::world());
    }
    int position() const { return position_; }

private:
    std::vector<char>& buffer_;
    int position_ = 0;
};

class Unpacker {
public:
    explicit Unpacker(const std::vector<char>& buffer) : buffer_(buffer) {}
    template <typename T>
    void unpack(T* values, int count, MPI_Datatype type) {
        MPI_Unpack(buffer_.data(), static_cast<int>(buffer_.size()), &position_, values, count,
                   type, mpi::world());
    }

private:
    const std::vector<char>& buffer_;
    int position_ = 0;
};

std::vector<double> valuesOfAllMinerals(const MineralValueMap<double>& map) {
    std::vector<double> values;
    for (Mineral::Type code : Mineral::allTypes()) values.push_back(map.valueOr(code, 0.0));
    return values;
}

MineralValueMap<double> mapOfAllMinerals(const std::vector<double>& values) {
    MineralValueMap<double> map;
    const auto& codes = Mineral::allTypes();
    for (std::size_t i = 0; i < codes.size(); ++i) map.set(codes[i], values[i]);
    return map;
}

void reportReadError(std::ostream& console, const std::string& path, const std::string& text) {
    console << "An error occurred while reading the input file " << path << ": " << text
            << std::endl;
}

}  // namespace

int packedParameterSize() { return Mineral::count() * 16 + 105; }

std::vector<char> packParameters(const Record& parameters) {
    // Zero-filled so that no stale bytes travel even where MPI's packing leaves padding.
    std::vector<char> buffer(static_cast<std::size_t>(packedParameterSize()), 0);
    Packer packer(buffer);

    const std::array<std::int32_t, kIntCount> ints = {parameters.numberOfWalkers(),
                                                      parameters.randomSeed()};
    packer.pack(ints.data(), kIntCount, MPI_INT);

    const std::array<double, kDoubleCount> doubles = {parameters.gyroMagneticRatio(),
                                                      parameters.echoSpacing(),
                                                      parameters.magneticFieldGradient(),
                                                      parameters.waterSaturation(),
                                                      parameters.clayMicroPorosity(),
                                                      parameters.bulkWaterT2(),
                                                      parameters.diffusionConstantWater(),
                                                      parameters.diffusionConstantOil(),
                                                      parameters.stepLength()};
    packer.pack(doubles.data(), kDoubleCount, MPI_DOUBLE);

    const auto water = valuesOfAllMinerals(parameters.surfaceRelaxationStrengthWater());
    packer.pack(water.data(), static_cast<int>(water.size()), MPI_DOUBLE);
    const auto oil = valuesOfAllMinerals(parameters.surfaceRelaxationStrengthOil());
    packer.pack(oil.data(), static_cast<int>(oil.size()), MPI_DOUBLE);

    const RegionOfInterestCapableThing fallback;
    const RegionOfInterestCapableThing& region =
        parameters.regionOfInterest() ? *parameters.regionOfInterest() : fallback;
    const std::array<std::uint32_t, kBoundCount> bounds = {
        region.xMin(), region.xMax(), region.yMin(), region.yMax(), region.zMin(), region.zMax()};
    packer.pack(bounds.data(), kBoundCount, MPI_UNSIGNED);
    const char subsample = region.isEnabled() ? 1 : 0;
    packer.pack(&subsample, 1, MPI_CHAR);

    buffer.resize(static_cast<std::size_t>(packer.position()));
    return buffer;
}

std::unique_ptr<Record> unpackParameters(const std::vector<char>& buffer) {
    Unpacker unpacker(buffer);
    auto record = std::make_unique<Record>();

    std::array<std::int32_t, kIntCount> ints{};
    unpacker.unpack(ints.data(), kIntCount, MPI_INT);
    record->setNumberOfWalkers(ints[0]);
    record->setRandomSeed(ints[1]);

    std::array<double, kDoubleCount> d{};
    unpacker.unpack(d.data(), kDoubleCount, MPI_DOUBLE);
    record->setGyroMagneticRatio(d[0]);
    record->setEchoSpacing(d[1]);
    record->setMagneticFieldGradient(d[2]);
    record->setWaterSaturation(d[3]);
    record->setClayMicroPorosity(d[4]);
    record->setBulkWaterT2(d[5]);
    record->setDiffusionConstantWater(d[6]);
    record->setDiffusionConstantOil(d[7]);
    record->setStepLength(d[8]);

    std::vector<double> perMineral(static_cast<std::size_t>(Mineral::count()));
    unpacker.unpack(perMineral.data(), Mineral::count(), MPI_DOUBLE);
    record->setSurfaceRelaxationStrengthWater(mapOfAllMinerals(perMineral));
    unpacker.unpack(perMineral.data(), Mineral::count(), MPI_DOUBLE);
    record->setSurfaceRelaxationStrengthOil(mapOfAllMinerals(perMineral));

    std::array<std::uint32_t, kBoundCount> b{};
    unpacker.unpack(b.data(), kBoundCount, MPI_UNSIGNED);
    char subsample = 0;
    unpacker.unpack(&subsample, 1, MPI_CHAR);
    auto region = std::make_unique<RegionOfInterestCapableThing>();
    region->setXRange(b[0], b[1]);
    region->setYRange(b[2], b[3]);
    region->setZRange(b[4], b[5]);
    region->setEnabled(subsample != 0);
    record->setRegionOfInterest(std::move(region));
    return record;
}

std::unique_ptr<Record> broadcastParameters(int rank, std::unique_ptr<Record> parameters) {
    if (rank == kRoot) {
        std::vector<char> buffer = packParameters(*parameters);
        MPI_Bcast(buffer.data(), static_cast<int>(buffer.size()), MPI_PACKED, kRoot, mpi::world());
        return parameters;
    }
    std::vector<char> buffer(static_cast<std::size_t>(packedParameterSize()), 0);
    MPI_Bcast(buffer.data(), static_cast<int>(buffer.size()), MPI_PACKED, kRoot, mpi::world());
    try {
        return unpackParameters(buffer);
    } catch (const std::bad_alloc&) {
        // Reported collectively by the caller's agreement, not here.
        return nullptr;
    }
}

std::unique_ptr<Record> readParametersCollectively(int rank, int size, const std::string& path,
                                                   std::ostream& console) {
    std::unique_ptr<Record> parameters;
    if (rank == kRoot) {
        try {
            parameters = readParameters(path);
        } catch (...) {
            // The YAML library's own errors (syntax, conversion) carry line and column.
            reportReadError(console, path, currentExceptionText());
        }
    }
    bool ok = parameters != nullptr;
    mpi::broadcast(ok, kRoot);
    if (!ok) return nullptr;
    if (size == 1) return parameters;

    parameters = broadcastParameters(rank, std::move(parameters));
    if (!mpi::allTrue(parameters != nullptr)) return nullptr;
    return parameters;
}

}  // namespace nmr
