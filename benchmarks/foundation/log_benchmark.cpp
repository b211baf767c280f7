// One log call with a text and a number, below and above the threshold, beside spdlog with the same line to
// the same sink: standard error, which leads to /dev/null here, so that what is measured is the call and its
// write(2).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "tests/support/allocations.h"

#ifdef TERN_HAVE_SPDLOG
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>
#endif

namespace {

const std::string LOGGER = "Benchmark";
const std::string TEXT = "a text of usual length";

struct Tern {
    void Below(int number) const { TERN_LOG_TRACE(LOGGER, "%s: %d", TEXT.c_str(), number); }
    void Above(int number) const { TERN_LOG_ERROR(LOGGER, "%s: %d", TEXT.c_str(), number); }
};

#ifdef TERN_HAVE_SPDLOG
struct Spdlog {
    Spdlog() {
        logger.set_level(spdlog::level::err);
        logger.set_pattern("<3>[%t][%n] %v");
    }
    void Below(int number) { logger.debug("{}: {}", TEXT, number); }
    void Above(int number) { logger.error("{}: {}", TEXT, number); }

    spdlog::logger logger{LOGGER, std::make_shared<spdlog::sinks::stderr_sink_mt>()};
};
#endif

/// `Call` for each iteration, with its time and its allocations.
template <typename Subject, void (*Call)(Subject&, int)>
void Measure(benchmark::State& state) {
    Subject subject;
    int number = 0;
    Call(subject, number);  // what is built at first use
    const tern::test::AllocationCount allocations;
    for (auto _ : state) {
        Call(subject, ++number);
    }
    state.counters["allocations"] =
        static_cast<double>(allocations.Get()) / static_cast<double>(state.iterations());
}

template <typename Subject>
void CallBelow(Subject& subject, int number) {
    subject.Below(number);
}
template <typename Subject>
void CallAbove(Subject& subject, int number) {
    subject.Above(number);
}

template <typename Subject>
void BelowThreshold(benchmark::State& state) {
    Measure<Subject, CallBelow<Subject>>(state);
}
template <typename Subject>
void AboveThreshold(benchmark::State& state) {
    Measure<Subject, CallAbove<Subject>>(state);
}

/// The loop alone, which the figures of calls below the threshold contain.
void EmptyLoop(benchmark::State& state) {
    int number = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++number);
    }
}

BENCHMARK(EmptyLoop);
BENCHMARK(BelowThreshold<Tern>);
BENCHMARK(AboveThreshold<Tern>);
#ifdef TERN_HAVE_SPDLOG
BENCHMARK(BelowThreshold<Spdlog>);
BENCHMARK(AboveThreshold<Spdlog>);
#endif

}  // namespace

int main(int argc, char** argv) {
    // Before the first message, which decides about the sink once for all.
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (nowhere < 0 || dup2(nowhere, STDERR_FILENO) < 0) {
        return EXIT_FAILURE;
    }
    setenv("TERN_LOG_LEVEL", "error", 1);
    unsetenv("TERN_LOG_TARGET");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return EXIT_SUCCESS;
}
