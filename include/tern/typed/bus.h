#pragma once

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/typed/dispatcher.h>
#include <tern/typed/interface_base.h>

#include <chrono>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace mw::tern {
class DBusServerManager;
class EventLoop;
}  // namespace mw::tern

namespace mwl::Typed {

struct BusAccess;
struct ReplyState;

/// Keeps an object on the bus; the object goes when this is destroyed. Created by Bus::Export.
///
/// On the D-Bus thread the object is gone immediately: its members are answered "unknown object" and its
/// removal is announced. Its implementation is destroyed when the turn of the loop ends, so that a handler
/// may end its own object and still use its members. On another thread all that is done on the D-Bus thread,
/// after what this thread posted before; no limit refuses it.
///
/// Once the bus has closed there is nothing to be taken from it any more. The implementation is then
/// destroyed here on the D-Bus thread, or, while Close is still at work, at its end; on another thread it is
/// left to the bus's destructor. An export that outlives the bus does nothing.
///
/// Any thread, one at a time.
class TERN_API Exported {
public:
    /// None; GetStatus is NotInitialized.
    Exported() noexcept;
    /// Takes the object over; `other` has none then.
    Exported(Exported&& other) noexcept;
    /// The object held before goes.
    Exported& operator=(Exported&& other) noexcept;
    ~Exported();

    /// Whether there is an object.
    explicit operator bool() const noexcept { return mState != nullptr; }
    /// Ok, or why Bus::Export failed.
    StatusCode GetStatus() const noexcept { return mStatus; }
    /// The object goes, as if this were destroyed.
    void Reset() noexcept;

private:
    friend class Bus;

    std::shared_ptr<ReplyState> mState;
    std::uint64_t mId = 0;
    Dispatcher::Place mPlace;
    StatusCode mStatus = StatusCode::NotInitialized;
};

/// The D-Bus thread's connection as the typed layer sees it: exports objects, announces their changes to the
/// bus, keeps the calls that are answered later, and runs what other threads post. One for each D-Bus thread,
/// beside the DBusServerManager, whose own objects stay as they are.
///
///     StatusCode ThermostatServer::Start(DBusServerManager& manager, EventLoop& loop) {
///         if (const StatusCode status = mBus.Open(manager, loop); status != StatusCode::Ok) {
///             return status;
///         }
///         mObject = mBus.Export("/com/example/Thermostat", std::make_unique<ThermostatInterface>());
///         return mObject.GetStatus();
///     }
///     void ThermostatServer::Stop() { mBus.Close(); }
///
/// Order in a turn: signals and answers go immediately. Changes of properties wait until the handler, or the
/// share of jobs, is done; then new objects are announced with their values (InterfacesAdded; sd-bus leaves
/// those out that only invalidate), and one PropertiesChanged for each interface lists all that has changed.
/// So a change is announced after the reply to the call that made it, and after signals of the same handler;
/// call Flush for another order. The removal of an object is announced immediately. An object that comes and
/// goes within a turn is never announced; changes of one that is being announced are in its announcement.
///
/// When the loop ends: changes are announced; open calls are answered "org.freedesktop.DBus.Error.NoReply",
/// "the service is stopping"; what waits here as a client ends with `Stopping`, and what would wait from now
/// on does so immediately; jobs that wait are dropped, and from now on Post is refused; then sd-bus sends
/// what is queued and closes, and IpcServer::Stop is called. The implementations live until their Exported
/// goes, or until the destructor.
///
/// | operation                                 | before Open    | open | closed         |
/// |-------------------------------------------|----------------|------|----------------|
/// | Open                                      | opens          | Busy | NotInitialized |
/// | AddObjectManager, Export, Adopt           | NotInitialized | yes  | NotInitialized |
/// | Post                                      | false          | yes  | false          |
/// | Flush                                     | nothing        | yes  | nothing        |
/// | Close                                     | nothing        | yes  | nothing        |
///
/// D-Bus thread only, except Post, the constructor, and the destructor of a closed bus. Debug builds check
/// this. Manager and loop outlive the time until Close.
class TERN_API Bus {
public:
    /// Limits, unless set otherwise.
    static constexpr std::size_t OPEN_CALLS = 64;
    static constexpr std::size_t PENDING_CALLS = 16384;  ///< see SetPendingCalls

    /// Events since Open, and present numbers.
    struct Counters {
        std::uint64_t changes = 0;       ///< PropertiesChanged sent
        std::uint64_t added = 0;         ///< InterfacesAdded sent
        std::uint64_t removed = 0;       ///< InterfacesRemoved sent
        std::uint64_t unannounced = 0;   ///< of these three, those that could not be sent (logged)
        std::uint64_t deferred = 0;      ///< calls taken over to be answered later
        std::uint64_t refusedCalls = 0;  ///< calls refused as too many were open
        std::uint64_t droppedCalls = 0;  ///< calls whose Reply was destroyed unanswered
        /// Answers that could not be encoded or sent (logged); an error went in their place, if that could be
        /// sent.
        std::uint64_t unsentReplies = 0;
        std::uint64_t refusedJobs = 0;      ///< jobs refused as too many were waiting
        std::uint64_t askedCallers = 0;     ///< callers whose credentials were asked for
        std::uint64_t wrongSignals = 0;     ///< signals of peers that are not what the contract says (logged)
        std::uint64_t wrongProperties = 0;  ///< the same, values of a PropertyCache
        std::uint64_t calls = 0;            ///< calls sent to peers
        std::uint64_t unsentCalls = 0;      ///< calls to peers that were not sent, as their outcomes say
        std::uint64_t wrongReplies = 0;     ///< replies of peers that are not what the contract says (logged)
        std::size_t objects = 0;            ///< exported now
        std::size_t openCalls = 0;          ///< taken over and not answered yet
        std::size_t waitingJobs = 0;        ///< posted and not run yet
        std::size_t knownCallers = 0;       ///< whose credentials are kept
        std::size_t pendingCalls = 0;       ///< sent to peers, which have not answered yet
    };

    Bus();
    /// Closes; then destroys the implementations that are left, on this thread. REQUIRES: not in a handler of
    /// one of them. A bus that is still open is destroyed on the D-Bus thread.
    ~Bus();
    Bus(const Bus&) = delete;
    Bus& operator=(const Bus&) = delete;

    /// In IpcServer::Start: the manager is connected and attached to the loop.
    /// Ok. Busy: this one, or another of this thread, is open. InvalidArgument: the manager is not connected,
    /// or there is no loop yet. NotInitialized: it has been closed; a bus is opened once. Otherwise the
    /// status of the failing call, logged; nothing has changed.
    StatusCode Open(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop);
    /// The end of the loop does this by itself, see above. For a loop that never ran: call it in
    /// IpcServer::Stop. REQUIRES: not in a handler. Harmless to repeat.
    void Close();

    /// Makes `path` the root of an object manager: it answers GetManagedObjects with the objects below it,
    /// its own interfaces not among them, and announces from there what comes and goes. Ok, also when it is
    /// one; otherwise the status of sd-bus's error, logged: InvalidArgument for what is no path.
    StatusCode AddObjectManager(const std::string& path);

    /// Puts an object with these interfaces on the bus. All or nothing: where one is refused, none is there,
    /// all are destroyed, and it is logged. An object may be put at a path where others, of the manager too,
    /// have other interfaces already.
    ///
    /// In the result: Ok. AlreadyExists: an interface of this name is at this path. InvalidArgument: no
    /// object path, no interface, or a null one. Otherwise the status of sd-bus's error. Throws
    /// std::bad_alloc; none is there, and all are destroyed, then.
    ///
    /// A handler may end its own object and export its successor at the same path: sd-bus frees the place
    /// when the handler has returned, so the successor is there from the end of the turn. Where sd-bus
    /// refuses it then, it is logged, and the object is not there. Until then the place is the successor's:
    /// for another one it is AlreadyExists.
    [[nodiscard]] Exported Export(std::string path, std::vector<std::unique_ptr<InterfaceBase>> interfaces);
    /// The same for one interface, or for several given one by one.
    template <std::derived_from<InterfaceBase> First, std::derived_from<InterfaceBase>... Further>
    [[nodiscard]] Exported Export(std::string path, std::unique_ptr<First> first,
                                  std::unique_ptr<Further>... further) {
        std::vector<std::unique_ptr<InterfaceBase>> all;
        all.reserve(1 + sizeof...(Further));
        all.push_back(std::move(first));
        (all.push_back(std::move(further)), ...);
        return Export(std::move(path), std::move(all));
    }

    /// For an interface that the manager exports (DBusServerManager::ExportObject) and that stays its own:
    /// its changes, signals and later answers come through here from now on. `path` is the object's. The
    /// interface outlives the time until Close. An interface that Export took is not adopted. Ok;
    /// InvalidArgument for one that is on a typed bus already. Throws std::bad_alloc; it is not adopted then.
    StatusCode Adopt(InterfaceBase& interface, std::string path);

    /// Has the D-Bus thread run the job, after all that was posted before it. Any thread; see
    /// Dispatcher::Post.
    bool Post(Job job);

    /// Sends now what would wait for the end of the turn: announcements of new objects, and all changes,
    /// those that the period holds back included. An object that waits for its place, see Export, is left for
    /// the end of the turn. Does nothing while it is at it already, for example when a getter calls it.
    void Flush();

    /// Against floods: the first change of an interface is announced at the end of its turn, later ones once
    /// per period, all together. 0, the initial value, announces them at the end of each turn; below 0 counts
    /// as 0.
    void SetChangePeriod(std::chrono::milliseconds period);
    /// How many calls may be open, initially OPEN_CALLS. One more is answered
    /// "org.freedesktop.DBus.Error.LimitsExceeded" immediately. Calls that wait for their caller's
    /// credentials count.
    void SetOpenCalls(std::size_t limit);
    /// How many calls to peers may wait for their reply, initially PENDING_CALLS; a waiting call takes about
    /// half a kilobyte. One more is not sent, its outcome is "org.freedesktop.DBus.Error.LimitsExceeded". The
    /// message bus has a limit of its own, see Call.
    void SetPendingCalls(std::size_t limit);
    /// How many jobs may wait, see Dispatcher.
    void SetWaitingJobs(std::size_t limit);

    /// Zeros before Open.
    Counters GetCounters() const;
    /// The connection; null unless open. Borrowed.
    sd_bus* GetBus() const;

private:
    friend struct BusAccess;
    struct State;
    const std::unique_ptr<State> mState;
};

}  // namespace mwl::Typed
