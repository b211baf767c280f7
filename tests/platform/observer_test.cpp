#include <tern-basic-log/observer.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <tern/foundation/log.h>

#include <string>
#include <vector>

#include "logger_child.h"

// The real logger: this program does not link the capture.

namespace {

using tern::test::WritesOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

const std::string LOGGER = "Test";

std::vector<std::pair<TernLogLevel, std::string>> gObserved;

void Note(TernLogLevel level, const char* text, std::size_t length) noexcept {
    gObserved.emplace_back(level, std::string(text, length));
}

class LogObserver : public testing::Test {
protected:
    LogObserver() {
        gObserved.clear();
        mwl::Log::SetObserver(&Note);
    }
    ~LogObserver() override {
        mwl::Log::SetObserver(nullptr);
        mwl::Log::SetThreshold(6);
    }
};

TEST_F(LogObserver, IsGivenWarningsAndWorse) {
    TERN_LOG_CRITICAL(LOGGER, "critical %d", 1);
    TERN_LOG_ERROR(LOGGER, "error");
    TERN_LOG_WARNING(LOGGER, "warning");
    TERN_LOG_NOTICE(LOGGER, "notice");
    TERN_LOG_INFO(LOGGER, "info");
    ASSERT_THAT(gObserved, SizeIs(3));
    EXPECT_EQ(gObserved[0].first, TernLogLevel::Critical);
    EXPECT_THAT(gObserved[0].second, HasSubstr("][Test] critical 1"));
    EXPECT_EQ(gObserved[2].first, TernLogLevel::Warning);
    EXPECT_EQ(gObserved[2].second.back(), 'g');
}

TEST_F(LogObserver, IsGivenLongMessagesWhole) {
    const std::string text(10000, 'x');
    TERN_LOG_ERROR(LOGGER, "%s", text.c_str());
    ASSERT_THAT(gObserved, SizeIs(1));
    EXPECT_THAT(gObserved[0].second, HasSubstr(text));
}

TEST_F(LogObserver, IsNotGivenWhatIsNotWritten) {
    mwl::Log::SetThreshold(3);
    TERN_LOG_WARNING(LOGGER, "warning");
    EXPECT_THAT(gObserved, IsEmpty());
    mwl::Log::SetThreshold(4);
    TERN_LOG_WARNING(LOGGER, "warning");
    EXPECT_THAT(gObserved, SizeIs(1));
}

TEST_F(LogObserver, IsGivenNothingOnceItIsTakenOut) {
    mwl::Log::SetObserver(nullptr);
    TERN_LOG_ERROR(LOGGER, "error");
    EXPECT_THAT(gObserved, IsEmpty());
}

TEST_F(LogObserver, DoesNotKeepTheMessageFromTheLog) {
    const auto writes = WritesOf([] { TERN_LOG_ERROR(LOGGER, "error"); });
    ASSERT_THAT(writes, SizeIs(1));
    EXPECT_THAT(writes[0], HasSubstr("[Test] error\n"));
}

TEST(LogThreshold, IsWhatEveryCallerReads) {
    mwl::Log::SetThreshold(7);
    EXPECT_EQ(mwl::Log::RootLogger::GetInstance().GetLevel(), 7);
    EXPECT_TRUE(mwl::ProcessLogger::Writes(7));
    mwl::Log::SetThreshold(0);
    EXPECT_FALSE(mwl::ProcessLogger::Writes(2));
    mwl::Log::SetThreshold(200);
    EXPECT_EQ(mwl::Log::RootLogger::GetInstance().GetLevel(), 7);
    mwl::Log::SetThreshold(6);
}

}  // namespace
