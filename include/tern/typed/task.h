#pragma once

#include <tern/typed/task_frame.h>

#include <coroutine>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

template <class R>
class Task;

namespace Detail {

template <class R>
class TaskPromise;

/// The common part of the promises of all results.
template <class R>
class TaskPromiseBase : public TaskFrame {
public:
    Task<R> get_return_object() noexcept;
    auto initial_suspend() noexcept {
        struct Begin {
            TaskPromiseBase& promise;
            bool await_ready() const noexcept { return true; }
            void await_suspend(std::coroutine_handle<>) const noexcept {}
            void await_resume() const noexcept {
                promise.Start(std::coroutine_handle<TaskPromise<R>>::from_promise(
                    static_cast<TaskPromise<R>&>(promise)));
            }
        };
        return Begin{*this};
    }
    auto final_suspend() noexcept {
        struct End {
            TaskPromiseBase& promise;
            bool await_ready() const noexcept { return false; }
            // Not inlined, see Awaited.
            [[gnu::noinline]] void await_suspend(std::coroutine_handle<TaskPromise<R>> given) const noexcept {
                TaskPromiseBase& ending = promise;
                static_cast<void>(ending.GetHandle(given));
                ending.Finish();
            }
            void await_resume() const noexcept {}
        };
        return End{*this};
    }
    void unhandled_exception() noexcept { Catch(); }
    template <class A>
    Awaited<A> await_transform(A&& awaitable) {
        return Awaited<A>(*this, std::forward<A>(awaitable));
    }
};

template <class R>
class TaskPromise final : public TaskPromiseBase<R> {
public:
    template <class V = R>
    requires std::is_convertible_v<V, R>
    void return_value(V&& value) { mResult.emplace(std::forward<V>(value)); }
    R Take() { return std::move(*mResult); }

private:
    std::optional<R> mResult;
};

template <>
class TaskPromise<void> final : public TaskPromiseBase<void> {
public:
    void return_void() const noexcept {}
    void Take() const noexcept {}
};

/// Gives the group access to what a task holds.
struct TaskAccess {
    template <class R>
    static TaskPromise<R>* GetPromise(const Task<R>& task) noexcept {
        return task.mPromise;
    }
    template <class R>
    static R TakeResult(Task<R>& task);
    /// The frame is the caller's.
    template <class R>
    static TaskFrame* TakeFrame(Task<R>& task) noexcept {
        return std::exchange(task.mPromise, nullptr);
    }
};

/// A co_await of a task, which it owns.
template <class R>
class TaskAwaiter final : private TaskObserver {
public:
    explicit TaskAwaiter(Task<R>&& task) noexcept : mTask(std::move(task)) {}
    TaskAwaiter(const TaskAwaiter&) = delete;
    TaskAwaiter& operator=(const TaskAwaiter&) = delete;

    bool await_ready() const noexcept { return mTask.IsDone(); }
    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> waiting) noexcept {
        mWaiting = waiting;
        TaskAccess::GetPromise(mTask)->Observe(*this, FrameOf(waiting));
    }
    R await_resume() { return TaskAccess::TakeResult(mTask); }

private:
    void OnDone(TaskFrame&) noexcept override { ResumeContained(mWaiting); }

    Task<R> mTask;
    std::coroutine_handle<> mWaiting;
};

}  // namespace Detail

/// A coroutine of the D-Bus thread, and what it will give: R, or nothing. A function that returns one and
/// uses co_await or co_return is such a coroutine.
///
///     Task<> Warm(Bus& bus, Proxy<Heater1>& heater) {
///         for (;;) {
///             Outcome<double> celsius = co_await heater.Get(Heater1::Temperature);
///             if (!celsius.IsOk() || *celsius > 20.0) {
///                 co_return;
///             }
///             if (co_await Sleep(bus, 10s) != StatusCode::Ok) {
///                 co_return;  // the service stops
///             }
///         }
///     }
///     mWarming = Warm(mBus, mHeater);  // runs to its first wait, then returns
///
/// It begins immediately: the call runs up to the first co_await that has to wait, as an ordinary function
/// would. Then the caller goes on, and the loop runs the rest, piece by piece, always on this thread.
///
/// Destroying the Task ends the coroutine where it waits: its variables are destroyed, and what it waits for
/// is cancelled, the tasks that it awaits included. So a Task has to be kept: in a member, in a TaskSet, or
/// in the coroutine that awaits it. A task that destroys its own Task, or that of one that awaits it, goes on
/// to its next co_await, or to its end, and is destroyed there; until then those that await it stay where
/// they wait.
///
/// Parameters live as long as the coroutine, references among them do not make their objects live longer: a
/// coroutine takes values, or what outlives its Task. The captures of a lambda are the lambda's: a lambda
/// that is a coroutine outlives it, or captures nothing.
///
/// `co_await task` takes the task over, which is empty from then on, waits until it is done, and gives its
/// result. `All` and `First` wait for several, a TaskSet keeps those that nobody awaits. Tasks may await each
/// other in a chain of any length. Further awaitables: calls, Sleep, WaitFor, OnPool, and everything that
/// keeps the rules of C++.
///
/// An exception of the coroutine is rethrown where the task is awaited. When nobody awaits the task, the
/// exception is treated like that of any callback of the loop: it is logged (critical, logger name "Typed")
/// with its type and text, and the loop ends in order with the exit code -ENOTRECOVERABLE. This happens when
/// the coroutine throws and nobody awaits it yet. A coroutine may throw before it waits for the first time,
/// when nobody can await it yet: then this happens when the task is destroyed or given to a TaskSet. So to
/// get the exceptions of several tasks, await them together, with All.
///
/// When the bus closes, a task that waits is resumed with `Stopping`, and every co_await from then on returns
/// that status immediately. A task that ignores it does not hang the service: at its 1000th co_await from
/// then on it is logged and left where it is, until it is destroyed.
///
/// The call costs one allocation, the coroutine's frame, and throws std::bad_alloc when there is no memory
/// for it. A co_await costs none.
///
/// D-Bus thread only: debug builds of the library check it at each co_await. A Task that waits for nothing
/// any more, because the bus has closed, may be destroyed on any thread.
template <class R = void>
class [[nodiscard]] Task {
    static_assert(!std::is_reference_v<R>, "a Task gives a value, not a reference");

public:
    /// For the compiler.
    using promise_type = Detail::TaskPromise<R>;

    /// None.
    Task() noexcept = default;
    /// Takes the coroutine over; `other` has none then.
    Task(Task&& other) noexcept : mPromise(std::exchange(other.mPromise, nullptr)) {}
    /// The one held before is destroyed after the new one is in place.
    Task& operator=(Task&& other) noexcept {
        if (this != &other) {
            const Task former(std::move(*this));
            mPromise = std::exchange(other.mPromise, nullptr);
        }
        return *this;
    }
    ~Task() {
        if (mPromise != nullptr) {
            std::exchange(mPromise, nullptr)->Release();
        }
    }

    /// Whether there is a coroutine.
    explicit operator bool() const noexcept { return mPromise != nullptr; }
    /// Whether it has come to its end, or there is none.
    bool IsDone() const noexcept { return mPromise == nullptr || mPromise->IsDone(); }

    /// co_await: takes the coroutine over, waits for its end, gives its result or throws what it has thrown.
    /// An empty Task throws std::logic_error.
    Detail::TaskAwaiter<R> operator co_await() noexcept { return Detail::TaskAwaiter<R>(std::move(*this)); }

private:
    friend class Detail::TaskPromiseBase<R>;
    friend struct Detail::TaskAccess;
    explicit Task(promise_type* promise) noexcept : mPromise(promise) {}

    promise_type* mPromise = nullptr;
};

namespace Detail {

template <class R>
Task<R> TaskPromiseBase<R>::get_return_object() noexcept {
    return Task<R>(static_cast<TaskPromise<R>*>(this));
}

template <class R>
R TaskAccess::TakeResult(Task<R>& task) {
    if (!task) {
        throw std::logic_error("an empty Task is awaited");
    }
    task.mPromise->Rethrow();
    return task.mPromise->Take();
}

}  // namespace Detail

}  // namespace mwl::Typed
