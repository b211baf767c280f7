#include <sys/inotify.h>
#include <tern/foundation/log.h>
#include <tern/utilities/folder_monitor.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <utility>

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

}  // namespace

/// One run of the monitor, from Start to the end of its thread, with everything that the thread touches. The
/// thread owns it too: stopped from its own callback it is detached and may outlive the monitor, and a watch
/// that has been started meanwhile must not be ended by it.
struct FolderMonitor::Watch {
    /// Takes the callback last, when nothing can throw any more: a failure leaves it with the caller.
    Watch(std::string watchedPath, Callback&& eventCallback, UniqueFd inotify, int descriptor)
        : path(std::move(watchedPath)),
          callback(std::move(eventCallback)),
          inotifyFd(inotify.Release()),
          watchDescriptor(descriptor) {}
    ~Watch() { Cleanup(); }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    void ThreadLoop(std::uint32_t mask);
    void Cleanup();
    /// The descriptor, once: whoever takes it closes it.
    UniqueFd TakeInotifyFd() { return UniqueFd(inotifyFd.exchange(-1)); }

    const std::string path;
    const Callback callback;
    std::atomic<bool> active{true};
    std::atomic<bool> stopRequested{false};
    std::atomic<int> inotifyFd;
    const int watchDescriptor;
};

void FolderMonitor::Watch::ThreadLoop(std::uint32_t mask) {
    std::array<char, BUFFER_SIZE> buffer{};
    while (!stopRequested) {
        // The number stays ours while it is read: Stop closes it only after this thread has left.
        const int fd = inotifyFd;
        if (fd < 0) {
            break;  // GCOVR_EXCL_LINE: by chance, when Stop falls between the two reads
        }
        const ssize_t count = read(fd, buffer.data(), buffer.size());
        if (count > 0) {
            const std::optional<Event> event =
                FindEvent(buffer.data(), static_cast<std::size_t>(count), mask);
            if (event) {
                TERN_LOG_TRACE(LOGGER, "[%s] Detected fs event (mask=0x%x) for '%s' in %s", "ThreadLoop",
                               event->mask, event->name.c_str(), path.c_str());
                callback(event->name, event->mask);
                stopRequested = true;
            }
        } else if (count == 0) {
            break;
        } else if (errno == EAGAIN) {
            std::this_thread::sleep_for(POLL_PERIOD);
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

void FolderMonitor::Watch::Cleanup() {
    const UniqueFd fd = TakeInotifyFd();
    if (fd) {
        // Refused when the path has been deleted, as the kernel has removed the watch then.
        static_cast<void>(inotify_rm_watch(fd.Get(), watchDescriptor));
    }
    active = false;
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
    std::shared_ptr<Watch> former;
    std::shared_ptr<Watch> watch;
    const std::lock_guard lock(mMutex);
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
    watch = std::make_shared<Watch>(mPath, std::move(callback), std::move(fd), watchDescriptor);
    // Ends the process when a finished thread has not been joined. A callback that calls back before this
    // assignment waits for the lock.
    mThread = std::thread([watch, effectiveMask] { watch->ThreadLoop(effectiveMask); });
    former = std::exchange(mWatch, watch);
    return StatusCode::Ok;
}

void FolderMonitor::Stop() {
    std::unique_lock lock(mMutex);
    const std::shared_ptr<Watch> watch = mWatch;
    if (watch == nullptr || !watch->active) {
        TERN_LOG_TRACE(LOGGER, "[%s] Folder monitor stop request when not running", "Stop");
        return;
    }
    watch->stopRequested = true;
    UniqueFd fd = watch->TakeInotifyFd();
    std::thread thread = std::move(mThread);
    lock.unlock();

    if (thread.get_id() == std::this_thread::get_id()) {
        thread.detach();
    } else if (thread.joinable()) {
        thread.join();
    }
    // Only now: closed while the thread reads, the number could already be another file's.
    fd.Reset();
    watch->active = false;
    // The watch's path: a callback's Stop is waited for by nobody, and the monitor may be gone by now.
    TERN_LOG_INFO(LOGGER, "[%s] Stopped FolderMonitor on %s", "Stop", watch->path.c_str());
}

}  // namespace mwl::Utilities
