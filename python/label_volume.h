#pragma once

#include <pybind11/numpy.h>

#include <array>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "grid/mineral.h"

namespace nmr::python {

// How the labels of a volume become mineral codes: the labels themselves (0 to 13), or
// a table from label to code. A label the table does not hold is an error, never pore.
class LabelCodes {
public:
    LabelCodes() = default;
    // From a Python mapping of label -> mineral display name. Throws std::invalid_argument
    // (ValueError) for a name that is not a mineral's or a label that is not an integer.
    explicit LabelCodes(const pybind11::dict& minerals);

    // True when the labels are the mineral codes themselves (no table was given).
    bool identity() const { return identity_; }

    // Throws std::invalid_argument naming the label and the cell where it was met.
    std::uint8_t codeOf(std::int64_t label, std::uint32_t x, std::uint32_t y,
                        std::uint32_t z) const {
        if (identity_) {
            if (label >= 0 && label < Mineral::count()) return static_cast<std::uint8_t>(label);
        } else if (label >= first_ && label - first_ < static_cast<std::int64_t>(dense_.size())) {
            const std::int16_t code = dense_[static_cast<std::size_t>(label - first_)];
            if (code >= 0) return static_cast<std::uint8_t>(code);
        } else if (const auto found = sparse_.find(label); found != sparse_.end()) {
            return found->second;
        }
        fail(label, x, y, z);
    }

private:
    [[noreturn]] void fail(std::int64_t label, std::uint32_t x, std::uint32_t y,
                           std::uint32_t z) const;

    bool identity_ = true;
    // A table over a compact range of labels is an array (most volumes have labels 0 to
    // 255); labels spread wider go to a hash map.
    std::int64_t first_ = 0;
    std::vector<std::int16_t> dense_;  // code per label from first_, -1 where none
    std::unordered_map<std::int64_t, std::uint8_t> sparse_;
};

// A 3-D integer array indexed [z, y, x], read in place through its strides, whatever its
// memory order.
class LabelVolume {
public:
    // Throws std::invalid_argument (ValueError) for an array that is not 3-D, not of an
    // integer dtype, or not in native byte order.
    explicit LabelVolume(pybind11::array labels);

    std::uint32_t nx() const { return size_[2]; }
    std::uint32_t ny() const { return size_[1]; }
    std::uint32_t nz() const { return size_[0]; }
    // The codes of slice z, x fastest. Needs no GIL: it reads the buffer only.
    void sliceCodes(std::uint32_t z, const LabelCodes& codes, std::uint8_t* out) const;

private:
    template <typename T>
    void readSlice(std::uint32_t z, const LabelCodes& codes, std::uint8_t* out) const;

    pybind11::array labels_;  // keeps the buffer alive
    const char* data_ = nullptr;
    std::array<std::uint32_t, 3> size_{};    // z, y, x
    std::array<std::int64_t, 3> strides_{};  // bytes, z, y, x
    char kind_ = 'i';
    int itemSize_ = 1;
};

}  // namespace nmr::python
