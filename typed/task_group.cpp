#include <tern/typed/task_group.h>

#include <algorithm>
#include <stdexcept>

namespace mwl::Typed::Detail {

bool TaskGroup::IsReady(std::span<TaskFrame* const> tasks) const noexcept {
    const auto isDone = [](const TaskFrame* task) { return task == nullptr || task->IsDone(); };
    const auto hasThrown = [](const TaskFrame* task) { return task == nullptr || task->HasThrown(); };
    for (TaskFrame* const task : tasks) {
        if (task != nullptr) {
            task->Claim();
        }
    }
    if (mUntil == Until::First) {
        return std::any_of(tasks.begin(), tasks.end(), isDone) || tasks.empty();
    }
    return std::all_of(tasks.begin(), tasks.end(), isDone) ||
           std::any_of(tasks.begin(), tasks.end(), hasThrown);
}

void TaskGroup::Wait(std::span<TaskFrame* const> tasks, std::coroutine_handle<> waiting,
                     TaskFrame* parent) noexcept {
    mWaiting = waiting;
    for (TaskFrame* const task : tasks) {
        if (!task->IsDone()) {
            task->Observe(*this, parent);
            ++mMissing;
        }
    }
}

std::size_t TaskGroup::FindDecisive(std::span<TaskFrame* const> tasks) const noexcept {
    const auto isDecisive = [this](const TaskFrame* task) {
        if (mDecisive != nullptr) {
            return task == mDecisive;
        }
        return task == nullptr || (mUntil == Until::First ? task->IsDone() : task->HasThrown());
    };
    return static_cast<std::size_t>(std::find_if(tasks.begin(), tasks.end(), isDecisive) - tasks.begin());
}

void TaskGroup::OnDone(TaskFrame& task) noexcept {
    --mMissing;
    if (mWaiting == nullptr || (mUntil == Until::All && mMissing > 0 && !task.HasThrown())) {
        return;
    }
    if (mUntil == Until::First || task.HasThrown()) {
        mDecisive = &task;
    }
    // May destroy this one.
    ResumeContained(std::exchange(mWaiting, nullptr));
}

}  // namespace mwl::Typed::Detail
