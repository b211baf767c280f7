#include <tern/service/component.h>

#include <pthread.h>
#include <systemd/sd-bus.h>
#include <tern/foundation/log.h>
#include <tern/service/service.h>
#include <tern/service/service_main_loop.h>

#include <atomic>
#include <memory>
#include <new>
#include <optional>
#include <utility>

#include "foundation/handle.h"
#include "foundation/tell.h"
#include "platform/static_text.h"
#include "service/loop_guard.h"
#include "service/thrown.h"

namespace mwl::DBusService {

using mw::tern::Contain;
using mw::tern::Thrown;

namespace {

const StaticText LOGGER("DBusService::Component");

constexpr const void* NO_OBJECT = nullptr;

/// Whether this process has a D-Bus thread.
std::atomic<bool> gIsRunning{false};

// A forked child does not have it. Registered at load, here and elsewhere: a child that is forked while
// another thread is at that for the first time would wait for the end of it for ever.
[[maybe_unused]] const int gAtFork = pthread_atfork(nullptr, nullptr, [] { gIsRunning = false; });

struct EndRun {
    void operator()(std::atomic<bool>* isRunning) const { *isRunning = false; }
};
/// Held by the D-Bus thread while it exists.
using Run = std::unique_ptr<std::atomic<bool>, EndRun>;

/// Null while there is another D-Bus thread.
Run BeginRun() {
    return Run(gIsRunning.exchange(true) ? nullptr : &gIsRunning);
}

/// Reports whether a connection has gone with its last reference: a slot that the connection owns and that is
/// looked at from outside. It costs the connection nothing, because nothing is dispatched any more.
class BusWitness {
public:
    explicit BusWitness(sd_bus* bus) {
        // A connection that an exception passed through has lost references of its own.
        if (bus == nullptr || sd_bus_get_current_message(bus) != nullptr) {
            return;
        }
        sd_bus_slot* slot = nullptr;
        const int r = sd_bus_add_filter(
            bus, &slot, [](sd_bus_message*, void*, sd_bus_error*) { return 0; }, nullptr);
        mSlot.reset(slot);
        if (r >= 0 && sd_bus_slot_set_floating(slot, 1) < 0) {
            mSlot.reset();
        }
    }

    bool SeesBus() const { return mSlot != nullptr && sd_bus_slot_get_bus(mSlot.get()) != nullptr; }

private:
    mwl::Handle<sd_bus_slot, sd_bus_slot_unref> mSlot;
};

void TellState(const char* state) {
    TERN_TELL_NAMED(StateChanged, state_changed, NO_OBJECT, 0, state);
}

// An exception of a step is logged and counts as the failure of the step.

StatusCode InitializeService(Service& service) {
    return Contain(
        StatusCode::Failure, [&] { return service.Initialize(); },
        [](const Thrown& thrown) {
            mw::tern::TellThrown(thrown);
            TERN_LOG_CRITICAL(LOGGER, "Service::Initialize threw %s: %s", thrown.Type(), thrown.Text());
        });
}

StatusCode StartServer(IpcServer& ipcServer, Service& service) {
    return Contain(
        StatusCode::Failure,
        [&] { return ipcServer.Start(service.GetServerManager(), service.GetEventLoop()); },
        [](const Thrown& thrown) {
            mw::tern::TellThrown(thrown);
            TERN_LOG_CRITICAL(LOGGER, "IpcServer::Start threw %s: %s", thrown.Type(), thrown.Text());
        });
}

StatusCode StopServer(IpcServer& ipcServer) {
    return Contain(
        StatusCode::Failure,
        [&] {
            ipcServer.Stop();
            return StatusCode::Ok;
        },
        [](const Thrown& thrown) {
            mw::tern::TellThrown(thrown);
            TERN_LOG_CRITICAL(LOGGER, "IpcServer::Stop threw %s: %s", thrown.Type(), thrown.Text());
        });
}

StatusCode StopWorkers(Threading::ThreadsMonitorInterface& monitor) {
    return Contain(
        StatusCode::Failure,
        [&] {
            monitor.StopWorkerThreads();
            return StatusCode::Ok;
        },
        [](const Thrown& thrown) {
            mw::tern::TellThrown(thrown);
            TERN_LOG_CRITICAL(LOGGER, "StopWorkerThreads threw %s: %s", thrown.Type(), thrown.Text());
        });
}

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
    if (mThread != nullptr) {
        TERN_LOG_ERROR(LOGGER, "Do not start a component twice");
        return StatusCode::Busy;
    }
    Run run = BeginRun();
    if (run == nullptr) {
        TERN_LOG_ERROR(LOGGER, "Another component's D-Bus thread is running in this process");
        return StatusCode::Busy;
    }
    // Owned by both sides: this one may be gone before the thread has returned from set_value.
    const auto startup = std::make_shared<std::promise<StatusCode>>();
    std::future<StatusCode> result = startup->get_future();
    mThread = new (std::nothrow)
        std::thread([run = std::move(run), startup, &name = mName, &monitor = mMonitor,
                     &ipcServer = mIpcServer] { ThreadMain(name, *startup, monitor, ipcServer); });
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
    TellState("starting");
    const mw::tern::UncaughtLog uncaughtLog;
    monitor.SetDBusThreadId(static_cast<unsigned long>(pthread_self()));
    std::optional<Service> service(std::in_place, name);
    StatusCode status = InitializeService(*service);
    if (status == StatusCode::Ok) {
        status = StartServer(ipcServer, *service);
    }
    TellState(status == StatusCode::Ok ? "running" : "failed");
    startup.set_value(status);
    const StatusCode runStatus = status == StatusCode::Ok ? service->Run() : StatusCode::Ok;
    if (status == StatusCode::Ok) {
        TellState(runStatus == StatusCode::Ok ? "stopping" : "failed");
    }
    // The loop takes no SIGTERM any more. Where nobody blocked it, the monitor's would end the process before
    // the others have been stopped. Cannot fail with valid arguments.
    static_cast<void>(mw::tern::ServiceMainLoop::BlockSignalsForRunningThread());
    // The first failure is the thread's status. A running service's failure is reported before anything else
    // stops: the process has to end as failed, or nobody would restart it.
    bool isFailureTold = false;
    const auto settle = [&](StatusCode outcome) {
        status = status == StatusCode::Ok ? outcome : status;
        if (outcome != StatusCode::Ok && !std::exchange(isFailureTold, true)) {
            monitor.NotifyDBusThreadToStopOnFailure();
        }
    };
    settle(runStatus);
    settle(StopServer(ipcServer));
    settle(StopWorkers(monitor));
    TERN_LOG_INFO(LOGGER, "Exit D-Bus thread, status=%u", status);
    // A callback that sd-bus calls outside of a message leaves no trace there.
    const BusWitness witness(mw::tern::UncaughtLog::HasLoopThrown() ? nullptr
                                                                    : service->GetServerManager().GetBus());
    service.reset();
    if (witness.SeesBus()) {
        TERN_LOG_ERROR(LOGGER,
                       "A message, slot or client of the bus is still held at the end of the D-Bus thread");
    }
}

}  // namespace mwl::DBusService
