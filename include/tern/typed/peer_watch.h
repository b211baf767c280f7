#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/threading/unique_function.h>
#include <tern/typed/bus.h>

#include <memory>
#include <string>

namespace mwl::Typed {

/// Reports when a peer comes to the bus and when it goes: who owns a name, a well-known one such as
/// "com.example.Thermostat" or a unique one such as ":1.42".
///
///     mWatch = PeerWatch(
///         mBus, "com.example.Thermostat",
///         [this](const std::string& owner) { mRoom.Show(); },
///         [this] { mRoom.Hide(); });
///
/// The first state is always reported, once: the peer is there, or it is not. Then each change is reported:
/// when the name goes from one connection straight to another, `onVanish` is called and then `onAppear`.
/// Nothing is missed, whenever the peer comes: the watch listens before it asks. A peer that the message bus
/// could start is not started.
///
/// Handlers run on the D-Bus thread, never within the constructor. A handler may destroy its own watch, and
/// is destroyed itself once it has returned; the other handler is then not called for an owner that follows.
/// An exception of a handler ends the loop in order, see Dispatcher.
///
/// A watch that cannot work reports once that the peer is not there, or that it has gone, and no more;
/// GetStatus says why, and it is logged (error, logger name "Typed").
///
/// When the bus closes, and when the connection is lost, nothing is reported: the peer counts as absent, and
/// GetStatus is Stopping. Watches of the same name share what they need of the message bus.
///
/// D-Bus thread only; once the bus has closed any thread. Debug builds check that.
class TERN_API PeerWatch {
public:
    /// Called with the owner's unique name.
    using OnAppear = UniqueFunction<void(const std::string& owner)>;
    /// Called when nobody owns the name any more, or nobody does at the beginning.
    using OnVanish = UniqueFunction<void()>;

    /// None; GetStatus is NotInitialized.
    PeerWatch() noexcept;
    /// Sends, and does not wait. Either handler may be empty. Throws std::bad_alloc.
    ///
    /// The bus is not open: nothing is reported, GetStatus is NotInitialized.
    /// `name` is no name of a bus: reported as absent, GetStatus is InvalidArgument.
    PeerWatch(const Bus& bus, const std::string& name, OnAppear onAppear, OnVanish onVanish);
    /// Takes the watch over; `other` is none then.
    PeerWatch(PeerWatch&& other) noexcept;
    /// The watch held before ends.
    PeerWatch& operator=(PeerWatch&& other) noexcept;
    /// Nothing is reported any more.
    ~PeerWatch();

    /// Whether somebody owns the name, as far as is known.
    bool IsPresent() const noexcept { return !GetOwner().empty(); }
    /// The unique name of the owner; empty when there is none, or it is not known yet. Valid until the next
    /// event of the D-Bus thread.
    const std::string& GetOwner() const noexcept;
    /// Ok: it works. Busy: the message bus has not answered yet. Stopping: the bus has closed. Otherwise what
    /// went wrong: the message bus refused to report changes, or, as long as no change has come, to say who
    /// owns the name.
    StatusCode GetStatus() const noexcept;
    /// Ends it, as if it were destroyed.
    void Reset() noexcept;

private:
    struct State;
    std::shared_ptr<State> mState;
};

}  // namespace mwl::Typed
