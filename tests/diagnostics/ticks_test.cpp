#include "diagnostics/ticks.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <fstream>
#include <sstream>
#include <string>

#include "support/interpose.h"

TERN_INTERPOSE_SYMBOL_(int, open, "open64", (const char* path, int flags), (path, flags))
TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))

namespace {

using mwl::Diagnostics::HasConstantCounter;
using mwl::Diagnostics::NanosecondsOf;
using mwl::Diagnostics::ReadTicks;
using tern::test::FaultScope;

TEST(Ticks, NanosecondsAreSecondsAndTheRest) {
    const FaultScope scope(fault_clock_gettime);
    fault_clock_gettime.Replace([](clockid_t clock, timespec* now) {
        *now = {clock == CLOCK_MONOTONIC ? 3 : 4, 999999999};
        return 0;
    });
    EXPECT_EQ(NanosecondsOf(CLOCK_MONOTONIC), 3999999999U);
    fault_clock_gettime.Replace([](clockid_t, timespec* now) {
        *now = {2000000000, 1};
        return 0;
    });
    EXPECT_EQ(NanosecondsOf(CLOCK_MONOTONIC), 2000000000000000001U);
}

TEST(Ticks, WithoutACounterTheyAreNanoseconds) {
    const FaultScope scope(fault_clock_gettime);
    fault_clock_gettime.Replace([](clockid_t clock, timespec* now) {
        *now = {clock == CLOCK_MONOTONIC ? 7 : 1000, 5};
        return 0;
    });
    EXPECT_EQ(ReadTicks(false), 7000000005U);
}

#if defined(__x86_64__)

/// The line of /proc/cpuinfo with what the first processor has.
std::string ReadFlags() {
    std::ifstream file("/proc/cpuinfo");
    std::string line;
    while (std::getline(file, line) && line.rfind("flags", 0) != 0) {
    }
    return line + " ";
}

/// What the kernel says that its clock is.
class ClockSource {
public:
    explicit ClockSource(const std::string& text) : mScope(fault_open) {
        fault_open.Replace(
            [this, text](const char* path, int) {
                mPath = path;
                const int fd = memfd_create("source", MFD_CLOEXEC);
                EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
                EXPECT_EQ(lseek(fd, 0, SEEK_SET), 0);
                return fd;
            },
            1000);
    }
    const std::string& GetPath() const { return mPath; }

private:
    FaultScope<int(const char*, int)> mScope;
    std::string mPath;
};

TEST(Ticks, CounterIsUsedWhereProcessorAndKernelDo) {
    const bool isInvariant = ReadFlags().find(" nonstop_tsc ") != std::string::npos;
    {
        const ClockSource source("tsc\n");
        EXPECT_EQ(HasConstantCounter(), isInvariant);
        if (isInvariant) {
            EXPECT_EQ(source.GetPath(), "/sys/devices/system/clocksource/clocksource0/current_clocksource");
        }
    }
    for (const std::string other : {"hpet\n", "acpi_pm\n", "tsc-early\n", "tsc", "kvm-clock\n", "", "\n"}) {
        const ClockSource source(other);
        EXPECT_FALSE(HasConstantCounter()) << other;
    }
    const FaultScope scope(fault_open);
    fault_open.Fail(-1, ENOENT);
    EXPECT_FALSE(HasConstantCounter());
}

#endif

}  // namespace
