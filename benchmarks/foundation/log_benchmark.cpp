// One log call with a text and a number, below and above the threshold, beside spdlog with the same line to
// the same sink: standard error, which leads to /dev/null here, so that what is measured is the call and its
// write(2). The logger also with a pipe and a socket, which a thread reads.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

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

/// A message with control bytes, which are escaped.
struct TernEscaping {
    void Above(int number) const { TERN_LOG_ERROR(LOGGER, "%s\n\x1b: %d", TEXT.c_str(), number); }
};

bool MakePipe(int (&ends)[2]) {
    return pipe2(ends, O_CLOEXEC) == 0;
}
bool MakeSocket(int (&ends)[2]) {
    return socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0;
}

/// Standard error leads to one of `Make` meanwhile, whose other end a thread reads.
template <bool (*Make)(int (&)[2])>
void WithReader(benchmark::State& state) {
    int ends[2];
    const int before = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    if (before < 0 || !Make(ends) || dup2(ends[1], STDERR_FILENO) < 0) {
        state.SkipWithError("no descriptors");
        return;
    }
    close(ends[1]);
    std::thread reader([fd = ends[0]] {
        char buffer[65536];
        while (read(fd, buffer, sizeof buffer) > 0) {
        }
    });
    AboveThreshold<Tern>(state);
    dup2(before, STDERR_FILENO);  // the last end to write to
    close(before);
    reader.join();
    close(ends[0]);
}

/// The loop alone, which the figures of calls below the threshold contain.
void EmptyLoop(benchmark::State& state) {
    int number = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++number);
    }
}

// Pipe and socket first: what had been a device before would be taken for one for up to a second.
BENCHMARK(WithReader<MakePipe>)->UseRealTime();
BENCHMARK(WithReader<MakeSocket>)->UseRealTime();
BENCHMARK(EmptyLoop);
BENCHMARK(BelowThreshold<Tern>);
BENCHMARK(AboveThreshold<Tern>);
BENCHMARK(AboveThreshold<TernEscaping>);
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
