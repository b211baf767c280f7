#pragma once

#include <tern/foundation/api.h>
#include <tern/threading/signals_interface.h>
#include <tern/threading/thread_watched.h>

#include <functional>
#include <thread>

namespace mwl::Threading::ThreadPool {

/// One worker of a thread pool: a thread that is watched, with a period of 60 s, while it runs the loop given
/// to it. Its watched name is "ThreadPool::Thread" and its index.
///
/// `Loop()` runs on the worker, the rest is called by the owner, one thread at a time. Owned by the pool; the
/// destructor joins. Watcher and signals outlive it.
class TERN_API Thread : public ThreadWatched {
public:
    /// `loop` is what the thread runs; it is given the callback by which it reports that it is alive.
    Thread(ThreadsWatcherInterface& watcher, std::function<void(std::function<void()>)> loop,
           SignalsInterface& signals, unsigned int index);
    ~Thread() override;

    /// Creates the thread and returns when the watcher has it; it may be started again after `Join()`.
    /// Throws std::system_error when the system refuses the thread, or the one that the watcher needs for its
    /// first registration, and whatever else the watcher throws: there is no thread then.
    /// REQUIRES: it is not running, or the process ends (std::terminate).
    void Start();
    /// The body of the thread: registers with the watcher, runs the loop, leaves the watcher. An exception in
    /// it ends the process; an empty loop throws std::bad_function_call.
    void Loop();
    /// Signals the thread if there is one (pthread_kill(3)); the result is ignored. Does not block.
    void SendSignal(int signal);
    /// Waits, without limit, for the end of the thread, if there is one. Not to be called on the thread
    /// itself.
    void Join();

private:
    void RunLoop();

    std::thread mThread;
    const std::function<void(std::function<void()>)> mLoop;
    SignalsInterface& mSignals;
};

}  // namespace mwl::Threading::ThreadPool
