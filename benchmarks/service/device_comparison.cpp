// A device with many extensions on one bus: all of one kind, started simultaneously, then called in turn,
// then idle. 1, 10 and 50 of them, to see how it grows.
//   device_comparison [RESULT.json]

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <list>
#include <map>
#include <vector>

#include "benchmarks/peers/server_options.h"
#include "benchmarks/peers/server_process.h"
#include "benchmarks/support/comparison.h"
#include "support/private_bus.h"

namespace {

using namespace tern::benchmarks;

constexpr int ROUNDS = 5;
constexpr int DEVICE = 50;
constexpr int SIZES[] = {1, 10, DEVICE};
constexpr int CALLS_EACH = 40;
constexpr unsigned int SETTLE_SECONDS = 1;
constexpr unsigned int IDLE_SECONDS = 10;
/// A cost that grows in proportion has the exponent 1; the rest is for the lists that the bus itself has to
/// look through.
constexpr double LINEAR = 1.05;

/// The figures of so many of one kind.
struct Device {
    double started = 0;  ///< ms until the last one has answered its first call
    double used = 0;     ///< ms of processor time of all until then
    double memory = 0;   ///< KiB, proportional, of all
    double late = 0;     ///< us, p99 of one client's round trips to all in turn
    double wakeUps = 0;  ///< a minute, of all
};

Device Run(const Side& side, int count, bool isIdleWanted) {
    Device device;
    Client client;
    std::list<ServerProcess> servers;
    const std::string path = ServerOptions::Path(0);
    const std::string interface = ServerOptions::Interface(0);
    const double start = Now();
    for (int i = 0; i < count; ++i) {
        servers.emplace_back(side, std::vector<int>{});
    }
    for (const ServerProcess& server : servers) {
        client.AwaitName(server.Name());
        client.Call(server.Name(), path, interface);
    }
    device.started = (Now() - start) * 1e3;
    for (const ServerProcess& server : servers) {
        device.used += server.ProcessorTime() * 1e3;
    }
    std::vector<double> roundTrips;
    for (int i = 0; i < CALLS_EACH; ++i) {
        for (const ServerProcess& server : servers) {
            const double called = Now();
            client.Call(server.Name(), path, interface);
            roundTrips.push_back((Now() - called) * 1e6);
        }
    }
    device.late = Quantile(std::move(roundTrips), 0.99);
    if (isIdleWanted) {
        sleep(SETTLE_SECONDS);  // what is measured is idleness
    }
    for (const ServerProcess& server : servers) {
        device.memory += server.Memory("Pss");
        device.wakeUps -= server.Sleeps();
    }
    if (isIdleWanted) {
        sleep(IDLE_SECONDS);
        for (const ServerProcess& server : servers) {
            device.wakeUps += server.Sleeps();
        }
        device.wakeUps *= 60.0 / IDLE_SECONDS;
    }
    return device;
}

}  // namespace

int main(int argc, char* argv[]) {
    UseInstalledLibraries();
    unsetenv("TERN_LOG_LEVEL");  // as delivered
    PinToProcessor(1);
    const tern::test::PrivateBus bus;
    Comparison comparison("device", "A device with 50 extensions");
    comparison.SetNote(
        "All started at once on one bus, servers on one processor, client and bus on the other. A start "
        "ends when the last one has answered its first call. Memory is proportional: what all of a "
        "kind share counts once.");
    auto started = comparison.MakeRow("50 started, until the last one answers", "ms");
    auto used = comparison.MakeRow("50 started, their processor time", "ms");
    auto memory = comparison.MakeRow("50 running, proportional memory of all", "KiB");
    auto late = comparison.MakeRow("50 called in turn, round trip, p99", "us");
    auto wakeUps = comparison.MakeRow("50 idle, wake-ups of all", "1/min");
    for (auto* row : {&started, &used, &memory, &late, &wakeUps}) {
        row->AheadOf({"sdbus-c++", "GDBus"});
    }
    std::vector<Side> sides = Side::All();
    // The same on plain sd-bus without a thread of its own lacks what a device needs; the other is the floor.
    std::erase_if(sides, [](const Side& side) { return side.name == "sd-bus"; });
    std::map<int, std::vector<double>> starts;
    std::map<int, std::vector<double>> times;
    std::map<int, std::vector<double>> memories;
    for (int round = 0; round < Rounds(ROUNDS); ++round) {
        for (const Side& side : sides) {
            for (const int count : SIZES) {
                const bool isOurs = side.name == Comparison::OURS;
                if (count != DEVICE && !isOurs) {
                    continue;
                }
                const Device device = Run(side, count, count == DEVICE);
                if (count == DEVICE) {
                    started.Add(side.name, device.started);
                    used.Add(side.name, device.used);
                    memory.Add(side.name, device.memory);
                    late.Add(side.name, device.late);
                    wakeUps.Add(side.name, device.wakeUps);
                }
                if (isOurs) {
                    starts[count].push_back(device.started);
                    times[count].push_back(device.used);
                    memories[count].push_back(device.memory);
                }
            }
        }
        std::rotate(sides.begin(), sides.begin() + 1, sides.end());
    }
    const auto grow = [&](const char* what, const char* unit,
                          const std::map<int, std::vector<double>>& taken) {
        std::map<int, double> points;
        for (const auto& [count, values] : taken) {
            points[count] = Median(values);
        }
        comparison.AddGrowth(what, unit, points, LINEAR);
    };
    grow("extensions started, until the last one answers", "ms", starts);
    grow("extensions started, their processor time", "ms", times);
    grow("extensions running, proportional memory", "KiB", memories);
    for (const auto* row : {&started, &used, &memory, &late, &wakeUps}) {
        comparison.Finish(*row);
    }
    if (argc > 1) {
        comparison.Write(argv[1]);
    }
}
