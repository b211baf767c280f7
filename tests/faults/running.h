#pragma once

#include <tern/service/component.h>
#include <tern/threading/signals.h>
#include <tern/threading/threads_monitor.h>

#include <chrono>
#include <string>

#include "stage.h"
#include "support/wait_until.h"

namespace tern::test {

/// Longer than anything takes that happens at all.
constexpr std::chrono::milliseconds MOMENT{2000 * SLOWNESS};

/// A SIGTERM to the process, as systemd sends it.
void SendStop();
/// Takes one that nobody took, as the loop never ran: it must not meet the next extension.
void DropStop();

/// An extension in this process. `Server` is an IpcServer with IsStopped(), true when its Stop was called.
template <typename Server>
class Running {
public:
    explicit Running(Stage& stage) : mStage(stage), mName(stage.BusName()) {}
    /// Ends it, however far it came.
    ~Running() {
        End();
        DropStop();
    }
    Running(const Running&) = delete;
    Running& operator=(const Running&) = delete;

    /// True when it serves.
    bool Start() {
        if (!mStage.Accept(mComponent.Initialize(), "Initialize")) {
            return false;
        }
        const mw::tern::StatusCode status = mComponent.Start();
        mStarted = true;
        return mStage.Accept(status, "Start");
    }
    /// Waits until the D-Bus thread is about to end; false when it does not within a moment.
    bool WaitForEnd() {
        return WaitUntil([this] { return mServer.IsStopped(); }, MOMENT);
    }
    void Join() {
        mJoined = true;
        mComponent.JoinThread();
    }

    /// Ends it, and has a process that would end as failed count as a report: a loop that has failed says so
    /// on its thread's way out.
    void TellFailure() {
        End();
        static_cast<void>(mStage.Accept(mMonitor.HasFailure() ? 1 : 0, "HasFailure"));
    }

    const std::string& Name() const { return mName; }
    Server& GetServer() { return mServer; }
    mwl::Threading::ThreadsMonitor& Monitor() { return mMonitor; }

protected:
    Stage& mStage;

private:
    void End() {
        if (mStarted && !mJoined) {
            SendStop();
            Join();
        }
    }

    const std::string mName;
    mwl::Threading::Signals mSignals;
    mwl::Threading::ThreadsMonitor mMonitor{mSignals};
    Server mServer;
    mwl::DBusService::Component mComponent{mName, mMonitor, mServer};
    bool mStarted = false;  ///< the D-Bus thread was made
    bool mJoined = false;
};

}  // namespace tern::test
