#pragma once

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/typed/caller.h>
#include <tern/typed/codec.h>
#include <tern/typed/contract.h>
#include <tern/typed/handler.h>
#include <tern/typed/remote.h>

#include <cerrno>
#include <memory>
#include <new>
#include <tuple>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

namespace Detail {

/// The part of a subscription that depends on types.
class TERN_API SignalHandler {
public:
    SignalHandler(const SignalHandler&) = delete;
    SignalHandler& operator=(const SignalHandler&) = delete;
    virtual ~SignalHandler();
    /// Reads the values, of which the signature is right, and calls the handler. Negative: they cannot be
    /// read, and nothing was called with them. Exceptions of the handler, and of a codec of one's own except
    /// std::bad_alloc, pass through.
    virtual int Run(sd_bus_message* signal) = 0;

protected:
    SignalHandler() = default;
};

}  // namespace Detail

/// Signals of one kind from one object of a peer, for a handler, until this is destroyed. Created by
/// `Proxy::On`, or by SubscribeTo.
///
///     mMeasured = room.On(Thermostat1::Measured, [this](double celsius) { Show(celsius); });
///
/// Only signals of the peer itself arrive. For a well-known name that is who owns it when the message bus
/// passes the signal on: its next owner is heard as well, and nobody else, neither one who sends the same
/// signal nor one who sends it to this connection alone. For a unique name it is that connection for ever.
///
/// The handler is called for every signal that the message bus passes on once it has confirmed the
/// subscription (GetStatus is Ok); signals that were sent before are not given to it. It runs on the D-Bus
/// thread. It may end its own subscription and others and begin new ones, and is destroyed after it has
/// returned. An exception of it ends the loop in order, see Dispatcher; so does an exception of a codec of
/// one's own.
///
/// A signal that is not of the contract's signature, or has no value of the type, does not reach the handler.
/// It is counted (Bus::Counters::wrongSignals) and logged (warning, logger name "Typed", ten in ten seconds).
///
/// However many signals come, a turn of the loop handles 32 messages at most, and jobs and timers have their
/// turns in between. Signals that wait are in the socket and at the message bus, not in this process.
///
/// D-Bus thread only; once the bus has closed any thread. Debug builds check that.
class [[nodiscard]] Subscription {
public:
    /// None; GetStatus is NotInitialized.
    TERN_API Subscription() noexcept;
    /// Takes the subscription over; `other` is none then.
    TERN_API Subscription(Subscription&& other) noexcept;
    /// The subscription held before ends.
    TERN_API Subscription& operator=(Subscription&& other) noexcept;
    /// Nothing arrives any more.
    TERN_API ~Subscription();

    /// Whether there is one, whatever its status.
    explicit operator bool() const noexcept { return mState != nullptr; }
    /// Ok: signals arrive. Busy: the message bus has not confirmed yet. NotInitialized: none, or created when
    /// the bus was not open. Stopping: the bus has closed. InvalidArgument: the destination, the path or the
    /// interface is not valid. Otherwise what the message bus, or sending to it, failed with; nothing arrives
    /// then. Every failure is logged (error, logger name "Typed").
    TERN_API StatusCode GetStatus() const noexcept;
    /// Ends it, as if it were destroyed.
    TERN_API void Reset() noexcept;

private:
    struct State;
    friend TERN_API Subscription Subscribe(const Remote& remote, const char* interface, const char* member,
                                           const char* signature,
                                           std::unique_ptr<Detail::SignalHandler> handler, const char* first);

    std::shared_ptr<State> mState;
};

/// The part of SubscribeTo for every type; applications do not need it. `signature`, which stays where it is,
/// is that of the values; null for whatever comes. `first`, unless it is null, is what the first value has to
/// be, a text without quotes: the message bus passes on no others. Throws std::bad_alloc.
TERN_API Subscription Subscribe(const Remote& remote, const char* interface, const char* member,
                                const char* signature, std::unique_ptr<Detail::SignalHandler> handler,
                                const char* first = nullptr);

namespace Detail {

/// The parameters of a handler that names types: its own, which are of the signal's signature.
template <class F>
struct SignalShape;
template <Function F>
struct SignalShape<F> : ShapeOf<false, std::remove_pointer_t<F>> {};
template <Lambda F>
struct SignalShape<F> : ShapeOf<false, typename Pointee<decltype(&F::operator())>::Type> {};

/// The parameters of a handler without types of its own, such as a lambda with `auto`: the contract's.
template <class F, class... A>
struct PlainSignal {
    static constexpr bool KNOWS_CALLER = false;
    using Arguments = std::tuple<std::remove_cvref_t<A>...>;
    static constexpr bool IsSound() {
        static_assert(std::is_invocable_v<F&, A...>, "the handler does not take the values of the signal");
        if constexpr (std::is_invocable_v<F&, A...>) {
            static_assert(std::is_void_v<std::invoke_result_t<F&, A...>>,
                          "the handler of a signal returns nothing: nobody waits for it");
        }
        return true;
    }
};
template <class F, class... A>
struct TypedSignal {
    using Shape = typename SignalShape<F>::Type;
    static constexpr bool KNOWS_CALLER = Shape::KNOWS_CALLER;
    using Arguments = typename Shape::Arguments;
    static constexpr bool IsSound() {
        static_assert(
            Shape::HAS_ORDER && !Shape::IS_DEFERRED,
            "the handler of a signal takes the values, and before them, if it likes, const Caller&");
        static_assert(Shape::TAKES_WELL, "a handler takes its arguments by value or by const reference");
        static_assert(std::is_void_v<typename Shape::Result>,
                      "the handler of a signal returns nothing: nobody waits for it");
        if constexpr (Shape::HAS_ORDER) {
            static_assert(SignatureOf<Arguments>::SIGNATURE == MakeSignature<A...>(),
                          "the arguments of the handler are not the values of the signal");
        }
        return true;
    }
};
template <class F, class... A>
using SignalOf = std::conditional_t<Function<F> || Lambda<F>, TypedSignal<F, A...>, PlainSignal<F, A...>>;

template <class F, class... A>
class SignalRunner final : public SignalHandler {
public:
    template <class Given>
    // NOLINTNEXTLINE(bugprone-forwarding-reference-overload): created by SubscribeTo alone
    explicit SignalRunner(Given&& handler) : mHandler(std::forward<Given>(handler)) {}

    int Run(sd_bus_message* signal) override {
        using Kind = SignalOf<F, A...>;
        typename Kind::Arguments values{};
        if (const int r = Read(signal, values); r < 0) {
            return r;
        }
        std::apply(
            [&](auto&... value) {
                if constexpr (Kind::KNOWS_CALLER) {
                    const typename Kind::Shape::CallerType sender(signal);
                    mHandler(sender, std::move(value)...);
                } else {
                    mHandler(std::move(value)...);
                }
            },
            values);
        return 0;
    }

private:
    template <class... V>
    static int Read([[maybe_unused]] sd_bus_message* signal, std::tuple<V...>& values) try {
        [[maybe_unused]] Fault fault;
        int r = 0;
        std::apply(
            [&](V&... value) {
                static_cast<void>(((r = Codec<V>::Read(signal, value, fault), r >= 0) && ...));
            },
            values);
        return r;
    } catch (const std::bad_alloc&) {
        return -ENOMEM;
    }

    F mHandler;
};

}  // namespace Detail

/// Has `handler` called with the values of each signal `interface`.`signal` of the remote object; see
/// Subscription. Sends, and does not wait.
///
/// The handler returns nothing and takes the signal's values, by value or const reference. Its types may
/// differ from the contract's as long as their signature is the same; views are valid until it returns. One
/// whose parameters have types may take `const Caller&` first, which knows the sender. It may be move-only.
///
/// Throws std::bad_alloc; nothing has happened then.
template <class... A, class Handler>
Subscription SubscribeTo(const std::shared_ptr<Remote>& remote, const char* interface,
                         const Signal<A...>& signal, Handler&& handler) {
    using F = std::decay_t<Handler>;
    static_assert(Detail::SignalOf<F, A...>::IsSound());
    return Subscribe(*remote, interface, signal.name, Signal<A...>::IN.text,
                     std::make_unique<Detail::SignalRunner<F, A...>>(std::forward<Handler>(handler)));
}

}  // namespace mwl::Typed
