#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/service_main_loop.h>

#include <string>

namespace mwl::DBusService {

/// The property of the D-Bus thread: the main loop and the connection that it drives. Created, used and
/// destroyed on the D-Bus thread by `Component`. Destruction releases the bus, then the loop, then its I/O
/// sources.
class TERN_API Service {
public:
    /// `name` is the well-known bus name to request, empty for none.
    explicit Service(const std::string& name);
    virtual ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    /// Makes the loop, connects and claims the name, attaches the connection to the loop, in this order. Ok,
    /// or the status of the first step that failed, logged with the logger name "DBusService::Service"; later
    /// steps are skipped.
    StatusCode Initialize();

    /// Runs the loop until SIGTERM, SIGINT, the loss of the bus or an exception of a callback; the result of
    /// ServiceMainLoop::Run.
    StatusCode Run();

    /// The loop, for watching descriptors; it lives as long as the service.
    mw::tern::EventLoop& GetEventLoop() { return mMainLoop; }
    /// The connection, for adding objects; it lives as long as the service.
    mw::tern::DBusServerManager& GetServerManager() { return mServerManager; }

private:
    mw::tern::ServiceMainLoop mMainLoop;
    mw::tern::DBusServerManager mServerManager;
};

}  // namespace mwl::DBusService
