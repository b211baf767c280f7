#include "platform/basic_log/local_time.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

#include "support/interpose.h"

using mwl::Log::LocalTime;
using mwl::Log::NowInLocalTime;

TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))
TERN_INTERPOSE_TIME(tm*, localtime_r, __localtime64_r, (const time_t* moment, tm* result), (moment, result))

namespace {

void SetZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
}

/// "month/day hour:minute:second.millisecond" at that moment.
std::string At(std::int64_t second, long nanosecond = 0) {
    fault_clock_gettime.Replace([=](clockid_t clock, timespec* now) {
        EXPECT_EQ(clock, CLOCK_REALTIME);
        *now = {};
        now->tv_sec = static_cast<time_t>(second);
        now->tv_nsec = nanosecond;
        return 0;
    });
    const LocalTime time = NowInLocalTime();
    fault_clock_gettime.Reset();
    char text[100];
    snprintf(text, sizeof text, "%d/%d %02d:%02d:%02d.%03d", time.month + 1, time.day, time.hour, time.minute,
             time.second, time.millisecond);
    return text;
}

}  // namespace

TEST(LocalTime, IsWhatTheCLibrarySays) {
    SetZone("EAST-01:30");
    // A day and a bit at a time, through leap years and centuries, on both sides of 1970 and of 2038.
    for (std::int64_t second = -5000000000; second < 20000000000; second += 86400 * 13 + 5003) {
        const auto moment = static_cast<time_t>(second);
        tm expected{};
        ASSERT_NE(localtime_r(&moment, &expected), nullptr);
        char text[100];
        snprintf(text, sizeof text, "%d/%d %02d:%02d:%02d.050", expected.tm_mon + 1, expected.tm_mday,
                 expected.tm_hour, expected.tm_min, expected.tm_sec);
        ASSERT_EQ(At(second, 50999999), text) << second;
    }
}

// The distance from UTC was taken once: half of the year the clock of a long-lived service was an hour wrong.
TEST(LocalTime, FollowsSummerTime) {
    SetZone("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(At(1711846799), "3/31 01:59:59.000");
    EXPECT_EQ(At(1711846800), "3/31 03:00:00.000");
    EXPECT_EQ(At(1729990799), "10/27 02:59:59.000");
    EXPECT_EQ(At(1729990800), "10/27 02:00:00.000");
}

TEST(LocalTime, TheCLibraryIsAskedFourTimesAnHour) {
    SetZone("UTC0");
    static_cast<void>(At(900 * 1000));
    fault_localtime_r.Replace(
        [](const time_t* moment, tm* result) { return fault_localtime_r.Real(moment, result); }, 1000);
    for (int second = 0; second < 3600; ++second) {
        static_cast<void>(At(900 * 1001 + second));
    }
    EXPECT_EQ(fault_localtime_r.Calls(), 4);
    fault_localtime_r.Reset();
}

TEST(LocalTime, WithoutAnAnswerTheLastOneHolds) {
    SetZone("EAST-01:30");
    EXPECT_EQ(At(0), "1/1 01:30:00.000");
    const tern::test::FaultScope scope(fault_localtime_r);
    fault_localtime_r.Fail(nullptr, EOVERFLOW);
    EXPECT_EQ(At(86400), "1/2 01:30:00.000");
}

// Another thread may hold the C library's lock when a child is forked; nobody releases it there.
TEST(LocalTime, AChildForkedBesideThreadsAsksNobody) {
    SetZone("EAST-01:30");
    static_cast<void>(At(0));
    const auto callsInChild = [] {
        const pid_t pid = fork();
        if (pid == 0) {
            fault_localtime_r.Replace(
                [](const time_t* moment, tm* result) { return fault_localtime_r.Real(moment, result); },
                1000);
            const bool right = At(86400) == "1/2 01:30:00.000";
            _exit(right ? fault_localtime_r.Calls() : 100);
        }
        int status = -1;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    };
    EXPECT_EQ(callsInChild(), 1) << "alone, as a daemon is forked";
    std::atomic<bool> stop{false};
    std::thread other([&] { stop.wait(false); });
    EXPECT_EQ(callsInChild(), 0);
    stop = true;
    stop.notify_all();
    other.join();
}
