#include <pthread.h>
#include <tern/foundation/log.h>
#include <tern/service/component.h>
#include <tern/service/service.h>
#include <tern/service/service_main_loop.h>

#include <memory>
#include <new>

#include "platform/static_text.h"

namespace mwl::DBusService {

namespace {

const StaticText LOGGER("DBusService::Component");

}  // namespace

Component::Component(const std::string& name, Threading::ThreadsMonitorInterface& monitor,
                     IpcServer& ipcServer)
    : mName(name), mMonitor(monitor), mIpcServer(ipcServer) {}

Component::~Component() {
    delete mThread;
}

StatusCode Component::Initialize() const {
    TERN_LOG_INFO(LOGGER, "Block signals SIGTERM and SIGINT for this thread");
    const StatusCode status = mw::tern::ServiceMainLoop::BlockSignalsForRunningThread();
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "Failed to block signals SIGTERM and SIGINT, status=%u", status);
    }
    return status;
}

StatusCode Component::Start() {
    TERN_LOG_INFO(LOGGER, "Start D-Bus service");
    // Owned by both sides: this one may be gone before the thread has returned from set_value.
    const auto startup = std::make_shared<std::promise<StatusCode>>();
    std::future<StatusCode> result = startup->get_future();
    mThread = new (std::nothrow)
        std::thread([startup, &name = mName, &monitor = mMonitor, &ipcServer = mIpcServer] {
            ThreadMain(name, *startup, monitor, ipcServer);
        });
    if (mThread == nullptr) {
        TERN_LOG_ERROR(LOGGER, "Failed to create D-Bus thread");
        return StatusCode::ResourceUnavailable;
    }
    const StatusCode status = result.get();
    if (status != StatusCode::Ok) {
        TERN_LOG_ERROR(LOGGER, "Failed to start D-Bus thread, status=%u", status);
        return status;
    }
    TERN_LOG_INFO(LOGGER, "D-Bus thread started");
    return StatusCode::Ok;
}

void Component::JoinThread() {
    TERN_LOG_INFO(LOGGER, "Join D-Bus thread mThread=[%p]", static_cast<void*>(mThread));
    if (mThread == nullptr) {
        return;
    }
    mThread->join();
    TERN_LOG_INFO(LOGGER, "D-Bus thread execution has completed, D-Bus service stopped");
}

void Component::ThreadMain(const std::string& name, std::promise<StatusCode>& startup,
                           Threading::ThreadsMonitorInterface& monitor, IpcServer& ipcServer) {
    TERN_LOG_INFO(LOGGER, "Start D-Bus thread");
    monitor.SetDBusThreadId(static_cast<unsigned long>(pthread_self()));
    Service service(name);
    StatusCode status = service.Initialize();
    if (status == StatusCode::Ok) {
        status = ipcServer.Start(service.GetServerManager(), service.GetEventLoop());
    }
    startup.set_value(status);
    const bool isStarted = status == StatusCode::Ok;
    if (isStarted) {
        status = service.Run();
    }
    // The loop takes no SIGTERM any more. Where nobody blocked it, the monitor's would end the process before
    // the others have been stopped. Cannot fail with valid arguments.
    static_cast<void>(mw::tern::ServiceMainLoop::BlockSignalsForRunningThread());
    if (isStarted && status != StatusCode::Ok) {
        // The process has to end as failed, or nobody would restart it.
        monitor.NotifyDBusThreadToStopOnFailure();
    }
    ipcServer.Stop();
    monitor.StopWorkerThreads();
    TERN_LOG_INFO(LOGGER, "Exit D-Bus thread, status=%u", status);
}

}  // namespace mwl::DBusService
