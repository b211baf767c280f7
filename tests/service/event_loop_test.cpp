#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <systemd/sd-event.h>
#include <tern/service/event_loop.h>
#include <unistd.h>

#include <csignal>
#include <memory>
#include <vector>

#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

using mw::tern::EventIoContext;
using mw::tern::EventLoop;
using mw::tern::StatusCode;

TERN_INTERPOSE(int, sd_event_source_set_enabled, (sd_event_source * source, int enabled), (source, enabled))

namespace {

/// A loop of the test's own, not the thread's default.
class TestLoop : public EventLoop {
public:
    TestLoop() { sd_event_new(&mEvent); }
    /// Dispatches one event if there is one; returns sd_event_run's result.
    int RunOnce() { return sd_event_run(mEvent, 0); }
};

class EventLoopTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(pipe2(mEnds, O_CLOEXEC | O_NONBLOCK), 0); }
    void TearDown() override {
        CloseReader();
        close(mEnds[1]);
    }
    int Reader() const { return mEnds[0]; }
    void MakeReadable() { ASSERT_EQ(write(mEnds[1], "x", 1), 1); }
    void CloseReader() {
        if (mEnds[0] >= 0) {
            close(mEnds[0]);
            mEnds[0] = -1;
        }
    }
    EventIoContext::Callback Counting(StatusCode result = StatusCode::Ok) {
        return [this, result](sd_event_source*, int, unsigned int) {
            ++mCalls;
            return result;
        };
    }

    tern::test::LogCapture mLog;
    TestLoop mLoop;
    int mEnds[2] = {-1, -1};
    int mCalls = 0;
};

}  // namespace

TEST_F(EventLoopTest, CallbackGetsSourceDescriptorAndEvents) {
    sd_event_source* seenSource = nullptr;
    int seenFd = -1;
    unsigned int seenEvents = 0;
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN,
                          [&](sd_event_source* source, int fd, unsigned int revents) {
                              seenSource = source;
                              seenFd = fd;
                              seenEvents = revents;
                              return StatusCode::Ok;
                          }),
              StatusCode::Ok);
    EXPECT_EQ(mLoop.RunOnce(), 0);
    EXPECT_EQ(seenSource, nullptr) << "nothing to read yet";
    MakeReadable();
    EXPECT_GT(mLoop.RunOnce(), 0);
    ASSERT_NE(seenSource, nullptr);
    EXPECT_EQ(sd_event_source_get_event(seenSource), mLoop.GetEvent());
    EXPECT_EQ(seenFd, Reader());
    EXPECT_EQ(seenEvents, static_cast<unsigned int>(POLLIN));
    EXPECT_THAT(mLog.Entries(), testing::IsEmpty());
}

TEST_F(EventLoopTest, RemovingAnUnknownDescriptorChangesNothing) {
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN, Counting()), StatusCode::Ok);
    EXPECT_EQ(mLoop.RemoveIo(Reader() + 1000), StatusCode::InvalidArgument);
    EXPECT_EQ(mLoop.RemoveIo(-1), StatusCode::InvalidArgument);
    MakeReadable();
    mLoop.RunOnce();
    EXPECT_EQ(mCalls, 1);
    EXPECT_THAT(mLog.Entries(), testing::IsEmpty());
}

TEST_F(EventLoopTest, RemovedDescriptorIsNotWatchedAnyMore) {
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN, Counting()), StatusCode::Ok);
    EXPECT_EQ(mLoop.RemoveIo(Reader()), StatusCode::Ok);
    MakeReadable();
    EXPECT_EQ(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 0);
    EXPECT_EQ(mLoop.RemoveIo(Reader()), StatusCode::InvalidArgument);
    EXPECT_EQ(mLoop.AddIo(Reader(), POLLIN, Counting()), StatusCode::Ok) << "may be added again";
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 1);
}

TEST_F(EventLoopTest, FailingCallbackIsSwitchedOffButStaysRegistered) {
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN, Counting(StatusCode::Failure)), StatusCode::Ok);
    MakeReadable();
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 1);
    EXPECT_EQ(mLoop.RemoveIo(Reader()), StatusCode::Ok);
}

TEST_F(EventLoopTest, RefusedDescriptorsGiveSdEventsErrorAndLeaveTheRegistryAlone) {
    const tern::test::TempFolder folder;
    const int file = open((folder / "file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(file, 0);
    const auto token = std::make_shared<int>(0);
    const auto callback = [token](sd_event_source*, int, unsigned int) { return StatusCode::Ok; };
    EXPECT_EQ(mLoop.AddIo(-1, POLLIN, callback), StatusCode::InvalidArgument);
    EXPECT_EQ(mLoop.AddIo(1000, POLLIN, callback), StatusCode::InvalidArgument);
    EXPECT_EQ(mLoop.AddIo(file, POLLIN, callback), StatusCode::NotPermitted);
    for (const int fd : {-1, 1000, file}) {
        EXPECT_EQ(mLoop.RemoveIo(fd), StatusCode::InvalidArgument) << fd;
    }
    EXPECT_EQ(token.use_count(), 2) << "refused callbacks are destroyed";
    close(file);
    EXPECT_THAT(mLog.Entries(), testing::IsEmpty());
}

TEST_F(EventLoopTest, LoopThatWasNeverMadeRefuses) {
    EventLoop loop;
    EXPECT_EQ(loop.GetEvent(), nullptr);
    EXPECT_EQ(loop.AddIo(Reader(), POLLIN, Counting()), StatusCode::InvalidArgument);
    EXPECT_EQ(loop.RemoveIo(Reader()), StatusCode::InvalidArgument);
}

TEST_F(EventLoopTest, WatchedDescriptorAddedAgainGivesSdEventsRefusal) {
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN, Counting()), StatusCode::Ok);
    bool second = false;
    EXPECT_EQ(mLoop.AddIo(Reader(), POLLIN,
                          [&](sd_event_source*, int, unsigned int) {
                              second = true;
                              return StatusCode::Ok;
                          }),
              StatusCode::AlreadyExists);
    MakeReadable();
    mLoop.RunOnce();
    EXPECT_EQ(mCalls, 1);
    EXPECT_FALSE(second);
}

TEST_F(EventLoopTest, SecondWatchOfASwitchedOffDescriptorLivesUntilTheLoopEnds) {
    const auto token = std::make_shared<int>(0);
    {
        TestLoop loop;
        ASSERT_EQ(loop.AddIo(Reader(), POLLIN, Counting(StatusCode::Failure)), StatusCode::Ok);
        MakeReadable();
        ASSERT_GT(loop.RunOnce(), 0);
        int secondCalls = 0;
        EXPECT_EQ(loop.AddIo(Reader(), POLLIN,
                             [&secondCalls, token](sd_event_source*, int, unsigned int) {
                                 ++secondCalls;
                                 return StatusCode::Ok;
                             }),
                  StatusCode::Ok);
        EXPECT_GT(loop.RunOnce(), 0);
        EXPECT_EQ(secondCalls, 1);
        EXPECT_EQ(loop.RemoveIo(Reader()), StatusCode::Ok) << "means the first";
        EXPECT_EQ(loop.RemoveIo(Reader()), StatusCode::InvalidArgument);
        EXPECT_EQ(token.use_count(), 2);
        EXPECT_GT(loop.RunOnce(), 0);
        EXPECT_EQ(secondCalls, 2) << "it is watched still";
    }
    EXPECT_EQ(token.use_count(), 1) << "nothing leaks";
}

// The number is what the kernel's list of the loop goes by.
TEST_F(EventLoopTest, WatchOfAReusedNumberEndsWithTheOldWatchThatNobodyRemoved) {
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN, Counting()), StatusCode::Ok);
    int fresh[2];
    ASSERT_EQ(pipe2(fresh, O_CLOEXEC), 0);
    ASSERT_EQ(dup3(fresh[0], Reader(), O_CLOEXEC), Reader()) << "closes the watched one";
    int freshCalls = 0;
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN,
                          [&](sd_event_source*, int, unsigned int) {
                              ++freshCalls;
                              return StatusCode::Ok;
                          }),
              StatusCode::Ok);
    ASSERT_EQ(write(fresh[1], "x", 1), 1);
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(freshCalls, 1);
    EXPECT_EQ(mLoop.RemoveIo(Reader()), StatusCode::Ok);
    EXPECT_EQ(mLoop.RunOnce(), 0);
    EXPECT_EQ(freshCalls, 1);
    EXPECT_EQ(mCalls, 0);
    close(fresh[0]);
    close(fresh[1]);
}

TEST_F(EventLoopTest, CallbackMayRemoveItsOwnWatch) {
    // The captured text lies in the callback itself: it must outlive the removal until the call returns.
    const std::string text = "a text long enough to live on the heap of the callback";
    std::string seenAfterwards;
    StatusCode removed = StatusCode::Failure;
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN,
                          [&, text](sd_event_source*, int fd, unsigned int) {
                              removed = mLoop.RemoveIo(fd);
                              seenAfterwards = text;
                              return StatusCode::Ok;
                          }),
              StatusCode::Ok);
    MakeReadable();
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(removed, StatusCode::Ok);
    EXPECT_EQ(seenAfterwards, text);
    EXPECT_EQ(mLoop.RunOnce(), 0);
    EXPECT_EQ(mLoop.RemoveIo(Reader()), StatusCode::InvalidArgument);
}

TEST_F(EventLoopTest, CallbackMayRemoveItsOwnWatchAndFail) {
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN,
                          [&](sd_event_source*, int fd, unsigned int) {
                              EXPECT_EQ(mLoop.RemoveIo(fd), StatusCode::Ok);
                              return StatusCode::Failure;
                          }),
              StatusCode::Ok);
    MakeReadable();
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(mLoop.RunOnce(), 0);
    EXPECT_EQ(mLoop.RemoveIo(Reader()), StatusCode::InvalidArgument);
    EXPECT_EQ(mLoop.AddIo(Reader(), POLLIN, Counting()), StatusCode::Ok);
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 1);
}

TEST_F(EventLoopTest, CallbackMayRemoveAnotherWatchThatIsReadyToo) {
    int other[2];
    ASSERT_EQ(pipe2(other, O_CLOEXEC), 0);
    const auto removing = [&](int victim) {
        return [this, victim](sd_event_source*, int, unsigned int) {
            ++mCalls;
            EXPECT_EQ(mLoop.RemoveIo(victim), StatusCode::Ok);
            return StatusCode::Ok;
        };
    };
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN, removing(other[0])), StatusCode::Ok);
    ASSERT_EQ(mLoop.AddIo(other[0], POLLIN, removing(Reader())), StatusCode::Ok);
    MakeReadable();
    ASSERT_EQ(write(other[1], "x", 1), 1);
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 1);
    // Whichever came first has ended the other, and only that.
    const StatusCode first = mLoop.RemoveIo(Reader());
    const StatusCode second = mLoop.RemoveIo(other[0]);
    EXPECT_NE(first == StatusCode::Ok, second == StatusCode::Ok);
    EXPECT_EQ(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 1);
    close(other[0]);
    close(other[1]);
}

TEST_F(EventLoopTest, CallbackMayReplaceItself) {
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN,
                          [&](sd_event_source*, int fd, unsigned int) {
                              mLoop.RemoveIo(fd);
                              return mLoop.AddIo(fd, POLLIN, Counting());
                          }),
              StatusCode::Ok);
    MakeReadable();
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 0);
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 1);
}

TEST_F(EventLoopTest, WatchThatCannotBeSwitchedOffIsKept) {
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN, Counting()), StatusCode::Ok);
    {
        const tern::test::FaultScope scope(fault_sd_event_source_set_enabled);
        fault_sd_event_source_set_enabled.Fail(-ENOMEM);
        EXPECT_EQ(mLoop.RemoveIo(Reader()), StatusCode::OutOfMemory);
    }
    MakeReadable();
    EXPECT_GT(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 1);
    EXPECT_EQ(mLoop.RemoveIo(Reader()), StatusCode::Ok);
}

TEST_F(EventLoopTest, EmptyCallbackRaisesThroughTheLoop) {
    MakeReadable();
    // In a child: what sd-event holds while it dispatches is lost when an exception passes through it.
    const tern::test::ChildResult child = tern::test::RunInChild([&] {
        TestLoop loop;  // a loop does not survive fork(2)
        if (loop.AddIo(Reader(), POLLIN, nullptr) != StatusCode::Ok) {
            return 1;
        }
        try {
            loop.RunOnce();
        } catch (const std::bad_function_call&) {
            return 42;
        }
        return 2;
    });
#if defined(__arm__)
    // The C library of the event loop has no tables there by which an exception could pass.
    EXPECT_EQ(child.signal, SIGABRT);
    EXPECT_THAT(child.error, testing::HasSubstr("bad_function_call"));
#else
    EXPECT_EQ(child.exitCode, 42) << child.error;
#endif
}

TEST_F(EventLoopTest, DescriptorClosedWhileWatchedIsQuietAndCanBeRemoved) {
    ASSERT_EQ(mLoop.AddIo(Reader(), POLLIN, Counting()), StatusCode::Ok);
    const int fd = Reader();
    CloseReader();
    EXPECT_EQ(mLoop.RunOnce(), 0);
    EXPECT_EQ(mCalls, 0);
    EXPECT_EQ(mLoop.RemoveIo(fd), StatusCode::Ok);
    EXPECT_EQ(mLoop.RemoveIo(fd), StatusCode::InvalidArgument);
}

TEST_F(EventLoopTest, DestructionReleasesLoopSourcesAndCallbacks) {
    const auto token = std::make_shared<int>(0);
    sd_event* event = nullptr;
    {
        TestLoop loop;
        event = sd_event_ref(loop.GetEvent());
        ASSERT_EQ(loop.AddIo(Reader(), POLLIN,
                             [token](sd_event_source*, int, unsigned int) { return StatusCode::Ok; }),
                  StatusCode::Ok);
    }
    EXPECT_EQ(token.use_count(), 1);
    MakeReadable();
    EXPECT_EQ(sd_event_run(event, 0), 0) << "no source is left in the loop";
    sd_event_unref(event);
    EXPECT_EQ(fcntl(Reader(), F_GETFD), FD_CLOEXEC) << "the descriptor belongs to the caller";
}

// The descriptor's owner is kept by its own callback, and tidies up in its destructor: the registry was in
// the middle of its own destruction there.
TEST_F(EventLoopTest, CallbacksThatRemoveTheirWatchWhenTheyAreDestroyedAreDestroyedWithTheLoop) {
    constexpr int MANY = 5;
    int others[MANY] = {};
    std::vector<StatusCode> removals;
    {
        TestLoop loop;
        const auto owner = [&](int fd) {
            return std::shared_ptr<int>(new int(fd), [&](const int* number) {
                removals.push_back(loop.RemoveIo(*number));
                EXPECT_EQ(loop.AddIo(*number, POLLIN, Counting()), StatusCode::InvalidArgument) << "no loop";
                EXPECT_EQ(loop.GetEvent(), nullptr);
                delete number;
            });
        };
        for (int& fd : others) {
            fd = dup(Reader());
            ASSERT_EQ(loop.AddIo(fd, POLLIN, [self = owner(fd)](auto...) { return StatusCode::Ok; }),
                      StatusCode::Ok);
        }
        // One that stands in no entry.
        ASSERT_EQ(loop.AddIo(Reader(), POLLIN, Counting(StatusCode::Failure)), StatusCode::Ok);
        MakeReadable();
        while (mCalls == 0) {
            ASSERT_GT(loop.RunOnce(), 0);
        }
        ASSERT_EQ(loop.AddIo(Reader(), POLLIN, [self = owner(Reader())](auto...) { return StatusCode::Ok; }),
                  StatusCode::Ok);
    }
    EXPECT_THAT(removals, testing::SizeIs(MANY + 1));
    EXPECT_THAT(removals, testing::Each(StatusCode::InvalidArgument)) << "the loop has ended already";
    for (const int fd : others) {
        close(fd);
    }
}
