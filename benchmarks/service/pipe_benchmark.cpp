// One message through a pipe into the event loop: MessagePipe with EventLoop beside a raw pipe with sd-event,
// and beside a locked queue that an eventfd announces. Target: at most 1.05 of the raw pipe.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <tern/service/event_loop.h>
#include <tern/service/message_pipe.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using mw::tern::EventLoop;
using mw::tern::MessagePipe;
using mw::tern::StatusCode;

/// As large as what a DBusMessagePipe carries.
using Message = std::uint64_t;

void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

class Framework : private EventLoop {
public:
    Framework() {
        Require(sd_event_new(&mEvent) >= 0);
        Require(mPipe.Initialize() == StatusCode::Ok);
        Require(AddIo(mPipe.GetReadFd(), EPOLLIN, [this](sd_event_source*, int, unsigned int) {
                    Message message = 0;
                    Require(mPipe.ReadMessage(&message, sizeof message, 0) == StatusCode::Ok);
                    benchmark::DoNotOptimize(message);
                    return StatusCode::Ok;
                }) == StatusCode::Ok);
    }

    void Write(Message message) { Require(mPipe.WriteMessage(&message, sizeof message) == StatusCode::Ok); }
    /// Dispatches one message; waits for it.
    void Run() { Require(sd_event_run(mEvent, UINT64_MAX) > 0); }
    /// Dispatches one message if there is one.
    bool TryRun() { return sd_event_run(mEvent, 0) > 0; }

private:
    MessagePipe mPipe;
};

class Raw {
public:
    Raw() {
        Require(sd_event_new(&mEvent) >= 0);
        Require(pipe2(mEnds, O_CLOEXEC) == 0);
        Require(fcntl(mEnds[0], F_SETFL, O_NONBLOCK) == 0);
        Require(sd_event_add_io(
                    mEvent, &mSource, mEnds[0], EPOLLIN,
                    [](sd_event_source*, int fd, std::uint32_t, void*) {
                        Message message = 0;
                        Require(read(fd, &message, sizeof message) == sizeof message);
                        benchmark::DoNotOptimize(message);
                        return 0;
                    },
                    nullptr) >= 0);
    }
    ~Raw() {
        sd_event_source_unref(mSource);
        sd_event_unref(mEvent);
        close(mEnds[0]);
        close(mEnds[1]);
    }
    Raw(const Raw&) = delete;
    Raw& operator=(const Raw&) = delete;

    void Write(Message message) { Require(write(mEnds[1], &message, sizeof message) == sizeof message); }
    void Run() { Require(sd_event_run(mEvent, UINT64_MAX) > 0); }
    bool TryRun() { return sd_event_run(mEvent, 0) > 0; }

private:
    sd_event* mEvent = nullptr;
    sd_event_source* mSource = nullptr;
    int mEnds[2] = {-1, -1};
};

/// Bounded as a pipe is, so that fast writers do not just fill the memory.
class EventfdWithQueue {
public:
    EventfdWithQueue() : mFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)) {
        Require(sd_event_new(&mEvent) >= 0);
        Require(mFd >= 0);
        Require(sd_event_add_io(
                    mEvent, &mSource, mFd, EPOLLIN,
                    [](sd_event_source*, int fd, std::uint32_t, void* userdata) {
                        std::uint64_t one = 0;
                        Require(read(fd, &one, sizeof one) == sizeof one);
                        static_cast<EventfdWithQueue*>(userdata)->Take();
                        return 0;
                    },
                    this) >= 0);
    }
    ~EventfdWithQueue() {
        sd_event_source_unref(mSource);
        sd_event_unref(mEvent);
        close(mFd);
    }
    EventfdWithQueue(const EventfdWithQueue&) = delete;
    EventfdWithQueue& operator=(const EventfdWithQueue&) = delete;

    void Write(Message message) {
        {
            std::unique_lock lock(mMutex);
            mRoom.wait(lock, [this] { return mQueue.size() < PIPE_MESSAGES; });
            mQueue.push_back(message);
        }
        const std::uint64_t one = 1;
        Require(write(mFd, &one, sizeof one) == sizeof one);
    }
    void Run() { Require(sd_event_run(mEvent, UINT64_MAX) > 0); }
    bool TryRun() { return sd_event_run(mEvent, 0) > 0; }

private:
    /// The number of messages that a pipe of 64 KiB holds.
    static constexpr std::size_t PIPE_MESSAGES = 65536 / sizeof(Message);

    void Take() {
        bool wasFull = false;
        {
            const std::lock_guard lock(mMutex);
            wasFull = mQueue.size() == PIPE_MESSAGES;
            benchmark::DoNotOptimize(mQueue.front());
            mQueue.pop_front();
        }
        if (wasFull) {
            mRoom.notify_all();
        }
    }

    int mFd;
    sd_event* mEvent = nullptr;
    sd_event_source* mSource = nullptr;
    std::mutex mMutex;
    std::condition_variable mRoom;
    std::deque<Message> mQueue;
};

/// Written and dispatched by one thread: the work of a message without the scheduler's.
template <typename Transport>
void OneThread(benchmark::State& state) {
    Transport transport;
    for (auto _ : state) {
        transport.Write(1);
        transport.Run();
    }
    state.SetItemsProcessed(state.iterations());
}

/// Written by as many threads as the argument says, as fast as the pipe takes it.
template <typename Transport>
void Writers(benchmark::State& state) {
    Transport transport;
    std::atomic<bool> stop{false};
    std::atomic<int> left{static_cast<int>(state.range(0))};
    std::vector<std::thread> writers;
    for (int i = left; i > 0; --i) {
        writers.emplace_back([&] {
            while (!stop.load(std::memory_order_relaxed)) {
                transport.Write(1);
            }
            --left;
        });
    }
    for (auto _ : state) {
        transport.Run();
    }
    stop = true;
    while (left > 0 || transport.TryRun()) {
        transport.TryRun();
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK_TEMPLATE(OneThread, Raw);
BENCHMARK_TEMPLATE(OneThread, Framework);
BENCHMARK_TEMPLATE(OneThread, EventfdWithQueue);
BENCHMARK_TEMPLATE(Writers, Raw)->Arg(1)->Arg(4)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK_TEMPLATE(Writers, Framework)->Arg(1)->Arg(4)->MeasureProcessCPUTime()->UseRealTime();
BENCHMARK_TEMPLATE(Writers, EventfdWithQueue)->Arg(1)->Arg(4)->MeasureProcessCPUTime()->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
