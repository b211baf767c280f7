#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "support/wait_until.h"

namespace soak {

namespace {

/// This process's environment. The notification socket only together with a watchdog: a message bus would
/// announce its own readiness there, which is not the extension's.
std::vector<std::string> Environment(unsigned long watchdogUs) {
    std::vector<std::string> environment;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        if (!text.starts_with("WATCHDOG_") && (watchdogUs != 0 || !text.starts_with("NOTIFY_SOCKET="))) {
            environment.push_back(text);
        }
    }
    if (watchdogUs != 0) {
        environment.push_back("WATCHDOG_USEC=" + std::to_string(watchdogUs));
    }
    return environment;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

ChildProcess::~ChildProcess() {
    if (IsRunning()) {
        Signal(SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
}

void ChildProcess::Start(const std::vector<std::string>& command, const std::string& log,
                         unsigned long watchdogUs) {
    // All is prepared before the fork: the clients' threads may hold locks.
    std::vector<std::string> arguments = command;
    std::vector<std::string> environment = Environment(watchdogUs);
    const std::vector<char*> argv = Pointers(arguments);
    const std::vector<char*> envp = Pointers(environment);
    const int logFd = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    mPid = logFd < 0 ? -1 : fork();
    if (mPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(logFd, STDERR_FILENO);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    const int error = errno;
    if (logFd >= 0) {
        close(logFd);
    }
    if (mPid < 0) {
        throw std::system_error(error, std::generic_category(), command.front());
    }
}

void ChildProcess::Signal(int signal) const {
    if (IsRunning()) {  // or it would be sent to every process
        kill(mPid, signal);
    }
}

std::optional<int> ChildProcess::WaitForEnd(std::chrono::milliseconds limit) {
    int status = 0;
    if (!IsRunning()) {
        return std::nullopt;
    }
    if (!tern::test::WaitUntil([&] { return waitpid(mPid, &status, WNOHANG) == mPid; }, limit)) {
        return std::nullopt;
    }
    mPid = -1;
    return status;
}

}  // namespace soak
