#include <tern/threading/thread_pool_thread.h>

#include <tern/foundation/log.h>

#include <chrono>
#include <exception>
#include <future>
#include <memory>
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

// The watcher may have to start a thread of its own, which the system may refuse. Thrown on the worker that
// would end the process, so it is handed to the caller.
void Thread::Start() {
    struct Refusal {
        std::promise<void> isKnown;
        std::exception_ptr exception;
    };
    // Owned by both sides: this one may be gone before the other has returned from set_value.
    const auto refusal = std::make_shared<Refusal>();
    mThread = std::thread([this, refusal] {
        try {
            StartWatch(WATCH_PERIOD);
        } catch (...) {
            refusal->exception = std::current_exception();
        }
        const bool isWatched = refusal->exception == nullptr;
        refusal->isKnown.set_value();
        if (isWatched) {
            RunLoop();
        }
    });
    refusal->isKnown.get_future().wait();
    if (refusal->exception != nullptr) {
        Join();
        std::rethrow_exception(refusal->exception);
    }
}

void Thread::Loop() {
    StartWatch(WATCH_PERIOD);
    RunLoop();
}

void Thread::RunLoop() {
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
