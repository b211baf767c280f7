#include "leftovers.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "blocks.h"
#include "support/process_resources.h"
#include "support/wait_until.h"

namespace tern::test {

namespace {

std::set<std::string> ListDescriptors() {
    std::set<std::string> descriptors;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code closed;
        const std::filesystem::path target = std::filesystem::read_symlink(entry.path(), closed);
        // The walk's own one is gone when it is named.
        if (!closed && target.string().find("/proc/") == std::string::npos) {
            descriptors.insert(entry.path().filename().string() + " " + target.string());
        }
    }
    return descriptors;
}

/// Where the kernel does not tell there are none.
std::size_t CountTimers() {
    std::ifstream list("/proc/self/timers");
    std::size_t timers = 0;
    for (std::string line; std::getline(list, line);) {
        timers += line.starts_with("ID:") ? 1 : 0;
    }
    return timers;
}

/// Running or ended; they are ended and reaped, so that each is told of once.
std::size_t CountChildren() {
    std::size_t children = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream list(task.path() / "children");
        for (pid_t child = 0; list >> child;) {
            ++children;
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
    }
    return children;
}

std::string More(const char* what, long now, long before) {
    return now > before ? std::string(what) + " +" + std::to_string(now - before) + "; " : std::string();
}

}  // namespace

Holdings Holdings::Take(std::size_t threads) {
    if (threads != 0) {
        // A detached thread that has done its work still takes a moment to go.
        static_cast<void>(
            WaitUntil([threads] { return CountThreads() <= threads; }, std::chrono::seconds(1)));
    }
    Holdings holdings;
    holdings.threads = CountThreads();
    holdings.blocks = CountBlocks();
    holdings.timers = CountTimers();
    holdings.children = CountChildren();
    // Last, as these blocks are its own.
    holdings.descriptors = ListDescriptors();
    return holdings;
}

std::string Holdings::Since(const Holdings& before) const {
    std::string grown;
    if (descriptors.size() > before.descriptors.size()) {
        grown += "descriptors:";
        for (const std::string& descriptor : descriptors) {
            grown += before.descriptors.contains(descriptor) ? "" : " [" + descriptor + "]";
        }
        grown += "; ";
    }
    grown += More("threads", static_cast<long>(threads), static_cast<long>(before.threads));
    grown += More("timers", static_cast<long>(timers), static_cast<long>(before.timers));
    grown += More("children", static_cast<long>(children), static_cast<long>(before.children));
    grown += More("blocks of memory", blocks, before.blocks);
    return grown;
}

}  // namespace tern::test
