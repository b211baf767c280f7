#pragma once

/// Several tasks that are awaited together: what All and First have in common. Applications do not need it.

#include <tern/foundation/api.h>
#include <tern/typed/task.h>

#include <array>
#include <coroutine>
#include <cstddef>
#include <span>
#include <tuple>
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
    /// The coroutine does not go on any more.
    void Abandon() noexcept { mWaiting = nullptr; }
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

/// REQUIRES: it is done, or empty.
template <class R>
HeldResult<R> TakeHeld(Task<R>& task) {
    if constexpr (std::is_void_v<R>) {
        TaskAccess::TakeResult(task);
        return {};
    } else {
        return TaskAccess::TakeResult(task);
    }
}

/// The frames of tasks in their order; null for an empty one.
template <class... R>
std::array<TaskFrame*, sizeof...(R)> GetFrames(const std::tuple<Task<R>...>& tasks) noexcept {
    return std::apply(
        [](const Task<R>&... task) {
            return std::array<TaskFrame*, sizeof...(R)>{TaskAccess::GetPromise(task)...};
        },
        tasks);
}
template <class R>
std::vector<TaskFrame*> GetFrames(const std::vector<Task<R>>& tasks) {
    std::vector<TaskFrame*> frames;
    frames.reserve(tasks.size());
    for (const Task<R>& task : tasks) {
        frames.push_back(TaskAccess::GetPromise(task));
    }
    return frames;
}

/// A co_await of several tasks, which it owns, without its result: All and First have their own. `Tasks` is a
/// tuple of tasks, or a vector of those of one kind.
template <class Tasks>
class GroupAwaiter : protected TaskGroup {
public:
    bool await_ready() const noexcept { return IsReady(mFrames); }
    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> waiting) noexcept {
        Wait(mFrames, waiting, FrameOf(waiting));
    }

protected:
    GroupAwaiter(Until until, Tasks tasks)
        : TaskGroup(until), mTasks(std::move(tasks)), mFrames(GetFrames(mTasks)) {}
    /// The end of one task may bring another one to its end, and the coroutine that waited is being
    /// destroyed.
    ~GroupAwaiter() { Abandon(); }

    Tasks& GetTasks() noexcept { return mTasks; }
    /// The place of the task that FindDecisive finds. Of the tasks as they were given.
    std::size_t FindDecisivePlace() const noexcept { return FindDecisive(mFrames); }

private:
    Tasks mTasks;
    const decltype(GetFrames(std::declval<const Tasks&>())) mFrames;
};

/// Calls `use(std::integral_constant<std::size_t, place>(), task)` with the task in this place; with none
/// when there is no such place.
template <class... R, class Use>
void UseTaskAt(std::tuple<Task<R>...>& tasks, std::size_t place, Use use) {
    [&]<std::size_t... I>(std::index_sequence<I...>) {
        static_cast<void>(
            ((I == place && (use(std::integral_constant<std::size_t, I>(), std::get<I>(tasks)), true)) ||
             ...));
    }
    (std::index_sequence_for<R...>());
}

template <class T>
inline constexpr bool IS_TASK = false;
template <class R>
inline constexpr bool IS_TASK<Task<R>> = true;

template <class A>
Task<std::remove_cvref_t<AwaitedBy<A>>> AwaitAsTask(A awaitable) {
    co_return co_await std::move(awaitable);
}

/// A task as it is; any other awaitable gets a coroutine of its own.
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
