#pragma once

#include <tern/foundation/api.h>
#include <tern/foundation/status_code.h>
#include <tern/service/component_interface.h>
#include <tern/service/ipc_server.h>
#include <tern/threading/threads_monitor_interface.h>

#include <future>
#include <string>
#include <thread>

namespace mwl::DBusService {

/// The D-Bus thread of an extension, as its main thread sees it.
///
/// The main thread calls `Initialize` before any other thread exists, `Start` once, and, whatever `Start`
/// returned, `JoinThread`, which returns when SIGTERM, SIGINT, a worker's request to the monitor, or the loss
/// of the bus has ended the thread. The component is then destroyed; destroying it with the thread unjoined
/// ends the process. Main thread only. Everything is logged with the logger name "DBusService::Component".
///
/// The name, the monitor and the IPC server are borrowed: they outlive the component.
///
/// REQUIRES: every object that belongs to the bus (sd_bus_message, sd_bus_slot, a DBusClientManager used on
/// the D-Bus thread) is released on that thread, at the latest in the IPC server's `Stop`. Whoever releases
/// the last of them later frees the connection on another thread, which writes into the memory of the dead
/// one. When such an object is still held at the thread's end, an error line reports it, unless an exception
/// has left a handler: sd-bus itself has lost references then.
///
/// One component at a time in a process, since SIGTERM reaches one loop only; `Start` refuses a second one.
/// A forked child does not have its parent's D-Bus thread (fork(2)), and may start a component of its own.
/// One component for a monitor: a monitor knows one D-Bus thread and requests its stop once in its life, so a
/// later component needs a monitor of its own. This is not checked.
///
/// | state   | Initialize | Start          | JoinThread                      | destructor       |
/// |---------|------------|----------------|---------------------------------|------------------|
/// | created | yes        | starts, once   | logs, returns immediately       | yes              |
/// | started | no effect  | refused (Busy) | waits for the end of the thread | ends the process |
/// | joined  | no effect  | refused (Busy) | raises std::system_error        | yes              |
class TERN_API Component : public ComponentInterface {
public:
    /// `name` is the well-known bus name to request, empty for none. It is borrowed: keep it in a variable.
    Component(const std::string& name, Threading::ThreadsMonitorInterface& monitor, IpcServer& ipcServer);
    /// A temporary name, a literal's included, does not compile.
    Component(std::string&&, Threading::ThreadsMonitorInterface&, IpcServer&) = delete;
    Component(const std::string&&, Threading::ThreadsMonitorInterface&, IpcServer&) = delete;
    ~Component() override;
    Component(const Component&) = delete;
    Component& operator=(const Component&) = delete;

    /// Blocks SIGTERM and SIGINT for the calling thread and all that it will create, children included: a
    /// program started later unblocks them itself if it needs them. Ok, or the status of the failing call,
    /// logged.
    StatusCode Initialize() const override;

    /// Creates the D-Bus thread and waits, without limit, until its service is initialised and the IPC
    /// server's `Start` has returned. SIGTERM and SIGINT, sent to the process, end the wait for a bus that
    /// lets connect but does not answer, a second later (Interrupted). Once connected they wait for the IPC
    /// server's `Start`: a synchronous call there, adding a match included, waits 25 s for a bus that hangs.
    /// A worker's request to the monitor, a signal to the D-Bus thread alone, waits for the end of both.
    /// Ok: the service answers from now on. Busy, logged: this component was started before, or another one's
    /// D-Bus thread is running in this process (join that one first); nothing has changed, and the IPC server
    /// is not called. ResourceUnavailable: no memory for the thread, and no thread exists. Otherwise the
    /// status of the start-up step that failed; the thread is ending by itself and still wants `JoinThread`.
    /// A system that refuses the thread raises std::system_error.
    StatusCode Start() override;

    /// Waits for the end of the D-Bus thread, without limit. Returns immediately when there is none.
    void JoinThread() override;

    /// The body of the D-Bus thread: makes the service, delivers the start-up status, runs the loop, stops
    /// the IPC server and, through the monitor, every worker. A loop that ended in failure is reported to the
    /// monitor first, so that the process ends as failed.
    ///
    /// No exception on this thread is mute: see IpcServer, EventLoop::AddIo and DBusInterface for exceptions
    /// of your code, which are logged at critical level. An exception of a worker's `Stop` is logged, the
    /// workers after it in the list are left to the owner's own `Stop`, and the process ends as failed. While
    /// the thread runs, the process's terminate handler (std::set_terminate) logs an exception that ends the
    /// process on this thread and then calls the handler that was set before.
    static void ThreadMain(const std::string& name, std::promise<StatusCode>& startup,
                           Threading::ThreadsMonitorInterface& monitor, IpcServer& ipcServer);

private:
    const std::string& mName;
    Threading::ThreadsMonitorInterface& mMonitor;
    IpcServer& mIpcServer;
    std::thread* mThread = nullptr;
};

}  // namespace mwl::DBusService
