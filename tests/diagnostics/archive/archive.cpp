// The service of docs/diagnostics.md, with its fault: an archive whose packer gives up when the disk is full.
//   archive FILE     what is packed goes to the end of FILE

#include <limits.h>
#include <systemd/sd-daemon.h>
#include <tern/diagnostics/diagnostics.h>
#include <tern/diagnostics/recorder.h>
#include <tern/foundation/log.h>
#include <tern/queued_processings/component.h>
#include <tern/service/component.h>
#include <tern/service/ipc_server.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/signals.h>
#include <tern/threading/stop_signal.h>
#include <tern/threading/threads_monitor.h>
#include <tern/typed/bus.h>
#include <tern/typed/implements.h>

#include <array>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>

namespace archive {

using mw::tern::StatusCode;
namespace Typed = mwl::Typed;

const std::string LOGGER = "Archive";
const std::string BUS_NAME = "com.example.Archive";

using Record = std::array<char, PIPE_BUF>;

struct Archive1 {
    static constexpr const char* NAME = "com.example.Archive1";

    static constexpr Typed::Method<void()> Compact{"Compact", {}, Typed::OPEN};

    static constexpr Typed::Members<Compact> ALL{};
};

/// Takes records from the pipe to the file, on a thread of its own.
class Packer : public mwl::QueuedProcessings::ExecutorInterface {
public:
    explicit Packer(const char* file) : mFile(file, std::ios::app) {}

    StatusCode Initialize() override { return StatusCode::Ok; }
    void Execute() override {
        if (mHasGivenUp) {
            return;
        }
        Record record{};
        while (records.ReadMessage(record.data(), record.size(), PATIENCE_MS) == StatusCode::Ok) {
            if (!mFile.write(record.data(), record.size()).flush()) {
                TERN_LOG_ERROR(LOGGER, "the disk is full, nothing is packed any more");
                mHasGivenUp = true;
                return;
            }
        }
    }
    void Stop() override { records.Close(); }

    mw::tern::MessagePipe records;

private:
    static constexpr unsigned PATIENCE_MS = 1;

    std::ofstream mFile;
    bool mHasGivenUp = false;
};

class ArchiveInterface final : public Typed::Implements<ArchiveInterface, Archive1> {
public:
    ArchiveInterface(Packer& packer, mwl::QueuedProcessings::Component& packing)
        : mPacker(packer), mPacking(packing) {}

    static constexpr auto Describe() {
        return Typed::Bindings<Typed::Bind<Archive1::Compact, &ArchiveInterface::Compact>>();
    }

private:
    StatusCode Compact() {
        const Record record{};
        const StatusCode status = mPacker.records.WriteMessage(record.data(), record.size());
        mPacking.WakeUp();
        return status;
    }

    Packer& mPacker;
    mwl::QueuedProcessings::Component& mPacking;
};

class ArchiveServer : public mwl::DBusService::IpcServer {
public:
    ArchiveServer(Packer& packer, mwl::QueuedProcessings::Component& packing)
        : mPacker(packer), mPacking(packing) {}

    StatusCode Start(mw::tern::DBusServerManager& manager, mw::tern::EventLoop& loop) override {
        if (const StatusCode status = mBus.Open(manager, loop); status != StatusCode::Ok) {
            return status;
        }
        mObject = mBus.Export("/com/example/Archive", std::make_unique<ArchiveInterface>(mPacker, mPacking));
        mDiagnostics = mwl::Diagnostics::Diagnostics::Export(mBus, {.recorder = {.version = "1.4.0"}});
        return mObject.GetStatus();
    }
    void Stop() override {
        mBus.Close();
        mDiagnostics.Reset();
    }

private:
    Packer& mPacker;
    mwl::QueuedProcessings::Component& mPacking;
    mwl::Typed::Bus mBus;
    mwl::Typed::Exported mObject;
    mwl::Diagnostics::Diagnostics mDiagnostics;
};

}  // namespace archive

int main(int argc, char* argv[]) {
    static_cast<void>(mwl::Diagnostics::Recorder::Begin({.version = "1.4.0"}));  // as the first of all
    mwl::Threading::Signals signals;
    mwl::Threading::ThreadsMonitor monitor(signals);
    mwl::Threading::StopSignal::Register();
    archive::Packer packer(argc > 1 ? argv[1] : "archive");
    mwl::QueuedProcessings::Component packing("Packing", "packing", monitor, packer);
    archive::ArchiveServer server(packer, packing);
    mwl::DBusService::Component service(archive::BUS_NAME, monitor, server);
    if (packer.records.Initialize() != archive::StatusCode::Ok ||
        service.Initialize() != archive::StatusCode::Ok) {
        return EXIT_FAILURE;
    }
    const bool isServing =
        service.Start() == archive::StatusCode::Ok && packing.Start() == archive::StatusCode::Ok;
    if (isServing) {
        sd_notify(0, "READY=1");
    } else {
        monitor.NotifyDBusThreadToStopOnFailure();
    }
    service.JoinThread();
    packing.Stop();
    packing.Join();
    return isServing && !monitor.HasFailure() ? EXIT_SUCCESS : EXIT_FAILURE;
}
