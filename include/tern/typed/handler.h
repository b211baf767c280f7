#pragma once

/// Reads from a handler's type whether it answers later, whether it takes the caller, its arguments and its
/// result. For `Implements`; applications do not need it.

#include <tern/typed/codec.h>
#include <tern/typed/contract.h>
#include <tern/typed/error.h>

#include <concepts>
#include <cstddef>
#include <tuple>
#include <type_traits>

namespace mwl::Typed {

class Caller;
template <class R>
class Reply;
template <class R>
class Task;

namespace Detail {

/// The part of a handler's result that the caller gets: `Value` goes into the reply.
template <class R>
struct ResultOf {
    static constexpr bool MAY_FAIL = false;
    using Value = R;
};
template <class T>
struct ResultOf<Outcome<T>> {
    static constexpr bool MAY_FAIL = true;
    using Value = T;
};
template <>
struct ResultOf<StatusCode> {
    static constexpr bool MAY_FAIL = true;
    using Value = void;
};

/// The result of a coroutine, or the type itself.
template <class R>
struct ContentOf {
    static constexpr bool IS_TASK = false;
    using Type = R;
};
template <class R>
struct ContentOf<Task<R>> {
    static constexpr bool IS_TASK = true;
    using Type = R;
};

/// An argument is taken by value, by const reference or by rvalue reference: it is the handler's.
template <class A>
inline constexpr bool IS_TAKEN =
    !std::is_lvalue_reference_v<A> || std::is_const_v<std::remove_reference_t<A>>;

template <class T>
inline constexpr bool IS_REPLY = false;
template <class R>
inline constexpr bool IS_REPLY<Reply<R>> = true;
template <class T>
inline constexpr bool IS_SPECIAL = std::same_as<T, Caller> || IS_REPLY<T>;

template <class R, class... A>
struct PlainShape {
    static constexpr bool IS_DEFERRED = false;
    static constexpr bool KNOWS_CALLER = false;
    using Result = std::remove_cvref_t<R>;
    static constexpr bool IS_TASK = ContentOf<Result>::IS_TASK;
    using Content = typename ContentOf<Result>::Type;
    using Value = typename ResultOf<Content>::Value;
    using Arguments = std::tuple<std::remove_cvref_t<A>...>;
    static constexpr std::size_t COUNT = sizeof...(A);
    static constexpr bool TAKES_WELL = (IS_TAKEN<A> && ...);
    static constexpr bool TAKES_VALUES = !(std::is_reference_v<A> || ...);
    static constexpr bool HAS_ORDER = !(IS_SPECIAL<std::remove_cvref_t<A>> || ...);
    static constexpr bool BORROWS_ARGUMENTS = (BORROWS<std::remove_cvref_t<A>> || ...);
};
template <class R, class... A>
struct Shape : PlainShape<R, A...> {};
template <class R, class... A>
struct Shape<R, const Caller&, A...> : PlainShape<R, A...> {
    static constexpr bool KNOWS_CALLER = true;
    using CallerType = Caller;
};
template <class R, class V, class... A>
struct Shape<R, Reply<V>, A...> : PlainShape<R, A...> {
    static constexpr bool IS_DEFERRED = true;
    using Value = V;
    using ReplyType = Reply<V>;
};
template <class R, class V, class... A>
struct Shape<R, Reply<V>, const Caller&, A...> : PlainShape<R, A...> {
    static constexpr bool IS_DEFERRED = true;
    static constexpr bool KNOWS_CALLER = true;
    using Value = V;
    using ReplyType = Reply<V>;
    using CallerType = Caller;
};

/// The parts of a function's type. With DROP, for functions and lambdas, the first parameter is the
/// implementing object.
template <bool DROP, class R, class... A>
struct Parts {
    using Type = Shape<R, A...>;
    using Object = void;
};
template <class R, class S, class... A>
struct Parts<true, R, S, A...> {
    using Type = Shape<R, A...>;
    using Object = S;
};

/// The Shape of a member function, of a function, or of the operator() of a lambda, whatever its qualifiers.
template <bool DROP, class F>
struct ShapeOf;
template <bool DROP, class R, class... A>
struct ShapeOf<DROP, R(A...)> : Parts<DROP, R, A...> {};
template <bool DROP, class R, class... A>
struct ShapeOf<DROP, R(A...) noexcept> : Parts<DROP, R, A...> {};
template <bool DROP, class R, class... A>
struct ShapeOf<DROP, R(A...) const> : Parts<DROP, R, A...> {};
template <bool DROP, class R, class... A>
struct ShapeOf<DROP, R(A...) const noexcept> : Parts<DROP, R, A...> {};
template <bool DROP, class R, class... A>
struct ShapeOf<DROP, R(A...)&> : Parts<DROP, R, A...> {};
template <bool DROP, class R, class... A>
struct ShapeOf<DROP, R(A...)& noexcept> : Parts<DROP, R, A...> {};
template <bool DROP, class R, class... A>
struct ShapeOf<DROP, R(A...) const&> : Parts<DROP, R, A...> {};
template <bool DROP, class R, class... A>
struct ShapeOf<DROP, R(A...) const& noexcept> : Parts<DROP, R, A...> {};

template <class F>
struct Pointee;
template <class C, class F>
struct Pointee<F C::*> {
    using Type = F;
};
template <class F>
concept MemberFunction = std::is_member_function_pointer_v<F>;
template <class F>
concept DataMember = std::is_member_object_pointer_v<F>;
template <class F>
concept Function = std::is_pointer_v<F> && std::is_function_v<std::remove_pointer_t<F>>;
template <class F>
concept Lambda = std::is_class_v<F> && requires {
    &F::operator();
};

/// A callable that takes the implementing object; no data members.
template <class F>
concept Handler = MemberFunction<F> || Function<F> || Lambda<F>;

template <class F>
struct HandlerShape;
template <MemberFunction F>
struct HandlerShape<F> : ShapeOf<false, typename Pointee<F>::Type> {};
template <Function F>
struct HandlerShape<F> : ShapeOf<true, std::remove_pointer_t<F>> {};
template <Lambda F>
struct HandlerShape<F> : ShapeOf<true, typename Pointee<decltype(&F::operator())>::Type> {};

/// Whether a handler can be called with an object of the class `Self`.
template <class F, class Self>
inline constexpr bool TAKES_OBJECT = std::is_convertible_v<Self&, typename HandlerShape<F>::Object>;
template <class C, class F, class Self>
inline constexpr bool TAKES_OBJECT<F C::*, Self> = std::is_base_of_v<C, Self>;

/// The signature of a shape's arguments.
template <class Tuple>
struct SignatureOf;
template <class... A>
struct SignatureOf<std::tuple<A...>> {
    static constexpr auto SIGNATURE = MakeSignature<A...>();
};

}  // namespace Detail

}  // namespace mwl::Typed
