#pragma once

#include <tern/service/dbus_server_manager.h>
#include <tern/service/event_loop.h>
#include <tern/service/ipc_server.h>
#include <tern/typed/bus.h>

#include <atomic>
#include <memory>
#include <string>

namespace tern::test {

/// What a typed extension puts on its bus: an object below an object manager, with a member of each kind, and
/// others that come and go. It is in a library of its own, so that what the headers make of it, in each
/// program again, is swept as well.
class TERN_API TypedServer : public mwl::DBusService::IpcServer {
public:
    static constexpr const char* ROOT = "/com/example";
    static constexpr const char* PATH = "/com/example/Faults";
    static constexpr const char* INTERFACE = "com.example.TypedFaults1";

    TypedServer();
    ~TypedServer() override;

    mw::tern::StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override;
    void Stop() override;
    bool IsStopped() const { return mStopped; }

    // Any thread but the D-Bus thread; each waits until it is done there. False: refused, or not done as the
    // loop has ended.
    bool Post();
    bool Add(const std::string& path);
    /// The calling thread drops it.
    bool Remove(const std::string& path);
    /// Whether the calls that wait for their answer are that many, within a moment.
    bool WaitForOpenCalls(std::size_t count);
    /// Holds changes back for 5 ms each time.
    bool SetPeriod();

    /// Implementations that are alive; of all servers.
    static int Alive();

private:
    template <typename Job>
    bool Run(Job job);

    struct State;
    const std::unique_ptr<State> mState;
    std::atomic<bool> mStopped{false};
};

/// As StatusCode, what came of writing the introspection data of the interface to the file at that path.
TERN_API mw::tern::StatusCode WriteTypedIntrospection(const std::string& path);

}  // namespace tern::test
