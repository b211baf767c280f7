#pragma once

#include <cxxabi.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <tern/foundation/log.h>
#include <tern/foundation/status_code.h>
#include <tern/threading/thread_pool.h>
#include <tern/typed/error.h>
#include <tern/typed/handler.h>
#include <tern/typed/loop_wait.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <coroutine>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <utility>

namespace mwl::Typed {

namespace Detail {

/// Logs (error) the exception that is handled now.
inline void LogThrownOnPool(const char* text) noexcept {
    struct Logger {
        static const char* c_str() noexcept { return "Typed"; }
    };
    const char* const name = abi::__cxa_current_exception_type()->name();
    struct Release {
        void operator()(char* readable) const noexcept { std::free(readable); }
    };
    const std::unique_ptr<char, Release> readable(abi::__cxa_demangle(name, nullptr, nullptr, nullptr));
    TERN_LOG_ERROR(Logger(), "A job on a pool threw %s: %s", readable != nullptr ? readable.get() : name,
                   text);
}

/// The state that a coroutine shares with its job: the function, and its outcome.
template <class F, class Value>
class PoolJob {
public:
    explicit PoolJob(F&& function) : mEvent(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), mError(errno) {
        if (mEvent >= 0) {
            mFunction.emplace(std::move(function));
        }
    }
    PoolJob(const PoolJob&) = delete;
    PoolJob& operator=(const PoolJob&) = delete;
    ~PoolJob() {
        if (mEvent >= 0) {
            close(mEvent);
        }
    }

    /// Ready for reading once the job is done or dropped; negative when there was none to be had.
    int GetEvent() const noexcept { return mEvent; }
    /// Why there is none.
    StatusCode GetError() const noexcept { return mw::tern::MakeStatusCodeFromErrno(mError); }

    /// Worker: runs the function, if somebody waits for it.
    void Run() {
        if (!Go(State::Queued, State::Running)) {
            return;
        }
        Call();
        mFunction.reset();
        if (Go(State::Running, State::Done)) {
            Wake();
        } else {
            mOutcome.reset();  // nobody wants it
        }
    }
    /// The queue lets it go; nothing when it has run.
    void Drop() noexcept {
        if (Go(State::Queued, State::Dropped)) {
            Wake();
        }
    }
    /// D-Bus thread: nobody waits any more. A function that has not begun will not run.
    void Abandon() noexcept {
        if (Go(State::Queued, State::Abandoned)) {
            mFunction.reset();
        } else {
            Go(State::Running, State::Abandoned);
        }
    }
    /// D-Bus thread, once the event is there: the outcome, once.
    Outcome<Value> Take() {
        if (mState.load(std::memory_order_acquire) == State::Dropped) {
            return Error::Failed("the pool dropped the job");
        }
        if (mOutcome.has_value()) {
            return std::move(*mOutcome);
        }
        if (mIsOutOfMemory) {
            return StatusCode::OutOfMemory;
        }
        return Error::Failed("the job failed internally");
    }

private:
    enum class State : std::uint8_t {
        Queued,
        Running,
        Done,       ///< the outcome is the D-Bus thread's
        Dropped,    ///< without an outcome
        Abandoned,  ///< nobody waits; what there is is the job's
    };

    bool Go(State from, State to) noexcept {
        return mState.compare_exchange_strong(from, to, std::memory_order_acq_rel);
    }
    void Wake() const noexcept {
        // Cannot fail, because nothing else is in it.
        static_cast<void>(eventfd_write(mEvent, 1));
    }
    void Call() {
        try {
            try {
                if constexpr (std::is_void_v<std::invoke_result_t<F&>>) {
                    std::invoke(*mFunction);
                    mOutcome.emplace();
                } else {
                    mOutcome.emplace(std::invoke(*mFunction));
                }
            } catch (const Error& error) {
                mOutcome.emplace(error);
            }
        } catch (const std::bad_alloc& error) {
            LogThrownOnPool(error.what());
            mIsOutOfMemory = true;
        } catch (const std::exception& error) {
            LogThrownOnPool(error.what());
        } catch (...) {
            if (std::current_exception() == nullptr) {
                // None: the thread is ended, as pthread_cancel(3) does, and has to be.
                if (Go(State::Running, State::Dropped)) {
                    Wake();
                }
                throw;
            }
            LogThrownOnPool("no text");
        }
    }

    const int mEvent;
    const int mError;
    std::atomic<State> mState{State::Queued};
    /// The worker's while it runs.
    std::optional<F> mFunction;
    std::optional<Outcome<Value>> mOutcome;
    bool mIsOutOfMemory = false;
};

/// The job as the pool's queue has it.
template <class J>
class QueuedJob {
public:
    explicit QueuedJob(std::shared_ptr<J> job) noexcept : mJob(std::move(job)) {}
    QueuedJob(QueuedJob&&) noexcept = default;
    QueuedJob& operator=(QueuedJob&&) = delete;
    ~QueuedJob() {
        if (mJob != nullptr) {
            mJob->Drop();
        }
    }
    void operator()() const { mJob->Run(); }

private:
    std::shared_ptr<J> mJob;
};

/// A function with its arguments, which it is called with once.
template <class F, class... A>
class BoundCall {
public:
    using Returned = std::invoke_result_t<F, A...>;

    template <class G, class... B>
    explicit BoundCall(std::in_place_t, G&& function, B&&... arguments)
        : mParts(std::forward<G>(function), std::forward<B>(arguments)...) {}
    Returned operator()() {
        return std::apply(
            [](F& function, A&... argument) -> Returned {
                return std::invoke(std::move(function), std::move(argument)...);
            },
            mParts);
    }

private:
    std::tuple<F, A...> mParts;
};

/// A co_await of a job.
template <class F>
class PoolAwaiter {
public:
    using Result = typename ResultOf<std::remove_cv_t<typename F::Returned>>::Value;

    PoolAwaiter(std::shared_ptr<ReplyState> state, Threading::ThreadPool::ThreadPool& pool,
                F& function) noexcept
        : mState(std::move(state)), mPool(pool), mFunction(function) {}
    PoolAwaiter(const PoolAwaiter&) = delete;
    PoolAwaiter& operator=(const PoolAwaiter&) = delete;
    ~PoolAwaiter() {
        if (mJob != nullptr) {
            mJob->Abandon();
        }
    }

    bool await_ready() const noexcept { return false; }
    /// Where it cannot be queued the coroutine goes on immediately.
    bool await_suspend(std::coroutine_handle<> waiting) {
        try {
            mJob = std::make_shared<Job>(std::move(mFunction));
            if (mJob->GetEvent() < 0) {
                return Refuse(mJob->GetError());
            }
            mWait.emplace(mState);
            mWait->SetDescriptor(mJob->GetEvent(), EPOLLIN);
            if (!mWait->Begin(waiting)) {
                return false;
            }
            mPool.QueueUnique(QueuedJob<Job>(mJob));
            return true;
        } catch (const std::bad_alloc&) {
            return Refuse(StatusCode::OutOfMemory);
        } catch (...) {
            Refuse(StatusCode::Failure);
            throw;
        }
    }
    Outcome<Result> await_resume() {
        const auto job = std::exchange(mJob, nullptr);
        const LoopWait::End end = mWait.has_value() ? mWait->GetEnd() : LoopWait::End::None;
        if (end == LoopWait::End::Ready) {
            return job->Take();
        }
        if (job != nullptr) {
            job->Abandon();
        }
        switch (end) {
            case LoopWait::End::Stop:
                return StatusCode::Stopping;
            case LoopWait::End::Error:
                return mWait->GetError();
            default:
                return mRefusal;
        }
    }

private:
    using Job = PoolJob<F, Result>;

    bool Refuse(StatusCode status) noexcept {
        mWait.reset();
        mRefusal = status;
        return false;
    }

    const std::shared_ptr<ReplyState> mState;
    Threading::ThreadPool::ThreadPool& mPool;
    F& mFunction;
    std::shared_ptr<Job> mJob;
    /// Ends before the job does, whose descriptor it waits for.
    std::optional<LoopWait> mWait;
    StatusCode mRefusal = StatusCode::Failure;
};

}  // namespace Detail

/// `co_await OnPool(bus, pool, function, arguments...)`: a worker of the pool runs the function, and the
/// coroutine goes on with its result on the D-Bus thread; the loop does other things meanwhile.
///
///     Outcome<Digest> digest = co_await OnPool(mBus, mPool, &ComputeDigest, file);
///
/// Function and arguments are copied or moved here, as std::thread does, and the function is called once,
/// with the arguments as rvalues. It returns a value, nothing, a StatusCode, or an Outcome. It runs beside
/// the D-Bus thread, so it touches neither the bus nor what belongs to that thread; and it works with what it
/// is given: the coroutine, and what is the coroutine's, may be gone before it has ended.
///
/// A lambda whose captures have destructors, such as a std::string, gets them as arguments instead, or is
/// awaited by name: g++ 12 destroys the captures of a lambda that is written within a co_await twice, and so
/// does not compile it here.
///
///     OnPool job(mBus, mPool, [file = std::move(file)] { return ComputeDigest(file); });
///     Outcome<Digest> digest = co_await job;
///
/// Nothing happens before the co_await; once it waits the pool, too, may be destroyed. Destroying the
/// coroutine cancels: a function that has not begun is destroyed immediately and does not run; one that runs
/// is left to come to its end, and its result is destroyed there, or here.
///
/// In the outcome, besides the function's result:
/// - An Error that it throws, as it is. OutOfMemory for std::bad_alloc; "org.freedesktop.DBus.Error.Failed",
///   "the job failed internally", for anything else that it throws. These two are logged (error, logger name
///   "Typed") with type and text, also when nobody waits any more. Nothing that it throws ends the process.
/// - "org.freedesktop.DBus.Error.Failed", "the pool dropped the job": the pool was destroyed before a worker
///   took it.
/// - "mwl.StatusCode.Stopping": the bus closes, or has closed. That does not wait for a function that runs.
/// - "mwl.StatusCode.NotInitialized": the bus has not been opened; it has not been queued.
/// - GetStatus() is `OutOfMemory`, `ResourceUnavailable` or another status of eventfd(2) or
///   sd_event_add_io(3): it has not been queued.
///
/// A pool that is not running, or has no threads, keeps it: the coroutine waits, for the bus to close in the
/// end. `First` with `Sleep` makes a time limit.
///
/// It costs one allocation in addition to those of ThreadPool::QueueUnique, and one descriptor while it waits
/// or runs.
///
/// D-Bus thread only; debug builds check that. To be awaited once, from a coroutine of any kind.
template <class F, class... A>
class [[nodiscard]] OnPool {
    static_assert(std::is_invocable_v<F, A...>,
                  "the function for a pool cannot be called with the arguments");
    using Call = Detail::BoundCall<F, A...>;
    using Returned = typename Call::Returned;
    static_assert(!std::is_reference_v<Returned>, "the function for a pool returns a value, not a reference");
    static_assert(!Detail::ContentOf<Returned>::IS_TASK,
                  "a coroutine is the D-Bus thread's: a function for a pool is none");

public:
    /// The type in the outcome.
    using Result = typename Detail::PoolAwaiter<Call>::Result;

    /// Does nothing yet.
    template <class G, class... B>
    OnPool(const Bus& bus, Threading::ThreadPool::ThreadPool& pool, G&& function, B&&... arguments)
        : mState(Detail::StateOf(bus)),
          mPool(pool),
          mCall(std::in_place, std::forward<G>(function), std::forward<B>(arguments)...) {}

    /// Queues it.
    Detail::PoolAwaiter<Call> operator co_await() & noexcept { return {mState, mPool, mCall}; }
    /// As above.
    Detail::PoolAwaiter<Call> operator co_await() && noexcept {
#if defined(__GNUC__) && !defined(__clang__)
        static_assert(std::is_trivially_destructible_v<F>,
                      "g++ destroys what a lambda within a co_await has captured twice: give the function "
                      "arguments, or await a named OnPool");
#endif
        return {mState, mPool, mCall};
    }

private:
    std::shared_ptr<ReplyState> mState;
    Threading::ThreadPool::ThreadPool& mPool;
    Call mCall;
};

/// Function and arguments are held as values.
template <class G, class... B>
OnPool(const Bus&, Threading::ThreadPool::ThreadPool&, G&&, B&&...)
    -> OnPool<std::decay_t<G>, std::decay_t<B>...>;

}  // namespace mwl::Typed
