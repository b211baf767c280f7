#include <tern/foundation/log.h>
#include <tern/threading/thread_pool_thread.h>

#include <chrono>
#include <string>
#include <utility>

#include "platform/static_text.h"

namespace mwl::Threading::ThreadPool {

namespace {

const StaticText LOGGER("ThreadPool::Thread");

/// A job may run twice as long before the process is killed.
constexpr std::chrono::milliseconds WATCH_PERIOD{60000};

}  // namespace

Thread::Thread(ThreadsWatcherInterface& watcher, std::function<void(std::function<void()>)> loop,
               SignalsInterface& signals, unsigned int index)
    : ThreadWatched(watcher, "ThreadPool::Thread" + std::to_string(index)),
      mLoop(std::move(loop)),
      mSignals(signals) {}

Thread::~Thread() {
    Join();
}

void Thread::Start() {
    mThread = std::thread([this] { Loop(); });
}

void Thread::Loop() {
    StartWatch(WATCH_PERIOD);
    mLoop([this] { NotifyWork(); });
    StopWatch();
    TERN_LOG_TRACE(LOGGER, "%s: Thread %s finished", "Loop", GetName().c_str());
}

void Thread::SendSignal(int signal) {
    if (mThread.joinable()) {
        static_cast<void>(mSignals.SendSignal(mThread.native_handle(), signal));
    }
}

void Thread::Join() {
    if (mThread.joinable()) {
        mThread.join();
        TERN_LOG_TRACE(LOGGER, "%s: Thread %s joined", "Join", GetName().c_str());
    }
}

}  // namespace mwl::Threading::ThreadPool
