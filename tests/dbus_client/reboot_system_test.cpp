#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <tern/dbus_client/command.h>
#include <tern/dbus_client/reboot_system.h>

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

#include "dbus_client/peer_service.h"
#include "foundation/handle.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

using mw::tern::StatusCode;
using mw::tern::DBusCommand::Command;
using mw::tern::DBusCommand::RebootSystem;
using tern::test::Error;
using tern::test::Info;
using tern::test::LogCapture;
using tern::test::PeerService;
using tern::test::PrivateBus;
using testing::ElementsAre;

namespace {

/// Stands in for the device-management service; `answer` handles each request.
class DeviceManagement {
public:
    using Answer = std::function<int(sd_bus_message* request, sd_bus_error* error)>;

    explicit DeviceManagement(Answer answer)
        : mAnswer(std::move(answer)), mPeer("com.zr.extension.local_device", [this](sd_bus* bus) {
              EXPECT_GE(sd_bus_add_object(bus, nullptr, "/com/zr/extension/dbus_objects/DeviceManagement",
                                          Handle, this),
                        0);
          }) {}

private:
    // By hand, as a table would not let a wrong type out.
    static int Handle(sd_bus_message* request, void* self, sd_bus_error* error) {
        return sd_bus_message_is_method_call(request, "com.zr.extension.dbus_objects.DeviceManagement",
                                             "Reboot") > 0
                   ? static_cast<DeviceManagement*>(self)->mAnswer(request, error)
                   : 0;
    }

    Answer mAnswer;
    PeerService mPeer;  ///< last: its thread uses the answer
};

DeviceManagement::Answer Bool(bool value) {
    return [value](sd_bus_message* request, sd_bus_error*) {
        return sd_bus_reply_method_return(request, "b", static_cast<int>(value));
    };
}

class RebootSystemTest : public testing::Test {
protected:
    PrivateBus privateBus;
    LogCapture log;
    RebootSystem reboot{RebootSystem::REBOOT_TYPE_REMOTE};
};

}  // namespace

TEST(RebootSystem, IsACommand) {
    EXPECT_TRUE((std::is_base_of_v<Command, RebootSystem>));
}

TEST(RebootSystem, ReasonsAreFixed) {
    EXPECT_EQ(RebootSystem::REBOOT_TYPE_REMOTE, "Remote");
    EXPECT_EQ(RebootSystem::REBOOT_TYPE_BUTTON, "Button");
    EXPECT_EQ(RebootSystem::REBOOT_TYPE_FIRMWARE_UPDATE, "FirmwareUpdate");
    EXPECT_EQ(RebootSystem::REBOOT_TYPE_RESTORE, "Restore");
}

TEST_F(RebootSystemTest, PassesTheReasonOn) {
    std::vector<std::string> reasons;
    const DeviceManagement device([&](sd_bus_message* request, sd_bus_error* error) {
        const char* reason = nullptr;
        EXPECT_GT(sd_bus_message_read(request, "s", &reason), 0);
        reasons.emplace_back(reason);
        return Bool(true)(request, error);
    });
    for (const std::string& reason :
         {RebootSystem::REBOOT_TYPE_REMOTE, RebootSystem::REBOOT_TYPE_BUTTON,
          RebootSystem::REBOOT_TYPE_FIRMWARE_UPDATE, RebootSystem::REBOOT_TYPE_RESTORE}) {
        EXPECT_EQ(RebootSystem(reason).Execute(), StatusCode::Ok);
    }
    EXPECT_THAT(reasons, ElementsAre("Remote", "Button", "FirmwareUpdate", "Restore"));
}

TEST_F(RebootSystemTest, AnswerTrueIsLogged) {
    const DeviceManagement device(Bool(true));
    EXPECT_EQ(reboot.Execute(), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), ElementsAre(Info("Service", "[Reboot] CallMethod returns true")));
}

// The service has answered: the result says no more than that.
TEST_F(RebootSystemTest, AnswerFalseIsLoggedAndASuccessAsWell) {
    const DeviceManagement device(Bool(false));
    EXPECT_EQ(reboot.Execute(), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), ElementsAre(Info("Service", "[Reboot] CallMethod returns false")));
}

TEST_F(RebootSystemTest, CallMethodReturnsTheLastResultOfTheBus) {
    const DeviceManagement device(Bool(false));
    sd_bus* opened = nullptr;
    ASSERT_GE(sd_bus_open_system(&opened), 0);
    const mwl::Handle<sd_bus, sd_bus_flush_close_unref> bus(opened);
    EXPECT_EQ(reboot.CallMethod(bus.get()), 1);
    EXPECT_EQ(reboot.CallMethod(nullptr), -EINVAL);
}

TEST_F(RebootSystemTest, ErrorAnswerIsAFailure) {
    const DeviceManagement device([](sd_bus_message*, sd_bus_error* error) {
        return sd_bus_error_set_const(error, SD_BUS_ERROR_ACCESS_DENIED, "not today");
    });
    EXPECT_EQ(reboot.Execute(), StatusCode::AccessDenied);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "[Reboot] Failed to call Reboot method (-13, Permission denied)"),
                    Error("Service", "Failed to call method (-13, Permission denied)"),
                    Error("Service", "Failed to execute command on system bus, status=AccessDenied")));
}

TEST_F(RebootSystemTest, MissingServiceIsAFailure) {
    EXPECT_EQ(reboot.Execute(), StatusCode::Failure);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "[Reboot] Failed to call Reboot method (-113, No route to host)"),
                    Error("Service", "Failed to call method (-113, No route to host)"),
                    Error("Service", "Failed to execute command on system bus, status=Failure")));
}

TEST_F(RebootSystemTest, AnswerOfAnotherTypeIsAFailure) {
    const DeviceManagement device([](sd_bus_message* request, sd_bus_error*) {
        return sd_bus_reply_method_return(request, "s", "true");
    });
    EXPECT_EQ(reboot.Execute(), StatusCode::InvalidArgument);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service",
                          "[Reboot] Failed to read SD_BUS_TYPE_BOOLEAN (-6, No such device or address) from "
                          "message"),
                    Error("Service", "Failed to call method (-6, No such device or address)"),
                    Error("Service", "Failed to execute command on system bus, status=InvalidArgument")));
}

TEST_F(RebootSystemTest, EmptyAnswerIsAFailure) {
    const DeviceManagement device(
        [](sd_bus_message* request, sd_bus_error*) { return sd_bus_reply_method_return(request, ""); });
    EXPECT_EQ(reboot.Execute(), StatusCode::InvalidArgument);
    EXPECT_TRUE(log.Contains(Error("Service",
                                   "[Reboot] Failed to read SD_BUS_TYPE_BOOLEAN (-6, No such device or "
                                   "address) from message")));
}

TEST_F(RebootSystemTest, NoAnswerIsAFailureAtTheTimeOutOfTheBus) {
    // A handler that returns 1 without having replied leaves the caller waiting.
    const DeviceManagement device([](sd_bus_message*, sd_bus_error*) { return 1; });
    sd_bus* opened = nullptr;
    ASSERT_GE(sd_bus_open_system(&opened), 0);
    const mwl::Handle<sd_bus, sd_bus_flush_close_unref> bus(opened);
    ASSERT_GE(sd_bus_set_method_call_timeout(bus.get(), 50000), 0);
    reboot.SetBus(bus.get());
    EXPECT_EQ(reboot.Execute(), StatusCode::Timeout);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "[Reboot] Failed to call Reboot method (-110, Connection timed out)"),
                    Error("Service", "Failed to call method (-110, Connection timed out)"),
                    Error("Service", "Failed to execute command on system bus, status=Timeout")));
}
