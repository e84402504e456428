#include "python/label_volume.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

namespace py = pybind11;

namespace nmr::python {

namespace {

// Wider tables than this many labels go to the hash map.
constexpr std::int64_t kDenseLabels = std::int64_t{1} << 20;
constexpr std::uint32_t kLargestSide = 32767;  // a grid file's header holds 16-bit sides

std::string knownNames() {
    std::string names;
    for (Mineral::Type code : Mineral::allTypes()) {
        if (!names.empty()) names += ", ";
        names += "'" + Mineral::name(code) + "'";
    }
    return names;
}

std::string shapeText(const py::array& a) {
    std::string text = "(";
    for (py::ssize_t i = 0; i < a.ndim(); ++i) {
        if (i > 0) text += ", ";
        text += std::to_string(a.shape(i));
    }
    return text + (a.ndim() == 1 ? ",)" : ")");
}

}  // namespace

LabelCodes::LabelCodes(const py::dict& minerals) : identity_(false) {
    std::vector<std::pair<std::int64_t, std::uint8_t>> table;
    for (const auto& [key, value] : minerals) {
        if (!py::isinstance<py::int_>(key) || py::isinstance<py::bool_>(key)) {
            throw std::invalid_argument("minerals: the labels must be integers, not " +
                                        std::string(py::repr(key)));
        }
        std::int64_t label = 0;
        try {
            label = key.cast<std::int64_t>();
        } catch (const py::cast_error&) {
            throw std::invalid_argument("minerals: label " + std::string(py::str(key)) +
                                        " does not fit in 64 bits");
        }
        const Mineral::Type code = py::isinstance<py::str>(value)
                                       ? Mineral::fromName(value.cast<std::string>())
                                       : Mineral::Unknown;
        if (code == Mineral::Unknown) {
            throw std::invalid_argument("minerals: label " + std::to_string(label) + " maps to " +
                                        std::string(py::repr(value)) +
                                        ", which is not a mineral name; the names are " +
                                        knownNames());
        }
        table.emplace_back(label, static_cast<std::uint8_t>(code));
    }
    if (table.empty()) return;
    const auto [low, high] = std::minmax_element(
        table.begin(), table.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    // The span is computed unsigned: labels may reach both ends of the 64-bit range.
    const std::uint64_t span =
        static_cast<std::uint64_t>(high->first) - static_cast<std::uint64_t>(low->first);
    if (span < static_cast<std::uint64_t>(kDenseLabels)) {
        first_ = low->first;
        dense_.assign(static_cast<std::size_t>(span) + 1, -1);
        for (const auto& [label, code] : table)
            dense_[static_cast<std::size_t>(label - first_)] = code;
    } else {
        sparse_.insert(table.begin(), table.end());
    }
}

void LabelCodes::fail(std::int64_t label, std::uint32_t x, std::uint32_t y, std::uint32_t z) const {
    const std::string where = " (at [z, y, x] = [" + std::to_string(z) + ", " + std::to_string(y) +
                              ", " + std::to_string(x) + "])";
    if (identity_) {
        throw std::invalid_argument(
            "label " + std::to_string(label) + where +
            " is not a mineral code 0 to 13; map labels to mineral names with minerals=");
    }
    throw std::invalid_argument("label " + std::to_string(label) + where + " is not in minerals");
}

LabelVolume::LabelVolume(py::array labels) : labels_(std::move(labels)) {
    if (labels_.ndim() != 3) {
        throw std::invalid_argument("labels must be a 3-D array indexed [z, y, x]; got shape " +
                                    shapeText(labels_));
    }
    const py::dtype type = labels_.dtype();
    kind_ = type.kind();
    itemSize_ = static_cast<int>(type.itemsize());
    if (kind_ != 'i' && kind_ != 'u') {
        throw std::invalid_argument("labels must have an integer dtype; got " +
                                    py::str(static_cast<py::handle>(type)).cast<std::string>());
    }
    if (type.attr("byteorder").cast<std::string>() == ">") {
        throw std::invalid_argument("labels must be in native byte order; got " +
                                    py::str(static_cast<py::handle>(type)).cast<std::string>());
    }
    for (int axis = 0; axis < 3; ++axis) {
        const py::ssize_t side = labels_.shape(axis);
        if (side < 1 || side > static_cast<py::ssize_t>(kLargestSide)) {
            throw std::invalid_argument(
                "labels must have 1 to 32767 cells along each axis; got shape " +
                shapeText(labels_));
        }
        size_[static_cast<std::size_t>(axis)] = static_cast<std::uint32_t>(side);
        strides_[static_cast<std::size_t>(axis)] = labels_.strides(axis);
    }
    data_ = static_cast<const char*>(labels_.data());
}

template <typename T>
void LabelVolume::readSlice(std::uint32_t z, const LabelCodes& codes, std::uint8_t* out) const {
    const char* plane = data_ + static_cast<std::int64_t>(z) * strides_[0];
    for (std::uint32_t y = 0; y < ny(); ++y) {
        const char* row = plane + static_cast<std::int64_t>(y) * strides_[1];
        for (std::uint32_t x = 0; x < nx(); ++x) {
            T value;
            std::memcpy(&value, row + static_cast<std::int64_t>(x) * strides_[2], sizeof(T));
            std::int64_t label = 0;
            if constexpr (std::is_same_v<T, std::uint64_t>) {
                // Above the signed range no table entry can match.
                label = value > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())
                            ? std::numeric_limits<std::int64_t>::min()
                            : static_cast<std::int64_t>(value);
            } else {
                // Signed types keep their sign: an int8 volume may use negative labels.
                label = static_cast<std::int64_t>(value);  // NOLINT(bugprone-signed-char-misuse)
            }
            *out++ = codes.codeOf(label, x, y, z);
        }
    }
}

void LabelVolume::sliceCodes(std::uint32_t z, const LabelCodes& codes, std::uint8_t* out) const {
    const bool isSigned = kind_ == 'i';
    switch (itemSize_) {
        case 1:
            return isSigned ? readSlice<std::int8_t>(z, codes, out)
                            : readSlice<std::uint8_t>(z, codes, out);
        case 2:
            return isSigned ? readSlice<std::int16_t>(z, codes, out)
                            : readSlice<std::uint16_t>(z, codes, out);
        case 4:
            return isSigned ? readSlice<std::int32_t>(z, codes, out)
                            : readSlice<std::uint32_t>(z, codes, out);
        case 8:
            return isSigned ? readSlice<std::int64_t>(z, codes, out)
                            : readSlice<std::uint64_t>(z, codes, out);
        default:
            throw std::invalid_argument("labels: integers of " + std::to_string(itemSize_) +
                                        " bytes are not supported");
    }
}

}  // namespace nmr::python
