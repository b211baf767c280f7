// The cost of a run of a program beside posix_spawn(3) with a plain loop, GLib and Boost.Process: a program
// that does nothing, 100 MiB of output, 100 MiB of input. A large process forks slowly, so the first is
// measured with 256 MiB of memory in use as well.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <tern/process_execution/command.h>
#include <unistd.h>

#ifdef TERN_HAVE_BOOST
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/process.hpp>

#include <future>
#endif
#ifdef TERN_HAVE_GLIB
#include <gio/gio.h>
#endif

#include <cstdlib>
#include <filesystem>
#include <fstream>
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
const Program READER{"/usr/bin/wc", {"-c"}};
const std::string READER_OUTPUT = std::to_string(AMOUNT) + "\n";

/// The file that the writing program writes: a text, because one of the peers reports no length.
class TextFile {
public:
    TextFile() { std::ofstream(mPath) << std::string(AMOUNT, 'x'); }
    ~TextFile() { std::filesystem::remove(mPath); }
    TextFile(const TextFile&) = delete;
    TextFile& operator=(const TextFile&) = delete;

    const std::string& GetPath() const { return mPath; }

private:
    const std::string mPath =
        std::filesystem::temp_directory_path() / ("tern-benchmark-" + std::to_string(getpid()));
};

// Each runs the program with the input, and returns whether it ended well with an output of so many bytes.

/// Writes the input, reads the output to its end and waits; for an input or an output, not for large ones
/// both.
bool Spawn(const Program& program, const std::string& input, std::size_t outputSize) {
    std::vector<char*> argv{const_cast<char*>(program.path)};
    for (const std::string& argument : program.arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) {
        return false;
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
    std::string output;
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
    return status == 0 && output.size() == outputSize;
}

bool RunCommand(const Program& program, const std::string& input, std::size_t outputSize) {
    int exitCode = -1;
    std::string output;
    mwl::ProcessExecution::Command command(program.path, 60000);
    return command.RunWithInput(input, program.arguments, output, exitCode) == mwl::StatusCode::Ok &&
           exitCode == 0 && output.size() == outputSize;
}

#ifdef TERN_HAVE_GLIB
std::vector<char*> GlibArguments(const Program& program) {
    std::vector<char*> argv{const_cast<char*>(program.path)};
    for (const std::string& argument : program.arguments) {
        argv.push_back(const_cast<char*>(argument.c_str()));
    }
    argv.push_back(nullptr);
    return argv;
}

/// g_spawn_sync(), which feeds no input.
bool RunGlib(const Program& program, const std::string& /*input*/, std::size_t outputSize) {
    std::vector<char*> argv = GlibArguments(program);
    char* output = nullptr;
    int status = -1;
    const bool done = g_spawn_sync(nullptr, argv.data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &output,
                                   nullptr, &status, nullptr) != FALSE &&
                      status == 0 && output[outputSize] == '\0' &&
                      (outputSize == 0 || output[outputSize - 1] != '\0');
    g_free(output);
    return done;
}

/// GLib's way for an input: GSubprocess.
bool RunGlibWithInput(const Program& program, const std::string& input, std::size_t outputSize) {
    const std::vector<char*> argv = GlibArguments(program);
    constexpr auto FLAGS = static_cast<GSubprocessFlags>(
        G_SUBPROCESS_FLAGS_STDIN_PIPE | G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_MERGE);
    GSubprocess* const process = g_subprocess_newv(argv.data(), FLAGS, nullptr);
    if (process == nullptr) {
        return false;
    }
    GBytes* const bytes = g_bytes_new_static(input.data(), input.size());
    GBytes* output = nullptr;
    const bool done = g_subprocess_communicate(process, bytes, nullptr, &output, nullptr, nullptr) != FALSE &&
                      g_subprocess_get_exit_status(process) == 0 && g_bytes_get_size(output) == outputSize;
    g_bytes_unref(output);
    g_bytes_unref(bytes);
    g_object_unref(process);
    return done;
}
#endif

#ifdef TERN_HAVE_BOOST
bool RunBoost(const Program& program, const std::string& input, std::size_t outputSize) {
    namespace process = boost::process;
    boost::asio::io_context context;
    std::future<std::string> output;
    process::child child(program.path, process::args = program.arguments,
                         (process::std_out & process::std_err) > output,
                         process::std_in < boost::asio::buffer(input), context);
    context.run();
    child.wait();
    return child.exit_code() == 0 && output.get().size() == outputSize;
}
#endif

using Runner = bool (*)(const Program&, const std::string&, std::size_t);

template <Runner Run>
void Nothing(benchmark::State& state) {
    // Written to, so that a fork has its pages to copy.
    const std::string memory(static_cast<std::size_t>(state.range(0)) * MIB, 'x');
    benchmark::DoNotOptimize(memory.data());
    for (auto _ : state) {
        if (!Run(NOTHING, {}, 0)) {
            state.SkipWithError("the program failed");
        }
    }
}

template <Runner Run>
void Output100MiB(benchmark::State& state) {
    const TextFile file;
    const Program writer{"/bin/cat", {file.GetPath()}};
    for (auto _ : state) {
        if (!Run(writer, {}, AMOUNT)) {
            state.SkipWithError("the program failed");
        }
    }
}

template <Runner Run>
void Input100MiB(benchmark::State& state) {
    const std::string input(AMOUNT, 'x');
    for (auto _ : state) {
        if (!Run(READER, input, READER_OUTPUT.size())) {
            state.SkipWithError("the program failed");
        }
    }
}

#define TERN_MEASURE(run, input)                                                \
    BENCHMARK(Nothing<run>)                                                     \
        ->ArgName("used_mib")                                                   \
        ->Arg(0)                                                                \
        ->Arg(256)                                                              \
        ->UseRealTime()                                                         \
        ->Unit(benchmark::kMicrosecond);                                        \
    BENCHMARK(Output100MiB<run>)->UseRealTime()->Unit(benchmark::kMillisecond); \
    BENCHMARK(Input100MiB<input>)->UseRealTime()->Unit(benchmark::kMillisecond)
TERN_MEASURE(Spawn, Spawn);
TERN_MEASURE(RunCommand, RunCommand);
#ifdef TERN_HAVE_GLIB
TERN_MEASURE(RunGlib, RunGlibWithInput);
#endif
#ifdef TERN_HAVE_BOOST
TERN_MEASURE(RunBoost, RunBoost);
#endif

}  // namespace

int main(int argc, char** argv) {
    // Only errors: at info level the input of every run is logged.
    setenv("TERN_LOG_LEVEL", "error", 1);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
