#pragma once

#include <tern/typed/task.h>
#include <tern/typed/task_group.h>

#include <array>
#include <coroutine>
#include <cstddef>
#include <optional>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

namespace mwl::Typed {

namespace Detail {

/// What First gives: waits for one of a tuple of tasks.
template <class... R>
class [[nodiscard]] FirstOf final : private TaskGroup {
public:
    explicit FirstOf(Task<R>... tasks) noexcept : TaskGroup(Until::First), mTasks(std::move(tasks)...) {}

    bool await_ready() const noexcept { return IsReady(Frames()); }
    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> waiting) noexcept {
        Wait(Frames(), waiting, FrameOf(waiting));
    }
    std::variant<HeldResult<R>...> await_resume() {
        std::optional<std::variant<HeldResult<R>...>> result;
        Take(result, FindDecisive(Frames()), std::index_sequence_for<R...>());
        // The others end before the winner is known.
        mTasks = {};
        return std::move(*result);
    }

private:
    std::array<TaskFrame*, sizeof...(R)> Frames() const noexcept {
        return std::apply(
            [](const Task<R>&... task) {
                return std::array<TaskFrame*, sizeof...(R)>{TaskAccess::GetPromise(task)...};
            },
            mTasks);
    }
    template <std::size_t... I>
    void Take(std::optional<std::variant<HeldResult<R>...>>& result, std::size_t winner,
              std::index_sequence<I...>) {
        static_cast<void>(
            ((I == winner && (result.emplace(std::in_place_index<I>, TakeHeld(std::get<I>(mTasks))), true)) ||
             ...));
    }

    std::tuple<Task<R>...> mTasks;
};

/// The same for tasks of one kind, as many as there are.
template <class R>
class [[nodiscard]] FirstOfList final : private TaskGroup {
public:
    explicit FirstOfList(std::vector<Task<R>> tasks) : TaskGroup(Until::First), mTasks(std::move(tasks)) {
        if (mTasks.empty()) {
            throw std::logic_error("the first of no tasks is awaited");
        }
        mFrames.reserve(mTasks.size());
        for (const Task<R>& task : mTasks) {
            mFrames.push_back(TaskAccess::GetPromise(task));
        }
    }

    bool await_ready() const noexcept { return IsReady(mFrames); }
    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> waiting) noexcept {
        Wait(mFrames, waiting, FrameOf(waiting));
    }
    auto await_resume() {
        const std::size_t winner = FindDecisive(mFrames);
        if constexpr (std::is_void_v<R>) {
            TaskAccess::TakeResult(mTasks[winner]);
            mTasks.clear();
            return winner;
        } else {
            std::pair<std::size_t, R> result(winner, TaskAccess::TakeResult(mTasks[winner]));
            mTasks.clear();
            return result;
        }
    }

private:
    std::vector<Task<R>> mTasks;
    std::vector<TaskFrame*> mFrames;
};

}  // namespace Detail

/// Waits until one is done, and gives its result as a std::variant whose index() is its place;
/// std::monostate stands for nothing. The others are destroyed, which cancels what they wait for, before the
/// coroutine goes on. Of several that are done already the first of the list counts. Tasks are taken over;
/// anything else that can be awaited, as a call or Sleep, is moved into a coroutine of its own, which begins
/// at once.
///
///     auto done = co_await First(Measure(bus), Sleep(bus, 10s));
///     if (done.index() == 0) {
///         Use(std::get<0>(done));
///     }
///
/// Where the first one throws, its exception is rethrown. An exception of another that is done as well is
/// logged as an error (logger name "Typed"). An empty Task counts as done and throws std::logic_error.
///
/// D-Bus thread only. Await what it gives at once.
template <class... A>
requires(sizeof...(A) > 0) auto First(A&&... awaitables) {
    return Detail::FirstOf<typename Detail::ResultOfAwaiting<std::remove_cvref_t<A>>::Type...>{
        Detail::ToTask(std::forward<A>(awaitables))...};  // in this order
}

/// The same for tasks of one kind. Gives the place of the first and its result as a std::pair, or the place
/// alone where they give nothing. Of no tasks it throws std::logic_error. Costs one allocation.
template <class R>
auto First(std::vector<Task<R>> tasks) {
    return Detail::FirstOfList<R>(std::move(tasks));
}

}  // namespace mwl::Typed
