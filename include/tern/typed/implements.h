#pragma once

/// Objects that keep a contract: `Implements`, and `Bind`, which says which function is which member.

#include <systemd/sd-bus.h>
#include <tern/typed/codec.h>
#include <tern/typed/contract.h>
#include <tern/typed/error.h>
#include <tern/typed/handler.h>
#include <tern/typed/handling.h>
#include <tern/typed/interface_base.h>
#include <tern/typed/write_result.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

/// Says which function answers for the member `M`: one for a method, a getter for a property, a getter and a
/// setter for a writable property. See `Implements`.
template <const auto& M, auto... F>
struct Bind {};

/// All of a class's bindings, in any order.
template <class... B>
struct Bindings {};

/// The compiler's message names this when `Self` has no binding for the member `M`.
template <class Self, const auto& M>
struct Unbound {
    static_assert(
        sizeof(Self) == 0,
        "a member of the contract is not bound: Describe() has no Bind for it (Unbound<class, member>)");
    static constexpr bool IS_SOUND = false;  ///< so that one message is enough
};

namespace Detail {

/// Appends the result at `value`, an R, to a message.
template <class R>
int WriteResultAt(sd_bus_message* message, const void* value) {
    return WriteResult(message, *static_cast<const R*>(value));
}

/// Reads the arguments of a call; shared by all methods that take the same ones. Negative: refused.
template <class... A>
[[gnu::noinline]] int ReadArguments(Handling& call, std::tuple<A...>& arguments) {
    Fault fault;
    unsigned index = 0;
    int r = 0;
    std::apply(
        [&](A&... argument) {
            static_cast<void>((
                (r = Codec<A>::Read(call.GetMessage(), argument, fault), index += r >= 0 ? 1U : 0U, r >= 0) &&
                ...));
        },
        arguments);
    return r < 0 ? call.RefuseArgument(index, r, fault) : 0;
}

/// Answers with what a handler returned; shared by all that return the same type.
template <class R>
[[gnu::noinline]] int AnswerWith(Handling& call, const R& result) {
    if constexpr (std::same_as<R, StatusCode>) {
        return call.Refuse(result);
    } else if constexpr (ResultOf<R>::MAY_FAIL) {
        if (!result.IsOk()) {
            return call.Refuse(result.GetError());
        }
        if constexpr (std::is_void_v<typename ResultOf<R>::Value>) {
            return 0;
        } else {
            const auto& value = *result;
            return call.Answer(&WriteResultAt<std::remove_cvref_t<decltype(value)>>, &value);
        }
    } else {
        return call.Answer(&WriteResultAt<R>, &result);
    }
}

template <class Self>
Self& SelfOf(const Handling& call) {
    return static_cast<Self&>(call.GetInterface());
}

/// Calls a handler with `first`, then the arguments, which it may keep.
template <auto F, class Self, class Tuple, std::size_t... I, class... First>
decltype(auto) CallWith(Self& self, Tuple& arguments, std::index_sequence<I...>, First&&... first) {
    return std::invoke(F, self, std::forward<First>(first)..., std::move(std::get<I>(arguments))...);
}

/// As above, with the caller where the handler wants to know it.
template <auto F, class S, class Self, class... First>
decltype(auto) CallHandler(Handling& call, Self& self, typename S::Arguments& arguments, First&&... first) {
    constexpr auto INDICES = std::make_index_sequence<S::COUNT>();
    if constexpr (S::KNOWS_CALLER) {
        const typename S::CallerType caller(call.GetMessage());
        return CallWith<F>(self, arguments, INDICES, std::forward<First>(first)..., caller);
    } else {
        return CallWith<F>(self, arguments, INDICES, std::forward<First>(first)...);
    }
}

/// The further part of a method that is a coroutine; in task_handler.h.
template <class Self, auto F>
struct TaskHandler;
template <class Self, auto F>
concept HasTaskHandler = requires {
    sizeof(TaskHandler<Self, F>);
};

/// The body of a method.
template <class Self, auto F>
int MethodBody(Handling& call) {
    using S = typename HandlerShape<decltype(F)>::Type;
    typename S::Arguments arguments{};
    if constexpr (S::COUNT != 0) {
        if (const int r = ReadArguments(call, arguments); r < 0) {
            return r;
        }
    }
    if constexpr (S::IS_DEFERRED) {
        std::shared_ptr<ReplyState> replies;
        const std::uint64_t id = call.Defer(replies);
        if (id == 0) {
            return Handling::REFUSED;
        }
        CallHandler<F, S>(call, SelfOf<Self>(call), arguments, typename S::ReplyType(std::move(replies), id));
        return Handling::DONE;
    } else if constexpr (S::IS_TASK) {
        static_assert(HasTaskHandler<Self, F>,
                      "a handler that is a Task needs #include <tern/typed/task_handler.h>");
        if constexpr (HasTaskHandler<Self, F>) {
            return TaskHandler<Self, F>::Run(call, arguments);
        }
        return 0;
    } else if constexpr (std::is_void_v<typename S::Result>) {
        CallHandler<F, S>(call, SelfOf<Self>(call), arguments);
        return 0;
    } else {
        return AnswerWith<typename S::Result>(call, CallHandler<F, S>(call, SelfOf<Self>(call), arguments));
    }
}

/// The body of a property's reading.
template <class Self, auto F>
int GetterBody(Handling& call) {
    const auto& self = SelfOf<Self>(call);
    if constexpr (std::is_invocable_v<decltype(F), const Self&>) {
        decltype(auto) value = std::invoke(F, self);
        return AnswerWith<std::remove_cvref_t<decltype(value)>>(call, value);
    } else {
        decltype(auto) value = std::invoke(F, SelfOf<Self>(call));
        return AnswerWith<std::remove_cvref_t<decltype(value)>>(call, value);
    }
}

/// The body of a property's writing. `CHANGE` is the bit to be marked, 0 for none.
template <class Self, auto F, std::uint64_t CHANGE>
int SetterBody(Handling& call) {
    using S = typename HandlerShape<decltype(F)>::Type;
    typename S::Arguments value{};
    if (const int r = ReadArguments(call, value); r < 0) {
        return r;
    }
    Self& self = SelfOf<Self>(call);
    bool hasChanged = true;
    if constexpr (std::is_void_v<typename S::Result>) {
        CallHandler<F, S>(call, self, value);
    } else if constexpr (std::same_as<typename S::Result, bool>) {
        hasChanged = CallHandler<F, S>(call, self, value);
    } else {
        const int r = AnswerWith<typename S::Result>(call, CallHandler<F, S>(call, self, value));
        if (r < 0) {
            return r;
        }
    }
    if constexpr (CHANGE != 0) {
        if (hasChanged) {
            call.MarkChanged(CHANGE);
        }
    }
    return Handling::DONE;
}

// The entries of the vtable. They are given to C, and nothing thrown leaves them.

template <class Self, const auto& M, auto F>
int OnMethod(sd_bus_message* call, void* userdata, sd_bus_error* error) noexcept {
    if constexpr (M.flags.isChecked) {
        return Handling::RunCheckedMethod(call, userdata, error, &MethodBody<Self, F>, NAMES<M>.data(),
                                          M.flags.capability, &OnMethod<Self, M, F>);
    } else {
        return Handling::RunMethod(call, userdata, error, &MethodBody<Self, F>, NAMES<M>.data());
    }
}

template <class Self, auto F>
int OnGet(sd_bus*, const char* path, const char*, const char* member, sd_bus_message* reply, void* userdata,
          sd_bus_error* error) noexcept {
    return Handling::RunGetter(path, member, reply, userdata, error, &GetterBody<Self, F>);
}

template <class Self, auto F, std::uint64_t CHANGE>
int OnSet(sd_bus*, const char* path, const char*, const char* member, sd_bus_message* value, void* userdata,
          sd_bus_error* error) noexcept {
    return Handling::RunSetter(path, member, value, userdata, error, &SetterBody<Self, F, CHANGE>);
}

// Checks, one for each kind of binding. The member and the class are in their names, which compilers print.

template <class Self, const auto& M, auto F>
struct CheckedMethod {
    using Type = decltype(F);
    static_assert(!DataMember<Type>, "a method is bound to a function, not to a data member");
    static_assert(DataMember<Type> || Handler<Type>,
                  "a method is bound to a member function, or to a lambda whose parameters have types");

    template <class S>
    static constexpr bool IsSound() {
        static_assert(
            S::HAS_ORDER,
            "a handler takes, in this order: Reply<R>, const Caller&, the arguments; the first two are "
            "optional");
        static_assert(S::TAKES_WELL, "a handler takes its arguments by value or by const reference");
        if constexpr (S::HAS_ORDER) {
            static_assert(SignatureOf<typename S::Arguments>::SIGNATURE == MemberType<M>::IN,
                          "the arguments of the handler are not those of the contract");
            static_assert(OutArguments<typename S::Value>::SIGNATURE == MemberType<M>::OUT,
                          "the result of the handler is not that of the contract");
            static_assert(!S::IS_DEFERRED || std::is_void_v<typename S::Result>,
                          "a handler that takes a Reply returns nothing: the Reply answers");
            static_assert(
                !S::IS_DEFERRED || !S::BORROWS_ARGUMENTS,
                "a handler that takes a Reply owns its arguments: std::string for std::string_view, "
                "or Borrow<T> when they are not used later");
            static_assert(!S::IS_TASK || !S::KNOWS_CALLER,
                          "a handler that is a Task does not take the caller: it goes on when the call has "
                          "returned");
            static_assert(
                !S::IS_TASK || S::TAKES_VALUES,
                "a handler that is a Task takes its arguments by value: it goes on when the call has "
                "returned");
            static_assert(!S::IS_TASK || !S::BORROWS_ARGUMENTS,
                          "a handler that is a Task owns its arguments: std::string for std::string_view, "
                          "or Borrow<T> when they are not used later");
        }
        return true;
    }
    static constexpr bool IsSound() {
        if constexpr (Handler<Type>) {
            static_assert(
                TAKES_OBJECT<Type, Self>,
                "a handler is a member of the class, or takes the object, Self&, as its first parameter");
            return IsSound<typename HandlerShape<Type>::Type>();
        }
        return false;
    }
};

template <class Self, const auto& M, auto F>
struct CheckedGetter {
    using Type = decltype(F);
    static_assert(
        DataMember<Type> || Handler<Type>,
        "a property is bound to a data member, a member function, or a lambda that takes the object");

    static constexpr bool IsSound() {
        if constexpr (DataMember<Type> || Handler<Type>) {
            static_assert(std::is_invocable_v<Type, Self&>, "a getter takes no arguments");
            if constexpr (std::is_invocable_v<Type, Self&>) {
                using Result = std::remove_cvref_t<std::invoke_result_t<Type, Self&>>;
                static_assert(!ContentOf<Result>::IS_TASK, "a getter answers at once: it is no Task");
                if constexpr (!ContentOf<Result>::IS_TASK) {
                    static_assert(
                        OutArguments<typename ResultOf<Result>::Value>::SIGNATURE == MemberType<M>::IN,
                        "the type of the getter, or of the data member, is not that of the property");
                }
                return !ContentOf<Result>::IS_TASK;
            }
            return true;
        }
        return false;
    }
};

template <class Self, const auto& M, auto F>
struct CheckedSetter {
    using Type = decltype(F);
    static_assert(Handler<Type>, "a setter is a member function, or a lambda whose parameters have types");

    static constexpr bool IsSound() {
        if constexpr (Handler<Type>) {
            using S = typename HandlerShape<Type>::Type;
            static_assert(
                TAKES_OBJECT<Type, Self>,
                "a setter is a member of the class, or takes the object, Self&, as its first parameter");
            static_assert(!S::IS_DEFERRED, "a setter answers at once: it takes no Reply");
            static_assert(!S::IS_TASK, "a setter answers at once: it is no Task");
            static_assert(S::HAS_ORDER && S::COUNT == 1,
                          "a setter takes the value, and before it, if it likes, const Caller&");
            static_assert(S::TAKES_WELL, "a setter takes the value by value or by const reference");
            if constexpr (S::HAS_ORDER) {
                static_assert(SignatureOf<typename S::Arguments>::SIGNATURE == MemberType<M>::IN,
                              "the value that the setter takes is not of the type of the property");
            }
            static_assert(
                std::is_void_v<typename S::Value> || std::same_as<typename S::Result, bool>,
                "a setter returns nothing, a StatusCode, an Outcome<void>, or as a bool whether the "
                "value has changed");
            return true;
        }
        return false;
    }
};

constexpr std::uint64_t VtableFlags(Flags flags) {
    constexpr std::uint64_t ALL = (std::uint64_t{1} << 56) - 1;
    // The typed bus checks instead.
    return (flags.isChecked ? (flags.bits & ~std::uint64_t{_SD_BUS_VTABLE_CAPABILITY_MASK}) | OPEN.bits
                            : flags.bits) &
           ALL;
}

template <class Self, class Contract, const auto& M, class B>
struct Entry;
template <class Self, class Contract, const auto& M, auto... F>
struct Entry<Self, Contract, M, Bind<M, F...>> {
    static constexpr sd_bus_vtable Make() {
        using Member = MemberType<M>;
        if constexpr (Member::KIND == Kind::Method) {
            static_assert(sizeof...(F) == 1, "a method is bound to one function");
            if constexpr (sizeof...(F) == 1) {
                return MakeMethod<F...>();
            }
        } else if constexpr (Member::WRITABLE) {
            static_assert(sizeof...(F) == 2, "a writable property is bound to a getter and a setter");
            if constexpr (sizeof...(F) == 2) {
                return MakeProperty<F...>();
            }
        } else {
            static_assert(sizeof...(F) == 1, "a property that is not writable is bound to a getter alone");
            if constexpr (sizeof...(F) == 1) {
                return MakeProperty<F...>();
            }
        }
        return {};
    }

private:
    template <auto HANDLER>
    static constexpr sd_bus_vtable MakeMethod() {
        if constexpr (CheckedMethod<Self, M, HANDLER>::IsSound()) {
            return {.type = _SD_BUS_VTABLE_METHOD,
                    .flags = VtableFlags(M.flags),
                    .x = {.method = {.member = M.name,
                                     .signature = MemberType<M>::IN.text,
                                     .result = MemberType<M>::OUT.text,
                                     .handler = &OnMethod<Self, M, HANDLER>,
                                     .offset = 0,
                                     .names = NAMES<M>.data()}}};
        }
        return {};
    }
    template <auto GETTER>
    static constexpr sd_bus_vtable MakeProperty() {
        if constexpr (CheckedGetter<Self, M, GETTER>::IsSound()) {
            return {.type = _SD_BUS_VTABLE_PROPERTY,
                    .flags = VtableFlags(M.flags),
                    .x = {.property = {.member = M.name,
                                       .signature = MemberType<M>::IN.text,
                                       .get = &OnGet<Self, GETTER>,
                                       .set = nullptr,
                                       .offset = 0}}};
        }
        return {};
    }
    template <auto GETTER, auto SETTER>
    static constexpr sd_bus_vtable MakeProperty() {
        constexpr std::uint64_t CHANGE =
            M.flags.Has(EMITS | INVALIDATES) ? Detail::ChangeBit<M>(Contract::ALL) : 0;
        if constexpr (CheckedGetter<Self, M, GETTER>::IsSound() &&
                      CheckedSetter<Self, M, SETTER>::IsSound()) {
            return {.type = _SD_BUS_VTABLE_WRITABLE_PROPERTY,
                    .flags = VtableFlags(M.flags),
                    .x = {.property = {.member = M.name,
                                       .signature = MemberType<M>::IN.text,
                                       .get = &OnGet<Self, GETTER>,
                                       .set = &OnSet<Self, SETTER, CHANGE>,
                                       .offset = 0}}};
        }
        return {};
    }
};

template <const auto& M, class B>
inline constexpr bool IS_BINDING_OF = false;
template <const auto& M, auto... F>
inline constexpr bool IS_BINDING_OF<M, Bind<M, F...>> = true;

/// The binding of the member `M`; there is no function when it has none, or two.
template <const auto& M, std::size_t I, auto... F>
Bind<M, F...> FindBinding(const Slot<I, Bind<M, F...>>*);

template <const auto& M, class Bound>
concept BoundOnce = requires(const Bound* bound) {
    FindBinding<M>(bound);
};

template <class Self, class Contract, const auto& M, class... B>
constexpr sd_bus_vtable MakeEntry() {
    if constexpr (MemberType<M>::KIND == Kind::Signal) {
        return {.type = _SD_BUS_VTABLE_SIGNAL,
                .flags = VtableFlags(M.flags),
                .x = {.signal = {
                          .member = M.name, .signature = MemberType<M>::IN.text, .names = NAMES<M>.data()}}};
    } else {
        using Bound = Slots<B...>;
        if constexpr (BoundOnce<M, Bound>) {
            return Entry<Self, Contract, M,
                         decltype(FindBinding<M>(static_cast<const Bound*>(nullptr)))>::Make();
        } else {
            if constexpr (CountTrue({IS_BINDING_OF<M, B>...}) == 0) {
                static_cast<void>(Unbound<Self, M>::IS_SOUND);
            }
            return {};
        }
    }
}

/// Refuses a binding that is of no use. `Bound` are the Slots of all.
template <class Self, class Contract, class B, class Bound>
struct CheckedBinding {
    static_assert(sizeof(B) == 0, "Bindings are of Bind<member, functions...>");
    static constexpr bool IS_SOUND = true;
};
template <class Self, class Contract, const auto& M, auto... F, class Bound>
struct CheckedBinding<Self, Contract, Bind<M, F...>, Bound> {
    static_assert(IS_MEMBER_OF<Contract, M>, "what is bound is not a member of this contract");
    static_assert(MemberType<M>::KIND != Kind::Signal, "a signal is not bound: Emit sends it");
    static_assert(BoundOnce<M, Bound>, "a member of the contract is bound twice");
    static constexpr bool IS_SOUND = true;
};

template <class Self, class Contract, const auto&... M, class... B>
constexpr std::array<sd_bus_vtable, sizeof...(M) + 2> MakeVtable(Members<M...>, Bindings<B...>) {
    static_assert(AreAll({CheckedBinding<Self, Contract, B, Slots<B...>>::IS_SOUND...}));
    return {sd_bus_vtable{.type = _SD_BUS_VTABLE_START,
                          .flags = 0,
                          .x = {.start = {.element_size = sizeof(sd_bus_vtable),
                                          .features = _SD_BUS_VTABLE_PARAM_NAMES,
                                          .vtable_format_reference = &sd_bus_object_vtable_format}}},
            MakeEntry<Self, Contract, M, B...>()...,
            sd_bus_vtable{.type = _SD_BUS_VTABLE_END, .flags = 0, .x = {.end = {._reserved = 0}}}};
}

/// One for each class, created by the compiler.
template <class Self, class Contract>
struct Vtable {
    static inline constinit const auto ENTRIES =
        MakeVtable<Self, Contract>(Contract::ALL, decltype(Self::Describe())());
};

}  // namespace Detail

/// Base of an application's class that keeps the contract `Contract`: a `DBusInterface` whose vtable the
/// compiler makes from `Self::Describe()`. `Bus::Export` takes it; so does the object manager of the service
/// frame, and then `Bus::Adopt` adds changes, signals and late replies.
///
///     class ThermostatInterface final : public Typed::Implements<ThermostatInterface, Thermostat1> {
///         Outcome<void> Boost(std::uint32_t seconds) {
///             if (seconds > 3600) return Error::InvalidArgs("more than an hour");
///             mTemperature += 1.0;
///             Changed<Thermostat1::Temperature>();          // one PropertiesChanged at the end of the turn
///             Emit<Thermostat1::Measured>(mTemperature);    // immediately
///             return {};
///         }
///         double mTemperature = 0.0;
///     public:
///         static constexpr auto Describe() {
///             return Bindings<Bind<Thermostat1::Boost, &ThermostatInterface::Boost>,
///                             Bind<Thermostat1::Temperature, &ThermostatInterface::mTemperature>,
///                             Bind<Thermostat1::Target, &ThermostatInterface::GetTarget,
///                                  &ThermostatInterface::SetTarget>>();
///         }
///     };
///
/// A method's handler is a member function, or a lambda without captures whose first parameter is `Self&`:
///
///     R | void | StatusCode | Outcome<R>   f([Reply<R>,] [const Caller&,] A...)
///     Task<of one of these>                f(A...)
///
/// R is the result, `Results<...>` for several. With a Reply the handler returns void and the answer comes
/// from the Reply, later and from any thread; its arguments are then its own, not views into the message. The
/// C++ types may differ from the contract's as long as they are the same on D-Bus.
/// A handler that is a coroutine answers when it is done, see task_handler.h.
/// A getter is a data member, or a function without parameters that returns T, a reference to one, or
/// `Outcome<T>`. A setter takes the value, with `const Caller&` before it if it likes, and returns void,
/// StatusCode, Outcome<void>, or a bool: whether the value has changed. A setter that succeeds marks its
/// property as changed, one that returns false does not.
///
/// `Describe` is a function, because its body sees the whole class. Write lambdas in it only in sources, not
/// in headers: each file that includes the header would have lambdas of its own. A handler that does not fit
/// the contract does not compile.
///
/// Exceptions: what a handler throws goes no further. The caller gets an error and the log has what was
/// thrown; see `Handling`. A thread that is cancelled in a handler ends the process.
///
/// D-Bus thread only.
template <class Self, class Contract>
class Implements : public InterfaceBase {
public:
    /// On no bus yet.
    Implements() : InterfaceBase(Contract::NAME) {}

    /// Constant; nothing runs to make it.
    const sd_bus_vtable* GetVtable() const override {
        static_assert(CheckedContract<Contract>::IS_SOUND);
        static_assert(std::is_base_of_v<Implements, Self>,
                      "the first argument of Implements is the class that derives from it");
        static_assert(
            requires { Self::Describe(); },
            "the class has no public static constexpr auto Describe() that returns Bindings<...>()");
        return Detail::Vtable<Self, Contract>::ENTRIES.data();
    }

    /// Notes that these properties have changed. They are announced together at the end of the turn of the
    /// loop, with the values of then. Does nothing while the object is not exported, which is logged once.
    template <const auto&... M>
    void Changed() {
        static_assert(sizeof...(M) > 0, "Changed names the properties that have changed");
        static_assert((IS_MEMBER_OF<Contract, M> && ...),
                      "what has changed is not a member of this contract");
        static_assert(((MemberType<M>::KIND == Kind::Property && M.flags.Has(EMITS | INVALIDATES)) && ...),
                      "what has changed is not a property that announces its changes");
        MarkChanged((std::uint64_t{0} | ... | Detail::ChangeBit<M>(Contract::ALL)));
    }

    /// Sends the signal immediately, before anything that is marked as changed.
    ///
    /// Ok: it is in the connection's queue.
    /// NotInitialized: the object is not exported; logged once.
    /// InvalidArgument: a value cannot be sent, such as text that is not UTF-8; logged, nothing is sent.
    /// Otherwise the status of sd-bus's error; logged.
    template <const auto& M, class... V>
    StatusCode Emit(const V&... value) {
        static_assert(IS_MEMBER_OF<Contract, M>, "what is emitted is not a member of this contract");
        static_assert(MemberType<M>::KIND == Kind::Signal, "what is emitted is not a signal");
        if constexpr (MemberType<M>::KIND == Kind::Signal) {
            static_assert(MakeSignature<V...>() == MemberType<M>::IN,
                          "the values are not those of the signal");
        }
        using Values = std::tuple<const V&...>;
        const Values values(value...);
        return SendSignal(
            M.name,
            [](sd_bus_message* message, const void* all) {
                return std::apply([message](const V&... each) { return Detail::WriteEach(message, each...); },
                                  *static_cast<const Values*>(all));
            },
            &values);
    }
};

}  // namespace mwl::Typed
