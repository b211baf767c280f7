#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-event.h>
#include <tern/threading/stop_signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

#include "service/message_pipe_fixture.h"
#include "threading/thread_state.h"

using namespace tern::test::pipes;

namespace {

// Not TERN_INTERPOSE, whose own mutex would meet the stand-in.
thread_local bool failNextLock = false;

}  // namespace

extern "C" __attribute__((visibility("default"), no_sanitize("thread", "address"))) int pthread_mutex_lock(
    pthread_mutex_t* mutex) noexcept {
    if (failNextLock) {
        failNextLock = false;
        return EINVAL;
    }
    using Function = int (*)(pthread_mutex_t*);
    static std::atomic<Function> real{nullptr};
    Function function = real.load(std::memory_order_relaxed);
    if (function == nullptr) {
        function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_mutex_lock"));
        real.store(function, std::memory_order_relaxed);
    }
    return function(mutex);
}

TEST_F(MessagePipeTest, HasNoDescriptorsBeforeInitialize) {
    EXPECT_EQ(pipe.GetReadFd(), -1);
    EXPECT_EQ(pipe.GetWriteFd(), -1);
    EXPECT_TRUE(std::has_virtual_destructor_v<MessagePipe>);
    EXPECT_FALSE(std::is_copy_constructible_v<MessagePipe>);
}

TEST_F(MessagePipeTest, RefusesToWriteBeforeInitialize) {
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::NotInitialized);
    EXPECT_THAT(log.Entries(), ElementsAre(Error("Service", "[MessagePipe] Pipe is not initialized yet")));
}

TEST_F(MessagePipeTest, RefusesToReadBeforeInitializeAtOnceForEveryTimeLimit) {
    char byte = 'a';
    for (const unsigned int timeoutMs : {0U, 1U, 3600000U, UINT_MAX}) {
        log.Clear();
        EXPECT_EQ(pipe.ReadMessage(&byte, 1, timeoutMs), StatusCode::NotInitialized) << timeoutMs;
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Error("Service", "[MessagePipe] Pipe is not initialized yet")));
    }
    EXPECT_EQ(byte, 'a');
}

TEST_F(MessagePipeTest, ReadEndDoesNotBlockWriteEndDoesAndNeitherIsInherited) {
    Initialize();
    EXPECT_NE(fcntl(pipe.GetReadFd(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(pipe.GetWriteFd(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_EQ(fcntl(pipe.GetReadFd(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(pipe.GetWriteFd(), F_GETFD), FD_CLOEXEC);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

// Between pipe2 and a later fcntl another thread could start a program.
TEST_F(MessagePipeTest, DescriptorsAreCloseOnExecFromBirth) {
    const FaultScope scope(fault_pipe2);
    int seen = 0;
    fault_pipe2.Replace([&](int* fds, int flags) {
        seen = flags;
        return fault_pipe2.Real(fds, flags);
    });
    Initialize();
    EXPECT_EQ(seen, O_CLOEXEC);
}

TEST_F(MessagePipeTest, ReportsAPipeThatCannotBeMade) {
    const FaultScope scope(fault_pipe2);
    fault_pipe2.Fail(-1, EMFILE);
    EXPECT_EQ(pipe.Initialize(), StatusCode::ResourceUnavailable);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service", "[MessagePipe] Initialize fails : Too many open files")));
    EXPECT_EQ(pipe.GetReadFd(), -1);
    EXPECT_EQ(pipe.GetWriteFd(), -1);
}

TEST(MessagePipe, ReportsAReadEndThatCannotBeMadeNonBlockingAndKeepsTheDescriptors) {
    const LogCapture log;
    const std::size_t before = CountDescriptors();
    {
        MessagePipe pipe;
        constexpr int NOT_OPEN = 1 << 29;
        const FaultScope scope(fault_pipe2);
        fault_pipe2.Replace([](int* fds, int flags) {
            const int result = fault_pipe2.Real(fds, flags);
            close(fds[0]);
            fds[0] = NOT_OPEN;
            return result;
        });
        EXPECT_EQ(pipe.Initialize(), StatusCode::InvalidArgument);
        EXPECT_THAT(log.Entries(),
                    ElementsAre(Error("Service", "[MessagePipe] Initialize fails : Bad file descriptor")));
        EXPECT_EQ(pipe.GetReadFd(), NOT_OPEN);
        EXPECT_NE(pipe.GetWriteFd(), -1);
        EXPECT_EQ(CountDescriptors(), before + 1);
        // Nothing is waited for then: the limit passes.
        const FaultScope wait(fault_poll);
        int polled = 0;
        fault_poll.Replace([&](pollfd* records, nfds_t count, int timeout) {
            polled = records->fd;
            return fault_poll.Real(records, count, timeout);
        });
        char byte = 'a';
        EXPECT_EQ(pipe.ReadMessage(&byte, 1, 1), StatusCode::Timeout);
        EXPECT_EQ(polled, -1);
        EXPECT_EQ(pipe.ReadMessage(&byte, 1, 0), StatusCode::InvalidArgument);
    }
    EXPECT_EQ(CountDescriptors(), before);
}

TEST(MessagePipe, DestructorClosesBothDescriptors) {
    const std::size_t before = CountDescriptors();
    {
        MessagePipe pipe;
        ASSERT_EQ(pipe.Initialize(), StatusCode::Ok);
        EXPECT_EQ(CountDescriptors(), before + 2);
    }
    EXPECT_EQ(CountDescriptors(), before);
}

// Fixed by the interface: there is no guard against it.
TEST_F(MessagePipeTest, SecondInitializeMakesANewPipeAndLeavesTheOldOneOpen) {
    Initialize();
    const int oldRead = pipe.GetReadFd();
    const int oldWrite = pipe.GetWriteFd();
    Initialize();
    EXPECT_NE(pipe.GetReadFd(), oldRead);
    EXPECT_NE(pipe.GetWriteFd(), oldWrite);
    char byte = 'y';
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    EXPECT_EQ(pipe.ReadMessage(&byte, 1, GENEROUS_MS), StatusCode::Ok) << "the wait is on the new pipe";
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(close(oldRead), 0);
    EXPECT_EQ(close(oldWrite), 0);
}

TEST_F(MessagePipeTest, MessagesArriveWholeAndInOrder) {
    Initialize();
    for (unsigned int number = 0; number < 3; ++number) {
        const Message message(7, number);
        EXPECT_EQ(pipe.WriteMessage(&message, sizeof message), StatusCode::Ok);
    }
    EXPECT_EQ(BytesIn(pipe), static_cast<int>(3 * sizeof(Message))) << "nothing but the messages";
    for (unsigned int number = 0; number < 3; ++number) {
        Message message;
        EXPECT_EQ(pipe.ReadMessage(&message, sizeof message, number == 0 ? 0 : GENEROUS_MS), StatusCode::Ok);
        EXPECT_TRUE(message.IsWhole());
        EXPECT_EQ(message.number, number);
    }
    EXPECT_EQ(BytesIn(pipe), 0);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(MessagePipeTest, ReadingAnEmptyPipeWithoutALimitReturnsAtOnce) {
    Initialize();
    char byte = 'a';
    EXPECT_EQ(pipe.ReadMessage(&byte, 1, 0), StatusCode::ResourceUnavailable);
    EXPECT_THAT(
        log.Entries(),
        ElementsAre(Error("Service", "[MessagePipe] ReadMessage fails : Resource temporarily unavailable")));
    EXPECT_EQ(byte, 'a');
}

TEST_F(MessagePipeTest, ReadingAnEmptyPipeEndsAtTheLimitWithoutAMessage) {
    Initialize();
    char byte = 'a';
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(pipe.ReadMessage(&byte, 1, 50), StatusCode::Timeout);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(50));
    EXPECT_LT(took, std::chrono::milliseconds(50) + tern::test::TOLERANCE);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(MessagePipeTest, WaitingReaderIsWokenByAMessage) {
    Initialize();
    std::atomic<pid_t> reader{0};
    const FaultScope scope(fault_poll);
    fault_poll.Replace([&](pollfd* records, nfds_t count, int timeout) {
        reader = gettid();
        return fault_poll.Real(records, count, timeout);
    });
    std::thread writer([&] {
        EXPECT_TRUE(WaitUntil([&] { return reader != 0 && IsAsleep(reader); }));
        EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    });
    char byte = 'a';
    EXPECT_EQ(pipe.ReadMessage(&byte, 1, GENEROUS_MS), StatusCode::Ok);
    EXPECT_EQ(byte, 'x');
    writer.join();
}

TEST_F(MessagePipeTest, MessageOfNoBytesLeavesNoTrace) {
    Initialize();
    EXPECT_EQ(pipe.WriteMessage("", 0), StatusCode::Ok);
    EXPECT_EQ(BytesIn(pipe), 0);
    char byte = 'a';
    EXPECT_EQ(pipe.ReadMessage(&byte, 0, 20), StatusCode::Timeout) << "there is nothing to wake it";
    ASSERT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
    EXPECT_EQ(pipe.ReadMessage(&byte, 0, GENEROUS_MS), StatusCode::Ok);
    EXPECT_EQ(byte, 'a');
    EXPECT_EQ(BytesIn(pipe), 1);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

// As an int, a limit beyond INT_MAX would be negative: another wait altogether.
TEST_F(MessagePipeTest, LimitBeyondIntMaxIsTheLongestWait) {
    Initialize();
    const FaultScope scope(fault_poll);
    std::vector<int> seen;
    fault_poll.Replace(
        [&](pollfd*, nfds_t, int timeout) {
            seen.push_back(timeout);
            return 0;
        },
        4);
    char byte = 'a';
    for (const unsigned int timeoutMs :
         {1U, static_cast<unsigned int>(INT_MAX), static_cast<unsigned int>(INT_MAX) + 1U, UINT_MAX}) {
        EXPECT_EQ(pipe.ReadMessage(&byte, 1, timeoutMs), StatusCode::Timeout);
    }
    EXPECT_THAT(seen, ElementsAre(1, INT_MAX, INT_MAX, INT_MAX));
}

TEST_F(MessagePipeTest, ReportsAFailedWait) {
    Initialize();
    const FaultScope scope(fault_poll);
    fault_poll.Fail(-1, ENOMEM);
    char byte = 'a';
    EXPECT_EQ(pipe.ReadMessage(&byte, 1, GENEROUS_MS), StatusCode::Failure);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service", "[MessagePipe] Polling fails: Cannot allocate memory")));
}

TEST_F(MessagePipeTest, StopSignalEndsTheWait) {
    Initialize();
    ASSERT_EQ(StopSignal::Register(), StatusCode::Ok);
    std::atomic<bool> left{false};
    std::thread reader([&] {
        char byte = 'a';
        EXPECT_EQ(pipe.ReadMessage(&byte, 1, GENEROUS_MS), StatusCode::Interrupted);
        left = true;
    });
    StopUntil(reader, left);
    reader.join();
    EXPECT_THAT(log.Entries("Service"), ElementsAre(Info("Service", "[MessagePipe] Received Stop signal")));
}

TEST_F(MessagePipeTest, LessThanAMessageIsAnErrorAndIsConsumed) {
    Initialize();
    EXPECT_EQ(pipe.WriteMessage("abc", 3), StatusCode::Ok);
    int number = 0;
    errno = EAGAIN;  // a short read sets none of its own
    EXPECT_EQ(pipe.ReadMessage(&number, sizeof number, 0), StatusCode::IoError);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service", "[MessagePipe] ReadMessage fails : Input/output error")));
    EXPECT_EQ(BytesIn(pipe), 0);
}

// "Each write is one message": the two halves are not put together.
TEST_F(MessagePipeTest, MessageWrittenAsTwoIsNotReadAsOneBeforeTheSecondIsThere) {
    Initialize();
    EXPECT_EQ(pipe.WriteMessage("ab", 2), StatusCode::Ok);
    char both[4] = {};
    EXPECT_EQ(pipe.ReadMessage(both, sizeof both, GENEROUS_MS), StatusCode::IoError);
}

TEST_F(MessagePipeTest, PartlyWrittenMessageIsAnError) {
    Initialize();
    const FaultScope scope(fault_write);
    fault_write.Fail(3);
    errno = 0;
    EXPECT_EQ(pipe.WriteMessage("abcd", 4), StatusCode::IoError);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service", "[MessagePipe] WriteMessage fails : Input/output error")));
}

// In unsigned arithmetic -1 would be more than any size.
TEST_F(MessagePipeTest, FailedWriteIsAnError) {
    Initialize();
    const FaultScope scope(fault_write);
    fault_write.Fail(-1, ENOMEM);
    EXPECT_EQ(pipe.WriteMessage("abcd", 4), StatusCode::OutOfMemory);
    EXPECT_THAT(log.Entries(),
                ElementsAre(Error("Service", "[MessagePipe] WriteMessage fails : Cannot allocate memory")));
}

TEST_F(MessagePipeTest, WriterWaitsAtAFullPipe) {
    constexpr char COUNT = 20;
    InitializeFull();
    std::thread writer([&] {
        std::array<char, PIPE_BUF> more{};
        for (char i = 1; i < COUNT; ++i) {
            more.fill(i);
            EXPECT_EQ(pipe.WriteMessage(more.data(), sizeof more), StatusCode::Ok);
        }
    });
    for (char i = 0; i < COUNT; ++i) {
        // Lets the writer fill the pipe again, so that its next write finds it full.
        EXPECT_TRUE(WaitUntil([&] { return BytesIn(pipe) == PIPE_BUF; }));
        ASSERT_EQ(pipe.ReadMessage(page.data(), sizeof page, 0), StatusCode::Ok);
        EXPECT_EQ(page.front(), i);
        EXPECT_EQ(page.back(), i);
    }
    writer.join();
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(MessagePipeTest, StopSignalEndsTheWaitAtAFullPipe) {
    InitializeFull();
    ASSERT_EQ(StopSignal::Register(), StatusCode::Ok);
    std::atomic<bool> left{false};
    std::thread writer([&] {
        EXPECT_EQ(pipe.WriteMessage(page.data(), sizeof page), StatusCode::Interrupted);
        left = true;
    });
    StopUntil(writer, left);
    writer.join();
    EXPECT_THAT(log.Entries("Service"),
                ElementsAre(Error("Service", "[MessagePipe] WriteMessage fails : Interrupted system call")));
    EXPECT_EQ(BytesIn(pipe), PIPE_BUF) << "nothing of the message was written";
    EXPECT_EQ(pipe.ReadMessage(page.data(), sizeof page, 0), StatusCode::Ok);
    EXPECT_EQ(pipe.WriteMessage(page.data(), sizeof page), StatusCode::Ok) << "the lock is free again";
}

TEST_F(MessagePipeTest, WaitingReaderGetsTheMessagesOfManyWriters) {
    Initialize();
    const Writers writers(pipe);
    Receiver receiver;
    while (!receiver.HasAll() && !HasFailure()) {
        Message message;
        ASSERT_EQ(pipe.ReadMessage(&message, sizeof message, GENEROUS_MS), StatusCode::Ok);
        receiver.Take(message);
    }
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(MessagePipeTest, EventLoopGetsTheMessagesOfManyWriters) {
    Initialize();
    TestLoop loop;
    Receiver receiver;
    ASSERT_EQ(loop.AddIo(pipe.GetReadFd(), POLLIN,
                         [&](sd_event_source*, int, unsigned int) {
                             Message message;
                             EXPECT_EQ(pipe.ReadMessage(&message, sizeof message, 0), StatusCode::Ok);
                             receiver.Take(message);
                             return StatusCode::Ok;
                         }),
              StatusCode::Ok);
    const Writers writers(pipe);
    while (!receiver.HasAll() && !HasFailure()) {
        ASSERT_GT(sd_event_run(loop.GetEvent(), UINT64_C(30000000)), 0);
    }
    EXPECT_EQ(loop.RemoveIo(pipe.GetReadFd()), StatusCode::Ok);
    EXPECT_THAT(log.Entries(), IsEmpty());
}

TEST_F(MessagePipeTest, LockThatFailsRaises) {
    Initialize();
    bool raised = false;
    failNextLock = true;
    try {
        static_cast<void>(pipe.WriteMessage("x", 1));
    } catch (const std::system_error&) {
        raised = true;
    }
    failNextLock = false;  // before the framework of the tests locks anything
    EXPECT_TRUE(raised);
    EXPECT_EQ(BytesIn(pipe), 0);
    EXPECT_EQ(pipe.WriteMessage("x", 1), StatusCode::Ok);
}

// Without the cure the process dies of SIGPIPE. In a child, because it closes a descriptor that is not its
// own.
TEST(MessagePipe, WritingWithoutAReaderIsAnErrorAndNotTheEndOfTheProcess) {
    const ChildResult child = RunInChild([] {
        signal(SIGPIPE, SIG_DFL);
        MessagePipe pipe;
        pipe.Initialize();
        close(pipe.GetReadFd());
        return pipe.WriteMessage("x", 1) == StatusCode::IoError ? 0 : 1;
    });
    EXPECT_EQ(child.signal, 0);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_THAT(child.log, ElementsAre(Error("Service", "[MessagePipe] WriteMessage fails : Broken pipe")));
}

TEST(MessagePipe, ProgramsOfTheProcessKeepTheDefaultActionOfSigpipe) {
    const ChildResult child = RunInChild([] {
        signal(SIGPIPE, SIG_DFL);
        MessagePipe pipe;
        pipe.Initialize();
        const pid_t pid = fork();
        if (pid == 0) {
            execl("/bin/sh", "sh", "-c", "kill -PIPE $$", static_cast<char*>(nullptr));
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFSIGNALED(status) && WTERMSIG(status) == SIGPIPE ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST(MessagePipe, SigpipeThatTheApplicationHandlesIsLeftToIt) {
    const ChildResult child = RunInChild([] {
        static volatile sig_atomic_t seen = 0;
        struct sigaction own {};
        own.sa_sigaction = [](int, siginfo_t*, void*) { seen = 1; };
        own.sa_flags = SA_SIGINFO;
        sigaction(SIGPIPE, &own, nullptr);
        MessagePipe handled;
        handled.Initialize();
        raise(SIGPIPE);
        signal(SIGPIPE, SIG_IGN);
        MessagePipe ignored;
        ignored.Initialize();
        struct sigaction now {};
        sigaction(SIGPIPE, nullptr, &now);
        return seen == 1 && now.sa_handler == SIG_IGN ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
}
