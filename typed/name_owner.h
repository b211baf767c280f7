#pragma once

#include <systemd/sd-bus.h>
#include <tern/foundation/status_code.h>
#include <tern/typed/stoppable.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "typed/handles.h"
#include "typed/reply_state.h"

namespace mwl::Typed {

/// Debug builds check that the calling thread is the D-Bus thread, as long as the bus is open.
void AssertDBusThread(const ReplyState& state) noexcept;

/// The owner of a name of the bus, a well-known or a unique one. There is one NameOwner for each name of a
/// connection, shared by all that need it.
///
/// The connection listens first and asks then, and both only send. The message bus answers in order: so
/// whoever subscribes to signals of the name after Of() knows the owner before the first of them arrives, and
/// what it knows while a message is handled is what the message bus knew when it passed the message on.
///
/// D-Bus thread only, except GetState, GetStatus, GetOwner, Remove and the destructor once the bus has
/// closed. Once it closes nobody is notified any more.
class NameOwner final : private Stoppable, public std::enable_shared_from_this<NameOwner> {
public:
    enum class State {
        Asking,   ///< not known yet
        Known,    ///< GetOwner returns the owner, and changes are reported
        Failed,   ///< changes are not reported; there counts as no owner
        Stopped,  ///< the bus has closed
    };

    /// A listener. During its notification it may remove itself and others and add others.
    class Listener {
    public:
        Listener(const Listener&) = delete;
        Listener& operator=(const Listener&) = delete;
        /// The first state is known, or the owner has changed, or GetState is Failed.
        virtual void OnOwner() = 0;

    protected:
        Listener() = default;
        ~Listener() = default;
    };

    /// The one for this name. Failed from the beginning: the bus is not open, the name is none, or the bus
    /// cannot be asked (logged); Stopped when it closes. Throws std::bad_alloc.
    static std::shared_ptr<NameOwner> Of(const std::shared_ptr<ReplyState>& state, const std::string& name);

    /// For Of.
    NameOwner(std::shared_ptr<ReplyState> state, std::string name);
    ~NameOwner();

    State GetState() const noexcept { return mState; }
    /// Busy while asking, Stopping once stopped; of Known what the question failed with, if it did.
    StatusCode GetStatus() const noexcept { return mStatus; }
    /// The unique name; empty when there is none, or it is not known.
    const std::string& GetOwner() const noexcept { return mOwner; }

    /// In the order of Add; the first state is not reported again when it is known already. Returns the
    /// number for Remove. The listener is held weakly. Throws std::bad_alloc.
    std::uint64_t Add(std::weak_ptr<Listener> listener);
    /// Does nothing once stopped, when listeners may be removed by any thread, and by several.
    void Remove(std::uint64_t id) noexcept {
        if (mState != State::Stopped) {
            mListeners.erase(id);
        }
    }

private:
    void Begin();
    void Fail(StatusCode status);
    void FailToRead(int error);
    void SetOwner(std::string owner);
    void Tell();
    void OnStop() noexcept override;
    static int OnChanged(sd_bus_message* message, void* userdata, sd_bus_error* error);
    static int OnListening(sd_bus_message* reply, void* userdata, sd_bus_error* error);
    static int OnAnswer(sd_bus_message* reply, void* userdata, sd_bus_error* error);

    const std::shared_ptr<ReplyState> mBus;
    const std::string mName;
    State mState = State::Asking;
    StatusCode mStatus = StatusCode::Busy;
    std::string mOwner;
    BusSlot mMatch;
    BusSlot mQuestion;
    std::map<std::uint64_t, std::weak_ptr<Listener>> mListeners;
    std::uint64_t mNextId = 1;
};

}  // namespace mwl::Typed
