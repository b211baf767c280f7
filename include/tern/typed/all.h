#pragma once

#include <tern/typed/task.h>
#include <tern/typed/task_group.h>

#include <array>
#include <coroutine>
#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace mwl::Typed {

namespace Detail {

/// What All gives: waits for a tuple of tasks.
template <class... R>
class [[nodiscard]] AllOf final : private TaskGroup {
public:
    explicit AllOf(Task<R>... tasks) noexcept : TaskGroup(Until::All), mTasks(std::move(tasks)...) {}

    bool await_ready() const noexcept { return IsReady(Frames()); }
    template <class Promise>
    void await_suspend(std::coroutine_handle<Promise> waiting) noexcept {
        Wait(Frames(), waiting, FrameOf(waiting));
    }
    std::tuple<HeldResult<R>...> await_resume() {
        const auto frames = Frames();
        if (const std::size_t decisive = FindDecisive(frames); decisive < frames.size()) {
            Rethrow(decisive, std::index_sequence_for<R...>());
        }
        return std::apply([](Task<R>&... task) { return std::tuple<HeldResult<R>...>(TakeHeld(task)...); },
                          mTasks);
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
    void Rethrow(std::size_t decisive, std::index_sequence<I...>) {
        static_cast<void>(
            ((I == decisive && (static_cast<void>(TakeHeld(std::get<I>(mTasks))), true)) || ...));
    }

    std::tuple<Task<R>...> mTasks;
};

/// The same for tasks of one kind, as many as there are.
template <class R>
class [[nodiscard]] AllOfList final : private TaskGroup {
public:
    explicit AllOfList(std::vector<Task<R>> tasks) : TaskGroup(Until::All), mTasks(std::move(tasks)) {
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
        if (const std::size_t decisive = FindDecisive(mFrames); decisive < mFrames.size()) {
            static_cast<void>(TakeHeld(mTasks[decisive]));
        }
        if constexpr (!std::is_void_v<R>) {
            std::vector<R> results;
            results.reserve(mTasks.size());
            for (Task<R>& task : mTasks) {
                results.push_back(TaskAccess::TakeResult(task));
            }
            return results;
        }
    }

private:
    std::vector<Task<R>> mTasks;
    std::vector<TaskFrame*> mFrames;
};

}  // namespace Detail

/// Waits until all are done, and gives their results as a tuple in this order; std::monostate stands for
/// nothing. Tasks are taken over; anything else that can be awaited, as a call or Sleep, is moved into a
/// coroutine of its own, which begins at once.
///
///     auto [target, celsius] = co_await All(heater.Get(Heater1::Target), heater.Get(Heater1::Temperature));
///
/// Where one throws, the others are destroyed, and its exception is rethrown. Where several have thrown, the
/// others' exceptions are logged as errors (logger name "Typed"). An empty Task throws std::logic_error.
///
/// D-Bus thread only. Await what it gives at once.
template <class... A>
requires(sizeof...(A) > 0) auto All(A&&... awaitables) {
    return Detail::AllOf<typename Detail::ResultOfAwaiting<std::remove_cvref_t<A>>::Type...>{
        Detail::ToTask(std::forward<A>(awaitables))...};  // in this order
}

/// The same for tasks of one kind. Gives a std::vector of the results in the order of the tasks, or nothing
/// where they give nothing. Of no tasks it is done at once. Costs one allocation, and that of the results.
template <class R>
auto All(std::vector<Task<R>> tasks) {
    return Detail::AllOfList<R>(std::move(tasks));
}

}  // namespace mwl::Typed
