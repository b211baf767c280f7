#pragma once

/// A connection for programs that wait: `BlockingBus`, which `BlockingProxy` calls through, and `Listening`.

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/typed/call.h>
#include <tern/typed/codec.h>
#include <tern/typed/decode.h>
#include <tern/typed/error.h>
#include <tern/typed/owned.h>
#include <tern/typed/remote.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>

namespace mwl::Typed {

class BlockingBus;

namespace Detail {

using OwnedMessage = std::unique_ptr<sd_bus_message, Unref>;

/// A call that is to be sent.
struct BlockingRequest {
    const char* destination;
    const char* path;
    const char* interface;
    const char* member;
    std::chrono::milliseconds limit;
    /// Of the arguments, or nulls; null for none.
    const char* const* names = nullptr;
    bool isAnswered = true;
    bool isSensitive = false;
};
/// Appends the arguments; `index` is that of the one that could not be.
using ArgumentsWriter = std::function<int(sd_bus_message* message, unsigned& index)>;

/// The part of a Listening that does not depend on types.
class TERN_API ListeningBase {
protected:
    ListeningBase(std::shared_ptr<BlockingBus> bus, std::string destination, const std::string& path,
                  const char* interface, const char* member, std::chrono::milliseconds limit);
    ListeningBase(ListeningBase&& other) noexcept;
    ListeningBase& operator=(ListeningBase&& other) noexcept;
    ~ListeningBase();

    /// Never null in the result.
    Outcome<OwnedMessage> Take(std::chrono::milliseconds limit);
    Outcome<void> GetState() const;

private:
    struct State;
    std::unique_ptr<State> mState;
};

/// The values of a signal.
template <class... T>
Outcome<std::tuple<T...>> DecodeSignal(sd_bus_message* signal, const char* signature) {
    // A signal reads as the reply of a method with these results does.
    Outcome<Results<T...>> values = Decode<Results<T...>>(signal);
    if (!values.IsOk()) {
        const char* const found = sd_bus_message_get_signature(signal, 1);
        return std::string_view(found != nullptr ? found : "") != signature
                   ? Error::WrongReply(std::string("a signal of '") + (found != nullptr ? found : "") +
                                       "' where '" + signature + "' is wanted")
                   : values.GetError();
    }
    return static_cast<std::tuple<T...>&&>(*std::move(values));
}

}  // namespace Detail

/// A connection of one's own to a message bus, for command-line tools, main programs and workers that have
/// nothing else to do than to wait for an answer. Services use `Proxy`, which does not block.
///
/// Its creation does nothing; it connects with the first call. When the connection is lost, the call that
/// waits ends, and the next one connects again. While it waits it takes in other messages to it and drops
/// them, so that nobody can make the process grow by sending to it; between calls nothing is taken in.
///
/// Every operation blocks, at most for its limit, the time for connecting included. It is no point of
/// cancellation, and that the calling thread is to stop does not end it: in a supervised thread the limit has
/// to be shorter than the time in which the thread has to come to its end.
///
/// Held as `std::shared_ptr<BlockingBus>`, so that several proxies may use one connection. One thread at a
/// time for all that use the same one; any thread but a D-Bus thread, see `Deadlock` below. Not across
/// fork(2), except that the child connects again.
///
/// Where there is no connection, the outcome of a call, or of Connect, is:
/// "org.freedesktop.DBus.Error.NoServer": there is no such bus. The text says what a person can look at.
/// "org.freedesktop.DBus.Error.AccessDenied": it refuses this process.
/// "org.freedesktop.DBus.Error.Timeout": it lets connect, but did not answer in time.
/// "org.freedesktop.DBus.Error.InvalidArgs": the address (sd_bus_set_address(3)) or the host is none.
/// "mwl.StatusCode.Deadlock": this is the D-Bus thread of a service: a typed `Bus` is open on it. Nothing was
/// done: while this waited, the service would answer nobody.
/// Otherwise the error of sd-bus's error number.
class TERN_API BlockingBus {
public:
    /// One of the two buses that programs know by themselves.
    enum class Which {
        System,  ///< that of the device, DBUS_SYSTEM_BUS_ADDRESS
        User     ///< that of the user who runs the program, DBUS_SESSION_BUS_ADDRESS
    };

    /// Connects to nothing yet. Throws std::bad_alloc.
    explicit BlockingBus(Which which = Which::System);
    /// Of a D-Bus address, such as "unix:path=/run/other/bus", where a message bus listens.
    explicit BlockingBus(std::string address);
    /// Of the system bus of another machine, reached through ssh(1), as busctl --host does: "HOST" or
    /// "USER@HOST" (sd_bus_open_system_remote(3)). Connects to nothing yet. To connect runs ssh as a child of
    /// this process, which may ask the person at the terminal, so the first limit has to leave time for it;
    /// there, systemd-stdio-bridge(1) has to be installed. Never null. Throws std::bad_alloc.
    static std::shared_ptr<BlockingBus> OnHost(std::string host);
    /// Closes the connection. Does not block.
    ~BlockingBus();
    BlockingBus(const BlockingBus&) = delete;
    BlockingBus& operator=(const BlockingBus&) = delete;

    /// Connects, if it is not. Never needed, but to distinguish the bus's failure from the peer's. Throws
    /// std::bad_alloc.
    Outcome<void> Connect(std::chrono::milliseconds limit = Remote::TIMEOUT);
    /// The connection; null without one. Borrowed until the next operation. For what nothing here does.
    sd_bus* GetBus() const noexcept;

    /// Used by the calls of BlockingProxy. Returns the reply, which may be an error; null where none is
    /// expected. Applications do not need it.
    Outcome<Detail::OwnedMessage> Ask(const Detail::BlockingRequest& request,
                                      const Detail::ArgumentsWriter& write);

private:
    friend class Detail::ListeningBase;
    struct State;
    const std::unique_ptr<State> mState;
};

/// The signals of one kind from one object of a peer, from its creation, by BlockingProxy::Listen, until it
/// is destroyed: for signals that are to be seen whatever they come with, such as the end of what a call
/// begins.
///
///     auto exported = room.Listen(Thermostat1::LogExported);
///     const Outcome<void> begun = room.Call(Thermostat1::Begin);
///     const auto end = exported.Next(60s);          // also when it was over immediately
///     if (end.IsOk()) { const auto& [path, status] = *end; ... }
///
/// Only signals of the peer itself count, of whoever owns its name at the time. Up to LIMIT of them wait to
/// be asked for. Threads: with those of its BlockingBus, which it keeps.
template <class... T>
class [[nodiscard]] Listening : public Detail::ListeningBase {
public:
    /// How many signals wait. When there are more, those that come then are lost, and after those that wait
    /// Next reports so once: "org.freedesktop.DBus.Error.LimitsExceeded".
    static constexpr std::size_t LIMIT = 1024;

    /// Has the bus pass the signals on from now on; blocks until it has confirmed that, at most for `limit`.
    /// `signature` is that of T; it and the names stay where they are. Throws std::bad_alloc.
    Listening(std::shared_ptr<BlockingBus> bus, std::string destination, const std::string& path,
              const char* interface, const char* member, const char* signature,
              std::chrono::milliseconds limit)
        : ListeningBase(std::move(bus), std::move(destination), path, interface, member, limit),
          mSignature(signature) {}

    /// Whether it listens, or why it does not, which Next reports as well: the errors of BlockingBus, or the
    /// error with which the message bus refused it.
    Outcome<void> GetState() const { return ListeningBase::GetState(); }
    /// The values of the next signal, waited for at most for `limit`; 0 for one that is there already, behind
    /// 64 other messages at most.
    ///
    /// "org.freedesktop.DBus.Error.Timeout": there was none.
    /// "mwl.Typed.Error.WrongReply": it has not the contract's types, or no values of them; it is used up.
    /// "mwl.StatusCode.IoError": the connection was lost. This one hears nothing any more.
    /// Throws std::bad_alloc.
    Outcome<std::tuple<T...>> Next(std::chrono::milliseconds limit) {
        const Outcome<Detail::OwnedMessage> signal = Take(limit);
        return signal.IsOk() ? Detail::DecodeSignal<T...>(signal->get(), mSignature) : signal.GetError();
    }

private:
    const char* mSignature;
};

}  // namespace mwl::Typed
