// A method call served by an extension, beside the same service on plain sd-bus, sdbus-c++ and GDBus. All
// servers run at the same time and are called in turn, in slices of some milliseconds, by one client through
// one private bus.
//   call_comparison [RESULT.json]

#include <algorithm>
#include <cstdlib>
#include <list>
#include <map>

#include "benchmarks/peers/server_options.h"
#include "benchmarks/peers/server_process.h"
#include "benchmarks/support/comparison.h"
#include "support/private_bus.h"

namespace {

using namespace tern::benchmarks;

constexpr int ROUNDS = 15;
constexpr int SLICES = 10;
constexpr int CALLS = 150;
constexpr int CALLS_TOGETHER = 640;
constexpr int IN_FLIGHT = 64;

/// The figures of one side in one round.
struct Turn {
    std::vector<double> roundTrips;
    double oneByOne = 0;  ///< processor time of the server, waiting calls
    double together = 0;  ///< the same with many in flight
    double elapsed = 0;   ///< with many in flight
};

void Slice(Client& client, const ServerProcess& server, Turn& turn) {
    const std::string path = ServerOptions::Path(0);
    const std::string interface = ServerOptions::Interface(0);
    // The first ones find caches and clocks as the side before left them.
    for (int i = 0; i < 10; ++i) {
        client.Call(server.Name(), path, interface);
    }
    double used = server.ProcessorTime();
    for (int i = 0; i < CALLS; ++i) {
        const double start = Now();
        client.Call(server.Name(), path, interface);
        turn.roundTrips.push_back((Now() - start) * 1e6);
    }
    turn.oneByOne += server.ProcessorTime() - used;
    used = server.ProcessorTime();
    const double start = Now();
    client.CallMany(server.Name(), path, interface, CALLS_TOGETHER, IN_FLIGHT);
    turn.elapsed += Now() - start;
    turn.together += server.ProcessorTime() - used;
}

}  // namespace

int main(int argc, char* argv[]) {
    UseInstalledLibraries();
    unsetenv("TERN_LOG_LEVEL");  // as delivered
    PinToProcessor(1);
    const tern::test::PrivateBus bus;
    Comparison comparison("call", "A method call served");
    auto median = comparison.MakeRow("round trip, median", "us", "sd-bus", 1.03);
    auto late = comparison.MakeRow("round trip, p99", "us", "sd-bus", 1.03);
    auto elapsed = comparison.MakeRow("64 in flight, time per call", "us", "sd-bus", 1.03);
    auto rate = comparison.MakeRow("64 in flight, calls per second", "1/s");
    auto oneByOne = comparison.MakeRow("server's processor time per call", "us", "sd-bus", 1.03);
    auto together =
        comparison.MakeRow("64 in flight, server's processor time per call", "us", "sd-bus", 1.03);
    for (auto* row : {&median, &late, &elapsed, &oneByOne, &together}) {
        row->AheadOf({"sdbus-c++", "GDBus"});
    }
    comparison.SetNote(
        "One client calls all servers in turn through one bus; servers on one processor, client and bus on "
        "the other. The second sd-bus does two things that ours does too: it serves on a thread of its own, "
        "and it notices when the bus is lost.");
    {
        Client client;
        std::list<ServerProcess> servers;
        for (const Side& side : Side::All()) {
            client.AwaitName(servers.emplace_back(side, std::vector<int>{}).Name());
        }
        for (int round = -1; round < Rounds(ROUNDS); ++round) {
            std::map<std::string, Turn> turns;
            for (int slice = 0; slice < SLICES; ++slice) {
                for (const ServerProcess& server : servers) {
                    Slice(client, server, turns[server.SideName()]);
                }
                servers.splice(servers.end(), servers, servers.begin());
            }
            if (round < 0) {
                continue;  // warming up
            }
            for (const Side& side : Side::All()) {
                const Turn& turn = turns[side.name];
                median.Add(side.name, Median(turn.roundTrips));
                late.Add(side.name, Quantile(turn.roundTrips, 0.99));
                elapsed.Add(side.name, turn.elapsed * 1e6 / SLICES / CALLS_TOGETHER);
                rate.Add(side.name, SLICES * CALLS_TOGETHER / turn.elapsed);
                oneByOne.Add(side.name, turn.oneByOne * 1e6 / SLICES / CALLS);
                together.Add(side.name, turn.together * 1e6 / SLICES / CALLS_TOGETHER);
            }
        }
    }
    for (const auto* row : {&median, &late, &elapsed, &rate, &oneByOne, &together}) {
        comparison.Finish(*row);
    }
    if (argc > 1) {
        comparison.Write(argv[1]);
    }
}
