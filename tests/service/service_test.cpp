#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/service.h>

#include <cstdlib>
#include <memory>
#include <thread>

#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/private_bus.h"

using mw::tern::StatusCode;
using mwl::DBusService::Service;
using tern::test::Error;
using tern::test::FaultScope;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

TERN_INTERPOSE(int, sd_event_default, (sd_event * *event), (event))
TERN_INTERPOSE(int, sd_bus_attach_event, (sd_bus * bus, sd_event* event, int priority),
               (bus, event, priority))
TERN_INTERPOSE(sd_bus*, sd_bus_unref, (sd_bus * bus), (bus))
TERN_INTERPOSE(sd_event*, sd_event_unref, (sd_event * event), (event))

namespace {

constexpr const char* LOGGER = "DBusService::Service";

class ServiceTest : public testing::Test {
protected:
    tern::test::PrivateBus mBus;
    tern::test::LogCapture mLog;
};

}  // namespace

TEST_F(ServiceTest, InitializesLoopConnectionAndAttachment) {
    Service service("com.example.Service");
    EXPECT_EQ(service.Initialize(), StatusCode::Ok);
    ASSERT_NE(service.GetEventLoop().GetEvent(), nullptr);
    ASSERT_NE(service.GetServerManager().GetBus(), nullptr);
    EXPECT_EQ(sd_bus_get_event(service.GetServerManager().GetBus()), service.GetEventLoop().GetEvent());
    EXPECT_THAT(mLog.Entries(), IsEmpty());
}

TEST_F(ServiceTest, LoopFailureSkipsTheRest) {
    const FaultScope scope(fault_sd_event_default);
    fault_sd_event_default.Fail(-ENOMEM);
    Service service("com.example.Service");
    EXPECT_EQ(service.Initialize(), StatusCode::OutOfMemory);
    EXPECT_EQ(service.GetServerManager().GetBus(), nullptr);
    EXPECT_THAT(mLog.Entries(LOGGER), ElementsAre(Error(LOGGER, "mMainLoop.Init() FAILED with return 51")));
}

TEST_F(ServiceTest, ConnectionFailureSkipsTheAttachment) {
    const FaultScope scope(fault_sd_bus_attach_event);
    fault_sd_bus_attach_event.Fail(-ENOMEM);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    Service service("com.example.Service");
    EXPECT_EQ(service.Initialize(), StatusCode::NotFound);
    EXPECT_EQ(fault_sd_bus_attach_event.Calls(), 0);
    EXPECT_THAT(mLog.Entries(LOGGER),
                ElementsAre(Error(LOGGER, "mServerManager.Connect() FAILED with return 44")));
}

TEST_F(ServiceTest, AttachmentFailureIsReported) {
    const FaultScope scope(fault_sd_bus_attach_event);
    fault_sd_bus_attach_event.Fail(-ENOMEM);
    Service service("com.example.Service");
    EXPECT_EQ(service.Initialize(), StatusCode::OutOfMemory);
    EXPECT_THAT(mLog.Entries(LOGGER),
                ElementsAre(Error(LOGGER, "mServerManager.AttachLoop() FAILED with return 51")));
}

TEST_F(ServiceTest, RunReturnsWhatTheLoopReturns) {
    Service service("com.example.Service");
    ASSERT_EQ(service.Initialize(), StatusCode::Ok);
    ASSERT_EQ(mw::tern::ServiceMainLoop::BlockSignalsForRunningThread(), StatusCode::Ok);
    sd_event_exit(service.GetEventLoop().GetEvent(), -ETIMEDOUT);
    EXPECT_EQ(service.Run(), StatusCode::Timeout);
}

TEST_F(ServiceTest, ReleasesTheBusThenTheLoopThenTheWatches) {
    std::vector<std::string> events;
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    {
        Service service("com.example.Service");
        ASSERT_EQ(service.Initialize(), StatusCode::Ok);
        const std::shared_ptr<void> token(nullptr, [&](void*) { events.emplace_back("watch"); });
        ASSERT_EQ(service.GetEventLoop().AddIo(
                      ends[0], 1, [token](sd_event_source*, int, unsigned int) { return StatusCode::Ok; }),
                  StatusCode::Ok);
        fault_sd_bus_unref.Replace([&](sd_bus* bus) {
            events.emplace_back("bus");
            return fault_sd_bus_unref.Real(bus);
        });
        fault_sd_event_unref.Replace([&](sd_event* event) {
            events.emplace_back("loop");
            return fault_sd_event_unref.Real(event);
        });
    }
    fault_sd_bus_unref.Reset();
    fault_sd_event_unref.Reset();
    close(ends[0]);
    close(ends[1]);
    EXPECT_THAT(events, ElementsAre("bus", "loop", "watch"));
}
