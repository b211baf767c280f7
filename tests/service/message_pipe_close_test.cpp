// Close: who waits is woken, and nothing that was written is lost.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <systemd/sd-event.h>
#include <tern/threading/stop_signal.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "service/message_pipe_fixture.h"
#include "support/allocations.h"
#include "threading/thread_state.h"

using namespace tern::test::pipes;

TEST_F(MessagePipeTest, CloseBeforeInitializeHasNoEffect) {
    pipe.Close();
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::NotInitialized);
    log.Clear();
    Initialize();
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(MessagePipeTest, ClosedPipeRefusesEveryLaterMessageAndLogsItOnce) {
    Initialize();
    pipe.Close();
    EXPECT_EQ(pipe.GetWriteFd(), -1);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::IoError);
        pipe.Close();
    }
    EXPECT_THAT(log.Entries(), ElementsAre(CLOSED));
    ExpectEndOfFile();
}

TEST(MessagePipe, CloseLeavesOneDescriptorAndTheDestructorNone) {
    const std::size_t before = CountDescriptors();
    {
        MessagePipe pipe;
        ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
        pipe.Close();
        EXPECT_EQ(CountDescriptors(), before + 1);
    }
    EXPECT_EQ(CountDescriptors(), before);
}

TEST_F(MessagePipeTest, WhatWasWrittenBeforeCloseIsReadAndThenEndOfFile) {
    Initialize();
    EXPECT_EQ(pipe.WriteMessage("ab", 2), StatusCode::Ok);
    EXPECT_EQ(pipe.WriteMessage("cd", 2), StatusCode::Ok);
    pipe.Close();
    char message[3] = {};
    EXPECT_EQ(pipe.ReadMessage(message, 2, 0), StatusCode::Ok);
    EXPECT_STREQ(message, "ab");
    EXPECT_EQ(pipe.ReadMessage(message, 2, GENEROUS_MS), StatusCode::Ok);
    EXPECT_STREQ(message, "cd");
    EXPECT_THAT(log.Entries(), IsEmpty());
    EXPECT_EQ(pipe.ReadMessage(message, 2, GENEROUS_MS), StatusCode::IoError);
    EXPECT_THAT(log.Entries(), ElementsAre(CLOSED));
}

TEST_F(MessagePipeTest, ClosedPipeCanBeMadeAnew) {
    Initialize();
    const int oldRead = pipe.GetReadFd();
    pipe.Close();
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::IoError);
    Initialize();
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    pipe.Close();
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::IoError);
    EXPECT_THAT(log.Entries(), ElementsAre(CLOSED, CLOSED)) << "once a pipe";
    EXPECT_EQ(close(oldRead), 0);
}

// The reader has gone and the pipe still holds its read end: before there was Close, nothing ended this wait.
TEST_F(MessagePipeTest, CloseEndsTheWaitAtAFullPipeAndKeepsWhatWasWritten) {
    InitializeFull();
    {
        OtherThread writer([&] {
            std::array<char, PIPE_BUF> more{};
            more.fill('m');
            EXPECT_EQ(pipe.WriteMessage(more.data(), sizeof more), StatusCode::IoError);
        });
        ASSERT_TRUE(writer.IsHeldUp());
        pipe.Close();
    }
    EXPECT_THAT(log.Entries(), ElementsAre(CLOSED));
    EXPECT_EQ(BytesIn(pipe), PIPE_BUF);
    page.fill('x');
    EXPECT_EQ(pipe.ReadMessage(page.data(), sizeof page, 0), StatusCode::Ok);
    EXPECT_EQ(page.front(), 0);
    EXPECT_EQ(page.back(), 0);
    ExpectEndOfFile();
}

// The stop signal reaches only the one in write(2); the others sleep at the lock and never see it.
TEST_F(MessagePipeTest, CloseEndsTheWaitOfTheWritersWhoseTurnHasNotCome) {
    InitializeFull();
    {
        const auto write = [&] { EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::IoError); };
        OtherThread first(write);
        ASSERT_TRUE(first.IsHeldUp());
        OtherThread second(write);
        ASSERT_TRUE(second.IsHeldUp());
        OtherThread third(write);
        ASSERT_TRUE(third.IsHeldUp());
        pipe.Close();
    }
    EXPECT_THAT(log.Entries(), ElementsAre(CLOSED)) << "for all of them";
    EXPECT_EQ(BytesIn(pipe), PIPE_BUF);
}

// A signal that comes between a worker's look at its flag and its write(2) is lost.
TEST_F(MessagePipeTest, CloseEndsTheWaitOfAWriterWhoseStopSignalCameTooEarly) {
    InitializeFull();
    ASSERT_EQ(StopSignal::Register(), StatusCode::Ok);
    {
        OtherThread writer([&] {
            raise(SIGUSR1);
            EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::IoError);
        });
        ASSERT_TRUE(writer.IsHeldUp());
        pipe.Close();
    }
    EXPECT_EQ(BytesIn(pipe), PIPE_BUF);
}

// One that needs room again and again.
TEST_F(MessagePipeTest, CloseEndsTheWaitOfAMessageLargerThanThePipe) {
    InitializeFull();
    {
        OtherThread writer([&] {
            const std::string message(20 * PIPE_BUF, 'l');
            EXPECT_EQ(pipe.WriteMessage(message.data(), static_cast<unsigned int>(message.size())),
                      StatusCode::IoError);
        });
        ASSERT_TRUE(writer.IsHeldUp());
        pipe.Close();
    }
    EXPECT_THAT(log.Entries(), ElementsAre(CLOSED));
    page.fill('x');
    EXPECT_EQ(pipe.ReadMessage(page.data(), sizeof page, 0), StatusCode::Ok);
    EXPECT_EQ(page.back(), 0) << "nothing of the large one";
    ExpectEndOfFile();
}

// Room that appears in the middle of a page must not be what the putting back relies on.
TEST_F(MessagePipeTest, ClosePutsBackMessagesThatFillThePagesBadly) {
    Initialize();
    ASSERT_EQ(fcntl(pipe.GetWriteFd(), F_SETPIPE_SZ, 4 * PIPE_BUF), 4 * PIPE_BUF);
    constexpr unsigned int SIZE = PIPE_BUF / 2 + 1;  // no two of them on one page
    for (char i = 0; i < 4; ++i) {
        page.fill(i);
        ASSERT_EQ(pipe.WriteMessage(page.data(), SIZE), StatusCode::Ok);
    }
    {
        OtherThread writer([&] { EXPECT_EQ(pipe.WriteMessage(page.data(), SIZE), StatusCode::IoError); });
        ASSERT_TRUE(writer.IsHeldUp());
        pipe.Close();
    }
    for (char i = 0; i < 4; ++i) {
        page.fill('x');
        EXPECT_EQ(pipe.ReadMessage(page.data(), SIZE, 0), StatusCode::Ok);
        EXPECT_EQ(page.front(), i);
        EXPECT_EQ(page[SIZE - 1], i);
    }
    ExpectEndOfFile();
}

TEST_F(MessagePipeTest, CloseEndsTheWaitOfTheReader) {
    Initialize();
    {
        OtherThread reader([&] {
            char byte = 'a';
            EXPECT_EQ(pipe.ReadMessage(&byte, 1, GENEROUS_MS), StatusCode::IoError);
        });
        ASSERT_TRUE(reader.IsHeldUp());
        pipe.Close();
    }
    EXPECT_THAT(log.Entries(), ElementsAre(CLOSED));
}

TEST_F(MessagePipeTest, CloseIsSeenByALoopThatRunsAfterAllMessages) {
    Initialize();
    TestLoop loop;
    std::vector<StatusCode> results;
    ASSERT_EQ(loop.AddIo(pipe.GetReadFd(), POLLIN,
                         [&](sd_event_source*, int, unsigned int) {
                             char byte = 0;
                             results.push_back(pipe.ReadMessage(&byte, 1, 0));
                             return results.back();
                         }),
              StatusCode::Ok);
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    pipe.Close();
    while (sd_event_run(loop.GetEvent(), 0) > 0) {
    }
    EXPECT_THAT(results, ElementsAre(StatusCode::Ok, StatusCode::IoError)) << "then it is switched off";
    EXPECT_EQ(loop.RemoveIo(pipe.GetReadFd()), StatusCode::Ok);
}

TEST_F(MessagePipeTest, CloseWithoutMemoryStillEndsTheWaitAndSaysWhatItLost) {
    InitializeFull();
    {
        OtherThread writer([&] { EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::IoError); });
        ASSERT_TRUE(writer.IsHeldUp());
        const tern::test::NothrowMemoryShortage shortage;
        pipe.Close();
    }
    EXPECT_THAT(log.Entries(),
                testing::UnorderedElementsAre(
                    CLOSED, Error("Service", "[MessagePipe] Close fails : Cannot allocate memory")));
    ExpectEndOfFile();
}

TEST_F(MessagePipeTest, CloseThatCannotPutBackWhatWasWrittenSaysSo) {
    InitializeFull();
    {
        OtherThread writer([&] { EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::IoError); });
        ASSERT_TRUE(writer.IsHeldUp());
        const FaultScope scope(fault_write);
        fault_write.Fail(-1, ENOMEM);
        pipe.Close();
    }
    EXPECT_THAT(log.Entries(),
                testing::UnorderedElementsAre(
                    CLOSED, Error("Service", "[MessagePipe] Close fails : Cannot allocate memory")));
    ExpectEndOfFile();
}

// A message whose write was over before the close, and which the reader has, was written: its writer must not
// keep what now belongs to the reader.
TEST_F(MessagePipeTest, MessageThatTheReaderHasCountsAsWrittenAlsoWhenClosedBeforeItsWriterIsBack) {
    Initialize();
    const FaultScope scope(fault_write);
    fault_write.Replace([&](int fd, const void* data, size_t size) {
        const ssize_t written = fault_write.Real(fd, data, size);
        std::thread reader([&] {
            char byte = 0;
            EXPECT_EQ(pipe.ReadMessage(&byte, 1, 0), StatusCode::Ok);
            EXPECT_EQ(byte, 'x');
        });
        reader.join();
        // Goes as far as it can while this write is not over.
        closer = std::thread([&] { pipe.Close(); });
        EXPECT_TRUE(WaitUntil([&] { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }));
        return written;
    });
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    closer.join();
    EXPECT_THAT(log.Entries(), IsEmpty());
    ExpectEndOfFile();
}

TEST_F(MessagePipeTest, MessageThatTheReaderDoesNotHaveCountsAsNotWritten) {
    Initialize();
    EXPECT_EQ(pipe.WriteMessage("w", 1), StatusCode::Ok);
    const FaultScope scope(fault_write);
    fault_write.Replace([&](int fd, const void* data, size_t size) {
        const ssize_t written = fault_write.Real(fd, data, size);
        closer = std::thread([&] { pipe.Close(); });
        EXPECT_TRUE(WaitUntil([&] { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }));
        return written;
    });
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::IoError);
    closer.join();
    char byte = 0;
    EXPECT_EQ(pipe.ReadMessage(&byte, 1, 0), StatusCode::Ok);
    EXPECT_EQ(byte, 'w');
    ExpectEndOfFile();
}

// Whoever closes, whenever: every message is either read or refused to its writer, none both or neither, and
// nobody waits for ever.
TEST(MessagePipe, ClosedAtAnyMomentEveryMessageIsEitherReadOrRefused) {
    constexpr int ROUNDS = 2000 / tern::test::SLOWNESS;
    const LogCapture log(2);
    std::minstd_rand random(20260101);
    for (int round = 0; round < ROUNDS && !testing::Test::HasFailure(); ++round) {
        SCOPED_TRACE(round);
        MessagePipe pipe;
        ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
        ASSERT_EQ(fcntl(pipe.GetWriteFd(), F_SETPIPE_SZ, PIPE_BUF), PIPE_BUF);
        std::array<unsigned int, WRITERS> written{};
        std::vector<std::thread> threads;
        for (unsigned int writer = 0; writer < WRITERS; ++writer) {
            threads.emplace_back([&, writer] {
                StatusCode status = StatusCode::Ok;
                while (status == StatusCode::Ok) {
                    const Message message(writer, written[writer]);
                    status = pipe.WriteMessage(&message, sizeof message);
                    written[writer] += status == StatusCode::Ok ? 1 : 0;
                }
                EXPECT_EQ(status, StatusCode::IoError);
            });
        }
        // Every other round the reader goes before the close, and the pipe is full.
        std::array<unsigned int, WRITERS> received{};
        const auto take = [&] {
            Message message;
            const StatusCode status = pipe.ReadMessage(&message, sizeof message, GENEROUS_MS);
            if (status == StatusCode::Ok) {
                EXPECT_TRUE(message.IsWhole());
                EXPECT_EQ(message.number, received.at(message.writer)++);
            }
            return status == StatusCode::Ok;
        };
        const long untilClosed = static_cast<long>(random() % 300000);
        std::thread closing([&] {
            const timespec moment{0, untilClosed};
            nanosleep(&moment, nullptr);
            pipe.Close();
        });
        for (unsigned int i = 0; (round % 2 != 0 || i < 20) && take(); ++i) {
        }
        closing.join();
        for (std::thread& thread : threads) {
            thread.join();
        }
        while (take()) {
        }
        EXPECT_EQ(received, written);
    }
}
