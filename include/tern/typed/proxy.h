#pragma once

/// An object of another service as a client has it: `Proxy<Contract>`. Including this is what a client needs.

#include <systemd/sd-bus.h>
#include <tern/typed/bus.h>
#include <tern/typed/call.h>
#include <tern/typed/codec.h>
#include <tern/typed/contract.h>
#include <tern/typed/decode.h>
#include <tern/typed/error.h>
#include <tern/typed/future.h>
#include <tern/typed/owned.h>
#include <tern/typed/remote.h>
#include <tern/typed/subscription.h>
#include <tern/typed/variants.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace mwl::Typed {

template <class Contract>
class Proxy;

namespace Detail {

/// Named by the compiler where a member is none of the proxy's contract; no constant, so that it does not
/// compile there.
inline void IsNotAMemberOfTheContract() {}

template <const auto& M, class Member>
constexpr bool IsSame(const Member& member) {
    if constexpr (std::is_same_v<Member, MemberType<M>>) {
        // The names first: comparisons of addresses of different objects are not folded under every option.
        return std::string_view(M.name) == member.name && &M == &member;
    } else {
        return false;
    }
}
template <class Member, const auto&... M>
constexpr bool IsAnyOf(const Member& member, Members<M...>) {
    return CountTrue({IsSame<M>(member)...}) != 0;
}

/// A member, of which the compiler has checked that it is one of the contract.
template <class Contract, class Member>
class MemberOf {
public:
    // NOLINTNEXTLINE(google-explicit-constructor): from an argument
    consteval MemberOf(const Member& member) : mMember(&member) {
        if (!IsAnyOf(member, Contract::ALL)) {
            IsNotAMemberOfTheContract();
        }
    }
    constexpr const Member* operator->() const { return mMember; }

private:
    const Member* mMember;
};

template <class... T>
struct Types {};
/// Adds to `List` the types that are of a kind, each once.
template <template <class> class Is, class List, class... T>
struct Selected {
    using Type = List;
};
template <template <class> class Is, class... Found, class First, class... More>
struct Selected<Is, Types<Found...>, First, More...>
    : Selected<Is,
               std::conditional_t<Is<First>::value && !(std::is_same_v<Found, First> || ...),
                                  Types<Found..., First>, Types<Found...>>,
               More...> {};
template <template <class> class Is, class Members>
struct SelectedMembers;
template <template <class> class Is, const auto&... M>
struct SelectedMembers<Is, Members<M...>> : Selected<Is, Types<>, MemberType<M>...> {};

template <class M>
struct IsMethod : std::bool_constant<M::KIND == Kind::Method> {};
template <class M>
struct IsProperty : std::bool_constant<M::KIND == Kind::Property> {};
template <class M>
struct IsSignal : std::bool_constant<M::KIND == Kind::Signal> {};
template <class M, bool IS_PROPERTY = M::KIND == Kind::Property>
struct IsWritableOrNot : std::bool_constant<M::WRITABLE> {};
template <class M>
struct IsWritableOrNot<M, false> : std::false_type {};
template <class M>
struct IsWritable : IsWritableOrNot<M> {};

/// Writes the values as the call's arguments. `names` are those of the arguments, or nulls.
template <class... V>
void WriteArguments(CallBase& call, [[maybe_unused]] const char* const* names, const V&... value) {
    sd_bus_message* const message = call.GetMessage();
    if (message == nullptr) {
        return;
    }
    [[maybe_unused]] unsigned index = 0;
    int r = 0;
    static_cast<void>(((r = Codec<V>::Write(message, value), index += r >= 0 ? 1U : 0U, r >= 0) && ...));
    if constexpr (sizeof...(V) > 0) {
        if (r < 0) {
            call.RefuseArgument(index, names[index], r);
        }
    }
}

template <class R, class... A, class... V>
Call<Owned<R>> CallMethod(const std::shared_ptr<Remote>& remote, const char* interface,
                          const Method<R(A...)>& method, const V&... value) {
    Call<Owned<R>> call(remote, interface, method.name);
    if (method.flags.Has(NO_REPLY)) {
        call.ExpectNoReply();
    }
    if (method.flags.Has(SENSITIVE)) {
        call.SetSensitive();
    }
    WriteArguments(call, method.names.data(), value...);
    return call;
}

inline constexpr const char* PROPERTIES = "org.freedesktop.DBus.Properties";
inline constexpr std::array<const char*, 3> PROPERTY_ARGUMENTS{"interface", "property", "value"};

/// The values of a call, checked against the method.
template <class Method, class... V>
struct CheckedValues {
    static_assert(sizeof...(V) == std::tuple_size_v<typename Method::Arguments>,
                  "the method takes another number of arguments");
    static_assert(sizeof...(V) != std::tuple_size_v<typename Method::Arguments> ||
                      MakeSignature<V...>() == Method::IN,
                  "the values are not of the types of the method's arguments");
    static constexpr bool ARE_SOUND = true;
};

/// A value that another thread gives along: text and arrays that are borrowed are copied.
template <class V>
auto TakeAlong(V&& value) {
    using Given = std::remove_cvref_t<V>;
    if constexpr (std::is_array_v<Given> || std::is_same_v<Given, const char*> ||
                  std::is_same_v<Given, char*>) {
        // A null one cannot be sent, and its call is to report this: text with a null character cannot be
        // sent either.
        const char* const text = value;
        return text != nullptr ? std::string(text) : std::string(1, '\0');
    } else if constexpr (std::is_same_v<Given, std::string_view>) {
        return std::string(value);
    } else if constexpr (IS_SPAN<Given>) {
        return std::vector<std::remove_const_t<typename Given::element_type>>(value.begin(), value.end());
    } else {
        static_assert(OWNS<Given>,
                      "a value for another thread owns what it holds, as std::vector<std::string> does");
        return Given(std::forward<V>(value));
    }
}

/// The operations of a proxy for each type of method. The overloads differ in the member's type alone, so
/// that a member of the contract finds its own.
template <class Contract, class M>
class MethodCalls;
template <class Contract, class R, class... A>
class MethodCalls<Contract, Method<R(A...)>> {
    using Member = MemberOf<Contract, Method<R(A...)>>;

public:
    template <class... V>
    Typed::Call<Owned<R>> Call(Member method, const V&... value) const {
        static_assert(CheckedValues<Method<R(A...)>, V...>::ARE_SOUND);
        return CallMethod(GetRemote(), Contract::NAME, *method.operator->(), value...);
    }
    template <class... V>
    Future<Owned<R>> CallFromWorker(Member method, V&&... value) const {
        static_assert(CheckedValues<Method<R(A...)>, std::remove_cvref_t<V>...>::ARE_SOUND);
        auto state = std::make_shared<FutureResult<Owned<R>>>(GetRemote());
        const Method<R(A...)>* const called = method.operator->();
        FutureState::Post(state, [state, remote = GetRemote(), called,
                                  values = std::make_tuple(TakeAlong(std::forward<V>(value))...)] {
            if (state->IsCancelled()) {
                return;
            }
            auto call = std::apply(
                [&](const auto&... each) { return CallMethod(remote, Contract::NAME, *called, each...); },
                values);
            state->SetCall(std::move(call).Then([state](Outcome<Owned<R>> outcome) {
                state->outcome.emplace(std::move(outcome));
                state->Complete(StatusCode::Ok);
            }));
        });
        return Future<Owned<R>>(std::move(state));
    }

private:
    const std::shared_ptr<Remote>& GetRemote() const {
        return static_cast<const Proxy<Contract>&>(*this).GetRemote();
    }
};

template <class Contract, class P>
class PropertyReads {
    using Value = Owned<typename P::Type>;

public:
    Typed::Call<Value> Get(MemberOf<Contract, P> property) const {
        Typed::Call<Value> call(static_cast<const Proxy<Contract>&>(*this).GetRemote(), PROPERTIES, "Get",
                                &DecodeVariant<Value>);
        WriteArguments(call, PROPERTY_ARGUMENTS.data(), std::string_view(Contract::NAME),
                       std::string_view(property->name));
        return call;
    }
};

template <class Contract, class P>
class PropertyWrites {
public:
    template <class V>
    Typed::Call<void> Set(MemberOf<Contract, P> property, const V& value) const {
        static_assert(MakeSignature<V>() == P::IN, "the value is not of the property's type");
        Typed::Call<void> call(static_cast<const Proxy<Contract>&>(*this).GetRemote(), PROPERTIES, "Set");
        WriteArguments(call, PROPERTY_ARGUMENTS.data(), std::string_view(Contract::NAME),
                       std::string_view(property->name));
        if (sd_bus_message* const message = call.GetMessage()) {
            if (const int r = WriteInVariant(message, value); r < 0) {
                call.RefuseArgument(2, property->name, r);
            }
        }
        return call;
    }
};

template <class Contract, class S>
class SignalSubscriptions {
public:
    template <class F>
    Subscription On(MemberOf<Contract, S> signal, F&& handler) const {
        return SubscribeTo(static_cast<const Proxy<Contract>&>(*this).GetRemote(), Contract::NAME,
                           *signal.operator->(), std::forward<F>(handler));
    }
};

template <class Contract, class Methods, class Properties, class Writables, class Signals>
class ProxyCalls;
template <class Contract, class... M, class... P, class... W, class... S>
class ProxyCalls<Contract, Types<M...>, Types<P...>, Types<W...>, Types<S...>>
    : public MethodCalls<Contract, M>...,
      public PropertyReads<Contract, P>...,
      public PropertyWrites<Contract, W>...,
      public SignalSubscriptions<Contract, S>... {
public:
    using MethodCalls<Contract, M>::Call...;
    using MethodCalls<Contract, M>::CallFromWorker...;
    using PropertyReads<Contract, P>::Get...;
    using PropertyWrites<Contract, W>::Set...;
    using SignalSubscriptions<Contract, S>::On...;
};

template <class Contract, class All = std::remove_cvref_t<decltype(Contract::ALL)>>
using ProxyCallsOf = ProxyCalls<
    Contract, typename SelectedMembers<IsMethod, All>::Type, typename SelectedMembers<IsProperty, All>::Type,
    typename SelectedMembers<IsWritable, All>::Type, typename SelectedMembers<IsSignal, All>::Type>;

}  // namespace Detail

/// An object of a peer that keeps a contract. It has no state of the object's, sends nothing by itself and
/// needs no peer; a small value, to be copied freely: copies are of the same object and share the time-out.
///
///     Proxy<Thermostat1> room(mBus, "com.example.Thermostat", "/com/example/Thermostat");
///     Outcome<std::string> path = co_await room.Call(Thermostat1::ExportLog, "pw");
///     mPending = room.Call(Thermostat1::Boost, 60u).Then([this](Outcome<void> outcome) { ... });
///     Outcome<double> target = co_await room.Get(Thermostat1::Target);
///     Outcome<void> set = co_await room.Set(Thermostat1::Target, 21.0);
///     mMeasured = room.On(Thermostat1::Measured, [this](double celsius) { Show(celsius); });
///     Future<void> boost = room.CallFromWorker(Thermostat1::Boost, 60u);  // on any thread
///
/// Its operations are for the members of the contract. A member of another contract, or one that is no
/// constant, does not compile, nor do values of other D-Bus types than the contract's.
///
/// - `Call(method, values...) -> Call<R>`: nothing is sent yet, see `Call`. A value that cannot be sent is in
///   the outcome. A method that is NO_REPLY has its outcome as soon as it has been sent.
/// - `CallFromWorker(method, values...) -> Future<R>`: from any thread, the D-Bus thread sends it after what
///   the thread posted before. The values are taken along: text as a `std::string` whatever it is given as,
///   a span as a vector; other types that borrow do not compile. Throws std::bad_alloc.
/// - `Get(property) -> Call<T>`: asks for the value, whatever is known here of it. A value of another type
///   is "mwl.Typed.Error.WrongReply".
/// - `Set(property, value) -> Call<void>`: of a WritableProperty.
/// - `On(signal, handler) -> Subscription`: has the handler called with the signal's values, see
///   Subscription.
///
/// A result owns what it holds: where the contract says `std::string_view` it is a `std::string`, see Owned.
///
/// D-Bus thread, except CallFromWorker and GetRemote. It may outlive the bus: calls end with `Stopping` then.
template <class Contract>
class Proxy : public Detail::ProxyCallsOf<Contract> {
    static_assert(CheckedContract<Contract>::IS_SOUND);

public:
    /// See Remote. Throws std::bad_alloc.
    Proxy(const Bus& bus, std::string destination, std::string path)
        : mRemote(std::make_shared<Remote>(bus, std::move(destination), std::move(path))) {}
    /// Of an object that others know already. REQUIRES: not null.
    explicit Proxy(std::shared_ptr<Remote> remote) noexcept : mRemote(std::move(remote)) {}

    /// How long replies are waited for, of calls created from now on, here and with copies; initially 5 s,
    /// see Remote::SetTimeout.
    void SetTimeout(std::chrono::milliseconds timeout) noexcept { mRemote->SetTimeout(timeout); }
    /// Asks whether the peer answers at all; the object need not be there. It starts a service that can be
    /// started.
    Typed::Call<void> Ping() const { return Typed::Call<void>(mRemote, "org.freedesktop.DBus.Peer", "Ping"); }

    /// Of the same object. Moving copies too, so that no proxy is without one.
    Proxy(const Proxy&) = default;
    /// As above.
    Proxy& operator=(const Proxy&) = default;
    ~Proxy() = default;

    /// The state that calls and subscriptions share. Any thread.
    const std::shared_ptr<Remote>& GetRemote() const noexcept { return mRemote; }

private:
    std::shared_ptr<Remote> mRemote;
};

}  // namespace mwl::Typed
