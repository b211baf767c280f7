#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>

#include <set>
#include <string>

struct sd_bus;

namespace mw::tern {

/// A connection to the system bus for looking at other services: which there are, and at which socket one
/// takes requests.
///
/// One thread only, from construction to destruction: the connection is the calling thread's default one
/// (sd_bus_default_system(3)), shared with whatever else uses it on that thread. Failures are logged with the
/// logger name "Service". Calls to the bus block, at most for sd-bus's time-out (25 s, or what the
/// environment variable SYSTEMD_BUS_TIMEOUT says); the first one on a new connection also while the
/// connection is being opened: 90 s, a limit that nothing changes, for a bus that accepts the connection but
/// does not answer, and the time-out once more for its greeting. `Connect` itself does not wait.
///
/// On a thread whose default event loop feeds a watchdog (a service's D-Bus thread under WatchdogSec=) an
/// operation waits no longer than a quarter of the watchdog's period for its answers, whatever time-out is
/// set: Timeout then, and the process is not killed for a peer that does not answer. Several operations in
/// one callback add up. On that thread the connection is the service's own: while an operation waits, sd-bus
/// takes in and keeps whatever anybody sends to the service, so that a third party can make the process grow
/// by hundreds of mebibytes in 25 s. Rather use a manager on a worker's thread.
class TERN_API DBusClientManager {
public:
    DBusClientManager() = default;
    /// Releases the connection.
    ~DBusClientManager();
    DBusClientManager(const DBusClientManager&) = delete;
    DBusClientManager& operator=(const DBusClientManager&) = delete;

    /// Takes the connection. Ok, also when there is one already: nothing is done then, even when the bus was
    /// lost meanwhile. A new manager gets a new connection once nobody on the thread holds the lost one.
    /// Otherwise the status of sd-bus's error, logged, and the next call tries again.
    StatusCode Connect();

    /// Inserts into `names` the names on the bus, those that a call would start included, that begin with
    /// `filter`; the empty filter takes all. Earlier content of the set stays. Ok, or the status of sd-bus's
    /// error, logged, with `names` left alone (sd_bus_list_names(3)). REQUIRES: Connect succeeded;
    /// InvalidArgument otherwise.
    StatusCode LookupServices(std::string filter, std::set<std::string>& names);

    /// Reads the string property "RequestSocketAddress" of a service: of the interface named like the
    /// service, at the object path built from that name ("com.example.Foo" has it at "/com/example/Foo"). Ok:
    /// `address` is replaced. Otherwise the status of sd-bus's error, logged, and `address` left alone:
    /// InvalidArgument when the name gives no object path or the property is no string, Failure when there is
    /// no such service or object. REQUIRES: Connect succeeded; InvalidArgument otherwise.
    StatusCode GetRequestSocketAddress(const std::string& service, std::string& address);

private:
    sd_bus* mBus = nullptr;
};

}  // namespace mw::tern
