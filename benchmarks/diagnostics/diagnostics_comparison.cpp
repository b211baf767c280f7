// What diagnostics cost an extension: the same one without them, linked with them and not asking for them,
// and with them on.
//   diagnostics_comparison [RESULT.json]

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <list>
#include <map>
#include <string>

#include "benchmarks/peers/server_options.h"
#include "benchmarks/peers/server_process.h"
#include "benchmarks/support/comparison.h"
#include "support/private_bus.h"
#include "support/temp_folder.h"

namespace {

using namespace tern::benchmarks;

constexpr const char* ON = Comparison::OURS;
constexpr const char* OFF = "linked, not asked for";
constexpr const char* WITHOUT = "without";

constexpr int ROUNDS = 41;
constexpr int SLICES = 10;
constexpr int CALLS = 150;
constexpr int CALLS_TOGETHER = 640;
constexpr int IN_FLIGHT = 64;

constexpr int FEW = 100;
constexpr int MANY = 600;
constexpr int COUNTS = 3;
/// Where libraries are mapped is random, and with it how much of them is in memory.
constexpr int MEMORY_ROUNDS = 41;
constexpr unsigned IDLE_SECONDS = 10;

const std::string PATH = ServerOptions::Path(0);
const std::string INTERFACE = ServerOptions::Interface(0);

std::string ProgramOf(const std::string& side) {
    return TERN_EXTENSIONS + std::string(side == ON ? "on" : side == OFF ? "off" : "without");
}

std::vector<Side> Sides() {
    std::vector<Side> sides;
    for (const char* const side : {ON, OFF, WITHOUT}) {
        sides.push_back({side, ProgramOf(side)});
    }
    return sides;
}

/// Instructions of a whole run with so many calls, one at a time.
double CountRun(Client& client, const std::string& side, int calls) {
    const tern::test::TempFolder folder;
    const std::string file = folder.Path() + "/callgrind.out";
    setenv("TERN_CALLGRIND_OUT", file.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): one thread
    {
        const ServerProcess server({side, ProgramOf(side) + "_counted"}, {});
        client.AwaitName(server.Name());
        for (int i = 0; i < calls; ++i) {
            client.Call(server.Name(), PATH, INTERFACE);
        }
    }
    std::ifstream input(file);
    for (std::string line; std::getline(input, line);) {
        if (line.starts_with("summary:") || line.starts_with("totals:")) {
            return std::stod(line.substr(line.find(':') + 1));
        }
    }
    fprintf(stderr, "no instructions were counted: is valgrind there?\n");
    std::exit(1);
}

/// By the call: the difference of a long run and a short one.
double CountCall(Client& client, const std::string& side) {
    return (CountRun(client, side, MANY) - CountRun(client, side, FEW)) / (MANY - FEW);
}

void CompareInstructions(Comparison& comparison, Client& client) {
    auto off = comparison.MakeRow("a call, not asked for: instructions", "", WITHOUT, 1.0);
    auto on = comparison.MakeRow("a call, switched on: instructions", "");
    for (int round = 0; round < Rounds(COUNTS); ++round) {
        // "Ours" is what the row is about: here what is linked and silent.
        const double without = CountCall(client, WITHOUT);
        off.Add(Comparison::OURS, CountCall(client, OFF));
        off.Add(WITHOUT, without);
        on.Add(ON, CountCall(client, ON));
        on.Add(WITHOUT, without);
    }
    comparison.Finish(off);
    comparison.Finish(on);
}

/// What one side did in one round.
struct Turn {
    double oneByOne = 0;  ///< processor time, waiting calls
    double together = 0;  ///< the same with many in flight
};

void Slice(Client& client, const ServerProcess& server, Turn& turn) {
    // The first ones find caches and clocks as the side before left them.
    for (int i = 0; i < 10; ++i) {
        client.Call(server.Name(), PATH, INTERFACE);
    }
    double used = server.ProcessorTime();
    for (int i = 0; i < CALLS; ++i) {
        client.Call(server.Name(), PATH, INTERFACE);
    }
    turn.oneByOne += server.ProcessorTime() - used;
    used = server.ProcessorTime();
    client.CallMany(server.Name(), PATH, INTERFACE, CALLS_TOGETHER, IN_FLIGHT);
    turn.together += server.ProcessorTime() - used;
}

void CompareTimes(Comparison& comparison, Client& client) {
    auto oneByOne = comparison.MakeRow("a call: processor time", "us", WITHOUT, 1.02);
    auto together = comparison.MakeRow("a call, 64 in flight: processor time", "us", WITHOUT, 1.02);
    std::list<ServerProcess> servers;
    for (const Side& side : Sides()) {
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
        for (const Side& side : Sides()) {
            if (round >= 0) {  // before: warming up
                oneByOne.Add(side.name, turns[side.name].oneByOne * 1e6 / SLICES / CALLS);
                together.Add(side.name, turns[side.name].together * 1e6 / SLICES / CALLS_TOGETHER);
            }
        }
    }
    comparison.Finish(oneByOne);
    comparison.Finish(together);
}

/// Each alone, as nobody else's use of the libraries then makes its part of them smaller.
void CompareMemory(Comparison& comparison, Client& client) {
    auto all = comparison.MakeRow("memory, proportional set", "KiB");
    auto more = comparison.MakeRowBelow("memory more than without", "KiB", "at most 200 KiB", 200);
    for (int round = 0; round < Rounds(MEMORY_ROUNDS); ++round) {
        std::map<std::string, double> used;
        for (const Side& side : Sides()) {
            const ServerProcess server(side, {});
            client.AwaitName(server.Name());
            client.CallMany(server.Name(), PATH, INTERFACE, CALLS_TOGETHER, IN_FLIGHT);
            used[side.name] = server.Memory("Pss");
            all.Add(side.name, used[side.name]);
        }
        more.Add(ON, used[ON] - used[WITHOUT]);
        more.Add(OFF, used[OFF] - used[WITHOUT]);
    }
    comparison.Finish(all);
    comparison.Finish(more);
}

void CompareWakeUps(Comparison& comparison, Client& client) {
    auto all = comparison.MakeRow("wake-ups in 10 idle seconds", "");
    auto more = comparison.MakeRowBelow("wake-ups more than without", "", "none", 0.5);
    std::list<ServerProcess> servers;
    std::map<std::string, double> before;
    for (const Side& side : Sides()) {
        const ServerProcess& server = servers.emplace_back(side, std::vector<int>{});
        client.AwaitName(server.Name());
        client.Call(server.Name(), PATH, INTERFACE);
    }
    sleep(1);  // what the calls left to be done is done
    for (const ServerProcess& server : servers) {
        before[server.SideName()] = server.Sleeps();
    }
    sleep(IDLE_SECONDS);
    std::map<std::string, double> woken;
    for (const ServerProcess& server : servers) {
        woken[server.SideName()] = server.Sleeps() - before[server.SideName()];
        all.Add(server.SideName(), woken[server.SideName()]);
    }
    more.Add(ON, woken[ON] - woken[WITHOUT]);
    comparison.Finish(all);
    comparison.Finish(more);
}

}  // namespace

int main(int argc, char* argv[]) {
    UseInstalledLibraries();
    unsetenv("TERN_LOG_LEVEL");  // as delivered
    PinToProcessor(1);
    const tern::test::PrivateBus bus;
    Comparison comparison("diagnostics", "Diagnostics");
    comparison.SetNote(
        "The same extension, a typed Echo(s) -> s, without libtern-diagnostics, linked with it, and with its "
        "object on the bus and its recorder on (in the first row \"ours\" is the one that is linked and does "
        "not ask). Instructions by callgrind, of the whole process, the difference of a run of 600 calls and "
        "one of 100; they do not depend on the load. Memory: each alone.");
    {
        Client client;
        CompareInstructions(comparison, client);
        CompareTimes(comparison, client);
        CompareMemory(comparison, client);
        CompareWakeUps(comparison, client);
    }
    if (argc > 1) {
        comparison.Write(argv[1]);
    }
}
