#include <tern/dbus_client/dbus_client_manager.h>

#include <systemd/sd-bus.h>
#include <tern/foundation/log.h>
#include <tern/foundation/service_common.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>

#include "dbus_client/bus_error.h"
#include "dbus_client/call_time_limit.h"
#include "foundation/error_text.h"
#include "foundation/handle.h"

using mwl::ErrorText;

namespace mw::tern {

namespace {

using Text = mwl::Handle<char, free>;

/// A null-terminated array of allocated strings, or null.
void FreeNames(char** names) {
    for (char** name = names; *name != nullptr; ++name) {
        free(*name);
    }
    free(names);
}
using Names = mwl::Handle<char*, FreeNames>;

void InsertMatching(const Names& found, std::string_view filter, std::set<std::string>& names) {
    for (char** name = found.get(); name != nullptr && *name != nullptr; ++name) {
        if (std::string_view(*name).substr(0, filter.size()) == filter) {
            names.insert(*name);
        }
    }
}

}  // namespace

DBusClientManager::~DBusClientManager() {
    sd_bus_unref(mBus);
}

StatusCode DBusClientManager::Connect() {
    if (mBus != nullptr) {
        return MakeStatusCodeFromReturnCode(0);
    }
    const int r = sd_bus_default_system(&mBus);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to connect to system bus (%d, %s)", r, ErrorText(-r));
    }
    return MakeStatusCodeFromReturnCode(r);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): by value in the published signature
StatusCode DBusClientManager::LookupServices(std::string filter, std::set<std::string>& names) {
    const CallTimeLimit limit(mBus, 2);  // a call for each list
    char** acquired = nullptr;
    char** activatable = nullptr;
    const int r = sd_bus_list_names(mBus, &acquired, &activatable);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to get the list of service name (%d, %s)", r,
                       ErrorText(-r));
        return MakeStatusCodeFromReturnCode(r);
    }
    const Names ownedAcquired(acquired);
    const Names ownedActivatable(activatable);
    InsertMatching(ownedAcquired, filter, names);
    InsertMatching(ownedActivatable, filter, names);
    return MakeStatusCodeFromReturnCode(r);
}

StatusCode DBusClientManager::GetRequestSocketAddress(const std::string& service, std::string& address) {
    std::string path = "/" + service;
    std::replace(path.begin(), path.end(), '.', '/');
    const CallTimeLimit limit(mBus);
    BusError error;
    char* value = nullptr;
    const int r = sd_bus_get_property_string(mBus, service.c_str(), path.c_str(), service.c_str(),
                                             "RequestSocketAddress", error.Get(), &value);
    if (r < 0) {
        TERN_LOG_ERROR(ServiceCommon::mLogger, "Failed to get the request socket address (%d, %s)", r,
                       ErrorText(-r));
        return MakeStatusCodeFromReturnCode(r);
    }
    const Text owned(value);
    address = owned.get();
    return MakeStatusCodeFromReturnCode(r);
}

}  // namespace mw::tern
