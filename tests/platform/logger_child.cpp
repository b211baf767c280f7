#include "logger_child.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <tern-basic-log/root_logger.h>
#include <unistd.h>

#include <cstdlib>

#include "support/dump_coverage.h"

namespace tern::test {

pid_t StartChild(int errorFd, const std::function<void()>& body) {
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(errorFd, STDERR_FILENO);
        if (errorFd != STDERR_FILENO) {
            close(errorFd);
        }
        unsetenv("JOURNAL_STREAM");
        body();
        DumpCoverage();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return pid;
}

void ExpectSuccess(pid_t pid) {
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(status, 0);
}

void InChild(const std::function<void()>& body) {
    ExpectSuccess(StartChild(STDERR_FILENO, body));
}

std::vector<std::string> WritesOf(const std::function<void()>& body) {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends), 0);
    const pid_t pid = StartChild(ends[1], body);
    close(ends[1]);
    std::vector<std::string> writes;
    std::vector<char> buffer(1 << 20);
    ssize_t count = 0;
    while ((count = recv(ends[0], buffer.data(), buffer.size(), 0)) > 0) {
        writes.emplace_back(buffer.data(), static_cast<std::size_t>(count));
    }
    close(ends[0]);
    ExpectSuccess(pid);
    return writes;
}

std::string TerminalOf(const std::function<void()>& body) {
    int terminal = -1;
    int shell = -1;
    EXPECT_EQ(openpty(&terminal, &shell, nullptr, nullptr, nullptr), 0);
    const pid_t pid = StartChild(shell, body);
    close(shell);
    std::string text;
    char buffer[4096];
    ssize_t count = 0;
    while ((count = read(terminal, buffer, sizeof buffer)) > 0) {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(terminal);
    ExpectSuccess(pid);
    return text;
}

void PretendJournal() {
    struct stat status {};
    ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
    setenv("JOURNAL_STREAM", (std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino)).c_str(),
           1);
}

int MakeStandardErrorASocket() {
    int ends[2];
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    EXPECT_EQ(dup2(ends[1], STDERR_FILENO), STDERR_FILENO);
    close(ends[1]);
    return ends[0];
}

void Print(const std::string& text) {
    mwl::Log::RootLogger::GetInstance().Print(TernLogLevel::Error, "%s", text.c_str());
}

int PrintUntilOneWaits(const std::function<std::string(int)>& text) {
    for (int i = 0; i < 100000; ++i) {
        if (DurationOf([&] { Print(text(i)); }) >= std::chrono::milliseconds(800)) {
            return i;
        }
    }
    ADD_FAILURE() << "nothing ever waits";
    return 0;
}

std::chrono::milliseconds DurationOf(const std::function<void()>& body) {
    const auto begin = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - begin);
}

std::string ReadAll(int fd) {
    std::string text;
    char buffer[65536];
    pollfd readable = {fd, POLLIN, 0};
    while (poll(&readable, 1, 0) == 1 && (readable.revents & POLLIN) != 0) {
        const ssize_t count = read(fd, buffer, sizeof buffer);
        if (count <= 0) {
            break;
        }
        text.append(buffer, static_cast<std::size_t>(count));
    }
    return text;
}

}  // namespace tern::test
