#include "stacks.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "support/wait_until.h"

namespace soak {

namespace {

/// gdb reads the symbols of everything that is loaded, which takes its time on a busy machine.
constexpr std::chrono::seconds GDB_LIMIT{60};

/// Empty when it cannot be read, as the stack by others than root.
std::string ReadAll(const std::filesystem::path& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// What the kernel tells: `wchan` is the kernel's function that it waits in, `syscall` its number and
/// arguments.
void WriteKernelsView(pid_t process, std::ofstream& file) {
    std::error_code error;
    for (const auto& thread :
         std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task", error)) {
        file << "thread " << thread.path().filename().string() << '\n';
        for (const char* const what : {"comm", "stat", "wchan", "syscall", "stack"}) {
            std::string text = ReadAll(thread.path() / what);
            if (!text.empty() && text.back() == '\n') {
                text.pop_back();
            }
            if (!text.empty()) {
                file << "  " << what << ": " << text << '\n';
            }
        }
    }
}

/// Appends the stacks as gdb tells them. Returns why not, empty when it did.
std::string AppendGdbsView(pid_t process, const std::string& path) {
    const std::string number = std::to_string(process);
    const char* const arguments[] = {"gdb",
                                     "--batch",
                                     "--nx",
                                     "-ex",
                                     "set debuginfod enabled off",
                                     "-ex",
                                     "thread apply all backtrace",
                                     "-p",
                                     number.c_str(),
                                     nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, path.c_str(), O_WRONLY | O_APPEND, 0);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    pid_t gdb = -1;
    const int error =
        posix_spawnp(&gdb, "gdb", &actions, nullptr, const_cast<char* const*>(arguments), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        return "gdb cannot be started";
    }
    int status = 0;
    if (!tern::test::WaitUntil([&] { return waitpid(gdb, &status, WNOHANG) == gdb; }, GDB_LIMIT)) {
        kill(gdb, SIGKILL);
        waitpid(gdb, nullptr, 0);
        return "gdb did not end";
    }
    return status == 0 ? "" : "gdb failed, wait status " + std::to_string(status);
}

}  // namespace

void WriteStacks(pid_t process, const std::string& path) {
    std::ofstream file(path, std::ios::app);
    WriteKernelsView(process, file);
    file << std::flush;
    const std::string missing = AppendGdbsView(process, path);
    if (!missing.empty()) {
        file << missing << '\n';
    }
}

}  // namespace soak
