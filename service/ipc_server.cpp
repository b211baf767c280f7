#include <tern/service/ipc_server.h>

namespace mwl::DBusService {

IpcServer::~IpcServer() = default;

mw::tern::StatusCode IpcServer::Start(mw::tern::DBusServerManager&, mw::tern::EventLoop&) {
    return StatusCode::Ok;
}

}  // namespace mwl::DBusService
