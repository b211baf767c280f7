#pragma once

#include <chrono>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bus_daemon.h"
#include "child_process.h"
#include "client.h"
#include "complaints.h"
#include "epoch.h"
#include "notifications.h"
#include "resources.h"
#include "support/temp_folder.h"

namespace soak {

/// Runs the soak: message bus, extension and clients. Ends a life of the extension by killing the bus, which
/// it has to answer by ending as failed, or by an order to stop, and begins the next one as systemd would.
/// Writes what it sees to its output folder: samples.csv, lives.csv, complaints.txt, the logs, and the stacks
/// of an extension that did not end. Main thread only; create it before other threads.
class Supervisor {
public:
    struct Options {
        std::string extension;  ///< the program
        std::string output;     ///< an existing folder
        std::chrono::seconds duration{60};
        unsigned int clients = 10;
        Client::Habits habits{std::chrono::milliseconds(10), std::chrono::seconds(25)};
    };

    explicit Supervisor(Options options);

    /// Whether there was nothing to complain about.
    bool Run();

private:
    using Clock = std::chrono::steady_clock;
    enum class End { BusKilled, Stopped };

    void RunLife(double share, End end);
    bool StartExtension();
    void Observe(Clock::time_point until);
    void TakeSample();
    void LookAtWatchdog();
    std::string ReadProgress();
    void EndLife(End end);
    void ExpectEnd(const std::string& what, int expectedStatus);
    void Complain(const std::string& complaint);
    void WriteComplaints();
    double Elapsed() const;

    const Options mOptions;
    Notifications mNotifications;
    tern::test::TempFolder mExtensionFolder;
    Epoch mEpoch;
    Complaints mComplaints;
    BusDaemon mBus;
    ChildProcess mExtension;
    std::vector<std::unique_ptr<Client>> mClients;
    std::ofstream mSamples;
    std::ofstream mLives;
    const std::chrono::milliseconds mSampleEvery;
    const Clock::time_point mBegin = Clock::now();
    Clock::time_point mNextSample = mBegin;
    Latencies mSampledLatencies;
    unsigned int mLife = 0;
    long mEndMs = 0;
    bool mIsLateReported = false;
};

}  // namespace soak
