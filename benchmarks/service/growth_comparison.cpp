// How the cost of a service grows with what it exports and watches, beside the same service on plain sd-bus:
// processor time of its start (to the first answer) and of a call to what was exported last, at 1, 10, 100
// and 1000 times the work.
//   growth_comparison [RESULT.json]

#include <algorithm>
#include <cmath>
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
constexpr int CALLS = 300;
constexpr int IN_FLIGHT = 64;
/// From 100 to 1000, n log n grows by 15, which is 10 to the power of this.
constexpr double N_LOG_N = 1.18;

struct Dimension {
    std::string what;
    /// OBJECTS INTERFACES MATCHES SOURCES for so much work.
    std::vector<int> (*counts)(int work);
    std::vector<int> works;
};

const Dimension DIMENSIONS[] = {
    {"objects",
     [](int work) {
         return std::vector<int>{work, 1, 0, 0};
     },
     {1, 10, 100, 1000}},
    {"interfaces",
     [](int work) {
         return std::vector<int>{1, work, 0, 0};
     },
     {1, 10, 100}},
    {"matches",
     [](int work) {
         return std::vector<int>{1, 1, work, 0};
     },
     {1, 10, 100}},
    {"I/O sources",
     [](int work) {
         return std::vector<int>{1, 1, 0, work};
     },
     {1, 10, 100}},
};

/// The part of a cost that is due to the work: the exponent is that of what the greatest work adds beyond the
/// one before, so that what every start costs does not flatter it.
double Exponent(double least, double middle, double most) {
    return std::log10(std::max(most - least, 1e-9) / std::max(middle - least, 1e-9));
}

void Measure(Comparison& comparison, const Dimension& dimension, const std::vector<Side>& sides) {
    std::map<int, Comparison::Row> starts;
    std::map<int, Comparison::Row> calls;
    const auto exponentRow = [&](const char* what) {
        return comparison.MakeRowBelow(what + (", exponent over " + dimension.what), "", "<= n log n",
                                       N_LOG_N);
    };
    for (const int work : dimension.works) {
        const std::string suffix = ", " + std::to_string(work) + " " + dimension.what;
        starts.emplace(work, comparison.MakeRow("start, processor time" + suffix, "ms", "sd-bus", 1.3));
        calls.emplace(work, comparison.MakeRow("call, processor time" + suffix, "us", "sd-bus", 1.03));
    }
    for (int round = 0; round < ROUNDS; ++round) {
        for (const int work : dimension.works) {
            for (std::size_t i = 0; i < sides.size(); ++i) {
                const Side& side = sides[(i + static_cast<std::size_t>(round)) % sides.size()];
                const std::vector<int> counts = dimension.counts(work);
                const std::string path = ServerOptions::Path(counts[0] - 1);
                const std::string interface = ServerOptions::Interface(counts[1] - 1);
                Client client;
                const ServerProcess server(side, counts);
                client.AwaitName(server.Name());
                client.Call(server.Name(), path, interface);
                const double started = server.ProcessorTime();
                starts.at(work).Add(side.name, started * 1e3);
                client.CallMany(server.Name(), path, interface, CALLS, IN_FLIGHT);
                const double before = server.ProcessorTime();
                client.CallMany(server.Name(), path, interface, CALLS, IN_FLIGHT);
                calls.at(work).Add(side.name, (server.ProcessorTime() - before) * 1e6 / CALLS);
            }
        }
    }
    const std::size_t last = dimension.works.size() - 1;
    const auto value = [&](const std::map<int, Comparison::Row>& rows, std::size_t place, const Side& side) {
        return rows.at(dimension.works[place]).Value(side.name);
    };
    auto startExponent = exponentRow("start");
    for (const Side& side : sides) {
        startExponent.Add(side.name, Exponent(value(starts, 0, side), value(starts, last - 1, side),
                                              value(starts, last, side)));
    }
    auto callExponent = exponentRow("call");
    for (const Side& side : sides) {
        // A call that does not grow has nothing to take off: the slope of the whole.
        callExponent.Add(side.name, std::log10(value(calls, last, side) / value(calls, 0, side)) /
                                        static_cast<double>(last));
    }
    for (const int work : dimension.works) {
        comparison.Finish(starts.at(work));
    }
    comparison.Finish(startExponent);
    for (const int work : dimension.works) {
        comparison.Finish(calls.at(work));
    }
    comparison.Finish(callExponent);
}

}  // namespace

int main(int argc, char* argv[]) {
    unsetenv("TERN_LOG_LEVEL");  // as delivered
    PinToProcessor(1);
    const tern::test::PrivateBus bus;
    std::vector<Side> sides = Side::All();
    // Only the floor: the others' costs at their least are compared elsewhere.
    sides.resize(std::min<std::size_t>(sides.size(), 2));
    Comparison comparison("growth", "How a service's cost grows");
    for (const Dimension& dimension : DIMENSIONS) {
        Measure(comparison, dimension, sides);
    }
    if (argc > 1) {
        comparison.Write(argv[1]);
    }
}
