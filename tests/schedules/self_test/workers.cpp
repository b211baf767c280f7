// Faults of threads that are stopped.

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "../scenario.h"
#include "toys.h"

namespace tern::schedules {

namespace {

/// A thread that works until it is stopped, by whoever comes first.
template <Flaw FLAW>
class Worker {
public:
    void Start() {
        if constexpr (FLAW != Flaw::StopForgotten) {
            mIsRunning = true;
        }
        mThread = std::thread([this] { Run(); });
    }

    void Stop() {
        {
            const std::lock_guard lock(mMutex);
            mIsRunning = false;
        }
        if constexpr (FLAW != Flaw::StopNotTold) {
            mChanged.notify_all();
        }
        if constexpr (FLAW == Flaw::JoinedTwice) {
            if (mThread.joinable()) {
                mThread.join();
            }
        } else {
            const std::lock_guard lock(mJoinMutex);
            if (mThread.joinable()) {
                mThread.join();
            }
        }
    }

private:
    void Run() {
        Call("worker");
        std::unique_lock lock(mMutex);
        if constexpr (FLAW == Flaw::StopForgotten) {
            mIsRunning = true;
        }
        while (mIsRunning) {
            if constexpr (FLAW == Flaw::StopNotTold) {
                mChanged.wait_for(lock, std::chrono::seconds(10));
            } else {
                mChanged.wait(lock);
            }
        }
    }

    std::mutex mMutex;
    std::mutex mJoinMutex;
    std::condition_variable mChanged;
    bool mIsRunning = false;
    std::thread mThread;
};

template <Flaw FLAW>
void StartAndStop() {
    Worker<FLAW> worker;
    worker.Start();
    const Stopping stopping;
    worker.Stop();
}

template <Flaw FLAW>
void StopByTwo() {
    Worker<FLAW> worker;
    worker.Start();
    std::thread other([&] {
        Call("other");
        worker.Stop();
    });
    worker.Stop();
    other.join();
}

/// A thread that reports to its owner.
template <Flaw FLAW>
void ReportToOwner() {
    struct Owner {
        std::mutex mutex;
        bool isThere = true;
        int reports = 0;
    };
    // Stays readable, so that the fault is seen as what it is.
    static Owner place;
    new (&place) Owner;
    Owner& owner = place;
    std::thread reporter([&] {
        Call("reporter");
        const std::lock_guard lock(owner.mutex);
        Promise(owner.isThere, "the owner is still there");
        ++owner.reports;
    });
    if constexpr (FLAW == Flaw::UsedAfterEnd) {
        reporter.detach();
    } else {
        reporter.join();
    }
    owner.isThere = false;
}

std::atomic<int> gSignals{0};

/// A thread in poll(2) that a signal is to bring out.
template <Flaw FLAW>
void InterruptPoll() {
    struct sigaction action {};
    action.sa_handler = [](int) { ++gSignals; };
    sigaction(SIGUSR2, &action, nullptr);
    int ends[2];
    Promise(pipe(ends) == 0, "there are pipes");
    std::atomic<bool> isStopped{false};
    std::thread waiter([&] {
        Call("waiter");
        pollfd descriptor{ends[0], POLLIN, 0};
        while (!isStopped) {
            static_cast<void>(poll(&descriptor, 1, -1));
        }
    });
    {
        const Stopping stopping;
        isStopped = true;
        if constexpr (FLAW == Flaw::SignalMissed) {
            pthread_kill(waiter.native_handle(), SIGUSR2);
        } else {
            Promise(write(ends[1], "x", 1) == 1, "a byte is written");
        }
        waiter.join();
    }
    close(ends[0]);
    close(ends[1]);
}

/// A reader that takes what comes until the end; the faulty one leaves when there is nothing. And a writer
/// who fills the pipe.
template <Flaw FLAW>
void WriteToReader() {
    int ends[2];
    Promise(pipe(ends) == 0, "there are pipes");
    std::thread reader([&] {
        Call("reader");
        std::vector<char> bytes(1 << 16);
        if constexpr (FLAW == Flaw::ReaderGone) {
            pollfd descriptor{ends[0], POLLIN, 0};
            while (poll(&descriptor, 1, 0) > 0 && read(ends[0], bytes.data(), bytes.size()) > 0) {
            }
        } else {
            while (read(ends[0], bytes.data(), bytes.size()) > 0) {
            }
        }
    });
    const std::vector<char> bytes(1 << 16);
    for (int round = 0; round < 2; ++round) {
        Promise(write(ends[1], bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()),
                "everything is written");
    }
    close(ends[1]);
    reader.join();
    close(ends[0]);
}

}  // namespace

TERN_SCENARIO(self_stop_forgotten, "the thread sets what the stop has cleared",
              .expected = {Record::Fault::MissedStop}) {
    StartAndStop<Flaw::StopForgotten>();
}
TERN_SCENARIO(self_stop_not_told, "only the time-out of the wait ends it",
              .expected = {Record::Fault::MissedStop}) {
    StartAndStop<Flaw::StopNotTold>();
}
TERN_SCENARIO(self_stop_sound, "the same without a fault") {
    StartAndStop<Flaw::None>();
}
TERN_SCENARIO(self_joined_twice, "two stop it and both join", .expected = {Record::Fault::Misuse}) {
    StopByTwo<Flaw::JoinedTwice>();
}
TERN_SCENARIO(self_stop_by_two_sound, "the same without a fault") {
    StopByTwo<Flaw::None>();
}
TERN_SCENARIO(self_used_after_end, "a thread reports to who has gone", .expected = {Record::Fault::Promise}) {
    ReportToOwner<Flaw::UsedAfterEnd>();
}
TERN_SCENARIO(self_report_sound, "the same without a fault") {
    ReportToOwner<Flaw::None>();
}
TERN_SCENARIO(self_signal_missed, "a signal comes between the look at the flag and poll(2)",
              .expected = {Record::Fault::MissedStop}) {
    InterruptPoll<Flaw::SignalMissed>();
}
TERN_SCENARIO(self_interrupt_sound, "the same without a fault") {
    InterruptPoll<Flaw::None>();
}
TERN_SCENARIO(self_reader_gone, "a writer waits for room that nobody makes",
              .expected = {Record::Fault::LostWakeUp}) {
    WriteToReader<Flaw::ReaderGone>();
}
TERN_SCENARIO(self_reader_sound, "the same without a fault") {
    WriteToReader<Flaw::None>();
}

}  // namespace tern::schedules
