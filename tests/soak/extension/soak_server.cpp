#include "soak_server.h"

#include <sys/epoll.h>
#include <tern/service/dbus_server_manager.h>

#include <cstdint>
#include <memory>
#include <string>

#include "client_interface.h"
#include "names.h"
#include "progress_interface.h"

using mw::tern::StatusCode;

namespace soak {

namespace {

StatusCode Show(mw::tern::DBusServerManager& manager, const std::string& path,
                std::unique_ptr<mw::tern::DBusInterface> interface) {
    StatusCode status = manager.AddDBusObject(path);
    if (status == StatusCode::Ok) {
        status = manager.AddInterfaceToDBusObject(path, interface.get());
    }
    if (status == StatusCode::Ok) {
        static_cast<void>(interface.release());  // the object's now
        status = manager.ExportObject(path);
    }
    return status;
}

}  // namespace

SoakServer::SoakServer(unsigned int clients, Progress& progress, JobDesk& desk, mw::tern::MessagePipe& ticks,
                       Fault& fault)
    : mClients(clients),
      mProgress(progress),
      mDesk(desk),
      mTicks(ticks),
      mFault(fault),
      mOwnClient(progress) {}

StatusCode SoakServer::Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) {
    mBus = manager.GetBus();
    StatusCode status = Show(manager, OBJECT_PATH, std::make_unique<ProgressInterface>(mProgress));
    for (unsigned int client = 0; client < mClients && status == StatusCode::Ok; ++client) {
        status = Show(manager, ClientPath(client),
                      std::make_unique<ClientInterface>(mDesk, mFault, std::to_string(client)));
    }
    if (status == StatusCode::Ok) {
        status = Show(manager, ClientPath(mClients),
                      std::make_unique<ClientInterface>(mDesk, mNoFault, std::to_string(mClients)));
    }
    if (status == StatusCode::Ok) {
        status = mDesk.Open(loop);
    }
    if (status == StatusCode::Ok) {
        status = mOwnClient.Open(manager, loop, ClientPath(mClients));
    }
    if (status == StatusCode::Ok) {
        status = loop.AddIo(mTicks.GetReadFd(), EPOLLIN,
                            [this](sd_event_source*, int, unsigned int) { return OnTick(); });
    }
    if (status == StatusCode::Ok) {
        mDiagnostics = mwl::Diagnostics::Diagnostics::Export(mOwnClient.GetBus());
        status = mDiagnostics.GetStatus();
    }
    return status;
}

void SoakServer::Stop() {
    mOwnClient.Close();
    mDiagnostics.Reset();
    mTicks.Close();
    mDesk.Close();
}

StatusCode SoakServer::OnTick() {
    std::uint64_t number = 0;
    const StatusCode status = mTicks.ReadMessage(&number, sizeof number, 0);
    if (status == StatusCode::Ok && !mFault.IsLeftOut(number)) {
        sd_bus_emit_signal(mBus, OBJECT_PATH.c_str(), PROGRESS_INTERFACE.c_str(), "Tick", "t", number);
    }
    return status;
}

}  // namespace soak
