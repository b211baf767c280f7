#pragma once

#include <tern/typed/task.h>
#include <tern/typed/task_group.h>

#include <cstddef>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace mwl::Typed {

namespace Detail {

/// The result of All: waits for a tuple of tasks.
template <class... R>
class [[nodiscard]] AllOf final : public GroupAwaiter<std::tuple<Task<R>...>> {
    using Base = GroupAwaiter<std::tuple<Task<R>...>>;

public:
    explicit AllOf(Task<R>... tasks) : Base(Base::Until::All, {std::move(tasks)...}) {}

    std::tuple<HeldResult<R>...> await_resume() {
        // Throws what it has thrown.
        UseTaskAt(this->GetTasks(), this->FindDecisivePlace(),
                  [](auto, auto& thrower) { static_cast<void>(TakeHeld(thrower)); });
        return std::apply([](Task<R>&... task) { return std::tuple<HeldResult<R>...>(TakeHeld(task)...); },
                          this->GetTasks());
    }
};

/// The same for tasks of one kind, as many as there are.
template <class R>
class [[nodiscard]] AllOfList final : public GroupAwaiter<std::vector<Task<R>>> {
    using Base = GroupAwaiter<std::vector<Task<R>>>;

public:
    explicit AllOfList(std::vector<Task<R>> tasks) : Base(Base::Until::All, std::move(tasks)) {}

    auto await_resume() {
        std::vector<Task<R>>& tasks = this->GetTasks();
        if (const std::size_t decisive = this->FindDecisivePlace(); decisive < tasks.size()) {
            static_cast<void>(TakeHeld(tasks[decisive]));
        }
        if constexpr (!std::is_void_v<R>) {
            std::vector<R> results;
            results.reserve(tasks.size());
            for (Task<R>& task : tasks) {
                results.push_back(TaskAccess::TakeResult(task));
            }
            return results;
        }
    }
};

}  // namespace Detail

/// Waits until all are done, and gives their results as a tuple in this order; std::monostate stands for
/// nothing. Tasks are taken over; anything else that can be awaited, such as a call or Sleep, is moved into a
/// coroutine of its own, which begins immediately.
///
///     auto [target, celsius] = co_await All(heater.Get(Heater1::Target), heater.Get(Heater1::Temperature));
///
/// Where one throws, the others are destroyed, and its exception is rethrown. Where several have thrown, the
/// others' exceptions are logged as errors (logger name "Typed"). An empty Task throws std::logic_error.
///
/// D-Bus thread only. Await what it gives immediately.
template <class... A>
requires(sizeof...(A) > 0) auto All(A&&... awaitables) {
    return Detail::AllOf<typename Detail::ResultOfAwaiting<std::remove_cvref_t<A>>::Type...>{
        Detail::ToTask(std::forward<A>(awaitables))...};  // in this order
}

/// The same for tasks of one kind. Gives a std::vector of the results in the order of the tasks, or nothing
/// where they give nothing. Of no tasks it is done immediately. Costs one allocation, and that of the
/// results.
template <class R>
auto All(std::vector<Task<R>> tasks) {
    return Detail::AllOfList<R>(std::move(tasks));
}

}  // namespace mwl::Typed
