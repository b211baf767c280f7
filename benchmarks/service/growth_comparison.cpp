// How the cost of a service grows with what it exports and watches, beside the same service on plain sd-bus:
// processor time of its start (to the first answer) and of a call to what was exported last, at 1, 10, 100
// and 1000 times the work.
//   growth_comparison [RESULT.json]

#include <algorithm>
#include <cstdlib>
#include <map>
#include <vector>

#include "benchmarks/peers/server_options.h"
#include "benchmarks/peers/server_process.h"
#include "benchmarks/support/comparison.h"
#include "support/private_bus.h"

namespace {

using namespace tern::benchmarks;

constexpr int ROUNDS = 7;
constexpr int CALLS = 640;
constexpr int IN_FLIGHT = 64;
/// n log n from 10 to 1000 has an exponent of 1.24.
constexpr double N_LOG_N = 1.24;

struct Dimension {
    std::string what;
    /// OBJECTS INTERFACES MATCHES SOURCES for so much work.
    std::vector<int> (*counts)(int work);
    std::vector<int> works;
};

const Dimension DIMENSIONS[] = {
    {"objects",
     [](int work) -> std::vector<int> {
         return {work, 1, 0, 0};
     },
     {10, 100, 1000}},
    {"interfaces",
     [](int work) -> std::vector<int> {
         return {1, work, 0, 0};
     },
     {10, 100, 1000}},
    // A bus takes 512 of one connection.
    {"matches",
     [](int work) -> std::vector<int> {
         return {1, 1, work, 0};
     },
     {4, 40, 400}},
    // A process has 1024 descriptors.
    {"I/O sources",
     [](int work) -> std::vector<int> {
         return {1, 1, 0, work};
     },
     {5, 50, 500}},
};

void Measure(Comparison& comparison, const Dimension& dimension, const std::vector<Side>& sides) {
    std::map<int, Comparison::Row> exports;
    std::map<int, Comparison::Row> calls;
    for (const int work : dimension.works) {
        const std::string suffix = ", " + std::to_string(work) + " " + dimension.what;
        exports.emplace(work, comparison.MakeRow("export, processor time" + suffix, "us"));
        calls.emplace(work, comparison.MakeRow("call, processor time" + suffix, "us"));
    }
    for (int round = 0; round < Rounds(ROUNDS); ++round) {
        for (const int work : dimension.works) {
            for (std::size_t i = 0; i < sides.size(); ++i) {
                const Side& side = sides[(i + static_cast<std::size_t>(round)) % sides.size()];
                const std::vector<int> counts = dimension.counts(work);
                const std::string path = ServerOptions::Path(counts[0] - 1);
                const std::string interface = ServerOptions::Interface(counts[1] - 1);
                Client client;
                ServerProcess server(side, counts);
                client.AwaitName(server.Name());
                client.Call(server.Name(), path, interface);
                exports.at(work).Add(side.name, server.ExportTime());
                client.CallMany(server.Name(), path, interface, CALLS, IN_FLIGHT);
                const double before = server.ProcessorTime();
                client.CallMany(server.Name(), path, interface, CALLS, IN_FLIGHT);
                calls.at(work).Add(side.name, (server.ProcessorTime() - before) * 1e6 / CALLS);
            }
        }
    }
    const auto finish = [&](const std::map<int, Comparison::Row>& rows, const std::string& what) {
        for (const Side& side : sides) {
            std::map<int, double> points;
            for (const auto& [work, row] : rows) {
                points[work] = row.Value(side.name);
            }
            // The cost of plain sd-bus itself is no matter of ours.
            const bool isOurs = side.name == Comparison::OURS;
            comparison.AddGrowth(what + " of " + dimension.what + (isOurs ? "" : ", " + side.name), "us",
                                 points, isOurs ? N_LOG_N : 0);
        }
        for (const auto& [work, row] : rows) {
            comparison.Finish(row);
        }
    };
    finish(exports, "export");
    finish(calls, "call");
}

}  // namespace

int main(int argc, char* argv[]) {
    UseInstalledLibraries();
    unsetenv("TERN_LOG_LEVEL");  // as delivered
    PinToProcessor(1);
    const tern::test::PrivateBus bus;
    std::vector<Side> sides = Side::All();
    // Only the floor: the others' costs at their least are compared elsewhere.
    sides.resize(std::min<std::size_t>(sides.size(), 2));
    Comparison comparison("growth", "How a service's cost grows");
    comparison.SetNote(
        "Processor time of the server. A path that is new is looked for among all objects, in a list that is "
        "part "
        "of the recorded layout; interfaces of one object sd-bus itself looks through.");
    for (const Dimension& dimension : DIMENSIONS) {
        Measure(comparison, dimension, sides);
    }
    if (argc > 1) {
        comparison.Write(argv[1]);
    }
}
