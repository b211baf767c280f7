#include "process_execution/left_children.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <string_view>
#include <utility>

#include "foundation/unique_fd.h"

namespace mwl::ProcessExecution {

namespace {

/// Where the start time stands in /proc/PID/stat (proc(5)), counted from the state, which follows the name.
constexpr int FIELDS_BEFORE_START_TIME = 19;

std::atomic<LeftChild*> gFirst{nullptr};

/// The list that has been taken is the caller's: nobody else looks at it.
LeftChild* TakeAll() noexcept {
    return gFirst.exchange(nullptr, std::memory_order_acquire);
}

void Push(LeftChild* child) noexcept {
    child->next = gFirst.load(std::memory_order_relaxed);
    while (!gFirst.compare_exchange_weak(child->next, child, std::memory_order_release,
                                         std::memory_order_relaxed)) {
    }
}

/// When the process with this number was started, in ticks since the system's own start; 0 with errno set
/// when it cannot be found out.
unsigned long long StartTimeOf(pid_t pid) noexcept {
    char buffer[512];
    snprintf(buffer, sizeof buffer, "/proc/%d/stat", static_cast<int>(pid));
    const UniqueFd file(open(buffer, O_RDONLY | O_CLOEXEC));
    const ssize_t size = file ? read(file.Get(), buffer, sizeof buffer) : -1;
    if (size < 0) {
        return 0;
    }
    const std::string_view text(buffer, static_cast<std::size_t>(size));
    // The name stands in parentheses and may hold any character, parentheses and blanks included.
    std::size_t blank = text.rfind(')');
    for (int i = 0; blank != text.npos && i <= FIELDS_BEFORE_START_TIME; ++i) {
        blank = text.find(' ', blank + 1);
    }
    unsigned long long startTime = 0;
    if (blank != text.npos) {
        std::from_chars(text.data() + blank + 1, text.data() + text.size(), startTime);
    }
    errno = 0;
    return startTime;
}

/// True when the child is no zombie any more and will not become one.
bool IsReaped(const LeftChild& child) noexcept {
    if (child.startTime != 0) {
        const unsigned long long startTime = StartTimeOf(child.pid);
        if (startTime == 0 && errno != ENOENT && errno != ESRCH) {
            return false;  // cannot be looked up now: later
        }
        if (startTime != child.startTime) {
            return true;  // by the application; the number may be another child's by now
        }
    }
    int status = 0;
    const pid_t ended = waitpid(child.pid, &status, WNOHANG);
    return ended == child.pid || (ended < 0 && errno == ECHILD);
}

/// The last chance, at the end of the process. Not the destructor of an object: behind those of all objects,
/// whose threads may run programs.
__attribute__((destructor)) void ReapAtTheEnd() {
    LeftChildren::Reap();
    for (LeftChild* child = TakeAll(); child != nullptr;) {
        const std::unique_ptr<LeftChild> forgotten(std::exchange(child, child->next));
    }
}

}  // namespace

void LeftChildren::Remember(std::unique_ptr<LeftChild> child) noexcept {
    child->startTime = StartTimeOf(child->pid);
    Push(child.release());
}

void LeftChildren::Reap() noexcept {
    LeftChild* next = TakeAll();
    const pid_t self = next != nullptr ? getpid() : 0;
    while (next != nullptr) {
        std::unique_ptr<LeftChild> child(std::exchange(next, next->next));
        if (child->parent == self && !IsReaped(*child)) {
            Push(child.release());
        }
    }
}

}  // namespace mwl::ProcessExecution
