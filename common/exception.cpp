#include "common/exception.h"

#include <exception>
#include <new>

namespace nmr {

Exception::Exception(std::string message) : Exception(std::move(message), std::string()) {}

Exception::Exception(std::string message, std::string detail)
    : text_(std::make_unique<Text>(Text{std::move(message), std::move(detail)})) {}

Exception::Exception(const Exception& other)
    : text_(std::make_unique<Text>(other.text_ ? *other.text_ : Text{})) {}

Exception& Exception::operator=(const Exception& other) {
    if (this != &other) text_ = std::make_unique<Text>(other.text_ ? *other.text_ : Text{});
    return *this;
}

Exception::~Exception() = default;

std::string Exception::message() const { return text_ ? text_->message : std::string(); }

std::string Exception::detail() const { return text_ ? text_->detail : std::string(); }

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

std::string currentExceptionDetail() {
    try {
        throw;
    } catch (const Exception& e) {
        return e.detail();
    } catch (...) {
        return {};
    }
}

}  // namespace nmr
