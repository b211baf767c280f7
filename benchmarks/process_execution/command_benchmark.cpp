// What a run of a program costs beside posix_spawn(3) with a plain loop: a program that does nothing, 100 MiB
// of output, 100 MiB of input.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <tern/process_execution/command.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

extern char** environ;

namespace {

constexpr std::size_t MIB = 1024UL * 1024;
constexpr std::size_t AMOUNT = 100 * MIB;
constexpr std::size_t CHUNK = 64UL * 1024;

struct Program {
    const char* path;
    std::vector<std::string> arguments;
};

const Program NOTHING{"/bin/true", {}};
const Program WRITER{"/usr/bin/head", {"-c", std::to_string(AMOUNT), "/dev/zero"}};
const Program READER{"/usr/bin/wc", {"-c"}};

/// Writes the input, reads the output to its end and waits; for an input or an output, not for large ones
/// both.
int Spawn(const Program& program, const std::string& input, std::string& output) {
    std::vector<char*> argv{const_cast<char*>(program.path)};
    for (const std::string& argument : program.arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        return -1;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, out[1], 2);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, program.path, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    int status = -1;
    if (error == 0) {
        for (std::size_t done = 0; done < input.size();) {
            const ssize_t written = write(in[1], input.data() + done, input.size() - done);
            if (written < 0) {
                break;
            }
            done += static_cast<std::size_t>(written);
        }
        close(in[1]);
        const auto buffer = std::make_unique_for_overwrite<char[]>(CHUNK);
        for (ssize_t count = 0; (count = read(out[0], buffer.get(), CHUNK)) > 0;) {
            output.append(buffer.get(), static_cast<std::size_t>(count));
        }
        waitpid(pid, &status, 0);
    } else {
        close(in[1]);
    }
    close(out[0]);
    return status;
}

int RunCommand(const Program& program, const std::string& input, std::string& output) {
    int exitCode = -1;
    mwl::ProcessExecution::Command command(program.path, 60000);
    if (command.RunWithInput(input, program.arguments, output, exitCode) != mwl::StatusCode::Ok) {
        return -1;
    }
    return exitCode;
}

template <int (*Run)(const Program&, const std::string&, std::string&)>
void BM_Nothing(benchmark::State& state) {
    for (auto _ : state) {
        std::string output;
        if (Run(NOTHING, {}, output) != 0) {
            state.SkipWithError("the program failed");
        }
    }
}

template <int (*Run)(const Program&, const std::string&, std::string&)>
void BM_Output100MiB(benchmark::State& state) {
    for (auto _ : state) {
        std::string output;
        if (Run(WRITER, {}, output) != 0 || output.size() != AMOUNT) {
            state.SkipWithError("the program failed");
        }
    }
}

template <int (*Run)(const Program&, const std::string&, std::string&)>
void BM_Input100MiB(benchmark::State& state) {
    const std::string input(AMOUNT, 'x');
    for (auto _ : state) {
        std::string output;
        if (Run(READER, input, output) != 0 || output != std::to_string(AMOUNT) + "\n") {
            state.SkipWithError("the program failed");
        }
    }
}

BENCHMARK(BM_Nothing<Spawn>)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Nothing<RunCommand>)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Output100MiB<Spawn>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Output100MiB<RunCommand>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Input100MiB<Spawn>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Input100MiB<RunCommand>)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    // Only errors: at info level the input of every run is logged.
    setenv("TERN_LOG_LEVEL", "error", 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
