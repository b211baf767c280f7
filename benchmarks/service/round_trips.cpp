// A client of a server of the comparisons, on the system bus that the environment names: waits for the
// server, calls it so many times, one call after the other, and prints the median and the p99 of the
// microseconds.
//   round_trips NAME CALLS

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "benchmarks/peers/server_options.h"
#include "benchmarks/peers/server_process.h"
#include "benchmarks/support/comparison.h"

int main(int argc, char* argv[]) {
    using namespace tern::benchmarks;
    if (argc != 3) {
        fprintf(stderr, "Usage: %s NAME CALLS\n", argv[0]);
        return 2;
    }
    PinToProcessor(1);
    Client client;
    client.AwaitNameOrFindIt(argv[1]);
    const std::string path = ServerOptions::Path(0);
    const std::string interface = ServerOptions::Interface(0);
    std::vector<double> roundTrips;
    constexpr int WARMING_UP = 50;
    const int calls = std::atoi(argv[2]);
    for (int i = -WARMING_UP; i < calls; ++i) {
        const double called = Now();
        client.Call(argv[1], path, interface);
        if (i >= 0) {
            roundTrips.push_back((Now() - called) * 1e6);
        }
    }
    printf("%.3f %.3f\n", Median(roundTrips), Quantile(roundTrips, 0.99));
}
