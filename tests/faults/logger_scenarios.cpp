#include <fcntl.h>
#include <sys/socket.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>

#include "scenarios.h"

namespace tern::test {

namespace {

/// A short message and one that needs memory, with one call of the logger failing, then one more. Each is
/// there, or it is told that one is missing.
void RunMessages(Stage& stage, const std::function<std::string()>& takeWritten) {
    static const std::string LOGGER = "Faults";
    const std::string longText(10000, 'l');
    stage.Sweep([&] {
        TERN_LOG_INFO(LOGGER, "%s", "short");
        TERN_LOG_INFO(LOGGER, "%s", longText.c_str());
    });
    TERN_LOG_INFO(LOGGER, "%s", "the next one");
    const std::string written = takeWritten();
    stage.Expect(written.ends_with(" the next one\n"), "the sink takes messages again");
    if (stage.Expect(written.find("Messages dropped, as the log did not take them: 1\n") == std::string::npos,
                     "all messages are taken")) {
        stage.Expect(written.find(" short\n") != std::string::npos, "the short message is written");
        stage.Expect(written.find(" " + longText + "\n") != std::string::npos, "the long message is written");
    }
}

void RunMessagesToFile(Stage& stage) {
    const off_t before = lseek(STDERR_FILENO, 0, SEEK_END);
    RunMessages(stage, [before] {
        std::string text(static_cast<std::size_t>(lseek(STDERR_FILENO, 0, SEEK_END) - before), '\0');
        text.resize(static_cast<std::size_t>(
            std::max<ssize_t>(0, pread(STDERR_FILENO, text.data(), text.size(), before))));
        return text;
    });
}

/// With standard error one end of `ends` meanwhile; what comes out of the other is kept where it leads again.
void RunMessagesTo(int (&ends)[2], Stage& stage) {
    const int log = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    RunMessages(stage, [&] {
        dup2(log, STDERR_FILENO);
        close(log);
        std::string text;
        char buffer[4096];
        ssize_t count = 0;
        while ((count = read(ends[0], buffer, sizeof buffer)) > 0) {
            text.append(buffer, static_cast<std::size_t>(count));
        }
        close(ends[0]);
        stage.Expect(write(STDERR_FILENO, text.data(), text.size()) == static_cast<ssize_t>(text.size()),
                     "the log is kept");
        return text;
    });
}

void RunMessagesToPipe(Stage& stage) {
    int ends[2];
    if (stage.Expect(pipe2(ends, O_CLOEXEC) == 0, "a pipe")) {
        RunMessagesTo(ends, stage);
    }
}

void RunMessagesToSocket(Stage& stage) {
    int ends[2];
    if (stage.Expect(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "a socket")) {
        RunMessagesTo(ends, stage);
    }
}

}  // namespace

std::vector<Scenario> LoggerScenarios() {
    return {{"logger", RunMessagesToFile, true},
            {"logger-pipe", RunMessagesToPipe, true},
            {"logger-socket", RunMessagesToSocket, true}};
}

}  // namespace tern::test
