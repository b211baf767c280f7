#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace mwl {

template <typename Signature>
class UniqueFunction;

/// A function object that is moved and never copied, so that it may hold what cannot be copied: a
/// std::unique_ptr, a promise, the right to answer a call. Otherwise like std::function.
///
///     UniqueFunction<void()> job = [answer = std::move(answer)]() mutable { answer.Return(Count()); };
///     pool.QueueUnique(std::move(job));
///
/// A function that fits into four pointers and moves without throwing lies in the object itself; any other
/// costs one allocation. Moving costs none and leaves the source empty.
///
/// One thread at a time. The function dies with the object, or when another takes its place.
template <typename Result, typename... Arguments>
class UniqueFunction<Result(Arguments...)> {
    template <typename Function>
    using IfCallable = std::enable_if_t<!std::is_same_v<std::decay_t<Function>, UniqueFunction> &&
                                        std::is_invocable_r_v<Result, std::decay_t<Function>&, Arguments...>>;

public:
    /// Empty.
    UniqueFunction() noexcept = default;
    /// Empty.
    UniqueFunction(std::nullptr_t) noexcept {}  // NOLINT(google-explicit-constructor): as std::function
    /// Takes over `function`, copied where it is not given away. A null pointer or an empty function object
    /// makes an empty one. Throws what copying or moving does, or std::bad_alloc.
    template <typename Function, typename = IfCallable<Function>>
    UniqueFunction(Function&& function) {  // NOLINT(google-explicit-constructor): as std::function
        using Held = std::decay_t<Function>;
        if constexpr (IsNullable<Held>::value && !std::is_function_v<std::remove_reference_t<Function>>) {
            if (!function) {
                return;
            }
        }
        if constexpr (LIES_INSIDE<Held>) {
            new (mStorage) Held(std::forward<Function>(function));
            mOperations = &Inside<Held>::OPERATIONS;
        } else {
            new (mStorage) Held*(std::make_unique<Held>(std::forward<Function>(function)).release());
            mOperations = &Outside<Held>::OPERATIONS;
        }
    }
    /// Takes over; `other` is empty then.
    UniqueFunction(UniqueFunction&& other) noexcept { Take(other); }
    /// The former function dies after the new one is in place.
    UniqueFunction& operator=(UniqueFunction&& other) noexcept {
        if (this != &other) {
            const UniqueFunction former(std::move(*this));
            Take(other);
        }
        return *this;
    }
    ~UniqueFunction() {
        if (mOperations != nullptr) {
            mOperations->destroy(mStorage);
        }
    }

    /// Whether there is something to call.
    explicit operator bool() const noexcept { return mOperations != nullptr; }

    /// Calls the function, any number of times. Throws what it throws; std::bad_function_call when empty.
    Result operator()(Arguments... arguments) {
        if (mOperations == nullptr) {
            throw std::bad_function_call();
        }
        return mOperations->call(mStorage, std::forward<Arguments>(arguments)...);
    }

private:
    struct Operations {
        Result (*call)(void* storage, Arguments&&... arguments);
        /// Leaves nothing to be destroyed at `from`.
        void (*move)(void* from, void* to) noexcept;
        void (*destroy)(void* storage) noexcept;
    };

    static constexpr std::size_t ROOM = 4 * sizeof(void*);
    template <typename Held>
    static constexpr bool LIES_INSIDE =
        sizeof(Held) <= ROOM &&
        alignof(Held) <= alignof(std::max_align_t) && std::is_nothrow_move_constructible_v<Held>;

    template <typename Held>
    struct IsNullable : std::bool_constant<std::is_pointer_v<Held> || std::is_member_pointer_v<Held>> {};
    template <typename Signature>
    struct IsNullable<std::function<Signature>> : std::true_type {};
    template <typename Signature>
    struct IsNullable<UniqueFunction<Signature>> : std::true_type {};

    template <typename Held>
    static Result Call(Held& held, Arguments&&... arguments) {
        if constexpr (std::is_void_v<Result>) {
            static_cast<void>(std::invoke(held, std::forward<Arguments>(arguments)...));
        } else {
            return std::invoke(held, std::forward<Arguments>(arguments)...);
        }
    }

    template <typename Held>
    struct Inside {
        static Held* At(void* storage) noexcept { return std::launder(static_cast<Held*>(storage)); }
        static constexpr Operations OPERATIONS{[](void* storage, Arguments&&... arguments) -> Result {
                                                   return Call(*At(storage),
                                                               std::forward<Arguments>(arguments)...);
                                               },
                                               [](void* from, void* to) noexcept {
                                                   new (to) Held(std::move(*At(from)));
                                                   std::destroy_at(At(from));
                                               },
                                               [](void* storage) noexcept { std::destroy_at(At(storage)); }};
    };

    template <typename Held>
    struct Outside {
        static Held*& At(void* storage) noexcept { return *std::launder(static_cast<Held**>(storage)); }
        static constexpr Operations OPERATIONS{
            [](void* storage, Arguments&&... arguments) -> Result {
                return Call(*At(storage), std::forward<Arguments>(arguments)...);
            },
            [](void* from, void* to) noexcept { new (to) Held*(At(from)); },
            [](void* storage) noexcept { const std::unique_ptr<Held> owned(At(storage)); }};
    };

    void Take(UniqueFunction& other) noexcept {
        mOperations = std::exchange(other.mOperations, nullptr);
        if (mOperations != nullptr) {
            mOperations->move(other.mStorage, mStorage);
        }
    }

    alignas(std::max_align_t) std::byte mStorage[ROOM];
    const Operations* mOperations = nullptr;
};

}  // namespace mwl
