#include "examples/thermostat/measurement_channel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/dbus_server_manager.h>
#include <tern/service/service_main_loop.h>

#include <thread>
#include <vector>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

TERN_INTERPOSE(int, sd_bus_send, (sd_bus * bus, sd_bus_message* message, std::uint64_t* cookie),
               (bus, message, cookie))
TERN_INTERPOSE(int, sd_bus_message_new_signal,
               (sd_bus * bus, sd_bus_message** message, const char* path, const char* interface,
                const char* member),
               (bus, message, path, interface, member))

namespace {

using mw::tern::StatusCode;
using tern::test::FaultScope;
using tern::test::LogCapture;
using tern::test::PrivateBus;
using thermostat::MeasurementChannel;

class MeasurementChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mLoop.Init(), StatusCode::Ok);
        ASSERT_EQ(mManager.Connect(), StatusCode::Ok);
        ASSERT_EQ(mManager.AttachLoop(mLoop), StatusCode::Ok);
        ASSERT_EQ(
            mChannel.Open(mManager, mLoop, [this](sd_bus*, double celsius) { mMeasured.push_back(celsius); }),
            StatusCode::Ok);
    }
    void TearDown() override { mChannel.Close(); }

    /// Sends, and turns the loop until it is idle. False when the channel did not take it.
    bool Carry(double celsius) {
        const bool sent = mChannel.Send(celsius);
        while (sd_event_run(mLoop.GetEvent(), 0) > 0) {
        }
        return sent;
    }

    LogCapture mLog;
    PrivateBus mBus;
    mw::tern::ServiceMainLoop mLoop;
    mw::tern::DBusServerManager mManager{""};
    MeasurementChannel mChannel;
    std::vector<double> mMeasured;
};

}  // namespace

// The result of one full send queue was once handed to the loop, which switched the pipe off: no measurement
// was ever announced again, in a service that looked healthy.
TEST_F(MeasurementChannelTest, AfterAFullSendQueueMeasurementsAreSentAgainAndTheLossIsTold) {
    EXPECT_TRUE(Carry(17.0));
    {
        const FaultScope scope(fault_sd_bus_send);
        fault_sd_bus_send.Fail(-ENOBUFS, 0, 10);
        for (int i = 0; i < 10; ++i) {
            EXPECT_TRUE(Carry(18.0));
        }
    }
    EXPECT_TRUE(Carry(19.0));
    EXPECT_THAT(mMeasured, testing::ElementsAre(17.0, 19.0));
    EXPECT_EQ(mLog.Count(tern::test::Warning(
                  "Thermostat", "Measurements cannot be sent (-105, No buffer space available)")),
              1U);
    EXPECT_EQ(mLog.Count(tern::test::Notice("Thermostat", "Measurements are sent again, 10 were lost")), 1U);
}

TEST_F(MeasurementChannelTest, MessagesThatWantOfMemoryKeptBackAreLentLater) {
    {
        const FaultScope scope(fault_sd_bus_message_new_signal);
        fault_sd_bus_message_new_signal.Fail(-ENOMEM, 0, 3);
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(Carry(17.0));
        }
    }
    // All four are on their way again: none of these has to wait for one.
    EXPECT_TRUE(Carry(18.0));
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(mChannel.Send(19.0));
    }
}

// Without a message left nothing would ever come through the pipe again.
TEST_F(MeasurementChannelTest, TheServiceEndsAsFailedWhenNoMessageIsLeft) {
    const FaultScope scope(fault_sd_bus_message_new_signal);
    fault_sd_bus_message_new_signal.Fail(-ENOMEM, 0, 1000);
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(Carry(17.0));
    }
    EXPECT_TRUE(
        mLog.Contains(tern::test::Critical("Thermostat", "No message is left to carry measurements")));
    int code = 0;
    EXPECT_GE(sd_event_get_exit_code(mLoop.GetEvent(), &code), 0);
    EXPECT_EQ(code, -ENOMEM);
}

TEST_F(MeasurementChannelTest, ASenderThatWaitsForAMessageComesBackWhenItIsClosed) {
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(mChannel.Send(17.0));
    }
    std::vector<bool> sent;
    std::thread sender([&] {
        for (int i = 0; i < 20; ++i) {
            sent.push_back(mChannel.Send(18.0));
        }
    });
    mChannel.Close();
    sender.join();
    EXPECT_THAT(sent, testing::Each(false));
}
