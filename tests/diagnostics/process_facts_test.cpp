#include "diagnostics/process_facts.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <thread>

#include "support/interpose.h"

TERN_INTERPOSE_SYMBOL_(int, open, "open64", (const char* path, int flags), (path, flags))
TERN_INTERPOSE_TIME(int, clock_gettime, __clock_gettime64, (clockid_t clock, timespec* now), (clock, now))

namespace {

using namespace mwl::Diagnostics;
using tern::test::FaultScope;

/// Files of /proc as the test wants them; others are not there.
class Proc {
public:
    Proc() : mScope(fault_open) {
        fault_open.Replace(
            [this](const char* path, int) {
                const auto found = mFiles.find(path);
                if (found == mFiles.end()) {
                    errno = ENOENT;
                    return -1;
                }
                const int fd = memfd_create("proc", MFD_CLOEXEC);
                const std::string& text = found->second;
                EXPECT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
                EXPECT_EQ(lseek(fd, 0, SEEK_SET), 0);
                return fd;
            },
            1000);
    }

    std::string& operator[](const std::string& path) { return mFiles[path]; }

private:
    FaultScope<int(const char*, int)> mScope;
    std::map<std::string, std::string> mFiles;
};

/// Clocks that stand still.
class Clocks {
public:
    Clocks(time_t boot, time_t day) : mScope(fault_clock_gettime) {
        fault_clock_gettime.Replace(
            [boot, day](clockid_t clock, timespec* now) {
                *now = {clock == CLOCK_BOOTTIME ? boot : clock == CLOCK_REALTIME ? day : 1, 0};
                return 0;
            },
            1000);
    }

private:
    FaultScope<int(clockid_t, timespec*)> mScope;
};

/// As /proc/self/stat has it: field 22 is the start, in hundredths of a second after the system's.
std::string Stat(const std::string& name, const std::string& start) {
    std::string text = "4711 (" + name + ") S";
    for (int field = 4; field < 22; ++field) {
        text += " " + std::to_string(field * 1000);
    }
    return text + " " + start + " 23000 24000\n";
}

TEST(ProcessFacts, UptimeIsTheSystemsWithoutTheTimeBeforeTheStart) {
    const Clocks clocks(100, 5000);
    ASSERT_EQ(sysconf(_SC_CLK_TCK), 100) << "as on every kernel that there is";
    Proc proc;
    for (const std::string name : {"service", "a b", ") S 1 2", "", "(((", "x) y) z"}) {
        proc["/proc/self/stat"] = Stat(name, "9925");
        EXPECT_EQ(ReadProcessUptimeNs(), 750000000U) << name;
        EXPECT_EQ(ReadProcessStartedNs(), 4999250000000U) << name;
    }
    proc["/proc/self/stat"] = Stat("service", "10000");
    EXPECT_EQ(ReadProcessUptimeNs(), 0U);
    // Later than now, by a clock that was read before.
    proc["/proc/self/stat"] = Stat("service", "10001");
    EXPECT_EQ(ReadProcessUptimeNs(), 0U);
    EXPECT_EQ(ReadProcessStartedNs(), 0U);
}

TEST(ProcessFacts, StartBeforeTheBeginningOfTimeIsNotKnown) {
    Proc proc;
    proc["/proc/self/stat"] = Stat("service", "0");
    {
        const Clocks clocks(100, 100);
        EXPECT_EQ(ReadProcessUptimeNs(), 100000000000U);
        EXPECT_EQ(ReadProcessStartedNs(), 0U);
    }
    const Clocks clocks(100, 99);
    EXPECT_EQ(ReadProcessStartedNs(), 0U);
}

TEST(ProcessFacts, FilesThatAreNotThereTellNothing) {
    const Proc proc;
    EXPECT_EQ(ReadProcessUptimeNs(), 0U);
    EXPECT_EQ(ReadProcessStartedNs(), 0U);
    EXPECT_EQ(ReadBootId(), "");
    const ProcessSizes sizes = ReadProcessSizes();
    EXPECT_EQ(sizes.residentBytes, 0U);
    EXPECT_EQ(sizes.peakBytes, 0U);
    EXPECT_EQ(sizes.threads, 0U);
    EXPECT_EQ(ReadThreadFacts(1).name, "");
    EXPECT_EQ(ReadThreadFacts(1).state, '\0');
}

TEST(ProcessFacts, ThreadThatCannotBeAskedForHasNotGone) {
    const FaultScope scope(fault_open);
    for (const int error : {EMFILE, ENFILE, EACCES, ENOMEM}) {
        fault_open.Fail(-1, error);
        EXPECT_EQ(ReadThreadFacts(gettid()).state, '?') << error;
    }
    for (const int error : {ENOENT, ESRCH}) {
        fault_open.Fail(-1, error);
        EXPECT_EQ(ReadThreadFacts(gettid()).state, '\0') << error;
    }
}

TEST(ProcessFacts, FilesWithoutTheFieldTellNothing) {
    Proc proc;
    for (const std::string text : {"", "4711", "4711 (service", "4711 (service)", "4711 (service) S 1 2 3"}) {
        proc["/proc/self/stat"] = text;
        EXPECT_EQ(ReadProcessUptimeNs(), 0U) << text;
    }
    proc["/proc/self/status"] = "Name:\tVmRSS\nXVmRSS:\t4 kB\nVmRSSX:\t5 kB\nThreads 6\n";
    const ProcessSizes sizes = ReadProcessSizes();
    EXPECT_EQ(sizes.residentBytes, 0U);
    EXPECT_EQ(sizes.peakBytes, 0U);
    EXPECT_EQ(sizes.threads, 0U);
}

TEST(ProcessFacts, SizesAreThoseOfStatus) {
    Proc proc;
    proc["/proc/self/status"] =
        "Name:\tservice\nVmPeak:\t  999 kB\nVmHWM:\t    1234 kB\nVmRSS:\t     12 "
        "kB\nThreads:\t17\nSigQ:\t1/2\n";
    const ProcessSizes sizes = ReadProcessSizes();
    EXPECT_EQ(sizes.residentBytes, 12U * 1024);
    EXPECT_EQ(sizes.peakBytes, 1234U * 1024);
    EXPECT_EQ(sizes.threads, 17U);
}

TEST(ProcessFacts, BootIdIsALine) {
    Proc proc;
    proc["/proc/sys/kernel/random/boot_id"] = "0123-4567\n";
    EXPECT_EQ(ReadBootId(), "0123-4567");
    proc["/proc/sys/kernel/random/boot_id"] = "0123-4567";
    EXPECT_EQ(ReadBootId(), "0123-4567");
}

TEST(ProcessFacts, ThreadHasItsNameAndState) {
    Proc proc;
    for (const std::string name : {"worker", ") R 1", "", "((", "a) b) c"}) {
        proc["/proc/self/task/12/stat"] = "12 (" + name + ") D 1 2 3\n";
        EXPECT_EQ(ReadThreadFacts(12).name, name);
        EXPECT_EQ(ReadThreadFacts(12).state, 'D');
    }
    proc["/proc/self/task/12/stat"] = "12 (\x1b[2J) S 1\n";
    EXPECT_EQ(ReadThreadFacts(12).name, "?[2J");
    // Nobody's name is made of what has no parentheses.
    for (const std::string text : {"12", "12 (worker", "12 worker) S 1", "12 (worker) "}) {
        proc["/proc/self/task/12/stat"] = text;
        EXPECT_EQ(ReadThreadFacts(12).name, "") << text;
        EXPECT_EQ(ReadThreadFacts(12).state, '\0') << text;
    }
    proc["/proc/self/task/0/stat"] = "0 (nobody) S 1\n";
    proc["/proc/self/task/-1/stat"] = "-1 (nobody) S 1\n";
    EXPECT_EQ(ReadThreadFacts(0).name, "");
    EXPECT_EQ(ReadThreadFacts(-1).name, "");
}

TEST(ProcessFacts, WatchdogIsSystemds) {
    unsetenv("WATCHDOG_PID");
    unsetenv("WATCHDOG_USEC");
    EXPECT_EQ(ReadWatchdogNs(), 0U);
    setenv("WATCHDOG_USEC", "2500000", 1);
    EXPECT_EQ(ReadWatchdogNs(), 2500000000U);
    setenv("WATCHDOG_USEC", "no number", 1);
    EXPECT_EQ(ReadWatchdogNs(), 0U);
    setenv("WATCHDOG_USEC", "2500000", 1);
    setenv("WATCHDOG_PID", "1", 1);
    EXPECT_EQ(ReadWatchdogNs(), 0U);
    unsetenv("WATCHDOG_PID");
    unsetenv("WATCHDOG_USEC");
}

TEST(ProcessFacts, DescriptorsAreCountedWithoutTheOneThatCounts) {
    const std::uint32_t before = CountDescriptors();
    const int fd = memfd_create("one", MFD_CLOEXEC);
    EXPECT_EQ(CountDescriptors(), before + 1);
    close(fd);
    EXPECT_EQ(CountDescriptors(), before);
    EXPECT_GE(before, 1U);
}

TEST(ProcessFacts, RealFilesAreRead) {
    EXPECT_GT(ReadProcessUptimeNs(), 0U);
    EXPECT_LT(ReadProcessUptimeNs(), 3600U * 1000000000U);
    EXPECT_EQ(ReadBootId().size(), 36U);
    EXPECT_EQ(ReadProgram(), "diagnostics-process_facts_test");
    EXPECT_GT(ReadProcessSizes().residentBytes, 100000U);
    EXPECT_GE(ReadProcessSizes().peakBytes, ReadProcessSizes().residentBytes / 2);
    EXPECT_GE(ReadProcessSizes().threads, 1U);
    EXPECT_EQ(ReadThreadFacts(gettid()).state, 'R');
}

}  // namespace
