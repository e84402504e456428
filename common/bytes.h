#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>
#include <vector>

#include "common/exception.h"

namespace nmr {

// Fields one after another as this machine stores them (little-endian on every machine
// this runs on), for state that the same program reads back: checkpoints, recorded walks,
// messages between processes. Vectors and strings carry their length first.
class ByteWriter {
public:
    template <typename T>
    void put(const T& value) {
        static_assert(std::is_trivially_copyable_v<T>);
        const char* p = reinterpret_cast<const char*>(&value);
        bytes_.append(p, sizeof(T));
    }
    void put(const std::string& text) {
        put<std::uint64_t>(text.size());
        bytes_ += text;
    }
    template <typename T>
    void put(const std::vector<T>& values) {
        static_assert(std::is_trivially_copyable_v<T>);
        put<std::uint64_t>(values.size());
        bytes_.append(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T));
    }
    const std::string& bytes() const { return bytes_; }
    std::string take() { return std::move(bytes_); }

private:
    std::string bytes_;
};

// Reads what a ByteWriter wrote; bytes that end early throw Exception(`what` + " ends
// early"), so damaged input is refused, never read past.
class ByteReader {
public:
    ByteReader(const std::string& bytes, std::string what)
        : bytes_(bytes), what_(std::move(what)) {}
    template <typename T>
    T get() {
        static_assert(std::is_trivially_copyable_v<T>);
        need(sizeof(T));
        T value;
        std::memcpy(&value, bytes_.data() + at_, sizeof(T));
        at_ += sizeof(T);
        return value;
    }
    std::string getString() {
        const auto n = get<std::uint64_t>();
        need(n);
        std::string text = bytes_.substr(at_, n);
        at_ += n;
        return text;
    }
    template <typename T>
    std::vector<T> getVector() {
        static_assert(std::is_trivially_copyable_v<T>);
        const auto n = get<std::uint64_t>();
        if (n > left() / sizeof(T)) fail();
        std::vector<T> values(n);
        if (n > 0) std::memcpy(values.data(), bytes_.data() + at_, n * sizeof(T));
        at_ += n * sizeof(T);
        return values;
    }
    std::size_t left() const { return bytes_.size() - at_; }

private:
    void need(std::uint64_t n) const {
        if (n > left()) fail();
    }
    [[noreturn]] void fail() const { throw Exception(what_ + " ends early"); }
    const std::string& bytes_;
    std::string what_;
    std::size_t at_ = 0;
};

}  // namespace nmr
