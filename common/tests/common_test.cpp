#include <gtest/gtest.h>

#include <sstream>
#include <thread>
#include <vector>

#include "common/exception.h"
#include "common/logger.h"

namespace nmr {
namespace {

TEST(Exception, RaiseRethrowsTheDynamicType) {
    try {
        try {
            throw FileAccessException("Did not find enough data for a grid");
        } catch (const Exception& e) {
            e.raise();
        }
        FAIL() << "raise returned";
    } catch (const FileAccessException& e) {
        EXPECT_EQ(e.message(), "Did not find enough data for a grid");
    } catch (const Exception&) {
        FAIL() << "raise sliced the exception to its base";
    }
}

TEST(Exception, EverySubclassKeepsItsTypeThroughRaise) {
    const std::vector<std::unique_ptr<Exception>> all = [] {
        std::vector<std::unique_ptr<Exception>> v;
        v.push_back(std::make_unique<Exception>("a"));
        v.push_back(std::make_unique<MemoryAllocationException>("b"));
        v.push_back(std::make_unique<UserCancelException>("c"));
        return v;
    }();
    EXPECT_THROW(all[0]->raise(), Exception);
    EXPECT_THROW(all[1]->raise(), MemoryAllocationException);
    EXPECT_THROW(all[2]->raise(), UserCancelException);
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

TEST_F(LogCoreTest, ThresholdFiltersByLevel) {
    Logger log("test.channel");
    LogCore::instance().setThreshold(LogLevel::Warn);
    log.debug("d");
    log.info("i");
    log.warn("w");
    log.error("e");
    const std::string out = sink_.str();
    EXPECT_EQ(out.find(" d\n"), std::string::npos);
    EXPECT_EQ(out.find(" i\n"), std::string::npos);
    EXPECT_NE(out.find("WARN test.channel: w\n"), std::string::npos);
    EXPECT_NE(out.find("ERROR test.channel: e\n"), std::string::npos);

    sink_.str("");
    LogCore::instance().setThreshold(LogLevel::Off);
    log.error("silenced");
    EXPECT_TRUE(sink_.str().empty());
}

TEST_F(LogCoreTest, RecordStartsWithDayMonthYearTimestamp) {
    LogCore::instance().setThreshold(LogLevel::Debug);
    Logger("c").debug("text");
    const std::string out = sink_.str();
    // dd.mm.yyyy-hh:mm:ss
    ASSERT_GE(out.size(), 19u);
    EXPECT_EQ(out[2], '.');
    EXPECT_EQ(out[5], '.');
    EXPECT_EQ(out[10], '-');
    EXPECT_EQ(out[13], ':');
    EXPECT_EQ(out[16], ':');
    EXPECT_NE(out.find("DEBUG c: text"), std::string::npos);
}

TEST_F(LogCoreTest, ConcurrentRecordsDoNotInterleave) {
    LogCore::instance().setThreshold(LogLevel::Info);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            const char names[][3] = {"t0", "t1", "t2", "t3"};
            Logger log(names[t]);
            for (int i = 0; i < 200; ++i) log.info("0123456789abcdef");
        });
    }
    for (auto& th : threads) th.join();
    std::istringstream lines(sink_.str());
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
        ++count;
        EXPECT_NE(line.find("INFO t"), std::string::npos) << line;
        EXPECT_EQ(line.substr(line.size() - 16), "0123456789abcdef") << line;
    }
    EXPECT_EQ(count, 800);
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
