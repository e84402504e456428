#include "common/exception.h"

namespace nmr {

Exception::Exception(std::string message)
    : message_(std::make_unique<std::string>(std::move(message))) {}

Exception::Exception(const Exception& other)
    : message_(std::make_unique<std::string>(other.message_ ? *other.message_ : std::string())) {}

Exception& Exception::operator=(const Exception& other) {
    if (this != &other) {
        message_ = std::make_unique<std::string>(other.message_ ? *other.message_ : std::string());
    }
    return *this;
}

Exception::~Exception() = default;

std::string Exception::message() const { return message_ ? *message_ : std::string(); }

void Exception::raise() const { throw *this; }

}  // namespace nmr
