#pragma once

#include <systemd/sd-bus.h>
#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/service/dbus_interface.h>
#include <tern/service/dbus_object_skeleton.h>
#include <tern/service/event_loop.h>

#include <list>
#include <memory>
#include <string>

namespace mw::tern {

/// The server side of a service on the system bus: the connection, the service's well-known name and its
/// objects.
///
/// D-Bus thread only: the connection is that thread's default system bus, and handlers run on it inside the
/// loop. Order of use: `Connect`, `AttachLoop`, then for each object `AddDBusObject`,
/// `AddInterfaceToDBusObject` for each of its interfaces, `ExportObject`; matches at any time after
/// `Connect`. Bus errors are logged with the logger name "Service".
///
/// REQUIRES: whoever keeps an sd_bus_message or a slot of this connection for later releases it on this
/// thread and before the thread ends, at the latest in IpcServer::Stop. sd-bus counts references without a
/// lock, each message holds the connection, and the connection writes to the memory of its thread when it
/// goes.
class TERN_API DBusServerManager {
public:
    /// `name` is the well-known name to request, empty for none.
    explicit DBusServerManager(const std::string& name);
    /// Releases the connection, then the objects with their interfaces.
    ~DBusServerManager();
    DBusServerManager(const DBusServerManager&) = delete;
    DBusServerManager& operator=(const DBusServerManager&) = delete;

    /// Connects to the system bus (sd_bus_default_system(3)) and requests the name, without queueing for it
    /// or taking it from its owner (sd_bus_request_name(3)), which waits for the bus: 90 s for one that lets
    /// connect but does not answer. SIGTERM and SIGINT, blocked and sent to the process, end that wait a
    /// second later and stay pending; the connection is unusable then. For this a thread runs beside the
    /// request; where the system refuses it, or descriptors, the wait is as long as without. Ok;
    /// AlreadyExists when already connected, nothing changed, or when the name has an owner; Interrupted when
    /// a signal ended the wait; otherwise the status of sd-bus's error. A connection whose name request
    /// failed is kept.
    StatusCode Connect();

    /// Has the loop drive the connection (sd_bus_attach_event(3)) and end with the exit code -ECONNRESET when
    /// the connection is lost, so that a deaf service is restarted instead of running on: whatever filters
    /// and matches the application installs, and also when the connection is closed or taken from the loop on
    /// this side. Whoever waits for a reply is notified first, and "Disconnected" is dispatched.
    /// When the loop ends, the bus gets two seconds to take what is queued for it; then the connection is
    /// closed, and what was not taken is lost (logged). Own exit sources that send are added with a priority
    /// before SD_EVENT_PRIORITY_NORMAL - 1.
    /// Ok; InvalidArgument when there is no loop yet or nothing is connected; otherwise the status of
    /// sd-bus's error.
    StatusCode AttachLoop(EventLoop& loop);

    /// Adds an object without interfaces. Ok, or InvalidArgument when the path is there already. sd-bus looks
    /// at the path only when the object is exported. Takes the same time however many objects there are; so
    /// do the operations below that take a path.
    StatusCode AddDBusObject(const std::string& path);

    /// Appends the interface to the object.
    /// Ok: the object owns the interface and deletes it at its end.
    /// InvalidArgument: the path was never added, not logged; or the interface is null or has been added
    /// before, to this object or to another, an error line each. Nothing has changed, and who owned the
    /// interface still does: the caller, or the object that got it first.
    StatusCode AddInterfaceToDBusObject(const std::string& path, DBusInterface* interface);

    /// Installs a match rule (sd_bus_add_match(3)). With `slot` null it lasts as long as the connection;
    /// otherwise the caller owns *slot and ends the match with sd_bus_slot_unref(3), on this thread, before
    /// the manager ends. An exception of the handler ends the service, see DBusInterface. Ok or the status of
    /// sd-bus's error; nothing is logged.
    StatusCode AddMatch(sd_bus_slot** slot, std::string match, sd_bus_message_handler_t handler,
                        void* userdata);

    /// Registers every interface of the object, in the order added, for as long as the connection lives
    /// (sd_bus_add_object_vtable(3)).
    /// Ok, also for an object without interfaces; InvalidArgument for a path that was never added; otherwise
    /// the status of the first refusal: AlreadyExists for an interface exported twice, InvalidArgument for a
    /// path, a name or a vtable that sd-bus does not accept (none of its members is registered then).
    /// Interfaces before the refused one stay registered. Where an entry of the vtable is at fault, a third
    /// line after the two of the refusal names it: its place (0 is the start entry), kind and member, and
    /// sd-bus's error. sd-bus asks of a method with arguments that it has a handler, of a property that is
    /// not of a basic type that it has a getter, and so on: sd_bus_add_object_vtable(3).
    StatusCode ExportObject(const std::string& path);

    /// The connection, null before `Connect` and in the destructor of an interface that is deleted with the
    /// manager. Borrowed: never release it.
    sd_bus* GetBus() const { return mBus; }

private:
    DBusObjectSkeleton* FindObject(const std::string& path);

    std::string mName;
    std::list<DBusObjectSkeleton> mObjects;
    sd_bus* mBus = nullptr;
    struct State;
    std::unique_ptr<State> mState;
};

}  // namespace mw::tern
