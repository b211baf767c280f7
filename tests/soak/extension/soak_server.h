#pragma once

#include <systemd/sd-bus.h>
#include <tern/diagnostics/diagnostics.h>
#include <tern/service/event_loop.h>
#include <tern/service/ipc_server.h>
#include <tern/service/message_pipe.h>

#include "fault.h"
#include "job_desk.h"
#include "own_client.h"
#include "progress.h"

namespace soak {

/// Puts the soak's objects and its diagnostics on the bus and sends the ticker's numbers as signals. D-Bus
/// thread only.
class SoakServer : public mwl::DBusService::IpcServer {
public:
    /// All outlive the server; the pipe of the ticks is initialised.
    SoakServer(unsigned int clients, Progress& progress, JobDesk& desk, mw::tern::MessagePipe& ticks,
               Fault& fault);

    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override;

private:
    mw::tern::StatusCode OnTick();

    const unsigned int mClients;
    Progress& mProgress;
    JobDesk& mDesk;
    mw::tern::MessagePipe& mTicks;
    Fault& mFault;
    sd_bus* mBus = nullptr;
    /// Of the object that the extension itself calls, as no count of calls is to depend on it.
    Fault mNoFault{""};
    OwnClient mOwnClient;
    mwl::Diagnostics::Diagnostics mDiagnostics;
};

}  // namespace soak
