#include "supervisor.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cstdio>

#include "bus_owners.h"
#include "names.h"
#include "stacks.h"
#include "support/wait_until.h"

namespace soak {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

namespace {

/// As announced to the extension; a gap as long as that would have made systemd kill it.
constexpr milliseconds WATCHDOG{4000};
/// An order to stop, or the loss of the bus, is obeyed within this time, long before systemd would kill. On a
/// busy machine the kernel alone takes seconds to close an inotify descriptor.
constexpr milliseconds STOP_LIMIT{15000};
constexpr milliseconds LIVENESS_CHECK{50};

constexpr const char* COUNTERS[] = {"Commands",       "Archives",      "Reloads",       "FolderEvents",
                                    "FolderRestarts", "TimerTicks",    "OnceTicks",     "ShortTicks",
                                    "ClientCalls",    "ClientSignals", "ClientChanges", "ClientWatches",
                                    "Failures"};

/// Shares of the whole time: short lives first, then one that takes half of it.
struct Life {
    double share;
    bool isStopped;
};
constexpr Life LIVES[] = {{1.0 / 30, false}, {1.0 / 30, true},  {2.0 / 30, false}, {2.0 / 30, false},
                          {3.0 / 30, true},  {3.0 / 30, false}, {4.0 / 30, false}, {14.0 / 30, true}};
/// Where those would be too short to see anything.
constexpr Life FEW_LIVES[] = {{0.25, false}, {0.25, true}, {0.5, false}};
constexpr std::chrono::seconds SHORT_RUN{120};

}  // namespace

Supervisor::Supervisor(Options options)
    : mOptions(std::move(options)),
      mBus(mOptions.output + "/bus.log"),
      mSamples(mOptions.output + "/samples.csv"),
      mLives(mOptions.output + "/lives.csv"),
      mSampleEvery(mOptions.duration < SHORT_RUN ? milliseconds(200) : milliseconds(1000)) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", mBus.GetAddress().c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    setenv("TERN_LOG_LEVEL", "error", 1);                             // NOLINT(concurrency-mt-unsafe)
    mSamples
        << "seconds,life,calls,replies,interrupted,lost,errors,wrong,signals,missed,rss_kib,pss_kib,anon_kib,"
           "descriptors,threads,watchdog_gap_ms,latencies\n";
    mLives << "life,begin,end,ended_by,start_ms,end_ms,feedings,longest_gap_ms";
    for (const char* const counter : COUNTERS) {
        mLives << ',' << counter;
    }
    mLives << '\n';
    for (unsigned int i = 0; i < mOptions.clients; ++i) {
        mClients.push_back(
            std::make_unique<Client>(i, mBus.GetAddress(), mOptions.habits, mEpoch, mComplaints));
    }
}

bool Supervisor::Run() {
    mBus.Start();
    for (const std::unique_ptr<Client>& client : mClients) {
        client->Start();
    }
    const auto run = [this](const auto& lives) {
        for (const Life& life : lives) {
            RunLife(life.share, life.isStopped ? End::Stopped : End::BusKilled);
        }
    };
    if (mOptions.duration < SHORT_RUN) {
        run(FEW_LIVES);
    } else {
        run(LIVES);
    }
    WriteComplaints();
    return mComplaints.Get().empty();
}

void Supervisor::RunLife(double share, End end) {
    ++mLife;
    const double begin = Elapsed();
    const auto until = Clock::now() + duration_cast<Clock::duration>(mOptions.duration * share);
    if (!StartExtension()) {
        mExtension.Signal(SIGKILL);
        static_cast<void>(mExtension.WaitForEnd(STOP_LIMIT));
        return;
    }
    const double ready = Elapsed();
    Observe(until);
    // What was fed until here counts, not what comes when it is ending.
    const auto feedings = mNotifications.GetFeedings();
    const auto gap = mNotifications.GetLongestGap().count();
    std::string progress;
    const char* endedBy = "itself";
    if (mExtension.IsRunning()) {
        progress = ReadProgress();
        endedBy = end == End::BusKilled ? "bus killed" : "stop";
        EndLife(end);
    } else {
        for (std::size_t i = 0; i < std::size(COUNTERS); ++i) {
            progress += ",0";  // nobody to ask
        }
    }
    mLives << mLife << ',' << begin << ',' << Elapsed() << ',' << endedBy << ','
           << static_cast<long>((ready - begin) * 1000) << ',' << mEndMs << ',' << feedings << ',' << gap
           << progress << std::endl;
}

bool Supervisor::StartExtension() {
    mNotifications.BeginLife();
    mIsLateReported = false;
    mExtension.Start({mOptions.extension, mExtensionFolder.Path(), std::to_string(mOptions.clients)},
                     mOptions.output + "/extension.log",
                     static_cast<unsigned long>(std::chrono::microseconds(WATCHDOG).count()));
    const auto deadline = Clock::now() + tern::test::GENEROUS_LIMIT;
    while (!mNotifications.IsReady() && Clock::now() < deadline) {
        mNotifications.Receive(Clock::now() + LIVENESS_CHECK);
        if (!mNotifications.IsReady() && mExtension.WaitForEnd(milliseconds(0))) {
            break;
        }
    }
    if (!mNotifications.IsReady()) {
        Complain("the extension did not become ready");
    }
    return mNotifications.IsReady();
}

void Supervisor::Observe(Clock::time_point until) {
    mNextSample = Clock::now();
    while (Clock::now() < until) {
        mNotifications.Receive(
            std::min<Clock::time_point>({Clock::now() + LIVENESS_CHECK, mNextSample, until}));
        LookAtWatchdog();
        if (const std::optional<int> status = mExtension.WaitForEnd(milliseconds(0))) {
            Complain("the extension ended by itself, wait status " + std::to_string(*status));
            return;
        }
        if (Clock::now() >= mNextSample) {
            TakeSample();
            mNextSample += mSampleEvery;
        }
    }
}

void Supervisor::LookAtWatchdog() {
    const auto gap = mNotifications.GetLongestGap();
    if (gap >= WATCHDOG && !mIsLateReported) {
        mIsLateReported = true;
        Complain("late watchdog: not fed for " + std::to_string(gap.count()) + " ms");
    }
}

void Supervisor::TakeSample() {
    const std::optional<Resources> resources = Resources::Of(mExtension.GetPid());
    if (!resources) {
        return;
    }
    Tally tally;
    for (const std::unique_ptr<Client>& client : mClients) {
        tally += client->GetTally();
    }
    Latencies latencies = tally.latencies;
    latencies -= mSampledLatencies;
    mSampledLatencies = tally.latencies;
    mSamples << Elapsed() << ',' << mLife << ',' << tally.calls << ',' << tally.replies << ','
             << tally.interrupted << ',' << tally.lost << ',' << tally.errors << ',' << tally.wrong << ','
             << tally.signals << ',' << tally.missed << ',' << resources->rssKib << ',' << resources->pssKib
             << ',' << resources->anonKib << ',' << resources->descriptors << ',' << resources->threads << ','
             << mNotifications.GetLongestGap().count() << ',' << latencies.ToText() << '\n';
}

std::string Supervisor::ReadProgress() {
    std::string progress;
    const Bus bus = OpenBus(mBus.GetAddress());
    for (const std::string counter : COUNTERS) {
        BusError error;
        std::uint64_t value = 0;
        const int r = bus == nullptr
                          ? -1
                          : sd_bus_get_property_trivial(bus.get(), BUS_NAME.c_str(), OBJECT_PATH.c_str(),
                                                        PROGRESS_INTERFACE.c_str(), counter.c_str(),
                                                        &error.error, 't', &value);
        if (r < 0) {
            Complain("the property " + counter + " cannot be read: " + error.Name());
        } else if ((value == 0) != (counter == "Failures")) {
            Complain("the extension's " + counter + " are " + std::to_string(value));
        }
        progress += "," + std::to_string(value);
    }
    return progress;
}

void Supervisor::EndLife(End end) {
    mEpoch.BeginInterruption();
    if (end == End::BusKilled) {
        mBus.Kill();
        ExpectEnd("the loss of the bus", EXIT_FAILURE);
        mBus.Start();
    } else {
        mExtension.Signal(SIGTERM);
        ExpectEnd("the order to stop", EXIT_SUCCESS);
    }
    mEpoch.EndInterruption();
}

void Supervisor::ExpectEnd(const std::string& what, int expectedStatus) {
    const auto begin = Clock::now();
    std::optional<int> status = mExtension.WaitForEnd(STOP_LIMIT);
    mEndMs = static_cast<long>(duration_cast<milliseconds>(Clock::now() - begin).count());
    if (!status) {
        const std::string stacks = "stacks-" + std::to_string(mLife) + ".txt";
        WriteStacks(mExtension.GetPid(), mOptions.output + "/" + stacks);
        Complain("the extension did not end after " + what + ", see " + stacks);
        mExtension.Signal(SIGKILL);
        static_cast<void>(mExtension.WaitForEnd(STOP_LIMIT));
    } else if (!WIFEXITED(*status) || WEXITSTATUS(*status) != expectedStatus) {
        Complain("after " + what + " the extension ended with wait status " + std::to_string(*status));
    }
}

void Supervisor::Complain(const std::string& complaint) {
    mComplaints.Add("life " + std::to_string(mLife) + ": " + complaint);
}

void Supervisor::WriteComplaints() {
    for (const std::unique_ptr<Client>& client : mClients) {
        client->Stop();
    }
    Tally tally;
    for (const std::unique_ptr<Client>& client : mClients) {
        tally += client->GetTally();
    }
    if (tally.calls != tally.replies + tally.interrupted + tally.lost + tally.errors) {
        mComplaints.Add("the calls and their outcomes differ in number");
    }
    // Each interruption meets at most one call of each client.
    if (tally.interrupted > static_cast<std::uint64_t>(mLife) * mOptions.clients) {
        mComplaints.Add("more calls were interrupted than can have been in flight");
    }
    std::ofstream totals(mOptions.output + "/totals.csv");
    totals << "calls,replies,interrupted,lost,errors,wrong,signals,missed\n"
           << tally.calls << ',' << tally.replies << ',' << tally.interrupted << ',' << tally.lost << ','
           << tally.errors << ',' << tally.wrong << ',' << tally.signals << ',' << tally.missed << '\n';
    std::ofstream file(mOptions.output + "/complaints.txt");
    for (const std::string& complaint : mComplaints.Get()) {
        file << complaint << '\n';
    }
}

double Supervisor::Elapsed() const {
    return std::chrono::duration<double>(Clock::now() - mBegin).count();
}

}  // namespace soak
