#include <tern/typed/task_set.h>

namespace mwl::Typed {

using Detail::TaskFrame;

namespace {

/// A Clear that is at work; its set may be destroyed meanwhile, by a task that was the last to hold it.
struct Clearing {
    explicit Clearing(const TaskSet& cleared) noexcept;
    Clearing(const Clearing&) = delete;
    Clearing& operator=(const Clearing&) = delete;
    ~Clearing();

    const TaskSet* set;
    Clearing* const outer;
};
/// Of this thread; they lie on its stack.
thread_local constinit Clearing* tInnermost = nullptr;

Clearing::Clearing(const TaskSet& cleared) noexcept : set(&cleared), outer(tInnermost) {
    tInnermost = this;
}

Clearing::~Clearing() {
    tInnermost = outer;
}

}  // namespace

TaskSet::~TaskSet() {
    while (mFirst != nullptr) {
        Clear();
    }
    for (Clearing* clearing = tInnermost; clearing != nullptr; clearing = clearing->outer) {
        if (clearing->set == this) {
            clearing->set = nullptr;
        }
    }
}

void TaskSet::Clear() noexcept {
    const Clearing clearing(*this);
    // A task that is added while another is destroyed comes after it.
    for (std::size_t left = mSize; left > 0 && clearing.set != nullptr && mFirst != nullptr; --left) {
        TaskFrame& frame = *mFirst;
        Take(frame);
        frame.Release();
    }
}

void TaskSet::AddFrame(TaskFrame& frame) noexcept {
    if (frame.IsDone()) {
        // With its exception, which nobody takes.
        frame.Release();
        return;
    }
    frame.Observe(*this, nullptr);
    frame.mPreviousInSet = mLast;
    (mLast != nullptr ? mLast->mNextInSet : mFirst) = &frame;
    mLast = &frame;
    ++mSize;
}

void TaskSet::OnDone(TaskFrame& frame) noexcept {
    Take(frame);
    frame.Report();
    frame.Release();
}

void TaskSet::Take(TaskFrame& frame) noexcept {
    (frame.mPreviousInSet != nullptr ? frame.mPreviousInSet->mNextInSet : mFirst) = frame.mNextInSet;
    (frame.mNextInSet != nullptr ? frame.mNextInSet->mPreviousInSet : mLast) = frame.mPreviousInSet;
    frame.mNextInSet = nullptr;
    frame.mPreviousInSet = nullptr;
    --mSize;
}

}  // namespace mwl::Typed
