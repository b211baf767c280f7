#include "bus_daemon.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <stdexcept>

#include "bus_owners.h"
#include "support/wait_until.h"

namespace soak {

BusDaemon::BusDaemon(std::string log)
    : mLog(std::move(log)), mSocket(mFolder / "socket"), mAddress("unix:path=" + mSocket) {
    for (const char* const program :
         {"/usr/bin/dbus-daemon", "/bin/dbus-daemon", "/usr/local/bin/dbus-daemon"}) {
        if (access(program, X_OK) == 0) {
            mProgram = program;
            break;
        }
    }
    if (mProgram.empty()) {
        throw std::runtime_error("there is no dbus-daemon; is the package dbus-daemon installed?");
    }
    std::ofstream(mFolder / "bus.conf")
        << "<busconfig><listen>" << mAddress << "</listen><policy context=\"default\"><allow user=\"*\"/>"
        << "<allow own=\"*\"/><allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
        << "</policy></busconfig>";
}

void BusDaemon::Start() {
    unlink(mSocket.c_str());
    mDaemon.Start(
        {mProgram, "--config-file=" + (mFolder / "bus.conf"), "--nofork", "--nopidfile", "--nosyslog"}, mLog);
    if (!tern::test::WaitUntil([this] { return OpenBus(mAddress) != nullptr; })) {
        throw std::runtime_error("the message bus did not start, see " + mLog);
    }
}

void BusDaemon::Kill() {
    mDaemon.Signal(SIGKILL);
    static_cast<void>(mDaemon.WaitForEnd(tern::test::GENEROUS_LIMIT));
    unlink(mSocket.c_str());
}

}  // namespace soak
