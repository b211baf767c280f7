#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <systemd/sd-bus.h>
#include <tern/dbus_client/command.h>
#include <tern/dbus_client/icommand.h>

#include <cerrno>
#include <stdexcept>
#include <type_traits>
#include <vector>

#include "foundation/handle.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/process_resources.h"

using mw::tern::StatusCode;
using mw::tern::DBusCommand::Command;
using mw::tern::DBusCommand::ICommand;
using tern::test::CountDescriptors;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::PrivateBus;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(int, sd_bus_open_system, (sd_bus * *bus), (bus))
TERN_INTERPOSE(sd_bus*, sd_bus_flush_close_unref, (sd_bus * bus), (bus))

namespace {

using Bus = mwl::Handle<sd_bus, sd_bus_flush_close_unref>;

Bus OpenBus() {
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    return Bus(bus);
}

/// Answers with `result` and remembers the buses it was called with.
class FakeCommand : public Command {
public:
    int CallMethod(sd_bus* bus) override {
        buses.push_back(bus);
        EXPECT_GT(sd_bus_is_open(bus), 0);
        descriptorsDuringCall = CountDescriptors();
        if (throws) {
            throw std::runtime_error("no memory");
        }
        return result;
    }

    int result = 0;
    bool throws = false;
    std::vector<sd_bus*> buses;
    std::size_t descriptorsDuringCall = 0;
};

class CommandTest : public testing::Test {
protected:
    PrivateBus privateBus;
    LogCapture log;
    FakeCommand command;
};

}  // namespace

TEST(Command, IsAnAbstractCommand) {
    EXPECT_TRUE((std::is_base_of_v<ICommand, Command>));
    EXPECT_TRUE(std::is_abstract_v<ICommand>);
    EXPECT_TRUE(std::is_abstract_v<Command>);
    EXPECT_TRUE(std::has_virtual_destructor_v<ICommand>);
}

TEST_F(CommandTest, OpensAConnectionOfItsOwnForEachCallAndClosesIt) {
    const std::size_t before = CountDescriptors();
    for (const int result : {0, 1, 17}) {
        command.result = result;
        EXPECT_EQ(command.Execute(), StatusCode::Ok) << result;
        EXPECT_GT(command.descriptorsDuringCall, before);
        EXPECT_EQ(CountDescriptors(), before);
    }
    EXPECT_EQ(command.buses.size(), 3U);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(CommandTest, ReportsAFailedCallTwiceAndClosesItsConnection) {
    const std::size_t before = CountDescriptors();
    command.result = -ETIMEDOUT;
    EXPECT_EQ(command.Execute(), StatusCode::Timeout);
    EXPECT_EQ(CountDescriptors(), before);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service", "Failed to call method (-110, Connection timed out)"),
                            Error("Service", "Failed to execute command on system bus, status=Timeout")));
}

// What the call left in the queue goes out first.
TEST_F(CommandTest, OwnConnectionIsFlushedAndClosedBeforeTheOutcomeIsReported) {
    const FaultScope scope(fault_sd_bus_flush_close_unref);
    std::vector<sd_bus*> closed;
    std::vector<std::size_t> messagesBefore;
    fault_sd_bus_flush_close_unref.Replace(
        [&](sd_bus* bus) {
            closed.push_back(bus);
            messagesBefore.push_back(log.Entries().size());
            return fault_sd_bus_flush_close_unref.Real(bus);
        },
        2);
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    command.result = -EIO;
    EXPECT_EQ(command.Execute(), StatusCode::IoError);
    EXPECT_EQ(closed, command.buses);
    EXPECT_THAT(messagesBefore, ElementsAre(0U, 1U));
    EXPECT_EQ(log.Entries().size(), 2U);
}

TEST_F(CommandTest, ReportsABusThatIsNotThereAndDoesNotCall) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    EXPECT_EQ(command.Execute(), StatusCode::NotFound);
    EXPECT_THAT(command.buses, IsEmpty());
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "Failed to connect to system bus (-2, No such file or directory)"),
                    Error("Service", "Failed to execute command on system bus, status=NotFound")));
}

TEST_F(CommandTest, SuppliedBusIsUsedAndNeverClosed) {
    const Bus bus = OpenBus();
    const FaultScope scope(fault_sd_bus_open_system);
    fault_sd_bus_open_system.Fail(-EIO);
    command.SetBus(bus.get());
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    command.result = -EACCES;
    EXPECT_EQ(command.Execute(), StatusCode::AccessDenied);
    EXPECT_THAT(command.buses, ElementsAre(bus.get(), bus.get()));
    EXPECT_EQ(fault_sd_bus_open_system.Calls(), 0);
    EXPECT_GT(sd_bus_is_open(bus.get()), 0);
    {
        FakeCommand mortal;
        mortal.SetBus(bus.get());
        EXPECT_EQ(mortal.Execute(), StatusCode::Ok);
    }
    EXPECT_GT(sd_bus_is_open(bus.get()), 0) << "closed by the command's end";
}

TEST_F(CommandTest, WithoutTheSuppliedBusItOpensItsOwnAgain) {
    const Bus bus = OpenBus();
    command.SetBus(bus.get());
    command.SetBus(nullptr);
    EXPECT_EQ(command.Execute(), StatusCode::Ok);
    ASSERT_EQ(command.buses.size(), 1U);
    EXPECT_NE(command.buses[0], bus.get());
}

TEST_F(CommandTest, ExceptionOfTheCallPassesAndTheConnectionIsClosed) {
    const std::size_t before = CountDescriptors();
    command.throws = true;
    EXPECT_THROW(static_cast<void>(command.Execute()), std::runtime_error);
    EXPECT_EQ(CountDescriptors(), before);
}
