// The log macros with a logger that is not ours (foreign_logger/): whoever makes the device may bring
// another.

#include <gmock/gmock.h>
#include <tern/foundation/log.h>

#include <string>

namespace {

using ::mwl::ProcessLogger;
using ::mwl::Log::RootLogger;
using ::testing::ElementsAre;
using ::testing::Pair;

const std::string LOGGER = "Some::Logger";

std::string Prefix() {
    return "[" + std::to_string(static_cast<unsigned long>(pthread_self())) + "][Some::Logger]";
}

class ForeignLogger : public ::testing::Test {
protected:
    ForeignLogger() { RootLogger::printed.clear(); }
};

TEST_F(ForeignLogger, IsBuiltAtTheFirstMessageAndOnce) {
    ASSERT_EQ(RootLogger::built, 0);
    TERN_LOG_ERROR(LOGGER, "first");
    EXPECT_EQ(RootLogger::built, 1);
    TERN_LOG_ERROR(LOGGER, "second");
    EXPECT_EQ(RootLogger::built, 1);
    EXPECT_EQ(&ProcessLogger::Get(), &RootLogger::GetInstance());
}

TEST_F(ForeignLogger, GetsEachLevelAsItsNumberBehindThePrefix) {
    RootLogger::threshold = 7;
    TERN_LOG_CRITICAL(LOGGER, "a");
    TERN_LOG_ERROR(LOGGER, "b %d", 1);
    TERN_LOG_WARNING(LOGGER, "c %s", "text");
    TERN_LOG_NOTICE(LOGGER, "d  ");
    TERN_LOG_INFO(LOGGER, "e\n");
    TERN_LOG_TRACE(LOGGER, "%s: f %d", "Operation", 2);
    EXPECT_THAT(RootLogger::printed,
                ElementsAre(Pair(2, Prefix() + " a"), Pair(3, Prefix() + " b 1"),
                            Pair(4, Prefix() + " c text"), Pair(5, Prefix() + " d  "),
                            Pair(6, Prefix() + " e\n"), Pair(7, Prefix() + "[trace] Operation: f 2")));
}

TEST_F(ForeignLogger, GetsWhatIsNotBelowTheThresholdByte) {
    int evaluated = 0;
    for (int threshold = 0; threshold <= 7; ++threshold) {
        RootLogger::threshold = static_cast<unsigned char>(threshold);
        RootLogger::printed.clear();
        TERN_LOG_CRITICAL(LOGGER, "%d", ++evaluated);
        TERN_LOG_ERROR(LOGGER, "%d", ++evaluated);
        TERN_LOG_WARNING(LOGGER, "%d", ++evaluated);
        TERN_LOG_NOTICE(LOGGER, "%d", ++evaluated);
        TERN_LOG_INFO(LOGGER, "%d", ++evaluated);
        TERN_LOG_TRACE(LOGGER, "%d", ++evaluated);
        EXPECT_EQ(RootLogger::printed.size(), threshold < 2 ? 0U : static_cast<unsigned>(threshold) - 1U);
        for (int level = 2; level <= 7; ++level) {
            EXPECT_EQ(ProcessLogger::Writes(level), level <= threshold);
        }
    }
    EXPECT_EQ(evaluated, 1 + 2 + 3 + 4 + 5 + 6);
}

}  // namespace
