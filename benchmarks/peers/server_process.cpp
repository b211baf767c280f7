#include "benchmarks/peers/server_process.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "benchmarks/peers/server_options.h"

extern char** environ;

namespace tern::benchmarks {

namespace {

constexpr const char* TEXT = "some text of usual length";
constexpr std::uint64_t PATIENCE_US = 60'000'000;

void RequireBus(int result, const char* what) {
    if (result < 0) {
        fprintf(stderr, "%s: %s\n", what, strerror(-result));  // NOLINT(concurrency-mt-unsafe): one thread
        std::exit(1);
    }
}

/// The number behind `field:` in a file of /proc.
double ReadField(const std::filesystem::path& path, const std::string& field) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        if (line.starts_with(field + ":")) {
            return std::stod(line.substr(field.size() + 1));
        }
    }
    return 0;
}

}  // namespace

std::vector<Side> Side::All() {
    std::vector<Side> sides;
    std::istringstream list(TERN_SERVER_PATHS);
    std::string entry;
    while (std::getline(list, entry, '|')) {
        const std::size_t equals = entry.find('=');
        sides.push_back({entry.substr(0, equals), entry.substr(equals + 1)});
    }
    return sides;
}

double Now() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

void PinToProcessor(int processor) {
    cpu_set_t allowed;
    static const bool both = [] {
        cpu_set_t all;
        return sched_getaffinity(0, sizeof all, &all) == 0 && CPU_ISSET(0, &all) && CPU_ISSET(1, &all);
    }();
    CPU_ZERO(&allowed);
    CPU_SET(static_cast<std::size_t>(processor), &allowed);
    if (both) {
        Require(sched_setaffinity(0, sizeof allowed, &allowed) == 0, "sched_setaffinity");
    }
}

Client::Client() {
    RequireBus(sd_bus_open_system(&mBus), "sd_bus_open_system");
    RequireBus(sd_bus_match_signal(mBus, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                   "org.freedesktop.DBus", "NameOwnerChanged", OnOwnerChanged, this),
               "sd_bus_match_signal");
}

Client::~Client() {
    sd_bus_flush_close_unref(mBus);
}

int Client::OnOwnerChanged(sd_bus_message* message, void* userdata, sd_bus_error*) {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    RequireBus(sd_bus_message_read(message, "sss", &name, &before, &after), "NameOwnerChanged");
    if (*after != '\0') {
        static_cast<Client*>(userdata)->mOwned.insert(name);
    }
    return 0;
}

void Client::AwaitName(const std::string& name) {
    const double limit = Now() + PATIENCE_US * 1e-6;
    while (!mOwned.contains(name)) {
        const int r = sd_bus_process(mBus, nullptr);
        RequireBus(r, "sd_bus_process");
        if (r == 0) {
            RequireBus(sd_bus_wait(mBus, PATIENCE_US), "sd_bus_wait");
        }
        RequireBus(Now() < limit ? 0 : -ETIMEDOUT, name.c_str());
    }
}

void Client::AwaitNameOrFindIt(const std::string& name) {
    sd_bus_message* reply = nullptr;
    int isOwned = 0;
    RequireBus(sd_bus_call_method(mBus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "NameHasOwner", nullptr, &reply, "s", name.c_str()),
               "NameHasOwner");
    RequireBus(sd_bus_message_read(reply, "b", &isOwned), "NameHasOwner");
    sd_bus_message_unref(reply);
    if (isOwned == 0) {
        AwaitName(name);
    }
}

void Client::Call(const std::string& name, const std::string& path, const std::string& interface) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* reply = nullptr;
    RequireBus(sd_bus_call_method(mBus, name.c_str(), path.c_str(), interface.c_str(), "Echo", &error, &reply,
                                  "s", TEXT),
               error.message != nullptr ? error.message : "Echo");
    sd_bus_message_unref(reply);
}

void Client::CallMany(const std::string& name, const std::string& path, const std::string& interface,
                      int calls, int inFlight) {
    struct State {
        int unanswered = 0;
    } state;
    int left = calls;
    while (left > 0 || state.unanswered > 0) {
        while (left > 0 && state.unanswered < inFlight) {
            RequireBus(sd_bus_call_method_async(
                           mBus, nullptr, name.c_str(), path.c_str(), interface.c_str(), "Echo",
                           [](sd_bus_message* reply, void* userdata, sd_bus_error*) {
                               RequireBus(-sd_bus_message_get_errno(reply), "Echo");
                               --static_cast<State*>(userdata)->unanswered;
                               return 0;
                           },
                           &state, "s", TEXT),
                       "sd_bus_call_method_async");
            --left;
            ++state.unanswered;
        }
        const int r = sd_bus_process(mBus, nullptr);
        RequireBus(r, "sd_bus_process");
        if (r == 0) {
            RequireBus(sd_bus_wait(mBus, PATIENCE_US), "sd_bus_wait");
        }
    }
}

ServerProcess::ServerProcess(const Side& side, const std::vector<int>& counts) : mSide(side.name) {
    static int started = 0;
    mName = "org.example.Bench.Server" + std::to_string(++started);
    std::vector<std::string> arguments{side.program, mName};
    for (const int count : counts) {
        arguments.push_back(std::to_string(count));
    }
    std::vector<char*> argv;
    for (std::string& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    int ends[2];
    RequireBus(pipe2(ends, O_CLOEXEC) == 0 ? 0 : -errno, "pipe2");
    mOutput = ends[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    PinToProcessor(0);
    const int error = posix_spawn(&mPid, side.program.c_str(), &actions, nullptr, argv.data(), environ);
    PinToProcessor(1);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    RequireBus(-error, side.program.c_str());
    RequireBus(-clock_getcpuclockid(mPid, &mClock), "clock_getcpuclockid");
}

ServerProcess::~ServerProcess() {
    kill(mPid, SIGTERM);
    waitpid(mPid, nullptr, 0);
    close(mOutput);
}

double ServerProcess::ProcessorTime() const {
    timespec used{};
    RequireBus(clock_gettime(mClock, &used) == 0 ? 0 : -errno, "clock_gettime");
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) * 1e-9;
}

double ServerProcess::ExportTime() {
    char line[32] = "";
    RequireBus(read(mOutput, line, sizeof line - 1) > 0 ? 0 : -EIO, "the server's output");
    return std::atof(line);
}

double ServerProcess::Memory(const std::string& field) const {
    return ReadField("/proc/" + std::to_string(mPid) + "/smaps_rollup", field);
}

double ServerProcess::Sleeps() const {
    double sleeps = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(mPid) + "/task")) {
        sleeps += ReadField(task.path() / "status", "voluntary_ctxt_switches");
    }
    return sleeps;
}

double ServerProcess::Threads() const {
    return ReadField("/proc/" + std::to_string(mPid) + "/status", "Threads");
}

}  // namespace tern::benchmarks
