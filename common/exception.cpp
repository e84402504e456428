#include "common/exception.h"

#include <exception>
#include <new>

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

std::string currentExceptionText() {
    try {
        throw;
    } catch (const Exception& e) {
        return e.message();
    } catch (const std::bad_alloc&) {
        return "out of memory";
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

}  // namespace nmr
