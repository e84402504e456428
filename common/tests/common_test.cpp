#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <thread>
#include <vector>

#include "common/exception.h"
#include "common/logger.h"
#include "testutil/checks.h"
#include "testutil/command.h"

namespace nmr {
namespace {

// A handler holding an Exception& must re-throw the most-derived type, not a slice of it.
TEST(Exception, RaiseRethrowsTheDynamicTypeWithItsMessage) {
    const auto reraise = [](const Exception& e) { e.raise(); };
    EXPECT_THROW_MSG(reraise(FileAccessException("Did not find enough data for a grid")),
                     FileAccessException, "Did not find enough data for a grid");
    EXPECT_THROW_MSG(reraise(MemoryAllocationException("b")), MemoryAllocationException, "b");
    EXPECT_THROW_MSG(reraise(UserCancelException("c")), UserCancelException, "c");
    EXPECT_THROW_MSG(reraise(Exception("a")), Exception, "a");
}

// The detail is the second line under a fixed message: it must survive every way a
// handler passes an exception on.
TEST(Exception, DetailTravelsWithCopiesAndRaise) {
    const FileAccessException original("Did not find enough data for a grid", "rock.binc: ...");
    try {
        static_cast<const Exception&>(FileAccessException(original)).raise();
    } catch (const FileAccessException& e) {
        EXPECT_EQ(e.message(), "Did not find enough data for a grid");
        EXPECT_EQ(e.detail(), "rock.binc: ...");
        try {
            throw;
        } catch (...) {
            EXPECT_EQ(currentExceptionDetail(), "rock.binc: ...");
        }
    }
    Exception assigned("x");
    assigned = original;
    EXPECT_EQ(assigned.detail(), "rock.binc: ...");
    EXPECT_EQ(Exception("plain").detail(), "");
}

TEST(Exception, CopyOwnsItsMessage) {
    auto original = std::make_unique<FileAccessException>("Unable to open file: grid.binc");
    FileAccessException copy(*original);
    original.reset();
    EXPECT_EQ(copy.message(), "Unable to open file: grid.binc");
    Exception assigned("x");
    {
        Exception source("temporary");
        assigned = source;
    }
    EXPECT_EQ(assigned.message(), "temporary");
}

class LogCoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        previous_ = LogCore::instance().threshold();
        LogCore::instance().setSink(&sink_);
    }
    void TearDown() override {
        LogCore::instance().setSink(nullptr);
        LogCore::instance().setThreshold(previous_);
    }
    std::ostringstream sink_;
    LogLevel previous_ = LogLevel::Warn;
};

// Records below the threshold are dropped; the others read "dd.mm.yyyy-hh:mm:ss LEVEL
// channel: text".
TEST_F(LogCoreTest, ThresholdFiltersByLevelAndRecordsCarryTheirTimestamp) {
    Logger log("test.channel");
    LogCore::instance().setThreshold(LogLevel::Info);
    for (auto write : {&Logger::debug, &Logger::info, &Logger::warn, &Logger::error})
        (log.*write)("text");
    const std::string stamp = R"(\d\d\.\d\d\.\d{4}-\d\d:\d\d:\d\d )",
                      line = " test\\.channel: text\n";
    EXPECT_TRUE(std::regex_match(sink_.str(), std::regex(stamp + "INFO" + line + stamp + "WARN" +
                                                         line + stamp + "ERROR" + line)))
        << sink_.str();
    sink_.str("");
    LogCore::instance().setThreshold(LogLevel::Off);
    log.error("silenced");
    EXPECT_TRUE(sink_.str().empty());
}

TEST_F(LogCoreTest, ConcurrentRecordsDoNotInterleave) {
    LogCore::instance().setThreshold(LogLevel::Info);
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            const char names[][3] = {"t0", "t1", "t2", "t3"};
            Logger log(names[t]);
            for (int i = 0; i < 200; ++i) log.info("0123456789abcdef");
        });
    }
    for (auto& th : threads) th.join();
    const std::vector<std::string> records = test::lines(sink_.str());
    EXPECT_EQ(records.size(), 800u);
    for (const std::string& line : records) {
        EXPECT_NE(line.find("INFO t"), std::string::npos) << line;
        EXPECT_TRUE(line.ends_with(": 0123456789abcdef")) << line;
    }
}

TEST(LoggerClient, FallsBackToSilentLogger) {
    struct Client : LoggerClient {};
    Client client;
    client.logger().error("nowhere");  // must not crash without an injected logger
    NullLogger quiet;
    client.setLogger(&quiet);
    EXPECT_EQ(&client.logger(), &quiet);
    client.setLogger(nullptr);
    EXPECT_NE(&client.logger(), &quiet);
}

}  // namespace
}  // namespace nmr
