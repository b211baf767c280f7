#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace mwl::Utilities {

/// Waits on a thread of its own for one event in or on a path (inotify(7)), calls a callback for the event,
/// and ends.
///
///     FolderMonitor monitor("/var/lib/device/inbox");
///     monitor.Start([&](const std::string& name, unsigned int mask) { queue.WakeUp(); }, IN_CLOSE_WRITE);
///     ...
///     monitor.Stop();
///
/// | state | how it is reached | Start | Stop | destructor |
/// |---|---|---|---|---|
/// | idle | constructed, stopped, start failed | starts | trace message only | fine |
/// | watching | `Start` gave Ok | no-op, Ok | ends the thread | ends the thread |
/// | finished | callback returned, or read error | ends the process | trace message only | ends the process |
///
/// The last row is fixed by the interface: a thread that has finished by itself is never joined, and the
/// destruction of a joinable std::thread, or an assignment to it, calls std::terminate. So do one of these:
/// - stop a monitor while it is watching;
/// - call `Stop` from inside the callback, which leads to idle;
/// - let the monitor live as long as the process.
///
/// Thread-safe, except that the destructor must not run beside another operation than a `Stop` called from
/// inside the callback.
///
/// The callback runs on the watching thread. It may call any operation of its own monitor and may destroy it
/// (after `Stop`, or by the destructor alone). It may call `Start` again after `Stop`. An exception that
/// leaves it ends the process. It is kept until the next `Start` that succeeds or the end of the monitor.
///
/// When `Stop` or the destructor has returned, no callback runs and none is going to, whoever stopped the
/// watch: objects that the callback uses may be freed. This does not hold when the callback itself made the
/// call.
/// REQUIRES: the caller of `Stop` or of the destructor holds nothing that the callback waits for.
///
/// A forked child has its parent's monitor without the thread (fork(2)), and finds it idle in any state; the
/// parent's watch goes on. This does not hold when another thread was in an operation of it at that moment.
///
/// The watch is on the file or folder that had the path at `Start`. When it has been removed, or its file
/// system unmounted, and `mask` did not ask for it (IN_DELETE_SELF, IN_UNMOUNT), the monitor keeps watching
/// for something new at the path: it looks every 100 ms, and events between two looks are missed. A warning
/// says that the path is gone, an info line that it is watched again. A folder that was moved away, or that a
/// process still holds open, is not gone: the watch stays on it.
class TERN_API FolderMonitor {
public:
    /// Keeps the path of the file or folder to watch; starts nothing. The path need not exist yet.
    explicit FolderMonitor(const std::string& path);

    /// `Stop()`; then ends the process (std::terminate) when the watching thread had finished by itself.
    ~FolderMonitor();

    FolderMonitor(const FolderMonitor&) = delete;
    FolderMonitor& operator=(const FolderMonitor&) = delete;

    /// Begins to watch. The first event that shares a bit with `mask` calls `callback` once with the name of
    /// the entry in the folder, empty when the event concerns the watched path itself, and with the event's
    /// own bits as the kernel reported them (IN_ISDIR included). Events are looked for every 100 ms.
    ///
    /// `mask` holds the IN_ constants of inotify_add_watch(2); 0 stands for IN_MOVED_FROM | IN_DELETE |
    /// IN_DELETE_SELF: something was removed.
    ///
    /// - Ok: watching; or it was watching already, and then `callback` and `mask` are dropped.
    /// - InvalidArgument: `callback` is empty.
    /// - IoError: inotify_init1(2) or inotify_add_watch(2) refused, for example a path that does not exist.
    ///
    /// Does not block. A failure leaves the monitor as it was. Throws std::system_error when the system
    /// refuses a thread; the monitor is idle then.
    StatusCode Start(std::function<void(const std::string&, unsigned int)> callback, unsigned int mask);

    /// Ends the watch. Blocks until the watching thread has left, usually not more than 100 ms, or as long as
    /// a running callback takes, also one that has called `Stop` itself. From inside the callback it returns
    /// immediately, with the watch removed; the thread leaves when the callback returns. Harmless when the
    /// monitor is not watching.
    void Stop();

private:
    using Callback = std::function<void(const std::string& name, unsigned int mask)>;
    struct Watch;

    const std::string mPath;

    std::mutex mMutex;  ///< guards what follows; never held while user code runs
    std::thread mThread;
    std::shared_ptr<Watch> mWatch;  ///< the latest watch, shared with its thread; null before the first
};

}  // namespace mwl::Utilities
