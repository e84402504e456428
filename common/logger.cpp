#include "common/logger.h"

#include <ctime>
#include <iostream>

namespace nmr {

void Logger::debug(const std::string& text) {
    LogCore::instance().write(LogLevel::Debug, category_, text);
}
void Logger::info(const std::string& text) {
    LogCore::instance().write(LogLevel::Info, category_, text);
}
void Logger::warn(const std::string& text) {
    LogCore::instance().write(LogLevel::Warn, category_, text);
}
void Logger::error(const std::string& text) {
    LogCore::instance().write(LogLevel::Error, category_, text);
}

LoggerBase& LoggerClient::nullLogger() {
    static NullLogger instance;
    return instance;
}

LogCore& LogCore::instance() {
    static LogCore core;
    return core;
}

void LogCore::setThreshold(LogLevel level) {
    std::lock_guard<std::mutex> lock(mutex_);
    threshold_ = level;
}

LogLevel LogCore::threshold() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return threshold_;
}

void LogCore::setSink(std::ostream* sink) {
    std::lock_guard<std::mutex> lock(mutex_);
    sink_ = sink;
}

const char* LogCore::levelName(LogLevel level) {
    switch (level) {
        case LogLevel::Error:
            return "ERROR";
        case LogLevel::Warn:
            return "WARN";
        case LogLevel::Info:
            return "INFO";
        case LogLevel::Debug:
            return "DEBUG";
        case LogLevel::Off:
            break;
    }
    return "";
}

void LogCore::write(LogLevel level, const std::string& category, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (threshold_ == LogLevel::Off || static_cast<int>(level) > static_cast<int>(threshold_)) {
        return;
    }
    char stamp[32];
    std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    std::strftime(stamp, sizeof stamp, kTimestampFormat, &local);
    std::ostream& out = sink_ ? *sink_ : std::cerr;
    out << stamp << ' ' << levelName(level) << ' ' << category << ": " << text << '\n';
    out.flush();
}

}  // namespace nmr
