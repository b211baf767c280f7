// A service's start until it owns its name and until it answers, and what it takes once idle, beside the same
// service on plain sd-bus, sdbus-c++ and GDBus. Our side runs one thread more than plain sd-bus: the main
// thread, which waits.
//   start_comparison [RESULT.json]

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <list>

#include "benchmarks/peers/server_options.h"
#include "benchmarks/peers/server_process.h"
#include "benchmarks/support/comparison.h"
#include "support/private_bus.h"

namespace {

using namespace tern::benchmarks;

constexpr int ROUNDS = 25;
constexpr int IDLE_ROUNDS = 3;
/// Services of each side that are idle together: a device runs several, and what their libraries share counts
/// once.
constexpr std::size_t SERVICES = 3;
constexpr unsigned int SETTLE_SECONDS = 1;
constexpr unsigned int IDLE_SECONDS = 6;

void MeasureStart(Comparison& comparison) {
    auto owned = comparison.MakeRow("start to name owned", "ms", "sd-bus", 1.3);
    auto answered = comparison.MakeRow("start to first call answered", "ms", "sd-bus", 1.3);
    auto used = comparison.MakeRow("processor time to first call answered", "ms", "sd-bus", 1.3);
    std::vector<Side> sides = Side::All();
    Client client;
    for (int round = -1; round < Rounds(ROUNDS); ++round) {
        for (const Side& side : sides) {
            const double start = Now();
            const ServerProcess server(side, {});
            client.AwaitName(server.Name());
            const double named = Now();
            client.Call(server.Name(), ServerOptions::Path(0), ServerOptions::Interface(0));
            if (round >= 0) {  // before it everything is read from disk
                answered.Add(side.name, (Now() - start) * 1e3);
                owned.Add(side.name, (named - start) * 1e3);
                used.Add(side.name, server.ProcessorTime() * 1e3);
            }
        }
        std::rotate(sides.begin(), sides.begin() + 1, sides.end());
    }
    for (const auto* row : {&owned, &answered, &used}) {
        comparison.Finish(*row);
    }
}

/// Threads cost memory by themselves: the floor is the plain service with as many of them as ours runs.
constexpr const char* SAME_THREADS = "sd-bus, own thread";

void MeasureIdle(Comparison& comparison) {
    auto resident = comparison.MakeRow("resident memory, idle", "KiB", SAME_THREADS, 1.3);
    auto proportional =
        comparison.MakeRow("proportional memory, idle, several of each running", "KiB", SAME_THREADS, 1.3);
    auto own = comparison.MakeRow("memory written to, idle", "KiB", SAME_THREADS, 1.3);
    auto threads = comparison.MakeRow("threads", "");
    auto wakeUps = comparison.MakeRowBelow("wake-ups, idle", "1/min", "none", 0.5);
    const std::vector<Side> sides = Side::All();
    for (int round = 0; round < Rounds(IDLE_ROUNDS); ++round) {
        Client client;
        std::list<ServerProcess> servers;
        for (std::size_t i = 0; i < SERVICES * sides.size(); ++i) {
            const ServerProcess& server = servers.emplace_back(sides[i % sides.size()], std::vector<int>{});
            client.AwaitName(server.Name());
            client.Call(server.Name(), ServerOptions::Path(0), ServerOptions::Interface(0));
        }
        sleep(SETTLE_SECONDS);  // what is measured is idleness
        std::vector<double> before;
        for (const ServerProcess& server : servers) {
            resident.Add(server.SideName(), server.Memory("Rss"));
            proportional.Add(server.SideName(), server.Memory("Pss"));
            own.Add(server.SideName(), server.Memory("Private_Dirty"));
            threads.Add(server.SideName(), server.Threads());
            before.push_back(server.Sleeps());
        }
        sleep(IDLE_SECONDS);
        auto earlier = before.begin();
        for (const ServerProcess& server : servers) {
            wakeUps.Add(server.SideName(), (server.Sleeps() - *earlier++) * 60 / IDLE_SECONDS);
        }
    }
    for (const auto* row : {&resident, &proportional, &own, &threads, &wakeUps}) {
        comparison.Finish(*row);
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    UseInstalledLibraries();
    unsetenv("TERN_LOG_LEVEL");  // as delivered
    PinToProcessor(1);
    const tern::test::PrivateBus bus;
    Comparison comparison("start", "A service's start, and the service once idle");
    comparison.SetNote(
        "Proportional memory is that of one service while three of each kind run, so that what they share "
        "counts in part. The second sd-bus runs as many threads as ours.");
    MeasureStart(comparison);
    MeasureIdle(comparison);
    if (argc > 1) {
        comparison.Write(argv[1]);
    }
}
