// Operations on trees beside the system's own programs, which pay for their start (about a millisecond) too.
//
// The trees lie in TMPDIR (default /tmp); TMPDIR=/dev/shm keeps the disk out. As root the user "meadow" is
// known for the time of the run, in a mount namespace of its own; elsewhere each copied file costs the failed
// look-up and its messages. TERN_LOG_LEVEL is 4 unless given: at 6 a copied file also writes one line.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <tern/utilities/file_system.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "benchmarks/support/scale.h"

using mwl::StatusCode;
using mwl::Utilities::FileSystem;

namespace {

// 10,000 small files, and one of 1 GiB.
const std::size_t FOLDERS = tern::benchmarks::Scaled(100);
constexpr std::size_t FILES_IN_FOLDER = 100;
constexpr std::size_t SMALL_FILE = 1000;
const std::size_t BIG_FILE = tern::benchmarks::Scaled(std::size_t{1} << 30U);
constexpr std::size_t BLOCK = std::size_t{1} << 20U;

/// A folder of the run, removed at its end.
class WorkFolder {
public:
    WorkFolder() : mPath((std::filesystem::temp_directory_path() / "tern-benchmark-XXXXXX").string()) {
        if (mkdtemp(mPath.data()) == nullptr) {
            throw std::runtime_error("no folder for the trees");
        }
    }
    ~WorkFolder() { std::filesystem::remove_all(mPath); }
    WorkFolder(const WorkFolder&) = delete;
    WorkFolder& operator=(const WorkFolder&) = delete;

    std::string operator/(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

void MakeSmallFiles(const std::string& tree) {
    for (std::size_t folder = 0; folder < FOLDERS; ++folder) {
        const std::string path = tree + "/folder" + std::to_string(folder);
        std::filesystem::create_directories(path);
        for (std::size_t file = 0; file < FILES_IN_FOLDER; ++file) {
            std::ofstream(path + "/file" + std::to_string(file)) << std::string(SMALL_FILE, 'x');
        }
    }
}

void MakeBigFile(const std::string& tree) {
    std::filesystem::create_directories(tree);
    std::ofstream file(tree + "/file");
    const std::string block(BLOCK, 'x');
    for (std::size_t size = 0; size < BIG_FILE; size += block.size()) {
        file << block;
    }
}

/// Runs a program to its end, its output thrown away.
void Run(const std::vector<std::string>& command) {
    std::vector<char*> arguments;
    for (const std::string& argument : command) {
        arguments.push_back(const_cast<char*>(argument.c_str()));
    }
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    int status = -1;
    if (posix_spawnp(&pid, arguments[0], &actions, nullptr, arguments.data(), environ) != 0 ||
        waitpid(pid, &status, 0) != pid || status != 0) {
        throw std::runtime_error("failed: " + command[0]);
    }
    posix_spawn_file_actions_destroy(&actions);
}

void Require(StatusCode status) {
    if (status != StatusCode::Ok) {
        throw std::runtime_error("failed: " + mw::tern::ConvertStatusCodeToString(status));
    }
}

/// CPU time of this process and the programs it ran, which a busy machine does not change as it does the
/// other.
double CpuMilliseconds() {
    double milliseconds = 0;
    for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        getrusage(who, &usage);
        for (const timeval& time : {usage.ru_utime, usage.ru_stime}) {
            milliseconds += static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
        }
    }
    return milliseconds;
}

using Make = void (*)(const std::string& tree);
using Operation = std::function<void(const std::string& from, const std::string& to)>;

/// Times `operation` on a tree of its own and an empty folder beside it.
void Measure(benchmark::State& state, Make make, const Operation& operation) {
    const WorkFolder folder;
    double cpuMilliseconds = 0;
    for (auto iteration : state) {
        static_cast<void>(iteration);
        const std::string from = folder / "from";
        const std::string to = folder / "to";
        make(from);
        std::filesystem::create_directories(to);
        const double cpu = CpuMilliseconds();
        const auto begin = std::chrono::steady_clock::now();
        operation(from, to);
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
        cpuMilliseconds += CpuMilliseconds() - cpu;
        std::filesystem::remove_all(from);
        std::filesystem::remove_all(to);
    }
    state.counters["cpu_ms"] = benchmark::Counter(cpuMilliseconds, benchmark::Counter::kAvgIterations);
}

void CopyByLibrary(const std::string& from, const std::string& to) {
    Require(FileSystem::CopyFolderContent(from + "/", to + "/", true, true));
}
void CopyByCp(const std::string& from, const std::string& to) {
    Run({"cp", "-r", from, to});
}
void DeleteByLibrary(const std::string& from, const std::string& /*to*/) {
    Require(FileSystem::DeleteFolder(from, false));
}
void DeleteByRm(const std::string& from, const std::string& /*to*/) {
    Run({"rm", "-r", from});
}
void UsageByLibrary(const std::string& from, const std::string& /*to*/) {
    unsigned int usage = 0;
    Require(FileSystem::GetRecursiveDiskUsage(from, usage));
    benchmark::DoNotOptimize(usage);
}
void UsageByDu(const std::string& from, const std::string& /*to*/) {
    Run({"du", "-sL", from});
}

#define TERN_MEASURE(make, operation)                                 \
    BENCHMARK_CAPTURE(Measure, make##_##operation, &make, &operation) \
        ->UseManualTime()                                             \
        ->Unit(benchmark::kMillisecond)
TERN_MEASURE(MakeSmallFiles, CopyByLibrary);
TERN_MEASURE(MakeSmallFiles, CopyByCp);
TERN_MEASURE(MakeBigFile, CopyByLibrary);
TERN_MEASURE(MakeBigFile, CopyByCp);
TERN_MEASURE(MakeSmallFiles, DeleteByLibrary);
TERN_MEASURE(MakeSmallFiles, DeleteByRm);
TERN_MEASURE(MakeSmallFiles, UsageByLibrary);
TERN_MEASURE(MakeSmallFiles, UsageByDu);

/// How the cost grows with the entries of one folder.
void Grow(benchmark::State& state, void (*operation)(const std::string& folder)) {
    const WorkFolder folder;
    for (std::int64_t file = 0; file < state.range(0); ++file) {
        std::ofstream(folder / ("file" + std::to_string(file))) << 'x';
    }
    for (auto iteration : state) {
        static_cast<void>(iteration);
        operation(folder / "");
    }
}
void ListEntries(const std::string& folder) {
    std::set<std::string> files;
    Require(FileSystem().ListFiles(folder, files));
    benchmark::DoNotOptimize(files);
}
void DiskUsage(const std::string& folder) {
    UsageByLibrary(folder, {});
}
#define TERN_GROW(operation)                       \
    BENCHMARK_CAPTURE(Grow, operation, &operation) \
        ->Arg(100)                                 \
        ->Arg(1000)                                \
        ->Arg(10000)                               \
        ->Unit(benchmark::kMicrosecond)
TERN_GROW(ListEntries);
TERN_GROW(DiskUsage);

bool CoverWithMeadow(const WorkFolder& folder, const std::string& name, const std::string& entry) {
    const std::string path = "/etc/" + name;
    std::ofstream(folder / name) << std::ifstream(path).rdbuf() << entry;
    return mount((folder / name).c_str(), path.c_str(), nullptr, MS_BIND, nullptr) == 0;
}

/// Makes the user known to this process and the programs it starts.
bool KnowMeadow(const WorkFolder& folder) {
    return unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           CoverWithMeadow(folder, "passwd", "meadow:x:61001:61001::/:/bin/false\n") &&
           CoverWithMeadow(folder, "group", "meadow:x:61001:\n");
}

}  // namespace

int main(int argc, char** argv) {
    setenv("TERN_LOG_LEVEL", "4", 0);
    const WorkFolder folder;
    if (!KnowMeadow(folder)) {
        std::cerr << "without the user \"meadow\"\n";
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
