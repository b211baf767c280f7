#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <tern/dbus_client/command.h>
#include <tern/dbus_client/dbus_client_manager.h>
#include <tern/dbus_client/interface_properties_get_all.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <set>
#include <string>
#include <type_traits>

#include "dbus_client/peer_service.h"
#include "foundation/handle.h"
#include "foundation/unique_fd.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/process_resources.h"
#include "support/temp_folder.h"
#include "support/wait_until.h"

using mw::tern::DBusClientManager;
using mw::tern::StatusCode;
using mw::tern::DBusCommand::Command;
using mw::tern::DBusCommand::InterfacePropertiesGetAll;
using mwl::UniqueFd;
using tern::test::CountDescriptors;
using tern::test::Error;
using tern::test::LogCapture;
using tern::test::PeerService;
using tern::test::PrivateBus;
using tern::test::TempFolder;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* HOSTNAMED = "/lib/systemd/systemd-hostnamed";

constexpr const char* NAME = "org.example.Peer";
constexpr const char* PATH = "/org/example/Peer";

/// A service of systemd's started by the test, ended with it. It inherits a socket for varlink calls: newer
/// ones would otherwise bind theirs where the machine's own service has it, or end where they may not.
class SystemdService {
public:
    explicit SystemdService(const char* path) : mSocket(socket(AF_UNIX, SOCK_STREAM, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        (mFolder / "varlink").copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(mSocket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(mSocket.Get(), 1), 0);
        mPid = fork();
        if (mPid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            constexpr int FIRST_PASSED = 3;
            dup2(mSocket.Get(), FIRST_PASSED);
            setenv("LISTEN_PID", std::to_string(getpid()).c_str(), 1);
            setenv("LISTEN_FDS", "1", 1);
            setenv("LISTEN_FDNAMES", "varlink", 1);
            execl(path, path, static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~SystemdService() {
        kill(mPid, SIGKILL);
        waitpid(mPid, nullptr, 0);
    }
    SystemdService(const SystemdService&) = delete;
    SystemdService& operator=(const SystemdService&) = delete;

private:
    const TempFolder mFolder;
    const UniqueFd mSocket;
    pid_t mPid;
};

/// Answers Properties.GetAll by hand, with whatever `reply` appends.
class PropertiesPeer {
public:
    using Reply = std::function<int(sd_bus_message* reply)>;

    explicit PropertiesPeer(Reply reply)
        : mReply(std::move(reply)), mPeer(NAME, [this](sd_bus* bus) {
              EXPECT_GE(sd_bus_add_object(bus, nullptr, PATH, Answer, this), 0);
          }) {}

    std::string InterfaceAskedFor() const { return mInterface; }

private:
    static int Answer(sd_bus_message* request, void* data, sd_bus_error*) {
        auto& self = *static_cast<PropertiesPeer*>(data);
        if (sd_bus_message_is_method_call(request, "org.freedesktop.DBus.Properties", "GetAll") <= 0) {
            return 0;
        }
        const char* interface = nullptr;
        EXPECT_GT(sd_bus_message_read(request, "s", &interface), 0);
        self.mInterface = std::string("<") + interface + ">";
        sd_bus_message* made = nullptr;
        EXPECT_GE(sd_bus_message_new_method_return(request, &made), 0);
        const mwl::Handle<sd_bus_message, sd_bus_message_unref> reply(made);
        EXPECT_GE(self.mReply(made), 0);
        return sd_bus_send(nullptr, made, nullptr);
    }

    Reply mReply;
    std::string mInterface;
    PeerService mPeer;  ///< last: its thread uses the others
};

class InterfacePropertiesGetAllTest : public testing::Test {
protected:
    std::string Text(const std::string& key) {
        std::string text = "missing";
        static_cast<void>(getAll.GetValuesList().GetString(key, text));
        return text;
    }

    PrivateBus privateBus;
    LogCapture log;
    InterfacePropertiesGetAll getAll{NAME, PATH};
};

}  // namespace

TEST(InterfacePropertiesGetAll, IsACommand) {
    EXPECT_TRUE((std::is_base_of_v<Command, InterfacePropertiesGetAll>));
}

TEST_F(InterfacePropertiesGetAllTest, ReadsTheProperties) {
    const PropertiesPeer peer([](sd_bus_message* reply) {
        return sd_bus_message_append(reply, "a{sv}", 2, "State", "s", "up", "Port", "u", 4711U);
    });
    EXPECT_EQ(getAll.GetValuesList().Size(), 0U);
    EXPECT_EQ(getAll.Execute(), StatusCode::Ok);
    EXPECT_EQ(Text("_State"), "up");
    unsigned int port = 0;
    EXPECT_EQ(getAll.GetValuesList().GetUint32("_Port", port), StatusCode::Ok);
    EXPECT_EQ(port, 4711U);
    EXPECT_EQ(getAll.GetValuesList().Size(), 2U);
    EXPECT_EQ(peer.InterfaceAskedFor(), "<>") << "the empty name means all interfaces";
    EXPECT_THAT(log.Entries("Service"), IsEmpty());
}

TEST_F(InterfacePropertiesGetAllTest, ExecutedAgainItKeepsWhatItHasAndAddsWhatIsNew) {
    std::atomic<int> calls{0};
    const PropertiesPeer peer([&](sd_bus_message* reply) {
        return ++calls == 1
                   ? sd_bus_message_append(reply, "a{sv}", 1, "State", "s", "up")
                   : sd_bus_message_append(reply, "a{sv}", 2, "State", "s", "down", "Extra", "s", "new");
    });
    EXPECT_EQ(getAll.Execute(), StatusCode::Ok);
    EXPECT_EQ(getAll.Execute(), StatusCode::Ok);
    EXPECT_EQ(Text("_State"), "up");
    EXPECT_EQ(Text("_Extra"), "new");
}

TEST_F(InterfacePropertiesGetAllTest, UsesTheSuppliedBus) {
    const PropertiesPeer peer(
        [](sd_bus_message* reply) { return sd_bus_message_append(reply, "a{sv}", 1, "State", "s", "up"); });
    sd_bus* opened = nullptr;
    ASSERT_GE(sd_bus_open_system(&opened), 0);
    const mwl::Handle<sd_bus, sd_bus_flush_close_unref> bus(opened);
    getAll.SetBus(bus.get());
    EXPECT_EQ(getAll.Execute(), StatusCode::Ok);
    EXPECT_EQ(Text("_State"), "up");
    EXPECT_GT(sd_bus_is_open(bus.get()), 0);
}

// The reply owned it.
TEST_F(InterfacePropertiesGetAllTest, DescriptorAmongThePropertiesIsClosedWhenTheCommandHasRun) {
    const PropertiesPeer peer([](sd_bus_message* reply) {
        return sd_bus_message_append(reply, "a{sv}", 1, "Log", "h", STDERR_FILENO);
    });
    const std::size_t before = CountDescriptors();
    EXPECT_EQ(getAll.Execute(), StatusCode::Ok);
    unsigned int descriptor = 0;
    EXPECT_EQ(getAll.GetValuesList().GetFD("_Log", descriptor), StatusCode::Ok);
    EXPECT_EQ(fcntl(static_cast<int>(descriptor), F_GETFD), -1);
    // The peer, a thread of this process, lets go of its copy in its own time.
    EXPECT_TRUE(WaitUntil([&] { return CountDescriptors() == before; }));
}

TEST_F(InterfacePropertiesGetAllTest, MissingServiceIsAFailure) {
    EXPECT_EQ(getAll.Execute(), StatusCode::Failure);
    EXPECT_THAT(
        log.Entries("Service"),
        ElementsAre(Error("Service",
                          "[InterfacePropertiesGetAll] Failed to call GetAll method (-113, No route to "
                          "host)"),
                    Error("Service", "Failed to call method (-113, No route to host)"),
                    Error("Service", "Failed to execute command on system bus, status=Failure")));
    EXPECT_EQ(getAll.GetValuesList().Size(), 0U);
}

TEST_F(InterfacePropertiesGetAllTest, ReplyOfAnotherTypeIsAFailure) {
    const PropertiesPeer peer([](sd_bus_message* reply) { return sd_bus_message_append(reply, "s", "up"); });
    EXPECT_EQ(getAll.Execute(), StatusCode::InvalidArgument);
    EXPECT_THAT(
        log.Entries("Service"),
        ElementsAre(
            Error("Service",
                  "[InterfacePropertiesGetAll] Failed to parse sd_bus asv message (-6, No such device "
                  "or address)"),
            Error("Service", "Failed to call method (-6, No such device or address)"),
            Error("Service", "Failed to execute command on system bus, status=InvalidArgument")));
}

TEST_F(InterfacePropertiesGetAllTest, InvalidNamesAreRefused) {
    InterfacePropertiesGetAll badPath(NAME, "no/leading/slash");
    EXPECT_EQ(badPath.Execute(), StatusCode::InvalidArgument);
    InterfacePropertiesGetAll badName("", PATH);
    EXPECT_EQ(badName.Execute(), StatusCode::InvalidArgument);
    EXPECT_EQ(log.Count(Error("Service",
                              "[InterfacePropertiesGetAll] Failed to call GetAll method (-22, Invalid "
                              "argument)")),
              2U);
}

TEST_F(InterfacePropertiesGetAllTest, ReadsAServiceThatIsNotOurs) {
    if (access(HOSTNAMED, X_OK) != 0) {
        GTEST_SKIP() << HOSTNAMED << " is not installed (package systemd)";
    }
    const SystemdService hostnamed(HOSTNAMED);
    DBusClientManager manager;
    ASSERT_EQ(manager.Connect(), StatusCode::Ok);
    std::set<std::string> names;
    ASSERT_TRUE(WaitUntil([&] {
        return manager.LookupServices("org.freedesktop.hostname1", names) == StatusCode::Ok && !names.empty();
    }));

    InterfacePropertiesGetAll properties("org.freedesktop.hostname1", "/org/freedesktop/hostname1");
    ASSERT_EQ(properties.Execute(), StatusCode::Ok);
    char expected[256] = {};
    ASSERT_EQ(gethostname(expected, sizeof expected - 1), 0);
    std::string hostname;
    EXPECT_EQ(properties.GetValuesList().GetString("_Hostname", hostname), StatusCode::Ok);
    EXPECT_EQ(hostname, expected);
    std::string kernel;
    EXPECT_EQ(properties.GetValuesList().GetString("_KernelName", kernel), StatusCode::Ok);
    EXPECT_EQ(kernel, "Linux");
    EXPECT_THAT(log.Entries("Service"), IsEmpty());
}
