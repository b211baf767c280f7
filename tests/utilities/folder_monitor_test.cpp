#include <fcntl.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <tern/utilities/folder_monitor.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <latch>
#include <optional>
#include <system_error>

#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"

TERN_INTERPOSE(int, inotify_init1, (int flags), (flags))
TERN_INTERPOSE(int, inotify_add_watch, (int fd, const char* path, unsigned int mask), (fd, path, mask))
TERN_INTERPOSE(int, inotify_rm_watch, (int fd, int descriptor), (fd, descriptor))
TERN_INTERPOSE(ssize_t, read, (int fd, void* buffer, size_t size), (fd, buffer, size))
TERN_INTERPOSE_TIME(int, nanosleep, __nanosleep64, (const timespec* period, timespec* remaining),
                    (period, remaining))
TERN_INTERPOSE(int, pthread_join, (pthread_t thread, void** result), (thread, result))
TERN_INTERPOSE(int, pthread_detach, (pthread_t thread), (thread))
TERN_INTERPOSE(int, pthread_create,
               (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* argument),
               (thread, attributes, body, argument))

// The tests of the finished monitor leave its thread unjoined, as stated in the header.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options();  // NOLINT
const char* __tsan_default_options() {                                                   // NOLINT
    return "report_thread_leaks=0";
}

namespace mwl::Utilities {
namespace {

using tern::test::ChildResult;
using tern::test::CountDescriptors;
using tern::test::CountThreads;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::LogEntry;
using tern::test::RunInChild;
using tern::test::TempFolder;
using tern::test::WaitUntil;
using ::testing::ElementsAre;

const std::string LOGGER = "Utilities::FolderMonitor";

LogEntry Error(const std::string& text) {
    return tern::test::Error(LOGGER, text);
}
LogEntry Info(const std::string& text) {
    return tern::test::Info(LOGGER, text);
}
LogEntry Trace(const std::string& text) {
    return tern::test::Trace(LOGGER, text);
}

void IgnoreEvent(const std::string&, unsigned int) {}

/// What the monitor reads.
std::string Record(std::uint32_t mask, const std::string& name, std::uint32_t paddedLength) {
    inotify_event header{};
    header.wd = 1;
    header.mask = mask;
    header.len = paddedLength;
    std::string bytes(sizeof header + paddedLength, '\0');
    memcpy(bytes.data(), &header, sizeof header);
    bytes.replace(sizeof header, name.size(), name);
    return bytes;
}

/// A callback that stops its own watch and goes on until it is awaited.
class StoppingCallback {
public:
    void Run(FolderMonitor& monitor) {
        monitor.Stop();
        mStopped.count_down();
        mLeave.wait();
        mHasLeft = true;
    }
    void WaitUntilStopped() { mStopped.wait(); }

    /// `wait` returns behind the callback.
    void ExpectToBeAwaitedBy(const std::function<void()>& wait) {
        mStopped.wait();
        std::atomic<bool> returned{false};
        std::thread waiting([&] {
            wait();
            EXPECT_TRUE(mHasLeft);
            returned = true;
        });
        // One that does not wait has returned long before; for the others the time makes no difference.
        EXPECT_FALSE(WaitUntil([&] { return returned.load(); }, std::chrono::milliseconds(200)));
        mLeave.count_down();
        waiting.join();
    }

private:
    std::latch mStopped{1};
    std::latch mLeave{1};
    std::atomic<bool> mHasLeft{false};
};

class FolderMonitorTest : public testing::Test {
protected:
    /// A sanitizer's own thread comes with the first thread and must not be counted as ours.
    static void SetUpTestSuite() {
        std::thread([] {}).join();
    }

    ~FolderMonitorTest() override {
        // A detached thread may still be on its last lines; the next test may fork.
        EXPECT_TRUE(WaitUntil([this] { return CountThreads() == mThreads; }));
        EXPECT_EQ(CountDescriptors(), mDescriptors);
    }

    void CreateFile(const std::string& name) const { std::ofstream(folder / name) << "x"; }
    void DeleteFile(const std::string& name) const { ASSERT_EQ(unlink((folder / name).c_str()), 0); }

    LogEntry Started(int watchDescriptor = 1) const {
        return Info("[Start] Started FolderMonitor on " + folder.Path() +
                    " (wd=" + std::to_string(watchDescriptor) + ")");
    }
    LogEntry Stopped() const { return Info("[Stop] Stopped FolderMonitor on " + folder.Path()); }
    LogEntry Detected(const std::string& mask, const std::string& name) const {
        return Trace("[ThreadLoop] Detected fs event (mask=0x" + mask + ") for '" + name + "' in " +
                     folder.Path());
    }
    LogEntry Gone() const {
        return tern::test::Warning(
            LOGGER, "[ThreadLoop] " + folder.Path() + " is gone, it is watched again when it is back");
    }
    LogEntry Back(int watchDescriptor) const {
        return Info("[ThreadLoop] " + folder.Path() +
                    " is back, watched again (wd=" + std::to_string(watchDescriptor) + ")");
    }
    LogEntry Exiting() const {
        return Trace("[ThreadLoop] FolderMonitor thread exiting for " + folder.Path());
    }
    static LogEntry NotRunning() { return Trace("[Stop] Folder monitor stop request when not running"); }

    /// Runs `act` while a monitor watches in a child, where a finished one can be left behind, and waits
    /// until its thread has left. The child's standard error holds "name mask" in hexadecimal for each
    /// callback.
    /// `prepare` runs in the child too, as the calls that it replaces are also the parent's.
    ChildResult WatchInChild(
        unsigned int mask, const std::function<void()>& act, const std::function<void()>& prepare = [] {}) {
        return RunInChild([&] {
            prepare();
            auto* const monitor = new FolderMonitor(folder.Path());
            if (monitor->Start(Report, mask) != StatusCode::Ok) {
                return 1;
            }
            act();
            return log.WaitFor(Exiting()) ? 0 : 2;
        });
    }

    static void Report(const std::string& name, unsigned int mask) {
        fprintf(stderr, "'%s' %x\n", name.c_str(), mask);
    }

private:
    const std::size_t mThreads = CountThreads();
    const std::size_t mDescriptors = CountDescriptors();

protected:
    LogCapture log;
    TempFolder folder;
};

// Start

TEST_F(FolderMonitorTest, StartWithoutCallbackIsRefused) {
    FolderMonitor monitor(folder.Path());
    EXPECT_EQ(monitor.Start(nullptr, 0), StatusCode::InvalidArgument);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("[Start] FolderMonitor start failed: empty callback")));
}

TEST_F(FolderMonitorTest, StartOnMissingPathIsRefusedAndLeavesItIdle) {
    FolderMonitor monitor(folder / "none");
    EXPECT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::IoError);
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Error("[Start] inotify_add_watch failed for " + (folder / "none") +
                                                 ": No such file or directory"),
                                           NotRunning()));
    // Once it is there the same monitor watches it.
    CreateFile("none");
    EXPECT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    monitor.Stop();
}

TEST_F(FolderMonitorTest, StartWithoutInotifyIsRefused) {
    FolderMonitor monitor(folder.Path());
    const FaultScope scope(fault_inotify_init1);
    fault_inotify_init1.Fail(-1, EMFILE);
    EXPECT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::IoError);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("[Start] inotify_init1 failed: Too many open files")));
}

TEST_F(FolderMonitorTest, StartThatIsRefusedAThreadThrowsAndLeavesItIdle) {
    FolderMonitor monitor(folder.Path());
    const FaultScope scope(fault_pthread_create);
    fault_pthread_create.Fail(EAGAIN);
    EXPECT_THROW(monitor.Start(IgnoreEvent, 0), std::system_error);
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), NotRunning()));
    EXPECT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    monitor.Stop();
}

TEST_F(FolderMonitorTest, CallbackOfAStartThatThrowsMayUseTheMonitorWhileItIsDestroyed) {
    FolderMonitor monitor(folder.Path());
    std::thread stopping;
    auto held = std::shared_ptr<void>(nullptr, [&](void*) {
        // On a thread of its own, so that a lock held meanwhile fails the test and does not hang it.
        stopping = std::thread([&] { monitor.Stop(); });
        EXPECT_TRUE(log.WaitFor(NotRunning()));
    });
    const FaultScope scope(fault_pthread_create);
    fault_pthread_create.Fail(EAGAIN);
    EXPECT_THROW(monitor.Start([held = std::move(held)](const std::string&, unsigned int) {}, 0),
                 std::system_error);
    ASSERT_TRUE(stopping.joinable());
    stopping.join();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), NotRunning()));
}

TEST_F(FolderMonitorTest, StartWhileWatchingDropsTheNewCallback) {
    FolderMonitor monitor(folder.Path());
    std::latch called(1);
    CreateFile("a");
    ASSERT_EQ(monitor.Start(
                  [&](const std::string&, unsigned int) {
                      monitor.Stop();
                      called.count_down();
                  },
                  0),
              StatusCode::Ok);
    EXPECT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, IN_ALL_EVENTS),
              StatusCode::Ok);
    EXPECT_EQ(monitor.Start(nullptr, 0), StatusCode::Ok);
    const LogEntry active = Info("[Start] FolderMonitor already active on " + folder.Path());
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), active, active));
    DeleteFile("a");
    called.wait();
    EXPECT_TRUE(log.WaitFor(Exiting()));
}

TEST_F(FolderMonitorTest, DescriptorIsNonBlockingAndNotInheritedByPrograms) {
    FolderMonitor monitor(folder.Path());
    std::atomic<int> descriptor{-1};
    const FaultScope scope(fault_inotify_init1);
    fault_inotify_init1.Replace([&](int flags) { return descriptor = fault_inotify_init1.Real(flags); });
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    EXPECT_NE(fcntl(descriptor, F_GETFL) & O_NONBLOCK, 0);
    monitor.Stop();
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
}

TEST_F(FolderMonitorTest, MaskOfZeroMeansRemovals) {
    std::vector<unsigned int> masks;
    const FaultScope scope(fault_inotify_add_watch);
    fault_inotify_add_watch.Replace(
        [&](int fd, const char* path, unsigned int mask) {
            masks.push_back(mask);
            return fault_inotify_add_watch.Real(fd, path, mask);
        },
        2);
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    monitor.Stop();
    ASSERT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::Ok);
    monitor.Stop();
    EXPECT_THAT(masks, ElementsAre(0x640U, static_cast<unsigned int>(IN_CREATE)));
}

// Events

TEST_F(FolderMonitorTest, DeletedFilesCallBackOnceOnly) {
    for (const char* const name : {"a", "b", "c"}) {
        CreateFile(name);
    }
    const ChildResult child = WatchInChild(0, [&] {
        DeleteFile("a");
        DeleteFile("b");
        EXPECT_TRUE(log.WaitFor(Exiting()));
        DeleteFile("c");
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'a' 200\n");
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("200", "a"), Exiting()));
}

TEST_F(FolderMonitorTest, MovedFileIsReported) {
    CreateFile("a");
    const ChildResult child =
        WatchInChild(0, [&] { EXPECT_EQ(rename((folder / "a").c_str(), (folder / "b").c_str()), 0); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'a' 40\n");
}

TEST_F(FolderMonitorTest, DeletedFolderIsReportedWithoutAName) {
    const ChildResult child = WatchInChild(0, [&] { EXPECT_EQ(rmdir(folder.Path().c_str()), 0); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'' 400\n");
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("400", ""), Exiting()));
}

TEST_F(FolderMonitorTest, MaskOfTheEventIsPassedOnWhole) {
    const ChildResult child =
        WatchInChild(IN_CREATE, [&] { EXPECT_EQ(mkdir((folder / "new").c_str(), 0700), 0); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'new' 40000100\n");
}

TEST_F(FolderMonitorTest, CreatedFileCallsNothingByDefault) {
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, 0), StatusCode::Ok);
    CreateFile("a");
    // Two more looks for events begin: whatever the first one finds has been handled at the second.
    const FaultScope scope(fault_read);
    fault_read.Replace(nullptr, 0);
    EXPECT_TRUE(WaitUntil([] { return fault_read.Calls() >= 2; }));
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Exiting(), Stopped()));
}

TEST_F(FolderMonitorTest, FirstRecordThatSharesABitWithTheMaskCounts) {
    struct Row {
        const char* about;
        std::string bytes;
        const char* reported;
    };
    const Row rows[] = {
        {"after records without a common bit",
         Record(IN_IGNORED, "", 0) + Record(IN_CREATE, "no", 16) + Record(IN_DELETE, "yes", 16),
         "'yes' 200\n"},
        {"the first of two", Record(IN_MOVED_FROM, "one", 16) + Record(IN_DELETE, "two", 16), "'one' 40\n"},
        {"one bit in common", Record(IN_DELETE | IN_ISDIR | IN_CREATE, "d", 16), "'d' 40000300\n"},
        {"without a name", Record(IN_DELETE_SELF, "", 0), "'' 400\n"},
        {"a name without padding", Record(IN_DELETE, "0123456789abcdef", 16), "'0123456789abcdef' 200\n"},
        {"a buffer filled to its end", Record(IN_IGNORED, "", 4096 - 16 - 32) + Record(IN_DELETE, "end", 16),
         "'end' 200\n"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.about);
        const ChildResult child = WatchInChild(
            0, [] {},
            [&] {
                fault_read.Replace([&](int, void* buffer, size_t size) -> ssize_t {
                    memcpy(buffer, row.bytes.data(), row.bytes.size());
                    return size == 4096 ? static_cast<ssize_t>(row.bytes.size()) : 0;
                });
            });
        EXPECT_EQ(child.exitCode, 0);
        EXPECT_EQ(child.error, row.reported);
    }
}

TEST_F(FolderMonitorTest, TornRecordsAreSteppedOver) {
    for (const std::string& bytes : {Record(IN_DELETE, "a", 16).substr(0, 15),
                                     Record(IN_DELETE, "a", 16).substr(0, 31), std::string("x")}) {
        FolderMonitor monitor(folder.Path());
        const FaultScope scope(fault_read);
        fault_read.Replace([&](int, void* buffer, size_t) {
            memcpy(buffer, bytes.data(), bytes.size());
            return static_cast<ssize_t>(bytes.size());
        });
        ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, 0), StatusCode::Ok);
        EXPECT_TRUE(WaitUntil([] { return fault_read.Calls() >= 2; }));
        monitor.Stop();
    }
}

TEST_F(FolderMonitorTest, LooksAgainAfterTheRestOfAnInterruptedPause) {
    const timespec rest{0, 1234};
    const pthread_t testThread = pthread_self();
    std::vector<std::int64_t> periods;
    std::atomic<int> calls{0};
    FolderMonitor monitor(folder.Path());
    const FaultScope scope(fault_nanosleep);
    fault_nanosleep.Replace(
        [&](const timespec* period, timespec* remaining) {
            if (pthread_self() == testThread || calls == 3) {
                return fault_nanosleep.Real(period, remaining);
            }
            periods.push_back(period->tv_sec * 1000000000LL + period->tv_nsec);
            const bool interrupted = calls++ == 0;
            if (interrupted) {
                *remaining = rest;
                errno = EINTR;
            }
            return interrupted ? -1 : 0;
        },
        INT_MAX);
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    EXPECT_TRUE(WaitUntil([&] { return calls == 3; }));
    monitor.Stop();
    EXPECT_THAT(periods, ElementsAre(100000000, 1234, 100000000));
}

// What is watched goes away

TEST_F(FolderMonitorTest, AFolderRemovedAndMadeAnewIsWatchedAgain) {
    FolderMonitor monitor(folder.Path());
    std::latch called(1);
    ASSERT_EQ(monitor.Start(
                  [&](const std::string& name, unsigned int mask) {
                      EXPECT_EQ(name, "new");
                      EXPECT_EQ(mask, static_cast<unsigned int>(IN_CREATE));
                      monitor.Stop();
                      called.count_down();
                  },
                  IN_CREATE),
              StatusCode::Ok);
    ASSERT_EQ(rmdir(folder.Path().c_str()), 0);
    ASSERT_TRUE(log.WaitFor(Gone()));
    ASSERT_EQ(mkdir(folder.Path().c_str(), 0700), 0);
    ASSERT_TRUE(log.WaitFor(Back(2)));
    CreateFile("new");
    called.wait();
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Gone(), Back(2), Detected("100", "new"), Stopped(),
                                           testing::AnyOf(NotRunning(), Exiting()),
                                           testing::AnyOf(NotRunning(), Exiting())));
}

TEST_F(FolderMonitorTest, AFolderMadeAnewAtOnceIsWatchedAgainAsOftenAsItHappens) {
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, IN_CLOSE_WRITE),
              StatusCode::Ok);
    for (int round = 2; round < 5; ++round) {
        ASSERT_EQ(rmdir(folder.Path().c_str()), 0);
        ASSERT_EQ(mkdir(folder.Path().c_str(), 0700), 0);
        ASSERT_TRUE(log.WaitFor(Back(round)));
    }
    monitor.Stop();
}

TEST_F(FolderMonitorTest, StopsWhileItsPathIsGone) {
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::Ok);
    ASSERT_EQ(rmdir(folder.Path().c_str()), 0);
    ASSERT_TRUE(log.WaitFor(Gone()));
    EXPECT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::Ok);
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Gone(),
                                           Info("[Start] FolderMonitor already active on " + folder.Path()),
                                           Exiting(), Stopped()));
    // Stopped it is idle, and finds that there is nothing.
    EXPECT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::IoError);
}

TEST_F(FolderMonitorTest, AWatchThatIsRefusedAgainIsToldOncePerReason) {
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(IgnoreEvent, IN_CREATE), StatusCode::Ok);
    const FaultScope scope(fault_inotify_add_watch);
    fault_inotify_add_watch.Fail(-1, ENOSPC, 3);
    ASSERT_EQ(rmdir(folder.Path().c_str()), 0);
    ASSERT_TRUE(log.WaitFor(Gone()));
    ASSERT_EQ(mkdir(folder.Path().c_str(), 0700), 0);
    ASSERT_TRUE(log.WaitFor(Back(2)));
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Gone(),
                                           Error("[ThreadLoop] inotify_add_watch failed for " +
                                                 folder.Path() + ": No space left on device"),
                                           Back(2), Exiting(), Stopped()));
}

// The end of the watch by itself

TEST_F(FolderMonitorTest, ReadErrorIsLoggedAndEndsTheWatch) {
    const ChildResult child = WatchInChild(
        0, [] {}, [] { fault_read.Fail(-1, EIO); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "");
    EXPECT_THAT(
        child.log,
        ElementsAre(Started(), Error("[ThreadLoop] inotify read error: Input/output error"), Exiting()));
}

TEST_F(FolderMonitorTest, EndOfFileEndsTheWatchSilently) {
    const ChildResult child = WatchInChild(
        0, [] {}, [] { fault_read.Fail(0); });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.log, ElementsAre(Started(), Exiting()));
}

TEST_F(FolderMonitorTest, EndOfTheWatchRemovesItAndClosesTheDescriptor) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        std::atomic<int> removed{0};
        const FaultScope scope(fault_inotify_rm_watch);
        fault_inotify_rm_watch.Replace([&](int fd, int descriptor) {
            removed = descriptor;
            return fault_inotify_rm_watch.Real(fd, descriptor);
        });
        const std::size_t descriptors = CountDescriptors();
        auto* const monitor = new FolderMonitor(folder.Path());
        static_cast<void>(monitor->Start(Report, 0));
        DeleteFile("a");
        const bool left = log.WaitFor(Exiting());
        return left && removed == 1 && CountDescriptors() == descriptors ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST_F(FolderMonitorTest, StopOfAFinishedMonitorDoesNothing) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        auto* const monitor = new FolderMonitor(folder.Path());
        static_cast<void>(monitor->Start(Report, 0));
        DeleteFile("a");
        const bool left = log.WaitFor(Exiting());
        monitor->Stop();
        return left ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("200", "a"), Exiting(), NotRunning()));
}

TEST_F(FolderMonitorTest, DestroyingAFinishedMonitorEndsTheProcess) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        FolderMonitor monitor(folder.Path());
        static_cast<void>(monitor.Start(Report, 0));
        DeleteFile("a");
        return log.WaitFor(Exiting()) ? 0 : 1;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("200", "a"), Exiting(), NotRunning()));
}

TEST_F(FolderMonitorTest, StartingAFinishedMonitorAgainEndsTheProcess) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        auto* const monitor = new FolderMonitor(folder.Path());
        static_cast<void>(monitor->Start(Report, 0));
        DeleteFile("a");
        if (log.WaitFor(Exiting())) {
            static_cast<void>(monitor->Start(Report, 0));
        }
        return 1;
    });
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.log, ElementsAre(Started(), Detected("200", "a"), Exiting(), Started()));
}

TEST_F(FolderMonitorTest, ExceptionFromTheCallbackEndsTheProcess) {
    CreateFile("a");
    const ChildResult child = RunInChild([&] {
        FolderMonitor monitor(folder.Path());
        static_cast<void>(
            monitor.Start([](const std::string&, unsigned int) { throw std::runtime_error("callback"); }, 0));
        DeleteFile("a");
        log.WaitFor(Exiting());
        return 1;
    });
    EXPECT_EQ(child.signal, SIGABRT);
}

// Stop

TEST_F(FolderMonitorTest, StopWhenNeverStartedOnlyTraces) {
    FolderMonitor monitor(folder.Path());
    monitor.Stop();
    EXPECT_THAT(log.Entries(), ElementsAre(NotRunning()));
}

TEST_F(FolderMonitorTest, StoppedMonitorCanBeStartedAgain) {
    CreateFile("a");
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, 0), StatusCode::Ok);
    monitor.Stop();
    monitor.Stop();
    DeleteFile("a");
    ASSERT_EQ(monitor.Start([](const std::string&, unsigned int) { ADD_FAILURE(); }, 0), StatusCode::Ok);
    monitor.Stop();
    EXPECT_THAT(log.Entries(),
                ElementsAre(Started(), Exiting(), Stopped(), NotRunning(), Started(), Exiting(), Stopped()));
}

TEST_F(FolderMonitorTest, DestructorStopsAWatchingMonitor) {
    {
        FolderMonitor monitor(folder.Path());
        ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    }
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Exiting(), Stopped()));
}

TEST_F(FolderMonitorTest, DescriptorIsNotClosedWhileTheThreadReadsIt) {
    // Closed by Stop before the thread had left, its number could be given to another file, and the read
    // would take that file's bytes.
    FolderMonitor monitor(folder.Path());
    std::latch reading(1);
    std::latch joining(1);
    bool openWhileRead = false;
    const FaultScope readScope(fault_read);
    fault_read.Replace([&](int fd, void*, size_t) -> ssize_t {
        reading.count_down();
        joining.wait();
        openWhileRead = fcntl(fd, F_GETFD) >= 0;
        errno = EBADF;
        return -1;
    });
    const FaultScope joinScope(fault_pthread_join);
    fault_pthread_join.Replace([&](pthread_t thread, void** result) {
        joining.count_down();
        return fault_pthread_join.Real(thread, result);
    });
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    reading.wait();
    monitor.Stop();
    EXPECT_TRUE(openWhileRead);
    // The read error of a stopping monitor is not worth a message.
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Exiting(), Stopped()));
}

TEST_F(FolderMonitorTest, StopFromInsideTheCallbackReturnsAtOnce) {
    CreateFile("a");
    CreateFile("b");
    std::latch done(1);
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(
                  [&](const std::string& name, unsigned int mask) {
                      EXPECT_EQ(name, "a");
                      EXPECT_EQ(mask, static_cast<unsigned int>(IN_DELETE));
                      monitor.Stop();
                      monitor.Stop();
                      done.count_down();
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    DeleteFile("b");
    done.wait();
    EXPECT_TRUE(log.WaitFor(Exiting()));
    EXPECT_THAT(log.Entries(),
                ElementsAre(Started(), Detected("200", "a"), Stopped(), NotRunning(), Exiting()));
}

TEST_F(FolderMonitorTest, StartedAgainFromInsideItsCallbackKeepsWatching) {
    // The thread of the first watch ends after the second one has begun, and must not end that one too.
    CreateFile("a");
    CreateFile("b");
    std::latch second(1);
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(
                  [&](const std::string&, unsigned int) {
                      monitor.Stop();
                      EXPECT_EQ(monitor.Start(
                                    [&](const std::string& name, unsigned int) {
                                        EXPECT_EQ(name, "b");
                                        monitor.Stop();
                                        second.count_down();
                                    },
                                    0),
                                StatusCode::Ok);
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    ASSERT_TRUE(log.WaitFor(Exiting()));
    DeleteFile("b");
    second.wait();
    EXPECT_TRUE(WaitUntil([&] { return log.Count(Exiting()) == 2; }));
}

TEST_F(FolderMonitorTest, MonitorMayBeDestroyedFromInsideItsCallback) {
    CreateFile("a");
    std::latch done(1);
    auto monitor = std::make_unique<FolderMonitor>(folder.Path());
    const std::string captured = "lives in the callback";
    ASSERT_EQ(monitor->Start(
                  [&, captured](const std::string& name, unsigned int) {
                      monitor.reset();
                      EXPECT_EQ(name, "a");
                      EXPECT_EQ(captured, "lives in the callback");
                      done.count_down();
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    done.wait();
    EXPECT_TRUE(log.WaitFor(Exiting()));
    EXPECT_THAT(log.Entries(), ElementsAre(Started(), Detected("200", "a"), Stopped(), Exiting()));
}

// What the callback uses may be freed when the owner's Stop has returned, or its destructor.
TEST_F(FolderMonitorTest, StopWaitsForACallbackThatHasStoppedTheWatchItself) {
    CreateFile("a");
    StoppingCallback callback;
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([&](const std::string&, unsigned int) { callback.Run(monitor); }, 0),
              StatusCode::Ok);
    DeleteFile("a");
    callback.ExpectToBeAwaitedBy([&] { monitor.Stop(); });
    EXPECT_THAT(log.Entries(),
                ElementsAre(Started(), Detected("200", "a"), Stopped(), NotRunning(), Exiting()));
}

TEST_F(FolderMonitorTest, DestructorWaitsForACallbackThatHasStoppedTheWatchItself) {
    CreateFile("a");
    StoppingCallback callback;
    std::optional<FolderMonitor> monitor(folder.Path());
    ASSERT_EQ(monitor->Start([&](const std::string&, unsigned int) { callback.Run(*monitor); }, 0),
              StatusCode::Ok);
    DeleteFile("a");
    callback.ExpectToBeAwaitedBy([&] { monitor.reset(); });
}

TEST_F(FolderMonitorTest, StopWaitsForTheCallbackOfAFormerWatchToo) {
    CreateFile("a");
    StoppingCallback callback;
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([&](const std::string&, unsigned int) { callback.Run(monitor); }, 0),
              StatusCode::Ok);
    DeleteFile("a");
    callback.WaitUntilStopped();
    ASSERT_EQ(monitor.Start(IgnoreEvent, 0), StatusCode::Ok);
    callback.ExpectToBeAwaitedBy([&] { monitor.Stop(); });
    EXPECT_EQ(log.Count(Exiting()), 2U);
}

TEST_F(FolderMonitorTest, EveryStopWaitsForTheCallback) {
    CreateFile("a");
    StoppingCallback callback;
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start([&](const std::string&, unsigned int) { callback.Run(monitor); }, 0),
              StatusCode::Ok);
    DeleteFile("a");
    callback.WaitUntilStopped();
    std::thread other([&] { monitor.Stop(); });
    callback.ExpectToBeAwaitedBy([&] { monitor.Stop(); });
    other.join();
}

TEST_F(FolderMonitorTest, StopInsideACallbackDoesNotWaitForAFormerOne) {
    CreateFile("a");
    CreateFile("b");
    std::latch second(1);
    FolderMonitor monitor(folder.Path());
    ASSERT_EQ(monitor.Start(
                  [&](const std::string&, unsigned int) {
                      monitor.Stop();
                      EXPECT_EQ(monitor.Start(
                                    [&](const std::string&, unsigned int) {
                                        monitor.Stop();
                                        second.count_down();
                                    },
                                    0),
                                StatusCode::Ok);
                      DeleteFile("b");
                      second.wait();
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    second.wait();
    monitor.Stop();
    EXPECT_EQ(log.Count(Exiting()), 2U);
}

TEST_F(FolderMonitorTest, StopWaitsForARunningCallback) {
    CreateFile("a");
    std::latch inCallback(1);
    std::latch stopping(1);
    std::atomic<bool> finished{false};
    FolderMonitor monitor(folder.Path());
    const FaultScope scope(fault_pthread_join);
    fault_pthread_join.Replace([&](pthread_t thread, void** result) {
        stopping.count_down();
        return fault_pthread_join.Real(thread, result);
    });
    ASSERT_EQ(monitor.Start(
                  [&](const std::string&, unsigned int) {
                      inCallback.count_down();
                      stopping.wait();
                      monitor.Stop();  // beside the other one, without waiting for it
                      finished = true;
                  },
                  0),
              StatusCode::Ok);
    DeleteFile("a");
    inCallback.wait();
    monitor.Stop();
    EXPECT_TRUE(finished);
    EXPECT_EQ(log.Count(Exiting()), 1U);
    EXPECT_EQ(log.Count(Stopped()), 2U);
}

TEST_F(FolderMonitorTest, StopsAndEventsFromManyThreadsDoNotDisturbEachOther) {
    FolderMonitor monitor(folder.Path());
    for (int round = 0; round < 20; ++round) {
        CreateFile("a");
        ASSERT_EQ(monitor.Start([&](const std::string&, unsigned int) { monitor.Stop(); }, 0),
                  StatusCode::Ok);
        std::latch together(4);
        std::array<std::thread, 3> threads;
        for (std::thread& thread : threads) {
            thread = std::thread([&] {
                together.arrive_and_wait();
                monitor.Stop();
            });
        }
        together.arrive_and_wait();
        DeleteFile("a");
        for (std::thread& thread : threads) {
            thread.join();
        }
        monitor.Stop();
    }
}

TEST_F(FolderMonitorTest, PathMayBeAFile) {
    CreateFile("a");
    const std::string path = folder / "a";
    const ChildResult child = RunInChild([&] {
        auto* const monitor = new FolderMonitor(path);
        static_cast<void>(monitor->Start(Report, 0));
        DeleteFile("a");
        return log.WaitFor(Trace("[ThreadLoop] FolderMonitor thread exiting for " + path)) ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.error, "'' 400\n");
}

}  // namespace
}  // namespace mwl::Utilities
