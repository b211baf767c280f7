#pragma once

/// Several tasks that are awaited together: what All and First have in common. Applications do not need it.

#include <tern/foundation/api.h>
#include <tern/typed/task.h>

#include <coroutine>
#include <cstddef>
#include <span>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace mwl::Typed::Detail {

/// The observer of the tasks of one co_await.
class TERN_API TaskGroup : private TaskObserver {
public:
    TaskGroup(const TaskGroup&) = delete;
    TaskGroup& operator=(const TaskGroup&) = delete;

protected:
    /// After which the coroutine goes on; after an exception in any case.
    enum class Until { All, First };

    explicit TaskGroup(Until until) noexcept : mUntil(until) {}
    ~TaskGroup() = default;

    /// Whether it goes on without waiting.
    bool IsReady(std::span<TaskFrame* const> tasks) const noexcept;
    /// REQUIRES: not ready.
    void Wait(std::span<TaskFrame* const> tasks, std::coroutine_handle<> waiting, TaskFrame* parent) noexcept;
    /// The one that is done, the first of the list if there are several; after All the one that has thrown.
    /// The size of the list for none.
    std::size_t FindDecisive(std::span<TaskFrame* const> tasks) const noexcept;

private:
    void OnDone(TaskFrame& task) noexcept override;

    const Until mUntil;
    std::size_t mMissing = 0;
    const TaskFrame* mDecisive = nullptr;
    std::coroutine_handle<> mWaiting;
};

/// How a result stands among others: nothing is std::monostate.
template <class R>
using HeldResult = std::conditional_t<std::is_void_v<R>, std::monostate, R>;

template <class R>
HeldResult<R> TakeHeld(Task<R>& task) {
    if constexpr (std::is_void_v<R>) {
        TaskAccess::TakeResult(task);
        return {};
    } else {
        return TaskAccess::TakeResult(task);
    }
}

template <class T>
inline constexpr bool IS_TASK = false;
template <class R>
inline constexpr bool IS_TASK<Task<R>> = true;

template <class A>
Task<std::remove_cvref_t<AwaitedBy<A>>> AwaitAsTask(A awaitable) {
    co_return co_await std::move(awaitable);
}

/// A task as it is; whatever else can be awaited gets a coroutine of its own.
template <class A>
auto ToTask(A&& awaitable) {
    using Value = std::remove_cvref_t<A>;
    if constexpr (IS_TASK<Value>) {
        // Taken over in any case, as co_await does.
        return Value(static_cast<Value&&>(awaitable));
    } else {
        static_assert(!std::is_lvalue_reference_v<A>, "what is awaited together is given away: std::move");
        return AwaitAsTask<Value>(std::forward<A>(awaitable));
    }
}

template <class A>
struct ResultOfAwaiting {
    using Type = std::remove_cvref_t<AwaitedBy<A>>;
};
template <class R>
struct ResultOfAwaiting<Task<R>> {
    using Type = R;
};

}  // namespace mwl::Typed::Detail
