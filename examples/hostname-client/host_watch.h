#pragma once

#include <tern/service/ipc_server.h>
#include <tern/typed/bus.h>
#include <tern/typed/property_cache.h>

#include <optional>
#include <string>

#include "hostname1_proxy.h"

namespace hostname_client {

/// Asks hostnamed for the host name when the D-Bus thread is ready, and prints it, and each other one that
/// it is given from then on, to standard output. D-Bus thread only.
class HostWatch : public mwl::DBusService::IpcServer {
public:
    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override;

private:
    void Show(const std::string& name);

    mwl::Typed::Bus mBus;
    std::optional<Hostname1Proxy> mHost;
    std::optional<mwl::Typed::PropertyCache<Hostname1>> mProperties;
    mwl::Typed::Pending mAsked;
    std::string mShown;
};

}  // namespace hostname_client
