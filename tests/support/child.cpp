#include "child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "dump_coverage.h"

namespace tern::test {

namespace {

/// Owner of the two ends of a pipe.
class Pipe {
public:
    Pipe() {
        if (pipe2(mEnds, O_CLOEXEC) != 0) {
            throw std::system_error(errno, std::generic_category(), "pipe2");
        }
    }
    ~Pipe() {
        close(mEnds[0]);
        CloseWriteEnd();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int GetReadEnd() const { return mEnds[0]; }
    int GetWriteEnd() const { return mEnds[1]; }
    void CloseWriteEnd() {
        if (mEnds[1] >= 0) {
            close(std::exchange(mEnds[1], -1));
        }
    }

private:
    int mEnds[2];
};

/// Appends what is there to `bytes`; false at the end of the stream.
bool Drain(int fd, std::string& bytes) {
    char buffer[65536];
    const ssize_t count = read(fd, buffer, sizeof buffer);
    if (count > 0) {
        bytes.append(buffer, static_cast<std::size_t>(count));
    }
    return count > 0 || (count < 0 && errno == EINTR);
}

[[noreturn]] void ChildMain(const std::function<int()>& body, int logFd, int errorFd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(errorFd, STDERR_FILENO);
    ForwardLogTo(logFd);
#ifdef TERN_COVERAGE
    signal(SIGABRT, [](int) { DumpCoverage(); });  // abort ends the process when its handler returns
#endif
    int code = 125;
    try {
        code = body();
    } catch (const std::exception& exception) {
        fprintf(stderr, "exception in the child: %s\n", exception.what());
    } catch (...) {
        // It must not get any further: behind this are the parent's tests.
        fputs("exception in the child\n", stderr);
    }
    fflush(nullptr);
    DumpCoverage();
    _exit(code);
}

}  // namespace

ChildResult RunInChild(const std::function<int()>& body, std::chrono::milliseconds limit) {
    Pipe logPipe;
    Pipe errorPipe;
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::system_error(errno, std::generic_category(), "fork");
    }
    if (pid == 0) {
        ChildMain(body, logPipe.GetWriteEnd(), errorPipe.GetWriteEnd());
    }
    logPipe.CloseWriteEnd();
    errorPipe.CloseWriteEnd();

    ChildResult result;
    std::string log;
    const auto deadline = DeadlineAfter(limit);
    const int ends[] = {logPipe.GetReadEnd(), errorPipe.GetReadEnd()};
    pollfd streams[] = {{ends[0], POLLIN, 0}, {ends[1], POLLIN, 0}};
    std::string* const targets[] = {&log, &result.error};
    // Both streams end with the child, unless grandchildren hold them: the wait below decides.
    int status = 0;
    bool ended = false;
    while (!ended) {
        poll(streams, 2, 1);
        for (int i = 0; i < 2; ++i) {
            if ((streams[i].revents & (POLLIN | POLLHUP)) != 0 && !Drain(streams[i].fd, *targets[i])) {
                streams[i].fd = -1;
            }
        }
        ended = waitpid(pid, &status, WNOHANG) == pid;
        if (!ended && std::chrono::steady_clock::now() >= deadline) {
            result.timedOut = true;
            kill(pid, SIGKILL);
            ended = waitpid(pid, &status, 0) == pid;
        }
    }
    for (int i = 0; i < 2; ++i) {
        fcntl(ends[i], F_SETFL, O_NONBLOCK);
        while (Drain(ends[i], *targets[i])) {
        }
    }
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.log = ParseForwardedLog(log);
    return result;
}

std::string DescribeChild(pid_t child) {
    const std::string process = "process " + std::to_string(child);
    siginfo_t end{};
    if (child <= 0 || waitid(P_PID, static_cast<id_t>(child), &end, WEXITED | WNOHANG | WNOWAIT) != 0) {
        return "there is no " + process + " to wait for";
    }
    if (end.si_pid == 0) {
        return process + " is running";
    }
    if (end.si_code == CLD_EXITED) {
        return process + " has ended with exit status " + std::to_string(end.si_status);
    }
    const char* const text = sigdescr_np(end.si_status);
    return process + " was ended by signal " + std::to_string(end.si_status) + " (" +
           (text != nullptr ? text : "unknown") + ")";
}

}  // namespace tern::test
