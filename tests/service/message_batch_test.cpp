#include "service/message_batch.h"

#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <tern/service/dbus_server_manager.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "foundation/handle.h"
#include "foundation/unique_fd.h"
#include "support/interpose.h"
#include "support/private_bus.h"
#include "support/wait_until.h"

using mw::tern::DBusInterface;
using mw::tern::DBusServerManager;
using mw::tern::EventLoop;
using mw::tern::MessageBatch;
using mw::tern::StatusCode;
using tern::test::FaultScope;

TERN_INTERPOSE(int, epoll_wait, (int fd, epoll_event* events, int most, int timeout),
               (fd, events, most, timeout))
TERN_INTERPOSE(int, epoll_pwait2,
               (int fd, epoll_event* events, int most, const timespec* timeout, const sigset_t* mask),
               (fd, events, most, timeout, mask))
TERN_INTERPOSE(int, sd_bus_process, (sd_bus * bus, sd_bus_message** message), (bus, message))

namespace {

using Bus = mwl::Handle<sd_bus, sd_bus_flush_close_unref>;

constexpr const char* NAME = "com.example.Batch";
constexpr const char* PATH = "/com/example/Batch";
/// As many as a message bus lets one peer have without an answer.
constexpr int CALLS = 120;

class TestLoop : public EventLoop {
public:
    TestLoop() { sd_event_new(&mEvent); }
};

/// One method, "Take" (u), which runs what a test wants and answers.
class Taker : public DBusInterface {
public:
    Taker() : DBusInterface("com.example.Batch1") {}
    const sd_bus_vtable* GetVtable() const override {
        static const sd_bus_vtable table[] = {SdBusVtableStart(SD_BUS_VTABLE_UNPRIVILEGED),
                                              SdBusMethod("Take", "u", "", &OnTake, 0), SdBusVtableEnd()};
        return table;
    }
    void* GetUserData() override { return this; }
    static int OnTake(sd_bus_message* message, void* self, sd_bus_error*) {
        std::uint32_t number = 0;
        sd_bus_message_read(message, "u", &number);
        static_cast<Taker*>(self)->onTake(number);
        return sd_bus_reply_method_return(message, "");
    }
    std::function<void(std::uint32_t)> onTake = [](std::uint32_t) {};
};

/// A service in this thread, and a peer that has sent CALLS calls to it before the loop runs.
class MessageBatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(mServer.Connect(), StatusCode::Ok);
        ASSERT_EQ(mServer.AttachLoop(mLoop), StatusCode::Ok);
        ASSERT_EQ(mServer.AddDBusObject(PATH), StatusCode::Ok);
        mTaker = new Taker();  // the object's from now on
        ASSERT_EQ(mServer.AddInterfaceToDBusObject(PATH, mTaker), StatusCode::Ok);
        ASSERT_EQ(mServer.ExportObject(PATH), StatusCode::Ok);
        mTaker->onTake = [this](std::uint32_t number) {
            mTaken.push_back(number);
            if (mTaken.size() == CALLS) {
                sd_event_exit(mLoop.GetEvent(), 0);
            }
        };
    }
    /// Sends calls of another connection, numbered from 0, and waits until the bus has passed them on.
    void Send(int count = CALLS) {
        sd_bus* bus = nullptr;
        ASSERT_GE(sd_bus_open_system(&bus), 0);
        mPeer.reset(bus);
        for (int i = 0; i < count; ++i) {
            ASSERT_GE(sd_bus_call_method_async(bus, nullptr, NAME, PATH, "com.example.Batch1", "Take",
                                               CountReply, &mReplies, "u", static_cast<std::uint32_t>(i)),
                      0);
        }
        ASSERT_GE(sd_bus_call_method(bus, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId",
                                     nullptr, nullptr, nullptr),
                  0);
    }
    static int CountReply(sd_bus_message* reply, void* replies, sd_bus_error*) {
        *static_cast<int*>(replies) += sd_bus_message_is_method_error(reply, nullptr) > 0 ? 0 : 1;
        return 0;
    }
    void ReadReplies() {
        ASSERT_TRUE(tern::test::WaitUntil([this] {
            while (sd_bus_process(mPeer.get(), nullptr) > 0) {
            }
            return mReplies == static_cast<int>(mTaken.size());
        }));
    }
    /// Until a handler ends the loop; one that waits in vain is ended by STUCK.
    int Run() {
        EXPECT_GE(sd_event_add_time_relative(
                      mLoop.GetEvent(), nullptr, CLOCK_MONOTONIC,
                      std::chrono::microseconds(tern::test::GENEROUS_LIMIT).count(), 0,
                      [](sd_event_source* source, std::uint64_t, void*) {
                          return sd_event_exit(sd_event_source_get_event(source), STUCK);
                      },
                      nullptr),
                  0);
        return sd_event_loop(mLoop.GetEvent());
    }
    static constexpr int STUCK = 77;

    tern::test::PrivateBus mPrivateBus;
    TestLoop mLoop;
    DBusServerManager mServer{NAME};
    Taker* mTaker = nullptr;
    Bus mPeer;
    int mReplies = 0;
    std::vector<std::uint32_t> mTaken;
};

TEST_F(MessageBatchTest, HandlesAllInTheOrderInWhichTheyCame) {
    Send();
    EXPECT_EQ(Run(), 0);
    ASSERT_EQ(mTaken.size(), static_cast<std::size_t>(CALLS));
    for (int i = 0; i < CALLS; ++i) {
        ASSERT_EQ(mTaken[static_cast<std::size_t>(i)], static_cast<std::uint32_t>(i));
    }
    // The last answer waits for the end of the loop, which flushes.
    ReadReplies();
}

TEST_F(MessageBatchTest, AsksTheKernelOnceForManyMessages) {
    Send();
    FaultScope scope(fault_epoll_wait);
    FaultScope scope2(fault_epoll_pwait2);
    int polls = 0;
    fault_epoll_wait.Replace(
        [&](int fd, epoll_event* events, int most, int timeout) {
            ++polls;
            return fault_epoll_wait.Real(fd, events, most, timeout);
        },
        -1);
    fault_epoll_pwait2.Replace(
        [&](int fd, epoll_event* events, int most, const timespec* timeout, const sigset_t* mask) {
            ++polls;
            return fault_epoll_pwait2.Real(fd, events, most, timeout, mask);
        },
        -1);
    EXPECT_EQ(Run(), 0);
    EXPECT_GT(polls, 0);
    // One at a time it would be as many at least, and twice as many where a turn polls twice. On a busy
    // machine a batch is over after a few messages.
    EXPECT_LT(polls, CALLS);
}

// What the loop has besides is done between two batches, whatever the flood.
TEST_F(MessageBatchTest, OtherSourcesHaveTheirTurnDuringAFlood) {
    Send();
    const mwl::UniqueFd ready(eventfd(1, EFD_CLOEXEC));
    std::size_t longest = 0;
    std::size_t last = 0;
    int turns = 0;
    ASSERT_EQ(mLoop.AddIo(ready.Get(), EPOLLIN,
                          [&](sd_event_source*, int, std::uint32_t) {
                              ++turns;
                              longest = std::max(longest, mTaken.size() - last);
                              last = mTaken.size();
                              return StatusCode::Ok;
                          }),
              StatusCode::Ok);
    EXPECT_EQ(Run(), 0);
    EXPECT_EQ(mTaken.size(), static_cast<std::size_t>(CALLS));
    // The loop takes one source a turn: the connection's own, with one message, may come between.
    EXPECT_LE(longest, 2 * MessageBatch::MESSAGES + 1);
    EXPECT_GE(turns, CALLS / static_cast<int>(2 * MessageBatch::MESSAGES + 1));
}

TEST_F(MessageBatchTest, AfterAPeriodOfSlowHandlersOthersHaveTheirTurn) {
    constexpr int FEW = 20;
    mTaker->onTake = [this](std::uint32_t number) {
        mTaken.push_back(number);
        std::this_thread::sleep_for(MessageBatch::PERIOD);
        if (mTaken.size() == FEW) {
            sd_event_exit(mLoop.GetEvent(), 0);
        }
    };
    Send(FEW);
    const mwl::UniqueFd ready(eventfd(1, EFD_CLOEXEC));
    std::size_t longest = 0;
    std::size_t last = 0;
    ASSERT_EQ(mLoop.AddIo(ready.Get(), EPOLLIN,
                          [&](sd_event_source*, int, std::uint32_t) {
                              longest = std::max(longest, mTaken.size() - last);
                              last = mTaken.size();
                              return StatusCode::Ok;
                          }),
              StatusCode::Ok);
    EXPECT_EQ(Run(), 0);
    // One of a batch, one of the connection's own turn, one of the next batch.
    EXPECT_LE(longest, 3U);
}

TEST_F(MessageBatchTest, AHandlerThatEndsTheLoopIsTheLastOne) {
    mTaker->onTake = [this](std::uint32_t number) {
        mTaken.push_back(number);
        if (number == 10) {
            sd_event_exit(mLoop.GetEvent(), 5);
        }
    };
    Send();
    EXPECT_EQ(Run(), 5);
    EXPECT_EQ(mTaken.size(), 11U);
}

TEST_F(MessageBatchTest, CallsOneAtATimeAreRarelyLookedAfter) {
    constexpr int ROUNDS = 80;
    mTaker->onTake = [this](std::uint32_t number) {
        mTaken.push_back(number);
        if (mTaken.size() == ROUNDS) {
            sd_event_exit(mLoop.GetEvent(), 0);
        }
    };
    FaultScope scope(fault_sd_bus_process);
    sd_bus* const own = mServer.GetBus();
    std::atomic<int> looks{0};  // the peer's calls come by as well
    fault_sd_bus_process.Replace(
        [&](sd_bus* bus, sd_bus_message** message) {
            looks += bus == own ? 1 : 0;
            return fault_sd_bus_process.Real(bus, message);
        },
        -1);
    std::thread peer([] {
        sd_bus* bus = nullptr;
        ASSERT_GE(sd_bus_open_system(&bus), 0);
        const Bus owned(bus);
        for (int i = 0; i < ROUNDS; ++i) {
            ASSERT_GE(sd_bus_call_method(bus, NAME, PATH, "com.example.Batch1", "Take", nullptr, nullptr, "u",
                                         static_cast<std::uint32_t>(i)),
                      i + 1 < ROUNDS ? 0 : -ECONNRESET);
        }
    });
    EXPECT_EQ(Run(), 0);
    peer.join();
    // One for each turn of the connection's own source.
    EXPECT_GT(looks.load(), ROUNDS);
    EXPECT_LE(looks.load(), ROUNDS + 2 * ROUNDS / static_cast<int>(MessageBatch::PAUSE) + 10);
}

// As sd-bus does where it has read itself.
TEST_F(MessageBatchTest, AConnectionThatCannotBeReadEndsTheLoopAsFailed) {
    Send();
    FaultScope scope(fault_sd_bus_process);
    sd_bus* const own = mServer.GetBus();
    fault_sd_bus_process.Replace(
        [&](sd_bus* bus, sd_bus_message** message) {
            return bus == own ? -EBADMSG : fault_sd_bus_process.Real(bus, message);
        },
        -1);
    EXPECT_EQ(Run(), -ECONNRESET);
}

// It was closed at once: a call's handler never ran, as it does where sd-bus has read itself.
TEST_F(MessageBatchTest, WhoeverWaitsForAReplyIsToldOfAConnectionThatCannotBeRead) {
    Send();
    sd_bus* const own = mServer.GetBus();
    const char* peer = nullptr;
    ASSERT_GE(sd_bus_get_unique_name(mPeer.get(), &peer), 0);
    std::vector<std::string> told;
    ASSERT_GE(sd_bus_call_method_async(
                  own, nullptr, peer, "/", "com.example.Batch1", "Never",
                  [](sd_bus_message* reply, void* events, sd_bus_error*) {
                      EXPECT_TRUE(sd_bus_message_is_method_error(reply, SD_BUS_ERROR_NO_REPLY));
                      static_cast<std::vector<std::string>*>(events)->emplace_back("no reply");
                      return 0;
                  },
                  &told, ""),
              0);
    ASSERT_GE(sd_bus_match_signal(
                  own, nullptr, "org.freedesktop.DBus.Local", "/org/freedesktop/DBus/Local",
                  "org.freedesktop.DBus.Local", "Disconnected",
                  [](sd_bus_message*, void* events, sd_bus_error*) {
                      static_cast<std::vector<std::string>*>(events)->emplace_back("disconnected");
                      return 0;
                  },
                  &told),
              0);
    // A message behind another one of a batch: nothing has waited in between.
    bool hasWaited = true;
    bool hasFailed = false;
    FaultScope scope(fault_sd_bus_process);
    FaultScope scope2(fault_epoll_wait);
    FaultScope scope3(fault_epoll_pwait2);
    fault_sd_bus_process.Replace(
        [&](sd_bus* bus, sd_bus_message** message) {
            if (bus == own && !std::exchange(hasWaited, false) && !std::exchange(hasFailed, true)) {
                return -EBADMSG;
            }
            return fault_sd_bus_process.Real(bus, message);
        },
        -1);
    fault_epoll_wait.Replace(
        [&](int fd, epoll_event* events, int most, int timeout) {
            hasWaited = true;
            return fault_epoll_wait.Real(fd, events, most, timeout);
        },
        -1);
    fault_epoll_pwait2.Replace(
        [&](int fd, epoll_event* events, int most, const timespec* timeout, const sigset_t* mask) {
            hasWaited = true;
            return fault_epoll_pwait2.Real(fd, events, most, timeout, mask);
        },
        -1);
    EXPECT_EQ(Run(), -ECONNRESET);
    EXPECT_TRUE(hasFailed);
    EXPECT_EQ(told, (std::vector<std::string>{"no reply", "disconnected"}));
}

}  // namespace
