#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/dbus_message_pipe.h>
#include <tern/service/event_loop.h>

#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "foundation/handle.h"
#include "support/log_capture.h"
#include "support/private_bus.h"
#include "support/wait_until.h"

using mw::tern::DBusMessagePipe;
using mw::tern::EventLoop;
using mw::tern::MessagePipe;
using mw::tern::StatusCode;
using tern::test::Error;
using tern::test::LogCapture;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Bus = mwl::Handle<sd_bus, sd_bus_flush_close_unref>;

class TestLoop : public EventLoop {
public:
    TestLoop() { sd_event_new(&mEvent); }
};

/// A value that is never followed, only compared.
sd_bus_message* Unfollowed(std::size_t value) {
    return reinterpret_cast<sd_bus_message*>(value);
}

class DBusMessagePipeTest : public testing::Test {
protected:
    void Initialize() { ASSERT_EQ(pipe.Initialize(), StatusCode::Ok); }

    LogCapture log;
    DBusMessagePipe pipe;
};

}  // namespace

TEST_F(DBusMessagePipeTest, IsAMessagePipeWithoutFieldsOfItsOwn) {
    EXPECT_TRUE((std::is_base_of_v<MessagePipe, DBusMessagePipe>));
    EXPECT_EQ(sizeof(DBusMessagePipe), sizeof(MessagePipe));
}

TEST_F(DBusMessagePipeTest, RefusesToReadAndWriteBeforeInitialize) {
    sd_bus_message* message = Unfollowed(0x10);
    EXPECT_EQ(pipe.WriteMessage(message), StatusCode::NotInitialized);
    EXPECT_EQ(pipe.ReadMessage(message), StatusCode::NotInitialized);
    EXPECT_EQ(message, Unfollowed(0x10));
    EXPECT_THAT(log.Entries(), ElementsAre(Error("Service", "[MessagePipe] Pipe is not initialized yet"),
                                           Error("Service", "[MessagePipe] Pipe is not initialized yet")));
}

TEST_F(DBusMessagePipeTest, MessageIsOnePointerOfThePlatform) {
    Initialize();
    ASSERT_EQ(pipe.WriteMessage(Unfollowed(static_cast<std::size_t>(-16))), StatusCode::Ok);
    int bytes = 0;
    ioctl(pipe.GetReadFd(), FIONREAD, &bytes);
    EXPECT_EQ(bytes, static_cast<int>(sizeof(sd_bus_message*)));
    sd_bus_message* message = nullptr;
    EXPECT_EQ(pipe.ReadMessage(message), StatusCode::Ok);
    EXPECT_EQ(message, Unfollowed(static_cast<std::size_t>(-16))) << "every bit of it arrived";
}

TEST_F(DBusMessagePipeTest, ReadingAnEmptyPipeReturnsAtOnceAndLeavesTheArgument) {
    Initialize();
    sd_bus_message* message = Unfollowed(0x20);
    EXPECT_EQ(pipe.ReadMessage(message), StatusCode::ResourceUnavailable);
    EXPECT_EQ(message, Unfollowed(0x20));
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "[MessagePipe] ReadMessage fails : Resource temporarily unavailable")));
}

TEST_F(DBusMessagePipeTest, PartOfAPointerLeavesTheArgument) {
    Initialize();
    ASSERT_EQ(static_cast<MessagePipe&>(pipe).WriteMessage("abc", 3), StatusCode::Ok);
    sd_bus_message* message = Unfollowed(0x30);
    EXPECT_EQ(pipe.ReadMessage(message), StatusCode::IoError);
    EXPECT_EQ(message, Unfollowed(0x30));
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service", "[MessagePipe] ReadMessage fails : Input/output error")));
}

// The way it is meant: messages of the bus's thread go to a worker and come back to be released there.
TEST_F(DBusMessagePipeTest, MessagesReachAWorkerAndComeBackToBeReleasedOnTheBusThread) {
    constexpr std::size_t COUNT = 100;
    const tern::test::PrivateBus privateBus;
    sd_bus* opened = nullptr;
    ASSERT_GE(sd_bus_open_system(&opened), 0);
    const Bus bus(opened);
    DBusMessagePipe back;
    Initialize();
    ASSERT_EQ(back.Initialize(), StatusCode::Ok);

    std::thread worker([&] {
        TestLoop loop;
        std::size_t seen = 0;
        EXPECT_EQ(loop.AddIo(pipe.GetReadFd(), POLLIN,
                             [&](sd_event_source*, int, unsigned int) {
                                 sd_bus_message* message = nullptr;
                                 EXPECT_EQ(pipe.ReadMessage(message), StatusCode::Ok);
                                 EXPECT_STREQ(sd_bus_message_get_member(message), "Changed");
                                 EXPECT_EQ(back.WriteMessage(message), StatusCode::Ok);
                                 ++seen;
                                 return StatusCode::Ok;
                             }),
                  StatusCode::Ok);
        while (seen < COUNT && sd_event_run(loop.GetEvent(), UINT64_C(30000000)) > 0) {
        }
        EXPECT_EQ(seen, COUNT);
    });

    std::vector<sd_bus_message*> sent;
    for (std::size_t i = 0; i < COUNT; ++i) {
        sd_bus_message* message = nullptr;
        EXPECT_GE(sd_bus_message_new_signal(bus.get(), &message, "/org/example", "org.example.If", "Changed"),
                  0);
        EXPECT_EQ(pipe.WriteMessage(message), StatusCode::Ok);
        sent.push_back(message);
    }
    worker.join();
    std::vector<sd_bus_message*> returned;
    for (std::size_t i = 0; i < COUNT; ++i) {
        sd_bus_message* message = nullptr;
        EXPECT_EQ(back.ReadMessage(message), StatusCode::Ok);
        returned.push_back(message);
        sd_bus_message_unref(message);
    }
    EXPECT_EQ(returned, sent);
    EXPECT_THAT(log.Entries(), IsEmpty());
}
