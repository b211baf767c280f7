#pragma once

/// An object of another service for programs that wait: `BlockingProxy<Contract>`. Including this is what a
/// tool needs.

#include <systemd/sd-bus.h>
#include <tern/typed/blocking_bus.h>
#include <tern/typed/codec.h>
#include <tern/typed/contract.h>
#include <tern/typed/decode.h>
#include <tern/typed/error.h>
#include <tern/typed/owned.h>
#include <tern/typed/proxy.h>

#include <array>
#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

template <class Contract>
class BlockingProxy;

namespace Detail {

/// Which object is called, through which connection, and for how long at most.
struct BlockingTarget {
    std::shared_ptr<BlockingBus> bus;
    std::string destination;
    std::string path;
    std::chrono::milliseconds limit = Remote::TIMEOUT;

    BlockingRequest Ask(const char* interface, const char* member, const char* const* names) const {
        return {destination.c_str(), path.c_str(), interface, member, limit, names};
    }
};

/// Appends the values one by one; `index` is then that of the one that could not be.
template <class... V>
int WriteCounted([[maybe_unused]] sd_bus_message* message, [[maybe_unused]] unsigned& index,
                 const V&... value) {
    int r = 0;
    static_cast<void>(((r = Codec<V>::Write(message, value), index += r >= 0 ? 1U : 0U, r >= 0) && ...));
    return r;
}

/// The operations of a blocking proxy for each type of member, like MethodCalls for a Proxy.
template <class Contract, class M>
class BlockingMethods;
template <class Contract, class R, class... A>
class BlockingMethods<Contract, Method<R(A...)>> {
public:
    template <class... V>
    Outcome<Owned<R>> Call(MemberOf<Contract, Method<R(A...)>> method, const V&... value) const {
        static_assert(CheckedValues<Method<R(A...)>, V...>::ARE_SOUND);
        const BlockingTarget& target = static_cast<const BlockingProxy<Contract>&>(*this).GetTarget();
        BlockingRequest request = target.Ask(Contract::NAME, method->name, method->names.data());
        request.isAnswered = !method->flags.Has(NO_REPLY);
        request.isSensitive = method->flags.Has(SENSITIVE);
        const Outcome<OwnedMessage> reply = target.bus->Ask(
            request,
            [&](sd_bus_message* message, unsigned& index) { return WriteCounted(message, index, value...); });
        if (!reply.IsOk()) {
            return reply.GetError();
        }
        if constexpr (std::is_void_v<R>) {
            if (*reply == nullptr) {
                return {};
            }
        }
        return Decode<Owned<R>>(reply->get());
    }
};

template <class Contract, class P>
class BlockingReads {
    using Value = Owned<typename P::Type>;

public:
    Outcome<Value> Get(MemberOf<Contract, P> property) const {
        const BlockingTarget& target = static_cast<const BlockingProxy<Contract>&>(*this).GetTarget();
        const Outcome<OwnedMessage> reply =
            target.bus->Ask(target.Ask(PROPERTIES, "Get", PROPERTY_ARGUMENTS.data()),
                            [&](sd_bus_message* message, unsigned& index) {
                                return WriteCounted(message, index, std::string_view(Contract::NAME),
                                                    std::string_view(property->name));
                            });
        return reply.IsOk() ? DecodeVariant<Value>(reply->get()) : Outcome<Value>(reply.GetError());
    }
};

template <class Contract, class P>
class BlockingWrites {
public:
    template <class V>
    Outcome<void> Set(MemberOf<Contract, P> property, const V& value) const {
        static_assert(MakeSignature<V>() == P::IN, "the value is not of the property's type");
        const BlockingTarget& target = static_cast<const BlockingProxy<Contract>&>(*this).GetTarget();
        const std::array<const char*, 3> names{PROPERTY_ARGUMENTS[0], PROPERTY_ARGUMENTS[1], property->name};
        const Outcome<OwnedMessage> reply = target.bus->Ask(
            target.Ask(PROPERTIES, "Set", names.data()), [&](sd_bus_message* message, unsigned& index) {
                const int r = WriteCounted(message, index, std::string_view(Contract::NAME),
                                           std::string_view(property->name));
                return r < 0 ? r : WriteInVariant(message, value);
            });
        return reply.IsOk() ? Decode<void>(reply->get()) : Outcome<void>(reply.GetError());
    }
};

template <class Contract, class S>
class BlockingSignals;
template <class Contract, class... A>
class BlockingSignals<Contract, Signal<A...>> {
public:
    Listening<Owned<A>...> Listen(MemberOf<Contract, Signal<A...>> signal) const {
        const BlockingTarget& target = static_cast<const BlockingProxy<Contract>&>(*this).GetTarget();
        return Listening<Owned<A>...>(target.bus, target.destination, target.path, Contract::NAME,
                                      signal->name, Signal<A...>::IN.text, target.limit);
    }
    Outcome<std::tuple<Owned<A>...>> WaitFor(MemberOf<Contract, Signal<A...>> signal,
                                             std::chrono::milliseconds limit) const {
        return Listen(signal).Next(limit);
    }
};

template <class Contract, class Methods, class Properties, class Writables, class Signals>
class BlockingCalls;
template <class Contract, class... M, class... P, class... W, class... S>
class BlockingCalls<Contract, Types<M...>, Types<P...>, Types<W...>, Types<S...>>
    : public BlockingMethods<Contract, M>...,
      public BlockingReads<Contract, P>...,
      public BlockingWrites<Contract, W>...,
      public BlockingSignals<Contract, S>... {
public:
    using BlockingMethods<Contract, M>::Call...;
    using BlockingReads<Contract, P>::Get...;
    using BlockingWrites<Contract, W>::Set...;
    using BlockingSignals<Contract, S>::Listen...;
    using BlockingSignals<Contract, S>::WaitFor...;
};

template <class Contract, class All = std::remove_cvref_t<decltype(Contract::ALL)>>
using BlockingCallsOf = BlockingCalls<
    Contract, typename SelectedMembers<IsMethod, All>::Type, typename SelectedMembers<IsProperty, All>::Type,
    typename SelectedMembers<IsWritable, All>::Type, typename SelectedMembers<IsSignal, All>::Type>;

}  // namespace Detail

/// An object of a peer that keeps a contract, for command-line tools, main programs and workers: each
/// operation waits for its answer. On a service's D-Bus thread use `Proxy`.
///
///     const BlockingProxy<Thermostat1> room("com.example.Thermostat", "/com/example/Thermostat");
///     const Outcome<void> boosted = room.Call(Thermostat1::Boost, 60u);
///     const Outcome<double> target = room.Get(Thermostat1::Target);
///     const Outcome<void> set = room.Set(Thermostat1::Target, 21.0);
///     const Outcome<std::string> path = room.Within(120s).Call(Thermostat1::ExportLog, "pw");
///     const auto measured = room.WaitFor(Thermostat1::Measured, 10s);   // Outcome<std::tuple<double>>
///
/// Its operations are for the members of the contract. A member of another contract, or one that is no
/// constant, does not compile, nor do values of other D-Bus types than the contract's.
///
/// - `Call(method, values...) -> Outcome<R>`. A method that is NO_REPLY has its outcome as soon as the
///   message bus has the call. The memory of one that is SENSITIVE is erased.
/// - `Get(property) -> Outcome<T>`: asks for the value.
/// - `Set(property, value) -> Outcome<void>`: of a WritableProperty.
/// - `WaitFor(signal, limit) -> Outcome<std::tuple<T...>>`: the values of the next signal that is sent once
///   this has begun; the time that it takes to begin is limited as a call is. For one that a call brings
///   about, Listen before.
/// - `Listen(signal) -> Listening<T...>`: collects the signals from now on.
///
/// A result owns what it holds: where the contract says `std::string_view` it is a `std::string`, see Owned.
/// Errors are those of a `Call`, and where there is no connection those of `BlockingBus`. Nothing but
/// std::bad_alloc is thrown.
///
/// A small value; copies, and what Within gives, are of the same object and share the connection. Threads: as
/// BlockingBus.
template <class Contract>
class BlockingProxy : public Detail::BlockingCallsOf<Contract> {
    static_assert(CheckedContract<Contract>::IS_SOUND);

public:
    /// On the system bus, with a connection of its own, which the first call makes. `destination` is a
    /// well-known name or a unique one, `path` that of the object; what they are a call finds out. Throws
    /// std::bad_alloc.
    BlockingProxy(std::string destination, std::string path)
        : BlockingProxy(std::make_shared<BlockingBus>(), std::move(destination), std::move(path)) {}
    /// On another bus, or with a connection that others use too. REQUIRES: not null.
    BlockingProxy(std::shared_ptr<BlockingBus> bus, std::string destination, std::string path)
        : mTarget{std::move(bus), std::move(destination), std::move(path)} {}

    /// The same with another limit for each of its operations; initially Remote::TIMEOUT, 5 s. 0 or less
    /// counts as the shortest time there is, Remote::NO_LIMIT as none.
    [[nodiscard]] BlockingProxy Within(std::chrono::milliseconds limit) const {
        BlockingProxy other(*this);
        other.SetTimeout(limit);
        return other;
    }
    /// The limit of this one's operations from now on.
    void SetTimeout(std::chrono::milliseconds limit) noexcept { mTarget.limit = limit; }
    /// Asks whether the peer answers at all; the object need not be there. It starts a service that can be
    /// started.
    Outcome<void> Ping() const {
        const Outcome<Detail::OwnedMessage> reply =
            mTarget.bus->Ask(mTarget.Ask("org.freedesktop.DBus.Peer", "Ping", nullptr),
                             [](sd_bus_message*, unsigned&) { return 0; });
        return reply.IsOk() ? Decode<void>(reply->get()) : Outcome<void>(reply.GetError());
    }
    /// Its connection.
    const std::shared_ptr<BlockingBus>& GetBus() const noexcept { return mTarget.bus; }
    /// For the operations. Applications do not need it.
    const Detail::BlockingTarget& GetTarget() const noexcept { return mTarget; }

private:
    Detail::BlockingTarget mTarget;
};

}  // namespace mwl::Typed
