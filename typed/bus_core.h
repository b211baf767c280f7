#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/typed/attachment.h>
#include <tern/typed/bus.h>

#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "typed/caller_checks.h"
#include "typed/changes.h"
#include "typed/credentials.h"
#include "typed/departures.h"
#include "typed/handles.h"
#include "typed/log_limit.h"
#include "typed/reply_state.h"
#include "typed/stoppables.h"

namespace mwl::Typed {

/// The inside of a Bus: the objects, the end of a turn, and the end of the loop.
///
/// D-Bus thread only, except for the constructor and the destructor of a closed one.
class BusCore final : public Attachment {
public:
    BusCore();
    /// Closes, then destroys the implementations that are left.
    ~BusCore();

    // As of Bus.
    StatusCode Open(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop);
    void Close() noexcept;
    StatusCode AddObjectManager(const std::string& path);
    /// The number for Remove; 0 when it failed, with `status`.
    std::uint64_t Export(std::string path, std::vector<std::unique_ptr<InterfaceBase>> interfaces,
                         StatusCode& status);
    StatusCode Adopt(InterfaceBase& interface, std::string path);
    void Flush();
    Bus::Counters GetCounters() const;
    void SetChangePeriod(std::uint64_t microseconds) { mChanges.SetPeriod(microseconds); }
    const std::shared_ptr<ReplyState>& GetState() const noexcept { return mReplies; }
    bool IsOpen() const noexcept { return mPhase == Phase::Open; }
    bool IsNew() const noexcept { return mPhase == Phase::New; }

    // For the clients of this connection.
    /// The loop; null unless open.
    sd_event* GetLoop() const noexcept { return mSession ? mSession->loop : nullptr; }
    /// It waits from now on, and is notified when the bus closes. False: the bus is not open, or closes
    /// already.
    bool AddStoppable(Stoppable& waiting) noexcept { return IsOpen() && mStoppables.Add(waiting); }
    /// It is notified at the end of the turn, or, when the bus closes, before it has closed. False, and it is
    /// not notified: the bus is not open, or it closes and handlers go on postponing all the same.
    bool AddPostponed(Stoppable& postponed) noexcept;

    // For the tokens.
    /// The object goes; nothing when it has gone.
    void Remove(std::uint64_t id) noexcept;
    /// There is a call whose caller might leave.
    void OnCallOpen() noexcept;
    /// There is none any more.
    void OnNoCallOpen() noexcept;

    // Attachment
    sd_bus* GetBus() noexcept override { return mBus; }
    void OnChanged(InterfaceBase& interface) noexcept override { mChanges.Add(interface); }
    std::shared_ptr<ReplyState> GetReplies() noexcept override { return IsOpen() ? mReplies : nullptr; }
    int CheckCaller(InterfaceBase& interface, sd_bus_message* call, int capability,
                    sd_bus_message_handler_t handler, void* userdata, sd_bus_error* error) noexcept override;

private:
    enum class Phase { New, Open, Closed };

    struct Object {
        enum class State {
            Waiting,    ///< sd-bus frees its place when the running handler has returned
            New,        ///< on the bus since this turn, not announced
            Announced,  ///< or nobody was to be notified
        };

        std::uint64_t id = 0;
        std::string path;
        std::vector<std::unique_ptr<InterfaceBase>> interfaces;
        /// The interfaces' names, null behind the last, as sd-bus takes them.
        std::vector<char*> names;
        State state = State::New;
        /// Released before what they point to is destroyed.
        std::vector<BusSlot> slots;
    };
    using Objects = std::list<Object>;

    /// The objects that belong to connection and loop.
    struct Session {
        Session(BusCore& core, sd_event* loop);

        sd_event* const loop;
        Departures departures;
        Credentials credentials;
        CallerChecks checks;
        EventSource turn;
        EventSource exit;
        std::vector<BusSlot> managers;
    };

    int AddSources(sd_event* loop);
    int Register(Object& object);
    static void TakeOff(Object& object) noexcept;
    bool IsLeaving(const Object& object) const;
    bool IsNotAnnounced(const InterfaceBase& interface) const;
    bool IsRoot(const std::string& path) const { return mRoots.count(path) > 0; }
    void WakeTurn() noexcept;
    void EndTurn();
    void RegisterWaiting();
    void Announce(Changes::Which which);
    void AnnounceNew();
    void AnnounceOne(std::uint64_t id);
    void LogUnannounced(const std::string& path, int error) noexcept;
    void ClearGraves() noexcept;
    static int OnEndOfTurn(sd_event_source* source, void* userdata);
    static int OnExit(sd_event_source* source, void* userdata);

    const std::shared_ptr<ReplyState> mReplies;
    Phase mPhase = Phase::New;
    sd_bus* mBus = nullptr;
    std::optional<Session> mSession;
    Changes mChanges;
    Stoppables mStoppables;
    Stoppables mPostponed;
    /// How often mPostponed is still emptied once the bus closes.
    unsigned mLastTurns = 100;
    std::unordered_set<InterfaceBase*> mAdopted;

    Objects mObjects;
    std::unordered_map<std::uint64_t, Objects::iterator> mById;
    std::uint64_t mNextId = 1;
    /// The objects to be announced, in order; some may have gone.
    std::vector<std::uint64_t> mNew;
    bool mIsAnnouncing = false;
    /// Removed in this turn: one of their handlers may be running.
    Objects mGraves;
    /// Paths of object managers.
    std::set<std::string> mRoots;

    std::uint64_t mAdded = 0;
    std::uint64_t mRemoved = 0;
    std::uint64_t mUnannounced = 0;
    std::uint64_t mAsked = 0;
    LogLimit mLimit;
};

}  // namespace mwl::Typed
