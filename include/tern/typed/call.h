#pragma once

/// Calls of other services' methods that do not block: `Call<R>`, created by a `Proxy`, and `Pending`.

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/typed/codec.h>
#include <tern/typed/decode.h>
#include <tern/typed/error.h>
#include <tern/typed/remote.h>
#include <tern/typed/stoppable.h>

#include <chrono>
#include <coroutine>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

namespace mwl::Typed {

namespace Detail {

struct Unref {
    void operator()(sd_bus_message* message) const noexcept { sd_bus_message_unref(message); }
    void operator()(sd_bus_slot* slot) const noexcept { sd_bus_slot_unref(slot); }
};

}  // namespace Detail

/// The part of a Call that does not depend on its result; see there.
class TERN_API CallBase : protected Stoppable {
public:
    /// Sends it, and does not want to know what comes of it: the message says that no reply is expected, so
    /// the peer sends none. That it could not be sent is logged, ten times in ten seconds at most.
    void Detach() && { SendUnasked(); }

    /// To append arguments by hand, as sd_bus_message_append(3) does. Null once it has been sent, or when
    /// there is none, for example without an open bus; then the outcome says why. Borrowed.
    sd_bus_message* GetMessage() const noexcept { return mPhase == Phase::New ? mMessage.get() : nullptr; }
    /// The argument number `index`, beginning with 0, cannot be sent; `error`, a negative error number, says
    /// why. The call is not sent, its outcome is the error. `name` is that of the argument, null for none; it
    /// lives as long as the call.
    void RefuseArgument(unsigned index, const char* name, int error) noexcept;
    /// The call is not sent, and its outcome is `reason`. Before it is sent. Throws std::bad_alloc.
    void Refuse(Error reason);
    /// Nobody answers the method: the outcome is there once the call has been sent. Before that.
    void ExpectNoReply() noexcept { mIsAnswered = false; }
    /// Its memory is erased when it is released, see sd_bus_message_sensitive(3). Before it is sent.
    void SetSensitive() noexcept;

    /// A call that is sent stays where it is.
    CallBase& operator=(CallBase&&) = delete;

protected:
    /// Makes the message; where that fails, the outcome says so.
    CallBase(std::shared_ptr<const Remote> remote, const char* interface, const char* member) noexcept;
    /// Takes a call that has not been sent; `other` counts as sent then.
    CallBase(CallBase&& other) noexcept;
    ~CallBase();

    /// Of a call that has not been sent.
    void SetTimeout(std::chrono::milliseconds timeout) noexcept {
        if (mPhase == Phase::New) {
            mTimeout = timeout;
        }
    }
    /// True: sent, and OnDone follows. False: there is an outcome already.
    bool Send() noexcept;
    /// There is an outcome, for whoever waits; one who does not take it before this returns calls KeepReply.
    /// May destroy this; what it throws is contained.
    virtual void OnDone() = 0;
    /// The reply lives until the outcome is taken.
    void KeepReply() noexcept {
        if (mPhase == Phase::Answered) {
            mMessage.reset(sd_bus_message_ref(mReply));
        }
    }
    /// OnDone will be called at the end of the turn, because there is an outcome already.
    void Postpone() noexcept;

    /// The outcome, once: it is the taker's then, and the reply is released.
    template <class R>
    Outcome<R> TakeOutcome(Outcome<R> (*decoder)(sd_bus_message* reply, const Remote* remote)) {
        if (mPhase == Phase::Answered) {
            const std::unique_ptr<sd_bus_message, Detail::Unref> kept = std::move(mMessage);
            mPhase = Phase::Spent;
            return decoder(mReply, mRemote.get());
        }
        if constexpr (std::is_void_v<R>) {
            if (mPhase == Phase::Sent) {
                mPhase = Phase::Spent;
                return {};
            }
        }
        return GetFailure();
    }

private:
    enum class Phase : std::uint8_t {
        New,       ///< not sent; the message is the call
        Waiting,   ///< for the reply
        Answered,  ///< the reply is there
        Sent,      ///< and no answer is to come
        Failed,    ///< see Cause
        Spent,     ///< the outcome has been given, or this one has been moved from
    };
    /// Why it failed.
    enum class Cause : std::uint8_t {
        Status,    ///< mError is a StatusCode
        TooMany,   ///< wait for their replies already
        Argument,  ///< mIndex, mName; mError is sd-bus's
        Message,   ///< could not be created; mError is sd-bus's
        Sending,   ///< mError is sd-bus's
        Reason,    ///< mReason
    };

    void SendUnasked();
    static int OnReply(sd_bus_message* reply, void* self, sd_bus_error* error) noexcept;
    void OnStop() noexcept override;
    void EndWaiting() noexcept;
    bool Fail(Cause cause, int error) noexcept;
    bool Fail(StatusCode status) noexcept;
    StatusCode GetBusStatus() const noexcept;
    /// Why there is no outcome.
    Error GetFailure() const;

    std::shared_ptr<const Remote> mRemote;
    /// Of a new call: the call's message. Of an answered one: the reply, if it was kept.
    std::unique_ptr<sd_bus_message, Detail::Unref> mMessage;
    /// Of a call that waits.
    std::unique_ptr<sd_bus_slot, Detail::Unref> mSlot;
    /// Of Cause::Reason.
    std::unique_ptr<Error> mReason;
    /// What a call needs in one phase only shares a word, because each call that is waited for keeps its own,
    /// in a coroutine's frame or on the heap. Nothing in it is owned.
    union {
        std::chrono::milliseconds mTimeout;  ///< of Phase::New
        sd_bus_message* mReply;              ///< of Phase::Answered: sd-bus's while it calls, or mMessage
        const char* mName;                   ///< of Cause::Argument: of the argument, or null
    };
    /// Of Cause::Argument.
    unsigned mIndex = 0;
    int mError = 0;
    Phase mPhase = Phase::New;
    Cause mCause = Cause::Status;
    bool mIsAnswered = true;
};

namespace Detail {

/// A call that waits on its own, with whatever goes on when its outcome is there.
class TERN_API PendingBase : public CallBase {
public:
    virtual ~PendingBase();

    /// Sends; the outcome comes later in any case.
    void Start() noexcept;
    using Stoppable::IsWaiting;
    /// It keeps itself from now on, until it has its outcome.
    static void Release(std::unique_ptr<PendingBase> call) noexcept;

protected:
    explicit PendingBase(CallBase&& call) noexcept;
    /// Gives the handler the outcome; may destroy this.
    virtual void Run() = 0;

private:
    void OnDone() final;

    /// It is its own.
    bool mIsReleased = false;
};

/// A call with its handler.
template <class R, class F>
class PendingCall final : public PendingBase {
public:
    using Decoder = Outcome<R> (*)(sd_bus_message* reply, const Remote* remote);

    PendingCall(CallBase&& call, Decoder decoder, F handler)
        : PendingBase(std::move(call)), mDecoder(decoder), mHandler(std::move(handler)) {}

private:
    void Run() override {
        // Out of here, because it may destroy this.
        F handler = std::move(mHandler);
        handler(TakeOutcome<R>(mDecoder));
    }

    const Decoder mDecoder;
    F mHandler;
};

}  // namespace Detail

/// A call that has been sent and whose reply a handler waits for, from Call::Then. To destroy it cancels: the
/// handler is destroyed with it and will not run; a reply that comes is dropped. The peer does not notice.
///
/// The handler may destroy its own Pending, and any other. D-Bus thread only.
class TERN_API Pending {
public:
    /// None.
    Pending() noexcept;
    /// Takes the call over; `other` has none then.
    Pending(Pending&& other) noexcept;
    /// The call held before is cancelled.
    Pending& operator=(Pending&& other) noexcept;
    ~Pending();

    /// Whether the handler has yet to run.
    bool IsWaiting() const noexcept;
    /// Cancels. Harmless when there is none.
    void Reset() noexcept;
    /// Nothing cancels it any more: the handler runs in any case, with `Stopping` when the bus closes before,
    /// and is destroyed then.
    void Release() && noexcept { Detail::PendingBase::Release(std::move(mCall)); }

private:
    template <class R>
    friend class Call;

    explicit Pending(std::unique_ptr<Detail::PendingBase> call) noexcept;

    std::unique_ptr<Detail::PendingBase> mCall;
};

/// A call of a peer's method, created by a `Proxy` and not sent yet: it is sent, once, by one of
///
///     Outcome<std::string> path = co_await room.Call(Thermostat1::ExportLog, "pw").Within(2s);
///     mPending = room.Call(Thermostat1::Boost, 60u).Then([this](Outcome<void> outcome) { ... });
///     room.Call(Thermostat1::Boost, 60u).Detach();
///
/// Where it waits, nothing else does: the D-Bus thread goes on with its work.
///
/// The outcome is the result, or why there is none:
/// - The peer's error, with its name and text. Error::GetStatus says what it comes to, `NotFound` for a peer
///   that is not there or has gone meanwhile.
/// - "mwl.Typed.Error.WrongReply": the reply is not what the contract says, see Decode. It is counted
///   (Bus::Counters) and logged, ten times in ten seconds at most.
/// - GetStatus() is `Timeout`: no reply in time. A reply that comes later is dropped.
/// - "org.freedesktop.DBus.Error.InvalidArgs": not sent, because a value cannot be sent, such as text that is
///   not UTF-8, or because the destination or the path is not valid. The text names it.
/// - "mwl.StatusCode.Stopping": the bus closes or has closed, so it was not sent or its reply will not come.
///   "mwl.StatusCode.NotInitialized": it has not been opened.
/// - GetStatus() is `IoError`: the connection is lost.
/// - "org.freedesktop.DBus.Error.LimitsExceeded": not sent, because too many calls wait
///   (Bus::SetPendingCalls), or because more than sd-bus keeps would wait to be written; or sent and refused
///   by the message bus, whose own limit a system bus sets low: dbus-daemon lets a connection wait for 128
///   replies unless its configuration has another max_replies_per_connection.
/// - GetStatus() is `OutOfMemory`: there is none for the call or for its result.
///
/// Nothing but lack of memory in Then is thrown. To destroy a call, or the coroutine that awaits it, cancels:
/// nothing is sent, or the reply is dropped.
///
/// It needs no memory but sd-bus's own when awaited; Then takes one allocation for itself and the handler.
///
/// D-Bus thread only; debug builds check that.
template <class R>
class [[nodiscard]] Call final : public CallBase {
public:
    /// The type in the outcome.
    using Result = R;
    /// Reads the reply.
    using Decoder = Outcome<R> (*)(sd_bus_message* reply, const Remote* remote);

    /// One of any interface and member, whose arguments are appended by hand (GetMessage), for example
    /// because they become known at run time only. The names need not outlive this. Where they are not valid,
    /// or the bus is not open, the outcome says so.
    Call(std::shared_ptr<const Remote> remote, const char* interface, const char* member,
         Decoder decoder = &DecodeAs) noexcept
        : CallBase(std::move(remote), interface, member), mDecoder(decoder) {}
    /// Takes over what has not been sent; `other` counts as sent then. REQUIRES: nobody awaits `other`.
    Call(Call&& other) noexcept = default;
    Call& operator=(Call&&) = delete;
    ~Call() = default;

    /// How long the reply is waited for, instead of the proxy's limit. 0 or less counts as the shortest time
    /// there is, above ten years as no limit.
    Call& Within(std::chrono::milliseconds limit) & noexcept {
        SetTimeout(limit);
        return *this;
    }
    /// As above.
    Call&& Within(std::chrono::milliseconds limit) && noexcept {
        SetTimeout(limit);
        return std::move(*this);
    }

    /// Sends it, and has `handler` run with the outcome, an Outcome<R>, on the D-Bus thread, once, unless the
    /// Pending is destroyed before.
    ///
    /// The handler never runs within this call: where sending fails it runs at the end of the turn, or, while
    /// the bus closes, before it has closed. Without an open bus there is no turn, so it does not run, which
    /// is logged; nor do those that a chain of handlers, each of which calls again, makes without end while
    /// the bus closes.
    ///
    /// An exception of it is treated like that of any callback of the loop, see EventLoop::AddIo: it is
    /// logged (critical, logger name "Typed"), and the loop ends in order with the exit code
    /// -ENOTRECOVERABLE.
    ///
    /// Throws std::bad_alloc, and what moving the handler does; nothing has been sent then.
    template <class F>
    [[nodiscard]] Pending Then(F handler) && {
        static_assert(std::is_invocable_v<F&, Outcome<R>>,
                      "the handler of a call takes its outcome: [](Outcome<R> outcome) { ... }");
        if constexpr (std::is_invocable_v<F&, Outcome<R>>) {
            static_assert(std::is_void_v<std::invoke_result_t<F&, Outcome<R>>>,
                          "nobody takes what the handler of a call returns: it returns void");
        }
        auto call =
            std::make_unique<Detail::PendingCall<R, F>>(std::move(*this), mDecoder, std::move(handler));
        call->Start();
        return Pending(std::move(call));
    }

    /// Of the coroutine that awaits it, which always asks for the outcome.
    bool await_ready() const noexcept { return false; }
    /// Sends it. Where that fails the coroutine goes on immediately.
    bool await_suspend(std::coroutine_handle<> waiting) noexcept {
        if (!Send()) {
            return false;
        }
        mWaiting = waiting;
        return true;
    }
    /// The outcome.
    Outcome<R> await_resume() { return TakeOutcome<R>(mDecoder); }

private:
    static Outcome<R> DecodeAs(sd_bus_message* reply, const Remote* remote) {
        return Decode<R>(reply, remote);
    }

    void OnDone() override {
        KeepReply();
        mWaiting.resume();
    }

    const Decoder mDecoder;
    std::coroutine_handle<> mWaiting;
};

}  // namespace mwl::Typed
