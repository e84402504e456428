#pragma once

#include <mutex>
#include <ostream>
#include <string>

namespace nmr {

enum class LogLevel : int { Error = 0, Warn = 1, Info = 2, Debug = 3, Off = 4 };

// Abstract sink for diagnostics of library-style classes. The caller injects one;
// the simulator itself hands out NullLogger and reports through its job files.
class LoggerBase {
public:
    virtual ~LoggerBase() = default;
    virtual void debug(const std::string& text) = 0;
    virtual void info(const std::string& text) = 0;
    virtual void warn(const std::string& text) = 0;
    virtual void error(const std::string& text) = 0;
};

// Forwards records with its category to the process-wide LogCore.
class Logger : public LoggerBase {
public:
    explicit Logger(std::string category) : category_(std::move(category)) {}
    void debug(const std::string& text) override;
    void info(const std::string& text) override;
    void warn(const std::string& text) override;
    void error(const std::string& text) override;
    const std::string& category() const { return category_; }

private:
    std::string category_;
};

class NullLogger : public LoggerBase {
public:
    void debug(const std::string&) override {}
    void info(const std::string&) override {}
    void warn(const std::string&) override {}
    void error(const std::string&) override {}
};

// Mixin for classes that log through an injected logger. Without one they log
// nowhere; the logger is not owned.
class LoggerClient {
public:
    virtual ~LoggerClient() = default;
    void setLogger(LoggerBase* logger) { logger_ = logger ? logger : &nullLogger(); }
    LoggerBase& logger() const { return *logger_; }

private:
    static LoggerBase& nullLogger();
    LoggerBase* logger_ = &nullLogger();
};

// One per process, created on first use. Records at a level above the threshold are
// dropped; threshold Off silences everything. Records go to std::cerr by default:
// standard output belongs to the program's own console report.
class LogCore {
public:
    static LogCore& instance();

    void setThreshold(LogLevel level);
    LogLevel threshold() const;
    // The sink is not owned and must outlive its use.
    void setSink(std::ostream* sink);
    void write(LogLevel level, const std::string& category, const std::string& text);

    static const char* levelName(LogLevel level);
    static constexpr const char* kTimestampFormat = "%d.%m.%Y-%H:%M:%S";

private:
    LogCore() = default;
    mutable std::mutex mutex_;
    LogLevel threshold_ = LogLevel::Warn;
    std::ostream* sink_ = nullptr;
};

}  // namespace nmr
