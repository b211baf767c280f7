#include <tern/typed/task_set.h>

namespace mwl::Typed {

using Detail::TaskFrame;

TaskSet::~TaskSet() {
    while (mFirst != nullptr) {
        Clear();
    }
}

void TaskSet::Clear() noexcept {
    // A task that is added while another is destroyed comes after it.
    for (std::size_t left = mSize; left > 0 && mFirst != nullptr; --left) {
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
