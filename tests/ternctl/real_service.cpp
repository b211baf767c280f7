// A service with the real diagnostics, which does what a test tells it to.
//
//     ternctl-real-service NAME MODE
//
// ordinary: as a service would have them. small: a recorder that keeps 128 events only.

#include <systemd/sd-daemon.h>
#include <tern/diagnostics/diagnostics.h>
#include <tern/foundation/log.h>
#include <tern/queued_processings/component.h>
#include <tern/service/component.h>
#include <tern/service/ipc_server.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/thread_pool.h>
#include <tern/threading/thread_watched.h>
#include <tern/threading/threads_monitor.h>
#include <tern/threading/threads_watcher.h>
#include <tern/timer/short_period_timer.h>
#include <tern/timer/timer.h>
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

using mwl::StatusCode;
namespace Typed = mwl::Typed;

namespace {

const std::string LOGGER = "Real";

/// What it does on demand.
struct Real1 {
    static constexpr const char* NAME = "com.example.Real1";
    using Number = std::uint32_t;

    static constexpr Typed::Method<Number(Number, Number)> Add{"Add", {"a", "b", "sum"}, Typed::OPEN};
    /// In the handler.
    static constexpr Typed::Method<void(Number)> Sleep{"Sleep", {"ms"}, Typed::OPEN};
    /// So many jobs of the pool, each of so many milliseconds.
    static constexpr Typed::Method<void(Number, Number)> Queue{"Queue", {"jobs", "ms"}, Typed::OPEN};
    static constexpr Typed::Method<void()> WakeUp{"WakeUp", {}, Typed::OPEN};
    /// Messages into the pipe and out of it.
    static constexpr Typed::Method<void(Number, Number)> Pipe{"Pipe", {"written", "read"}, Typed::OPEN};
    /// Logs the text at a level of syslog(3).
    static constexpr Typed::Method<void(Number, std::string_view)> Log{"Log", {"level", "text"}, Typed::OPEN};

    static constexpr Typed::Members<Add, Sleep, Queue, WakeUp, Pipe, Log> ALL{};
};

/// All that a service may be made of.
class Parts {
public:
    explicit Parts(mwl::Threading::Signals& signals, mwl::Threading::ThreadsMonitor& monitor)
        : mWatcher(monitor),
          pool(2, mWatcher, signals),
          component("control", "control", monitor, mExecutor),
          mShort(50, true, [] {}),
          mOnce(20, false, [] {}) {}

    /// The timer that fires once is the last: when it has fired, all has been started.
    bool Start() {
        pool.Start();
        mPatrol = std::thread([this] { Patrol(); });
        mBegun.get_future().wait();
        return pipe.Initialize() == StatusCode::Ok && component.Start() == StatusCode::Ok &&
               mShort.Start() == StatusCode::Ok && mOnce.Start() == StatusCode::Ok;
    }
    void Stop() {
        mShort.Stop();
        component.Stop();
        component.Join();
        {
            const std::lock_guard lock(mMutex);
            mIsOver = true;
        }
        mChanged.notify_all();
        if (mPatrol.joinable()) {
            mPatrol.join();
        }
        pool.Stop(true);
    }

private:
    struct Executor final : mwl::QueuedProcessings::ExecutorInterface {
        StatusCode Initialize() override { return StatusCode::Ok; }
        void Execute() override { usleep(2000); }  // long enough to be measured
        void Stop() override {}
    };

    void Patrol() {
        mwl::Threading::ThreadWatched watched(mWatcher, "patrol");
        watched.StartWatch(std::chrono::seconds(10));
        mBegun.set_value();
        std::unique_lock lock(mMutex);
        while (!mChanged.wait_for(lock, std::chrono::milliseconds(500), [this] { return mIsOver; })) {
            watched.NotifyWork();
        }
        lock.unlock();
        watched.StopWatch();
    }

    mwl::Threading::ThreadsWatcher mWatcher;
    Executor mExecutor;

public:
    mwl::Threading::ThreadPool::ThreadPool pool;
    mwl::QueuedProcessings::Component component;
    mw::tern::MessagePipe pipe{};

private:
    mwl::Timer::ShortPeriodTimer mShort;
    mwl::Timer::Timer mOnce;
    std::promise<void> mBegun{};
    std::mutex mMutex{};
    std::condition_variable mChanged{};
    bool mIsOver = false;
    std::thread mPatrol{};
};

class Real final : public Typed::Implements<Real, Real1> {
public:
    explicit Real(Parts& parts) : mParts(parts) {}

    static constexpr auto Describe() {
        using Typed::Bind;
        return Typed::Bindings<Bind<Real1::Add, &Real::Add>, Bind<Real1::Sleep, &Real::Sleep>,
                               Bind<Real1::Queue, &Real::Queue>, Bind<Real1::WakeUp, &Real::WakeUp>,
                               Bind<Real1::Pipe, &Real::Pipe>, Bind<Real1::Log, &Real::Log>>();
    }

private:
    using Number = Real1::Number;

    Number Add(Number a, Number b) { return a + b; }
    void Sleep(Number ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
    void Queue(Number jobs, Number ms) {
        for (Number i = 0; i < jobs; ++i) {
            mParts.pool.QueueJob([ms] { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); });
        }
    }
    void WakeUp() { mParts.component.WakeUp(); }
    void Pipe(Number written, Number read) {
        char message[4] = {};
        for (Number i = 0; i < written; ++i) {
            static_cast<void>(mParts.pipe.WriteMessage(message, sizeof message));
        }
        for (Number i = 0; i < read; ++i) {
            static_cast<void>(mParts.pipe.ReadMessage(message, sizeof message, 0));
        }
    }
    Typed::Outcome<void> Log(Number level, const std::string& text) {
        switch (level) {
            case 2:
                TERN_LOG_CRITICAL(LOGGER, "%s", text.c_str());
                return {};
            case 3:
                TERN_LOG_ERROR(LOGGER, "%s", text.c_str());
                return {};
            case 4:
                TERN_LOG_WARNING(LOGGER, "%s", text.c_str());
                return {};
            case 6:
                TERN_LOG_INFO(LOGGER, "%s", text.c_str());
                return {};
            case 7:
                TERN_LOG_TRACE(LOGGER, "%s", text.c_str());
                return {};
            default:
                return Typed::Error::InvalidArgs("no such level");
        }
    }

    Parts& mParts;
};

class Server final : public mwl::DBusService::IpcServer {
public:
    Server(Parts& parts, std::string mode) : mParts(parts), mMode(std::move(mode)) {}

    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        const StatusCode status = mBus.Open(manager, loop);
        if (status != StatusCode::Ok) {
            return status;
        }
        mObject = mBus.Export("/real", std::make_unique<Real>(mParts));
        mwl::Diagnostics::Options options;
        options.recorder.version = "2.3.4";
        options.recorder.eventBytes = mMode == "small" ? 4096 : 65536;
        mDiagnostics = mwl::Diagnostics::Diagnostics::Export(mBus, options);
        return mObject.GetStatus() == StatusCode::Ok ? mDiagnostics.GetStatus() : mObject.GetStatus();
    }
    void Stop() override {
        mBus.Close();
        mDiagnostics.Reset();
        mObject.Reset();
    }

private:
    Parts& mParts;
    const std::string mMode;
    Typed::Bus mBus{};
    Typed::Exported mObject{};
    mwl::Diagnostics::Diagnostics mDiagnostics{};
};

}  // namespace

int main(int argc, char* argv[]) {
    if (argc != 3) {
        return EXIT_FAILURE;
    }
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    Parts parts(signals, monitor);
    Server server(parts, argv[2]);
    const std::string name = argv[1];
    mwl::DBusService::Component service(name, monitor, server);
    if (service.Initialize() != StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    const bool isServing = service.Start() == StatusCode::Ok && parts.Start();
    if (isServing) {
        sd_notify(0, "READY=1");
    } else {
        monitor.NotifyDBusThreadToStopOnFailure();
    }
    service.JoinThread();
    parts.Stop();
    return isServing && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
