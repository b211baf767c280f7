#pragma once

/// The part of a Task that does not depend on its type: the states of its coroutine, who awaits it, and who
/// takes its exception. Applications do not need it.

#include <tern/foundation/api.h>

#include <coroutine>
#include <exception>
#include <thread>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

class TaskSet;

namespace Detail {

class TaskFrame;

/// Is notified that a task is done. It owns the task, or outlives it.
class TERN_API TaskObserver {
public:
    /// `task` waits to be destroyed, which may be done here.
    virtual void OnDone(TaskFrame& task) noexcept = 0;

protected:
    TaskObserver() = default;
    TaskObserver(const TaskObserver&) = default;
    TaskObserver& operator=(const TaskObserver&) = default;
    ~TaskObserver() = default;
};

/// Lets a coroutine go on. An exception that leaves it, which no Task lets happen, is logged (critical) and
/// ends the loop.
TERN_API void ResumeContained(std::coroutine_handle<> waiting) noexcept;

/// The promise of a Task except its result.
///
/// A coroutine that runs cannot be destroyed, and those that wait for it hold what it works with. So a task
/// that is released meanwhile is left to the one that runs: that goes on to its next co_await, or to its end,
/// and there all of them are destroyed.
///
/// A coroutine that waits for a task does not go on within the last step of that task, but after it has
/// returned: a chain of any length takes the stack of two.
class TERN_API TaskFrame {
public:
    /// A task that keeps on awaiting although all that it awaits is `Stopping` is left where it is, after so
    /// many times.
    static constexpr unsigned AWAITS_WHILE_STOPPING = 1000;

    TaskFrame(const TaskFrame&) = delete;
    TaskFrame& operator=(const TaskFrame&) = delete;

    /// The owner does not need it any more: destroys it now, or as soon as no running coroutine needs it.
    void Release() noexcept;
    /// Whether it has come to its end.
    bool IsDone() const noexcept { return mState == State::Done; }
    /// Whether it has ended with an exception.
    bool HasThrown() const noexcept { return mException != nullptr; }

    /// The observer that is notified when it is done, and the task, if there is one, that waits for it.
    void Observe(TaskObserver& observer, TaskFrame* parent) noexcept;
    /// Somebody waits for it, even if it is done already: its exception is not nobody's.
    void Claim() noexcept { mIsClaimed = true; }
    /// Throws what it has thrown.
    void Rethrow();
    /// Logs (critical) what it has thrown, and ends the loop in order with -ENOTRECOVERABLE.
    void Report() noexcept;

    // At a co_await.
    /// Whether it does not go on from here: it has been released, or goes on awaiting although all stops.
    bool MustStay() noexcept;
    /// It stays; it may be gone when this returns.
    void Stay() noexcept;
    /// It waits from now on.
    void Suspend() noexcept;
    /// It runs again.
    void Resume() noexcept;
    /// It did not have to wait.
    void GoOn() noexcept;

    /// The handle of the coroutine whose promise this is, which its compiler gives as `given`.
    ///
    /// g++ 12.2 lays out the frame of some functions so that its own handle does not point to where the
    /// frame can be resumed and destroyed by, but a pointer before it: of functions that have a co_await in a
    /// condition and no variable in their outermost block. The promise leads to the right place, yet the
    /// coroutine wants to be given the other one. So functions are put there that do that.
    template <class Promise>
    std::coroutine_handle<Promise> GetHandle(std::coroutine_handle<Promise> given) noexcept {
        const auto own = std::coroutine_handle<Promise>::from_promise(static_cast<Promise&>(*this));
        if (own.address() != given.address() && mMisplaced.frame == nullptr) {
            auto* const entries = static_cast<Entry*>(own.address());
            mMisplaced = {given.address(), entries[0], entries[1]};
            // None when it is done.
            entries[0] = entries[0] != nullptr ? &EnterMisplaced<Promise, &Misplaced::resume> : nullptr;
            entries[1] = &EnterMisplaced<Promise, &Misplaced::destroy>;
        }
        return own;
    }

protected:
    TaskFrame() noexcept = default;
    ~TaskFrame();

    /// It runs for the first time.
    void Start(std::coroutine_handle<> frame) noexcept;
    /// It keeps the exception that is handled now.
    void Catch() noexcept { mException = std::current_exception(); }
    /// It has come to its end; it may be gone when this returns.
    void Finish() noexcept;

private:
    friend class mwl::Typed::TaskSet;
    enum class State { Running, Waiting, Done };
    using Entry = void (*)(void* frame);
    struct Misplaced {
        void* frame = nullptr;
        Entry resume = nullptr;
        Entry destroy = nullptr;
    };

    template <class Promise, Entry Misplaced::*WHICH>
    static void EnterMisplaced(void* own) {
        const TaskFrame& task = std::coroutine_handle<Promise>::from_address(own).promise();
        const Misplaced misplaced = task.mMisplaced;
        (misplaced.*WHICH)(misplaced.frame);
    }

    bool IsNeededBy(const TaskFrame& running) const noexcept;
    void Leave() noexcept;

    std::coroutine_handle<> mHandle;
    Misplaced mMisplaced;
    State mState = State::Running;
    bool mHasWaited = false;
    bool mIsClaimed = false;
    bool mIsReported = false;
    unsigned mAwaitsWhileStopping = 0;
    std::exception_ptr mException;
    TaskObserver* mObserver = nullptr;
    TaskFrame* mParent = nullptr;
    /// While it runs: the one that runs below it on the stack, and what has been left to it. While it waits
    /// and is not to go on, because it is, or belongs to, what has been left to another: itself.
    TaskFrame* mBelow = nullptr;
    TaskFrame* mLeft = nullptr;
    /// Once it is done: its neighbours among those whose observers are to be notified.
    TaskFrame* mNextDone = nullptr;
    TaskFrame* mPreviousDone = nullptr;
    bool mIsListed = false;
    /// Its neighbours in a TaskSet.
    TaskFrame* mNextInSet = nullptr;
    TaskFrame* mPreviousInSet = nullptr;
    const std::thread::id mThread = std::this_thread::get_id();
};

/// The task of a coroutine, null for coroutines of other kinds.
template <class Promise>
TaskFrame* FrameOf(std::coroutine_handle<Promise> handle) noexcept {
    if constexpr (std::is_base_of_v<TaskFrame, Promise>) {
        return &handle.promise();
    } else {
        return nullptr;
    }
}

template <class A>
concept HasMemberAwait = requires(A&& awaitable) {
    std::forward<A>(awaitable).operator co_await();
};
template <class A>
concept HasFreeAwait = requires(A&& awaitable) {
    operator co_await(std::forward<A>(awaitable));
};

/// The object that a co_await of an awaitable works with.
template <class A>
decltype(auto) GetAwaiter(A&& awaitable) {
    if constexpr (HasMemberAwait<A>) {
        return std::forward<A>(awaitable).operator co_await();
    } else if constexpr (HasFreeAwait<A>) {
        return operator co_await(std::forward<A>(awaitable));
    } else {
        return std::forward<A>(awaitable);
    }
}

template <class A>
using AwaiterOf = decltype(GetAwaiter(std::declval<A>()));
/// The result of a co_await.
template <class A>
using AwaitedBy = decltype(std::declval<std::remove_reference_t<AwaiterOf<A>>&>().await_resume());

/// Each co_await of a Task goes through one: the task knows when it runs and when it waits.
template <class A>
class Awaited {
public:
    Awaited(TaskFrame& frame, A&& awaitable)
        : mFrame(frame), mAwaiter(GetAwaiter(std::forward<A>(awaitable))) {}
    Awaited(const Awaited&) = delete;
    Awaited& operator=(const Awaited&) = delete;

    bool await_ready() {
        mStays = mFrame.MustStay();
        return !mStays && static_cast<bool>(mAwaiter.await_ready());
    }
    // Not inlined: the coroutine may be gone when the awaiter's own returns, and then nothing of this may lie
    // in its frame.
    template <class Promise>
    [[gnu::noinline]] auto await_suspend(std::coroutine_handle<Promise> given) {
        const std::coroutine_handle<Promise> handle = mFrame.GetHandle(given);
        using Result = decltype(mAwaiter.await_suspend(handle));
        if (mStays) {
            mFrame.Stay();
            return Stayed<Result>();
        }
        mFrame.Suspend();
        mHasWaited = true;
        try {
            return Wait<Result>(handle);
        } catch (...) {
            mHasWaited = false;
            mFrame.GoOn();
            throw;
        }
    }
    decltype(auto) await_resume() {
        if (mHasWaited) {
            mFrame.Resume();
        }
        return mAwaiter.await_resume();
    }

private:
    template <class Result>
    static auto Stayed() noexcept {
        if constexpr (std::is_void_v<Result>) {
            return;
        } else if constexpr (std::is_same_v<Result, bool>) {
            return true;
        } else {
            return std::coroutine_handle<>(std::noop_coroutine());
        }
    }
    template <class Result, class Promise>
    auto Wait(std::coroutine_handle<Promise> handle) {
        if constexpr (std::is_void_v<Result>) {
            mAwaiter.await_suspend(handle);
        } else if constexpr (std::is_same_v<Result, bool>) {
            if (mAwaiter.await_suspend(handle)) {
                return true;
            }
            mHasWaited = false;
            mFrame.GoOn();
            return false;
        } else {
            return std::coroutine_handle<>(mAwaiter.await_suspend(handle));
        }
    }

    TaskFrame& mFrame;
    AwaiterOf<A> mAwaiter;
    bool mStays = false;
    bool mHasWaited = false;
};

}  // namespace Detail

}  // namespace mwl::Typed
