#include "findings.h"

#include "text.h"

namespace ternctl {

using mwl::Diagnostics::ComponentFigures;
using mwl::Diagnostics::Figures;
using mwl::Diagnostics::PipeFigures;
using mwl::Diagnostics::PoolFigures;
using mwl::Diagnostics::WatchedThread;

namespace {

/// Less than a quarter is left.
bool IsShort(std::uint64_t left, std::uint64_t whole) {
    return whole > 0 && left < whole / 4 + (whole % 4 != 0 ? 1 : 0);
}

class Collector {
public:
    Collector(const Figures& now, const Figures* before) : mNow(now), mBefore(before) {}

    std::vector<Finding> Collect() {
        Margins();
        Runs();
        Queues();
        Resources();
        return std::move(mFound);
    }

private:
    void Add(Part part, std::size_t index, std::string text) {
        mFound.push_back({part, index, std::move(text)});
    }

    void Margins() {
        for (std::size_t i = 0; i < mNow.watched.size(); ++i) {
            const WatchedThread& thread = mNow.watched[i];
            if (IsShort(thread.marginUs, thread.limitUs)) {
                Add(Part::Watched, i,
                    "thread " + thread.name + " is " + Duration(thread.marginUs) + " before its kill");
            }
        }
        // At best a quarter is left, because the loop reports at three quarters of the period.
        if (IsShort(mNow.busThread.watchdogMarginUs, mNow.busThread.watchdogUs / 2)) {
            Add(Part::Watchdog, 0,
                "the watchdog was " + Duration(mNow.busThread.watchdogMarginUs) + " from its end");
        }
    }

    void Runs() {
        if (mNow.busThread.runningUs > LONG_RUN_US) {
            Add(Part::Handler, 0, mNow.busThread.running + " runs for " + Duration(mNow.busThread.runningUs));
        }
        for (std::size_t i = 0; i < mNow.components.size(); ++i) {
            const ComponentFigures& component = mNow.components[i];
            if (component.runningUs > LONG_RUN_US) {
                Add(Part::Component, i, component.name + " runs for " + Duration(component.runningUs));
            }
        }
        for (std::size_t i = 0; i < mNow.pools.size(); ++i) {
            if (mNow.pools[i].runningUs > LONG_RUN_US) {
                Add(Part::Pool, i, "a job runs for " + Duration(mNow.pools[i].runningUs));
            }
        }
    }

    void Grows(Part part, std::size_t index, std::uint64_t before, std::uint64_t now, const char* what) {
        if (now > before) {
            Add(part, index, std::string(what) + " grow: " + Count(before) + " to " + Count(now));
        }
    }

    void Queues() {
        if (mBefore == nullptr) {
            return;
        }
        const auto& former = mBefore->connection;
        const auto& current = mNow.connection;
        Grows(Part::QueuedIn, 0, former.queuedIn, current.queuedIn, "messages received");
        Grows(Part::QueuedOut, 0, former.queuedOut, current.queuedOut, "messages to be sent");
        Grows(Part::WaitingJobs, 0, former.waitingJobs, current.waitingJobs, "jobs of the D-Bus thread");
        // Pools and pipes have no names: of as many they are the same ones.
        if (mBefore->pools.size() == mNow.pools.size()) {
            for (std::size_t i = 0; i < mNow.pools.size(); ++i) {
                Grows(Part::Pool, i, mBefore->pools[i].queued, mNow.pools[i].queued, "jobs of a pool");
            }
        }
        if (mBefore->pipes.size() == mNow.pipes.size()) {
            for (std::size_t i = 0; i < mNow.pipes.size(); ++i) {
                Grows(Part::Pipe, i, BacklogOf(mBefore->pipes[i]), BacklogOf(mNow.pipes[i]),
                      "messages in a pipe");
            }
        }
    }

    void Resources() {
        const auto& process = mNow.process;
        const std::uint32_t left =
            process.descriptorLimit > process.descriptors ? process.descriptorLimit - process.descriptors : 0;
        if (IsShort(left, process.descriptorLimit)) {
            Add(Part::Process, 0, Count(left) + " descriptors are left");
        }
        for (std::size_t i = 0; i < mNow.threads.size(); ++i) {
            if (mNow.threads[i].state == "gone") {
                Add(Part::Thread, i, "a supervised thread has gone");
            }
        }
    }

    const Figures& mNow;
    const Figures* mBefore;
    std::vector<Finding> mFound;
};

}  // namespace

std::uint64_t BacklogOf(const PipeFigures& pipe) {
    return pipe.written > pipe.read ? pipe.written - pipe.read : 0;
}

bool HasQueues(const Figures& figures) {
    std::uint64_t waiting =
        figures.connection.queuedIn + figures.connection.queuedOut + figures.connection.waitingJobs;
    for (const PoolFigures& pool : figures.pools) {
        waiting += pool.queued;
    }
    for (const PipeFigures& pipe : figures.pipes) {
        waiting += BacklogOf(pipe);
    }
    return waiting > 0;
}

std::vector<Finding> FindTrouble(const Figures& now, const Figures* before) {
    return Collector(now, before).Collect();
}

}  // namespace ternctl
