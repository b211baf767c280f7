#include "private_bus.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "environment_variable.h"
#include "socket_path.h"

namespace tern::test {

namespace {

/// The daemon's own limit, on every system; Linux has 107.
constexpr std::size_t LONGEST_PATH = 99;

EnvironmentVariable& SystemBusAddress() {
    static auto* const variable = new EnvironmentVariable("DBUS_SYSTEM_BUS_ADDRESS");  // a bus may be static
    return *variable;
}

/// A value of a D-Bus address: each byte but these few is escaped, and with them all that XML knows.
std::string EscapeAddress(const std::string& value) {
    static constexpr char PLAIN[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-_/.*";
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string escaped;
    for (const char c : value) {
        if (c != '\0' && strchr(PLAIN, c) != nullptr) {
            escaped += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            escaped.append(1, '%').append(1, DIGITS[byte >> 4]).append(1, DIGITS[byte & 15]);
        }
    }
    return escaped;
}

void WriteConfiguration(const std::string& path, const std::string& socket, const std::string& limits) {
    std::ofstream(path) << "<busconfig><listen>unix:path=" << EscapeAddress(socket) << "</listen>"
                        << "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/>"
                        << "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                        << "</policy>" << limits << "</busconfig>";
}

/// Up to the end of the line; without a newline at its end when there is none.
std::string ReadLine(int fd) {
    std::string line;
    char c = 0;
    ssize_t count = 0;
    while ((count = read(fd, &c, 1)) == 1 || (count < 0 && errno == EINTR)) {
        if (count == 1) {
            line += c;
        }
        if (count == 1 && c == '\n') {
            break;
        }
    }
    return line;
}

[[noreturn]] void ExecuteDaemon(const std::string& option, int addressFd, int errorFd) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    dup2(errorFd, STDERR_FILENO);
    dup2(addressFd, 3);  // without CLOEXEC unless it already is 3
    fcntl(3, F_SETFD, 0);
    execlp("dbus-daemon", "dbus-daemon", option.c_str(), "--nofork", "--nopidfile", "--nosyslog",
           "--print-address=3", static_cast<char*>(nullptr));
    dprintf(STDERR_FILENO, "%s; is the package dbus-daemon installed?", strerrordesc_np(errno));
    _exit(127);
}

}  // namespace

PrivateBus::PrivateBus(const std::string& limits) {
    const std::string socket = mFolder / "socket";
    CheckSocketPath(socket, LONGEST_PATH);
    const std::string configuration = mFolder / "bus.conf";
    WriteConfiguration(configuration, socket, limits);
    const std::string option = "--config-file=" + configuration;
    // Kept for the case of failure only: without the right to raise its descriptor limit the daemon warns at
    // each start.
    const std::string said = mFolder / "stderr";
    const int errorFd = open(said.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    int ends[2];
    if (errorFd < 0 || pipe2(ends, O_CLOEXEC) != 0) {
        close(errorFd);
        throw std::runtime_error("no descriptors for dbus-daemon");
    }
    mPid = fork();
    if (mPid == 0) {
        ExecuteDaemon(option, ends[1], errorFd);
    }
    close(errorFd);
    close(ends[1]);
    mAddress = mPid > 0 ? ReadLine(ends[0]) : std::string();
    close(ends[0]);
    if (mAddress.empty() || mAddress.back() != '\n') {
        Kill();
        std::ostringstream reason;
        reason << "dbus-daemon did not start: " << std::ifstream(said).rdbuf();
        throw std::runtime_error(reason.str());
    }
    mAddress.pop_back();
    mAddress = mAddress.substr(0, mAddress.find(",guid="));
    SystemBusAddress().Add(this, mAddress);
}

PrivateBus::~PrivateBus() {
    Kill();
    SystemBusAddress().Remove(this);
}

void PrivateBus::Kill() {
    if (mPid > 0) {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
        mPid = -1;
    }
}

}  // namespace tern::test
