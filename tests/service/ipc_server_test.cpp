#include <gtest/gtest.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/service/ipc_server.h>

namespace {

class Minimal : public mwl::DBusService::IpcServer {
public:
    void Stop() override {}
};

}  // namespace

TEST(IpcServer, StartIsOptional) {
    Minimal server;
    mw::tern::DBusServerManager manager("");
    mw::tern::EventLoop loop;
    EXPECT_EQ(server.Start(manager, loop), mwl::StatusCode::Ok);
}
