#pragma once

// What the tests of FolderMonitor share: a watched folder, and the system calls that they make fail. Include
// it in the one source of a test program.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/inotify.h>
#include <tern/utilities/folder_monitor.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <latch>

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

inline const std::string LOGGER = "Utilities::FolderMonitor";

inline LogEntry Error(const std::string& text) {
    return tern::test::Error(LOGGER, text);
}
inline LogEntry Info(const std::string& text) {
    return tern::test::Info(LOGGER, text);
}
inline LogEntry Trace(const std::string& text) {
    return tern::test::Trace(LOGGER, text);
}

inline void IgnoreEvent(const std::string&, unsigned int) {}

/// What the monitor reads.
inline std::string Record(std::uint32_t mask, const std::string& name, std::uint32_t paddedLength) {
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

}  // namespace mwl::Utilities
