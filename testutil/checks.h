#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <type_traits>
#include <vector>

#include "common/exception.h"
#include "common/logger.h"

namespace nmr::test {

// The message of the E that f throws; otherwise a text that no expected message equals,
// naming what happened instead. The system's exceptions do not derive from std::exception,
// so GoogleTest's own checks cannot show their messages. Any other exception passes through
// and fails the test with its own description.
template <typename E = Exception, typename F>
std::string thrownMessage(F&& f) {
    static_assert(std::is_base_of_v<Exception, E>);
    try {
        f();
    } catch (const Exception& e) {
        const std::string message = e.message();
        return dynamic_cast<const E*>(&e) != nullptr ? message : "another exception: " + message;
    }
    return "no exception";
}

// Keeps the warnings and errors it is told, to check what a reader logged.
class RecordingLogger : public LoggerBase {
public:
    void debug(const std::string&) override {}
    void info(const std::string&) override {}
    void warn(const std::string& text) override { warnings.push_back(text); }
    void error(const std::string& text) override { errors.push_back(text); }
    static bool has(const std::vector<std::string>& list, const std::string& text) {
        return std::find(list.begin(), list.end(), text) != list.end();
    }
    std::vector<std::string> warnings, errors;
};

}  // namespace nmr::test

// statement must throw type (or a subclass) with exactly this message.
#define EXPECT_THROW_MSG(statement, type, message) \
    EXPECT_EQ(::nmr::test::thrownMessage<type>([&] { static_cast<void>(statement); }), message)
