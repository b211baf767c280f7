#include "platform/basic_log/patience.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "logger_child.h"
#include "support/interpose.h"

// Each test in a child: the limit is the process's.

using mwl::Log::Patience;
using std::chrono::milliseconds;
using tern::test::DurationOf;
using tern::test::InChild;

namespace {

/// A pipe that takes nothing; returns its end to write to.
int MakeFullPipe() {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const std::string text(4096, 'x');
    while (write(ends[1], text.data(), text.size()) > 0) {
    }
    return ends[1];
}

/// What one message waits for it.
milliseconds WaitOfOneMessage(int fd) {
    Patience patience;
    return DurationOf([&] {
        while (patience.Wait(fd)) {
        }
    });
}

}  // namespace

TEST(Patience, OneSecondThenNoneUntilMessagesAreTakenThenMoreAndMore) {
    InChild([] {
        const int full = MakeFullPipe();
        EXPECT_FALSE(Patience::IsOver());
        const milliseconds first = WaitOfOneMessage(full);
        EXPECT_GE(first, milliseconds(999));
        EXPECT_LT(first, milliseconds(1900));
        for (const int limit : {10, 20, 40, 80, 160}) {
            EXPECT_TRUE(Patience::IsOver());
            EXPECT_LT(WaitOfOneMessage(full), milliseconds(900)) << "none";
            for (int taken = 10; taken <= limit; taken *= 2) {
                Patience::Taken();
            }
            EXPECT_FALSE(Patience::IsOver());
            const milliseconds wait = WaitOfOneMessage(full);
            EXPECT_GE(wait, milliseconds(limit - 1));
            EXPECT_LT(wait, milliseconds(limit + 700));
        }
    });
}

TEST(Patience, NeverMoreThanASecondHoweverManyAreTaken) {
    InChild([] {
        const int full = MakeFullPipe();
        for (int i = 0; i < 100; ++i) {
            Patience::Taken();
        }
        const milliseconds wait = WaitOfOneMessage(full);
        EXPECT_GE(wait, milliseconds(999));
        EXPECT_LT(wait, milliseconds(1900));
    });
}

TEST(Patience, DescriptorThatIsReadyInVainIsNotAskedInACircle) {
    InChild([] {
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        Patience patience;
        int times = 0;
        EXPECT_LT(DurationOf([&] {
                      while (patience.Wait(ends[1])) {
                          ++times;
                      }
                  }),
                  milliseconds(1900));
        EXPECT_LT(times, 2100) << "a millisecond for each second time";
        EXPECT_GT(times, 1);
    });
}
