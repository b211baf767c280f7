#pragma once

// What the tests of MessagePipe share. Include it in the one source of a test program.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <systemd/sd-event.h>
#include <tern/service/event_loop.h>
#include <tern/service/message_pipe.h>
#include <tern/threading/stop_signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <random>
#include <thread>
#include <vector>

#include "support/allocations.h"
#include "support/child.h"
#include "support/interpose.h"
#include "support/log_capture.h"
#include "support/process_resources.h"
#include "support/wait_until.h"
#include "threading/thread_state.h"

TERN_INTERPOSE(int, pipe2, (int* fds, int flags), (fds, flags))
TERN_INTERPOSE(int, poll, (pollfd * records, nfds_t count, int timeout), (records, count, timeout))
TERN_INTERPOSE(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))

namespace tern::test::pipes {

using mw::tern::EventLoop;
using mw::tern::MessagePipe;
using mw::tern::StatusCode;
using mwl::Threading::StopSignal;
using tern::test::ChildResult;
using tern::test::CountDescriptors;
using tern::test::Error;
using tern::test::FaultScope;
using tern::test::Info;
using tern::test::IsAsleep;
using tern::test::LogCapture;
using tern::test::OtherThread;
using tern::test::RunInChild;
using tern::test::WaitUntil;
using testing::ElementsAre;
using testing::IsEmpty;

inline constexpr unsigned int GENEROUS_MS = 30000;

/// Sends the stop signal until the thread has left its system call, however early the first one came.
inline void StopUntil(std::thread& thread, const std::atomic<bool>& left) {
    EXPECT_TRUE(WaitUntil([&] {
        StopSignal::SendToThread(thread.native_handle());
        return left.load();
    }));
}

inline int BytesIn(const MessagePipe& pipe) {
    int bytes = 0;
    ioctl(pipe.GetReadFd(), FIONREAD, &bytes);
    return bytes;
}

/// A message that shows whether it arrived whole.
struct Message {
    unsigned int writer = 0;
    unsigned int number = 0;
    std::array<unsigned int, 62> filling{};

    Message() = default;
    Message(unsigned int fromWriter, unsigned int withNumber) : writer(fromWriter), number(withNumber) {
        filling.fill(fromWriter * 1000003U + withNumber);
    }
    bool IsWhole() const { return filling == Message(writer, number).filling; }
};

inline constexpr unsigned int WRITERS = 4;
inline constexpr unsigned int MESSAGES_A_WRITER = 500;

/// Four writers of so many messages each; joined at the end of the block.
class Writers {
public:
    explicit Writers(MessagePipe& pipe) {
        for (unsigned int writer = 0; writer < WRITERS; ++writer) {
            mThreads.emplace_back([&pipe, writer] {
                for (unsigned int number = 0; number < MESSAGES_A_WRITER; ++number) {
                    const Message message(writer, number);
                    EXPECT_EQ(pipe.WriteMessage(&message, sizeof message), StatusCode::Ok);
                }
            });
        }
    }
    ~Writers() {
        for (std::thread& thread : mThreads) {
            thread.join();
        }
    }
    Writers(const Writers&) = delete;
    Writers& operator=(const Writers&) = delete;

private:
    std::vector<std::thread> mThreads;
};

/// Checks that the messages are whole and each writer's are in order.
class Receiver {
public:
    void Take(const Message& message) {
        ASSERT_TRUE(message.IsWhole());
        ASSERT_LT(message.writer, WRITERS);
        ASSERT_EQ(message.number, mNext[message.writer]++);
        ++mCount;
    }
    bool HasAll() const { return mCount == WRITERS * MESSAGES_A_WRITER; }

private:
    std::array<unsigned int, WRITERS> mNext{};
    unsigned int mCount = 0;
};

class TestLoop : public EventLoop {
public:
    TestLoop() { sd_event_new(&mEvent); }
};

class MessagePipeTest : public testing::Test {
protected:
    void Initialize() { ASSERT_EQ(pipe.Initialize(), StatusCode::Ok); }

    /// A pipe with room for one message of PIPE_BUF bytes, which is in it.
    void InitializeFull() {
        Initialize();
        ASSERT_EQ(fcntl(pipe.GetWriteFd(), F_SETPIPE_SZ, PIPE_BUF), PIPE_BUF);
        ASSERT_EQ(pipe.WriteMessage(page.data(), sizeof page), StatusCode::Ok);
        ASSERT_EQ(BytesIn(pipe), PIPE_BUF);
    }

    /// Checks that nothing is left and that the read end says so, as at a pipe without a writer.
    void ExpectEndOfFile() {
        char byte = 'a';
        EXPECT_EQ(read(pipe.GetReadFd(), &byte, 1), 0);
    }

    LogCapture log;
    MessagePipe pipe;
    std::array<char, PIPE_BUF> page{};
    std::thread closer;
};

inline const auto CLOSED = Info("Service", "[MessagePipe] Pipe is closed");

}  // namespace tern::test::pipes
