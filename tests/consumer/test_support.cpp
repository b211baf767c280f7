// Uses the whole installed test support without any test framework.
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <tern-test/child.h>
#include <tern-test/interpose.h>
#include <tern-test/log_capture.h>
#include <tern-test/notify_socket.h>
#include <tern-test/private_bus.h>
#include <tern-test/process_resources.h>
#include <tern-test/temp_folder.h>
#include <tern-test/wait_until.h>
#include <tern/dbus_client/dbus_client_manager.h>
#include <tern/foundation/log.h>
#include <unistd.h>

#include <cstdio>
#include <set>
#include <string>

using mw::tern::StatusCode;

TERN_INTERPOSE(int, sd_bus_default_system, (sd_bus * *bus), (bus))

namespace {

int failures = 0;

void Check(bool holds, const char* what) {
    if (!holds) {
        fprintf(stderr, "FAILED %s\n", what);
        ++failures;
    }
}

StatusCode List(std::set<std::string>& names) {
    mw::tern::DBusClientManager manager;
    const StatusCode status = manager.Connect();
    return status == StatusCode::Ok ? manager.LookupServices("org.freedesktop.", names) : status;
}

}  // namespace

int main() {
    const std::size_t descriptors = tern::test::CountDescriptors();
    const tern::test::ChildResult child = tern::test::RunInChild([] {
        TERN_LOG_WARNING(std::string("Child"), "leaving with %d", 3);
        return 3;
    });
    Check(child.exitCode == 3, "exit status of a child");
    Check(child.log == std::vector{tern::test::Warning("Child", "leaving with 3")}, "log of a child");
    {
        tern::test::PrivateBus bus;
        std::set<std::string> names;
        Check(List(names) == StatusCode::Ok && names.count("org.freedesktop.DBus") == 1,
              "names on a private bus");
    }
    {
        tern::test::NotifySocket systemd;
        sd_notify(0, "READY=1");
        Check(systemd.Receive() == "READY=1", "notification");
        const pid_t dying = fork();
        if (dying == 0) {
            _exit(3);
        }
        Check(!systemd.ReceiveFrom(dying).has_value(), "no notification from a child that dies");
        Check(tern::test::DescribeChild(dying).ends_with(" has ended with exit status 3"), "how it ended");
        waitpid(dying, nullptr, 0);
    }
    {
        const tern::test::LogCapture log;
        const tern::test::FaultScope scope(fault_sd_bus_default_system);
        fault_sd_bus_default_system.Fail(-EMFILE);
        std::set<std::string> names;
        Check(List(names) == StatusCode::ResourceUnavailable, "an interposed call");
        Check(!log.Entries().empty(), "the library's messages");
    }
    {
        const tern::test::TempFolder folder;
        Check(access(folder.Path().c_str(), F_OK) == 0, "a folder");
        Check(tern::test::WaitUntil([] { return true; }), "waiting");
    }
    Check(tern::test::CountDescriptors() == descriptors && tern::test::CountThreads() == 1,
          "nothing is left open");
    return failures == 0 ? 0 : 1;
}
