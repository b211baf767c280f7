#include "ticker.h"

#include <chrono>
#include <utility>

using mwl::StatusCode;

namespace soak {

namespace {

constexpr std::chrono::milliseconds WATCH_PERIOD{2000};
constexpr unsigned int ONCE_MS = 15;
/// Of the wake-ups.
constexpr std::uint64_t JOB_EVERY = 5;
constexpr std::uint64_t TIMER_EVERY = 7;
constexpr std::uint64_t FOLDER_EVERY = 23;
/// More would only wait: the pool is the clients' as well.
constexpr int MAX_QUEUED = 2;

}  // namespace

Ticker::Ticker(std::shared_ptr<Progress> progress, const std::string& watchedFolder,
               thermostat::JobPool& pool, Jobs& jobs, mw::tern::MessagePipe& ticks,
               mwl::Threading::ThreadsWatcherInterface& watcher)
    : mProgress(std::move(progress)),
      mPool(pool),
      mJobs(jobs),
      mTicks(ticks),
      mWatched(watcher, "ticker"),
      mFolder(mProgress, watchedFolder),
      mOnce(ONCE_MS, false, [counters = mProgress] { ++counters->onceTicks; }) {}

StatusCode Ticker::Initialize() {
    mWatched.StartWatch(WATCH_PERIOD);
    return mFolder.Restart();
}

void Ticker::Execute() {
    mWatched.NotifyWork();
    ++mNumber;
    StatusCode status = mTicks.WriteMessage(&mNumber, sizeof mNumber);
    if (mNumber % JOB_EVERY == 0) {
        QueueJob();
    }
    if (status == StatusCode::Ok && mNumber % TIMER_EVERY == 0) {
        status = mOnce.Start();
    }
    // Twice in a row, so that one of them mostly finds it still watching.
    if (status == StatusCode::Ok && mNumber % FOLDER_EVERY <= 1) {
        status = mFolder.Restart();
    }
    if (status != StatusCode::Ok) {
        ++mProgress->failures;
    }
}

void Ticker::Stop() {
    mWatched.StopWatch();
}

void Ticker::QueueJob() {
    static constexpr const char* KINDS[] = {"command", "reload", "archive"};
    if (mQueued >= MAX_QUEUED) {
        return;
    }
    ++mQueued;
    mPool.Queue([this, kind = KINDS[mNumber / JOB_EVERY % std::size(KINDS)]] {
        static_cast<void>(mJobs.Run(kind));
        --mQueued;
    });
}

}  // namespace soak
