#include <tern/typed/task.h>

#include <tern/foundation/log.h>

#include <cassert>
#include <cerrno>

#include "platform/static_text.h"
#include "service/thrown.h"
#include "typed/task_thread.h"

namespace mwl::Typed {

namespace {

const StaticText LOGGER("Typed");

/// While all stops, a task that begins its successor, which then does not wait either, would go on until the
/// stack is full: so deep they may lie on it.
constexpr unsigned DEPTH_WHILE_STOPPING = 100;

/// Of each thread.
struct Local {
    sd_event* loop = nullptr;
    bool isStopping = false;
    /// The tasks that run, as they lie on the stack, and how many they are.
    Detail::TaskFrame* top = nullptr;
    unsigned depth = 0;
    /// The tasks that are done and whose observers are to be notified, in order; whether this is under way.
    Detail::TaskFrame* firstDone = nullptr;
    Detail::TaskFrame* lastDone = nullptr;
    bool isTelling = false;
};
thread_local constinit Local tLocal;

template <typename Log>
void Inspect(const std::exception_ptr& exception, Log log) noexcept {
    static_cast<void>(mw::tern::Contain(
        0,
        [&] {
            std::rethrow_exception(exception);
            return 0;
        },
        log));
}

}  // namespace

void TaskThread::Open(sd_event* loop) noexcept {
    tLocal.loop = loop;
    tLocal.isStopping = false;
}

void TaskThread::BeginStop() noexcept {
    tLocal.isStopping = true;
}

void TaskThread::Close() noexcept {
    tLocal.loop = nullptr;
}

void TaskThread::Fail(const mw::tern::Thrown& thrown) noexcept {
    if (tLocal.loop != nullptr) {
        mw::tern::TellThrown(thrown);
        sd_event_exit(tLocal.loop, -ENOTRECOVERABLE);
    }
}

namespace Detail {

void ResumeContained(std::coroutine_handle<> waiting) noexcept {
    static_cast<void>(mw::tern::Contain(
        0,
        [&] {
            waiting.resume();
            return 0;
        },
        [](const mw::tern::Thrown& thrown) {
            TERN_LOG_CRITICAL(LOGGER, "A coroutine threw %s: %s", thrown.Type(), thrown.Text());
            TaskThread::Fail(thrown);
        }));
}

TaskFrame::~TaskFrame() {
    Leave();
    if (mException == nullptr || mIsReported) {
        return;
    }
    if (!mIsClaimed) {
        Report();
        return;
    }
    // The coroutine that waited has ended another way, by another exception or another's result.
    Inspect(mException, [](const mw::tern::Thrown& thrown) {
        TERN_LOG_ERROR(LOGGER, "A task threw %s, and who awaited it did not look: %s", thrown.Type(),
                       thrown.Text());
    });
}

/// From the list of those that are done.
void TaskFrame::Leave() noexcept {
    if (!std::exchange(mIsListed, false)) {
        return;
    }
    (mPreviousDone != nullptr ? mPreviousDone->mNextDone : tLocal.firstDone) = mNextDone;
    (mNextDone != nullptr ? mNextDone->mPreviousDone : tLocal.lastDone) = mPreviousDone;
    mNextDone = nullptr;
    mPreviousDone = nullptr;
}

bool TaskFrame::IsNeededBy(const TaskFrame& running) const noexcept {
    const TaskFrame* task = &running;
    while (task != nullptr && task != this) {
        task = task->mParent;
    }
    return task != nullptr;
}

void TaskFrame::Release() noexcept {
    mObserver = nullptr;
    mParent = nullptr;
    Leave();
    // A task that is done awaits nobody.
    for (TaskFrame* running = mState == State::Done ? nullptr : tLocal.top; running != nullptr;
         running = running->mBelow) {
        if (IsNeededBy(*running)) {
            running->mLeft = this;
            // Of several that are awaited together another one may be done before.
            for (TaskFrame* waiting = running; waiting != this;) {
                waiting = waiting->mParent;
                waiting->mLeft = waiting;
            }
            return;
        }
    }
    mHandle.destroy();
}

void TaskFrame::Observe(TaskObserver& observer, TaskFrame* parent) noexcept {
    assert(mState != State::Done && mObserver == nullptr);
    mObserver = &observer;
    mParent = parent;
    mIsClaimed = true;
}

void TaskFrame::Rethrow() {
    if (mException != nullptr) {
        mIsReported = true;
        std::rethrow_exception(mException);
    }
}

void TaskFrame::Report() noexcept {
    if (mException == nullptr || std::exchange(mIsReported, true)) {
        return;
    }
    Inspect(mException, [](const mw::tern::Thrown& thrown) {
        TERN_LOG_CRITICAL(LOGGER, "A task threw %s: %s", thrown.Type(), thrown.Text());
        TaskThread::Fail(thrown);
    });
}

bool TaskFrame::MustStay() noexcept {
    assert(mThread == std::this_thread::get_id());
    if (mLeft != nullptr) {
        return true;
    }
    if (!tLocal.isStopping ||
        (++mAwaitsWhileStopping < AWAITS_WHILE_STOPPING && tLocal.depth < DEPTH_WHILE_STOPPING)) {
        return false;
    }
    TERN_LOG_ERROR(LOGGER, "A task goes on awaiting although the bus closes, and is left where it is");
    return true;
}

void TaskFrame::Stay() noexcept {
    Suspend();
    if (TaskFrame* const left = std::exchange(mLeft, nullptr)) {
        // Another one may need it as well.
        left->Release();
    }
}

void TaskFrame::Suspend() noexcept {
    assert(tLocal.top == this);
    tLocal.top = mBelow;
    --tLocal.depth;
    mBelow = nullptr;
    mState = State::Waiting;
}

void TaskFrame::Resume() noexcept {
    mHasWaited = true;
    GoOn();
}

void TaskFrame::GoOn() noexcept {
    mBelow = tLocal.top;
    tLocal.top = this;
    ++tLocal.depth;
    mState = State::Running;
}

void TaskFrame::Start(std::coroutine_handle<> frame) noexcept {
    mHandle = frame;
    GoOn();
}

void TaskFrame::Finish() noexcept {
    const bool hasWaited = mHasWaited;
    Suspend();
    mState = State::Done;
    if (TaskFrame* const left = std::exchange(mLeft, nullptr)) {
        left->Release();
        return;
    }
    if (mObserver == nullptr) {
        // Before it has waited who called it has had no chance to await it.
        if (hasWaited) {
            Report();
        }
        return;
    }
    mPreviousDone = tLocal.lastDone;
    (tLocal.lastDone != nullptr ? tLocal.lastDone->mNextDone : tLocal.firstDone) = this;
    tLocal.lastDone = this;
    mIsListed = true;
    if (std::exchange(tLocal.isTelling, true)) {
        return;
    }
    while (tLocal.firstDone != nullptr) {
        TaskFrame& done = *tLocal.firstDone;
        done.Leave();
        TaskObserver& observer = *std::exchange(done.mObserver, nullptr);
        if (done.mParent == nullptr || done.mParent->mLeft == nullptr) {
            observer.OnDone(done);
        }
    }
    tLocal.isTelling = false;
}

}  // namespace Detail

}  // namespace mwl::Typed
