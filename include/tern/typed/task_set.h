#pragma once

#include <tern/foundation/api.h>
#include <tern/typed/task.h>

#include <cstddef>
#include <utility>

namespace mwl::Typed {

/// Keeps tasks that nobody awaits until they are done.
///
///     void OnMeasured(double celsius) {
///         mTasks.Add(Report(mBus, mPeer, celsius));
///     }
///     TaskSet mTasks;  // behind what its tasks use: it is destroyed first
///
/// A task that is done is destroyed immediately, and its result with it. An exception of a task is logged
/// (critical) with its type and text, and ends the loop in order with the exit code -ENOTRECOVERABLE, as for
/// any task that nobody awaits.
///
/// The destructor ends the tasks that are left where they wait, in the order of adding. It may run in one of
/// them, as may Clear, see Task. A task that Clear ends may be the last that holds the owner of the set. When
/// the bus closes they are resumed with `Stopping`, and most are done then.
///
/// Costs no memory of its own. D-Bus thread only; the destructor of an empty one on any thread.
class TERN_API TaskSet final : private Detail::TaskObserver {
public:
    /// Empty.
    TaskSet() noexcept = default;
    /// As Clear; tasks that are added meanwhile are ended too.
    ~TaskSet();
    TaskSet(const TaskSet&) = delete;
    TaskSet& operator=(const TaskSet&) = delete;

    /// Takes the task over. A task that is done already is destroyed immediately; an empty one is ignored.
    template <class R>
    void Add(Task<R> task) noexcept {
        if (Detail::TaskFrame* const frame = Detail::TaskAccess::TakeFrame(task)) {
            AddFrame(*frame);
        }
    }
    /// Ends all tasks that are there now.
    void Clear() noexcept;

    /// Whether there is none.
    bool IsEmpty() const noexcept { return mFirst == nullptr; }
    /// How many there are.
    std::size_t GetSize() const noexcept { return mSize; }

private:
    void AddFrame(Detail::TaskFrame& frame) noexcept;
    void OnDone(Detail::TaskFrame& frame) noexcept override;
    void Take(Detail::TaskFrame& frame) noexcept;

    Detail::TaskFrame* mFirst = nullptr;
    Detail::TaskFrame* mLast = nullptr;
    std::size_t mSize = 0;
};

}  // namespace mwl::Typed
