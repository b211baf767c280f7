#include "private_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <stdexcept>

namespace tern::test {

namespace {

constexpr const char* ADDRESS_VARIABLE = "DBUS_SYSTEM_BUS_ADDRESS";

void WriteConfiguration(const std::string& path, const std::string& socket) {
    std::ofstream(path) << "<busconfig><listen>unix:path=" << socket << "</listen>"
                        << "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
                        << "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                        << "</policy></busconfig>";
}

std::string ReadLine(int fd) {
    std::string line;
    char c = 0;
    ssize_t count = 0;
    while ((count = read(fd, &c, 1)) == 1 || (count < 0 && errno == EINTR)) {
        if (count == 1 && c == '\n') {
            return line;
        }
        line += c;
    }
    throw std::runtime_error("dbus-daemon did not start; is the package dbus-daemon installed?");
}

}  // namespace

PrivateBus::PrivateBus() {
    const std::string configuration = mFolder / "bus.conf";
    WriteConfiguration(configuration, mFolder / "socket");
    const std::string option = "--config-file=" + configuration;
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipe for dbus-daemon");
    }
    mPid = fork();
    if (mPid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);
        // Without the right to raise its descriptor limit the daemon warns at each start.
        const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(nowhere, STDERR_FILENO);
        dup2(ends[1], 3);  // without CLOEXEC unless it already is 3
        fcntl(3, F_SETFD, 0);
        execlp("dbus-daemon", "dbus-daemon", option.c_str(), "--nofork", "--nopidfile", "--nosyslog",
               "--print-address=3", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(ends[1]);
    try {
        mAddress = ReadLine(ends[0]);
    } catch (...) {
        close(ends[0]);
        Kill();
        throw;
    }
    close(ends[0]);
    mAddress = mAddress.substr(0, mAddress.find(",guid="));
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other threads yet, or any more
    setenv(ADDRESS_VARIABLE, mAddress.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    Kill();
    // NOLINTNEXTLINE(concurrency-mt-unsafe): no other threads yet, or any more
    unsetenv(ADDRESS_VARIABLE);
}

void PrivateBus::Kill() {
    if (mPid > 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        mPid = -1;
    }
}

}  // namespace tern::test
