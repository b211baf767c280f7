#pragma once

#include <tern/typed/task.h>
#include <tern/typed/task_group.h>

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

/// The result of First: waits for one of a tuple of tasks.
template <class... R>
class [[nodiscard]] FirstOf final : public GroupAwaiter<std::tuple<Task<R>...>> {
    using Base = GroupAwaiter<std::tuple<Task<R>...>>;

public:
    explicit FirstOf(Task<R>... tasks) : Base(Base::Until::First, {std::move(tasks)...}) {}

    std::variant<HeldResult<R>...> await_resume() {
        std::optional<std::variant<HeldResult<R>...>> result;
        UseTaskAt(this->GetTasks(), this->FindDecisivePlace(), [&result](auto place, auto& winner) {
            result.emplace(std::in_place_index<decltype(place)::value>, TakeHeld(winner));
        });
        // The others end before the winner is known.
        this->GetTasks() = {};
        return std::move(*result);
    }
};

/// The same for tasks of one kind, as many as there are.
template <class R>
class [[nodiscard]] FirstOfList final : public GroupAwaiter<std::vector<Task<R>>> {
    using Base = GroupAwaiter<std::vector<Task<R>>>;

public:
    explicit FirstOfList(std::vector<Task<R>> tasks) : Base(Base::Until::First, Checked(std::move(tasks))) {}

    auto await_resume() {
        std::vector<Task<R>>& tasks = this->GetTasks();
        const std::size_t winner = this->FindDecisivePlace();
        if constexpr (std::is_void_v<R>) {
            TaskAccess::TakeResult(tasks[winner]);
            tasks.clear();
            return winner;
        } else {
            std::pair<std::size_t, R> result(winner, TaskAccess::TakeResult(tasks[winner]));
            tasks.clear();
            return result;
        }
    }

private:
    static std::vector<Task<R>> Checked(std::vector<Task<R>>&& tasks) {
        if (tasks.empty()) {
            throw std::logic_error("the first of no tasks is awaited");
        }
        return std::move(tasks);
    }
};

}  // namespace Detail

/// Waits until one is done, and gives its result as a std::variant whose index() is its place;
/// std::monostate stands for nothing. The others are destroyed, which cancels what they wait for, before the
/// coroutine goes on. Of several that are done already the first of the list counts. Tasks are taken over;
/// anything else that can be awaited, such as a call or Sleep, is moved into a coroutine of its own, which
/// begins immediately.
///
///     auto done = co_await First(Measure(bus), Sleep(bus, 10s));
///     if (done.index() == 0) {
///         Use(std::get<0>(done));
///     }
///
/// Where the first one throws, its exception is rethrown. An exception of another that is done as well is
/// logged as an error (logger name "Typed"). An empty Task counts as done and throws std::logic_error.
///
/// D-Bus thread only. Await what it gives immediately.
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
