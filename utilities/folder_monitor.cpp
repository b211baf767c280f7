#include <tern/utilities/folder_monitor.h>

#include <sys/inotify.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <latch>
#include <optional>
#include <utility>
#include <vector>

#include "foundation/error_text.h"
#include "foundation/unique_fd.h"
#include "platform/static_text.h"

namespace mwl::Utilities {

namespace {

const StaticText LOGGER("Utilities::FolderMonitor");

constexpr std::uint32_t DEFAULT_MASK = IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF;
/// The latency of an event and of Stop.
constexpr std::chrono::milliseconds POLL_PERIOD{100};
constexpr std::size_t BUFFER_SIZE = 4096;

struct Event {
    std::string name;
    std::uint32_t mask;
};

/// The first of the records in `bytes` that shares a bit with `mask`.
std::optional<Event> FindEvent(const char* bytes, std::size_t size, std::uint32_t mask) {
    inotify_event header;
    while (size >= sizeof header) {
        memcpy(&header, bytes, sizeof header);
        bytes += sizeof header;
        size -= sizeof header;
        if (header.len > size) {
            break;
        }
        if ((header.mask & mask) != 0) {
            // The kernel fills the name up with null bytes.
            return Event{std::string(bytes, strnlen(bytes, header.len)), header.mask};
        }
        bytes += header.len;
        size -= header.len;
    }
    return std::nullopt;
}

/// A watching thread, as seen by the threads that wait for its end.
struct WatchThread {
    std::thread::id id;  ///< guarded by the monitor's mutex
    /// Open when the thread touches nothing of the application's any more, the callback included.
    std::latch left{1};

    bool IsThisOne() const { return id == std::this_thread::get_id() && !left.try_wait(); }
};

using WatchThreads = std::vector<std::shared_ptr<WatchThread>>;

}  // namespace

/// One run of the monitor, from Start to the end of its thread, with everything that the thread touches. The
/// thread owns it too: stopped from its own callback it is detached and may outlive the monitor, and a watch
/// that has been started meanwhile must not be ended by it.
struct FolderMonitor::Watch {
    /// Takes the callback last, when nothing can throw any more: a failure leaves it with the caller.
    Watch(std::string watchedPath, std::uint32_t eventMask, WatchThreads watchThreads, UniqueFd watchInotify,
          int descriptor, Callback&& eventCallback)
        : path(std::move(watchedPath)),
          mask(eventMask),
          threads(std::move(watchThreads)),
          callback(std::move(eventCallback)),
          inotify(std::move(watchInotify)),
          watchDescriptor(descriptor) {}
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    void ThreadLoop();
    void Cleanup();
    /// A forked child has what its parent's monitor had, except the threads: it lets go of both, and is idle.
    /// What is returned is to be released without the lock.
    __attribute__((visibility("hidden"))) static std::shared_ptr<Watch> ForgetParents(
        std::shared_ptr<Watch>& watch, std::thread& watching);

    const std::string path;
    const std::uint32_t mask;
    /// Former threads, stopped from inside their callbacks, that may still be in them; behind them its own.
    const WatchThreads threads;
    const Callback callback;
    std::atomic<bool> active{true};
    std::atomic<bool> stopRequested{false};

private:
    void HandleRecords(const char* bytes, std::size_t size);
    void WatchAgain();

    // The watching thread's alone, as soon as it runs.
    UniqueFd inotify;
    int watchDescriptor;   ///< -1 while there is nothing at the path
    int refusal = ENOENT;  ///< why there is no watch, as reported last

    const pid_t process = getpid();
};

void FolderMonitor::Watch::ThreadLoop() {
    std::array<char, BUFFER_SIZE> buffer{};
    while (!stopRequested) {
        const ssize_t count = read(inotify.Get(), buffer.data(), buffer.size());
        if (count > 0) {
            HandleRecords(buffer.data(), static_cast<std::size_t>(count));
        } else if (count == 0) {
            break;
        } else if (errno == EAGAIN) {
            std::this_thread::sleep_for(POLL_PERIOD);
            if (watchDescriptor < 0) {
                WatchAgain();
            }
        } else {
            const int error = errno;
            if (!stopRequested) {
                TERN_LOG_ERROR(LOGGER, "[%s] inotify read error: %s", "ThreadLoop", ErrorText(error));
            }
            break;
        }
    }
    Cleanup();
    TERN_LOG_TRACE(LOGGER, "[%s] FolderMonitor thread exiting for %s", "ThreadLoop", path.c_str());
}

void FolderMonitor::Watch::HandleRecords(const char* bytes, std::size_t size) {
    if (const std::optional<Event> event = FindEvent(bytes, size, mask)) {
        TERN_LOG_TRACE(LOGGER, "[%s] Detected fs event (mask=0x%x) for '%s' in %s", "ThreadLoop", event->mask,
                       event->name.c_str(), path.c_str());
        callback(event->name, event->mask);
        stopRequested = true;
    } else if (FindEvent(bytes, size, IN_IGNORED)) {
        // The kernel watches what has the path, not the path: what comes to be there next is not watched.
        watchDescriptor = -1;
        TERN_LOG_WARNING(LOGGER, "[%s] %s is gone, it is watched again when it is back", "ThreadLoop",
                         path.c_str());
        WatchAgain();
    }
}

void FolderMonitor::Watch::WatchAgain() {
    watchDescriptor = inotify_add_watch(inotify.Get(), path.c_str(), mask);
    const int error = errno;
    if (watchDescriptor >= 0) {
        TERN_LOG_INFO(LOGGER, "[%s] %s is back, watched again (wd=%d)", "ThreadLoop", path.c_str(),
                      watchDescriptor);
        refusal = ENOENT;
    } else if (error != refusal) {
        TERN_LOG_ERROR(LOGGER, "[%s] inotify_add_watch failed for %s: %s", "ThreadLoop", path.c_str(),
                       ErrorText(error));
        refusal = error;
    }
}

/// On the watching thread, the only one that uses the descriptor.
void FolderMonitor::Watch::Cleanup() {
    if (inotify && watchDescriptor >= 0) {
        // Refused when the path has been deleted, because the kernel has removed the watch then.
        static_cast<void>(inotify_rm_watch(inotify.Get(), watchDescriptor));
    }
    // In this order: who finds it active in a forked child has a descriptor that this thread had not touched.
    active = false;
    inotify.Reset();
}

std::shared_ptr<FolderMonitor::Watch> FolderMonitor::Watch::ForgetParents(std::shared_ptr<Watch>& watch,
                                                                          std::thread& watching) {
    if (watch == nullptr || watch->process == getpid()) {
        return nullptr;
    }
    // Neither joined nor detached: a thread of the child's own may have its number by now.
    std::construct_at(&watching);
    watch->stopRequested = true;
    // The watch itself is the parent's too, and not removed. A thread that was about to end closes its
    // descriptor by itself: forked in between, the child keeps one.
    if (watch->active) {
        watch->inotify.Reset();
    }
    return std::exchange(watch, nullptr);
}

FolderMonitor::FolderMonitor(const std::string& path) : mPath(path) {}

FolderMonitor::~FolderMonitor() {
    // A thread that has finished by itself is still joinable here, and ~thread ends the process: as stated in
    // the header.
    Stop();
}

StatusCode FolderMonitor::Start(std::function<void(const std::string&, unsigned int)> callback,
                                unsigned int mask) {
    // Released after the lock, also when something throws: what their callbacks hold is user code.
    std::shared_ptr<Watch> parents;
    std::shared_ptr<Watch> former;
    std::shared_ptr<Watch> watch;
    const std::lock_guard lock(mMutex);
    parents = Watch::ForgetParents(mWatch, mThread);
    if (mWatch != nullptr && mWatch->active) {
        TERN_LOG_INFO(LOGGER, "[%s] FolderMonitor already active on %s", "Start", mPath.c_str());
        return StatusCode::Ok;
    }
    if (!callback) {
        TERN_LOG_ERROR(LOGGER, "[%s] FolderMonitor start failed: empty callback", "Start");
        return StatusCode::InvalidArgument;
    }
    const std::uint32_t effectiveMask = mask == 0 ? DEFAULT_MASK : mask;
    UniqueFd fd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!fd) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "[%s] inotify_init1 failed: %s", "Start", ErrorText(error));
        return StatusCode::IoError;
    }
    const int watchDescriptor = inotify_add_watch(fd.Get(), mPath.c_str(), effectiveMask);
    if (watchDescriptor < 0) {
        const int error = errno;
        TERN_LOG_ERROR(LOGGER, "[%s] inotify_add_watch failed for %s: %s", "Start", mPath.c_str(),
                       ErrorText(error));
        return StatusCode::IoError;
    }
    TERN_LOG_INFO(LOGGER, "[%s] Started FolderMonitor on %s (wd=%d)", "Start", mPath.c_str(),
                  watchDescriptor);
    WatchThreads threads;
    if (mWatch != nullptr) {
        threads = mWatch->threads;
        std::erase_if(threads, [](const auto& earlier) { return earlier->left.try_wait(); });
    }
    threads.push_back(std::make_shared<WatchThread>());
    const std::shared_ptr<WatchThread> thread = threads.back();
    watch = std::make_shared<Watch>(mPath, effectiveMask, std::move(threads), std::move(fd), watchDescriptor,
                                    std::move(callback));
    // Ends the process when a finished thread has not been joined. A callback that calls back before this
    // assignment waits for the lock.
    mThread = std::thread([watch, thread]() mutable {
        watch->ThreadLoop();
        // Before it is reported: what the callback holds may be destroyed with it.
        watch.reset();
        thread->left.count_down();
    });
    thread->id = mThread.get_id();
    former = std::exchange(mWatch, watch);
    return StatusCode::Ok;
}

void FolderMonitor::Stop() {
    std::shared_ptr<Watch> parents;  // released after the lock, as in Start
    std::unique_lock lock(mMutex);
    parents = Watch::ForgetParents(mWatch, mThread);
    const std::shared_ptr<Watch> watch = mWatch;
    if (watch == nullptr) {
        TERN_LOG_TRACE(LOGGER, "[%s] Folder monitor stop request when not running", "Stop");
        return;
    }
    const bool isActive = watch->active;
    const bool isOnItsThread = watch->threads.back()->IsThisOne();
    const bool isInsideCallback = std::any_of(watch->threads.begin(), watch->threads.end(),
                                              [](const auto& thread) { return thread->IsThisOne(); });
    std::thread thread;
    if (isActive) {
        watch->stopRequested = true;
        thread = std::move(mThread);
    }
    lock.unlock();

    if (!isActive) {
        TERN_LOG_TRACE(LOGGER, "[%s] Folder monitor stop request when not running", "Stop");
    } else if (isOnItsThread) {
        watch->Cleanup();
        if (thread.joinable()) {
            thread.detach();
        }
    } else if (thread.joinable()) {
        thread.join();
    }
    // Also of a watch that its own callback has stopped: the owner frees what the callback uses next.
    for (std::size_t i = 0; !isInsideCallback && i < watch->threads.size(); ++i) {
        watch->threads[i]->left.wait();
    }
    if (isActive) {
        TERN_LOG_INFO(LOGGER, "[%s] Stopped FolderMonitor on %s", "Stop", watch->path.c_str());
    }
}

}  // namespace mwl::Utilities
