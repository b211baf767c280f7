#pragma once

#include <tern/foundation/api.h>

#include <cstddef>
#include <functional>
#include <vector>

namespace mwl::Threading {

class ThreadManager;

/// The workers of a `ThreadsMonitor`, in the order of their registration; a worker that registers twice is in
/// it twice. Refers to them, owns nothing. One thread at a time; the monitor guards its own.
class TERN_API ThreadsList {
public:
    virtual ~ThreadsList();

    /// Appends the worker.
    void Add(ThreadManager& thread);
    /// Removes the first entry that refers to this very object; the order of the rest stays. When there is
    /// none, an error is logged and nothing changes.
    void Remove(ThreadManager& thread);
    /// Calls `Stop()` on every entry, first registered first. REQUIRES: none of them changes this list.
    void StopAll() const;
    /// Entries, a worker that registered twice counted twice.
    std::size_t Size() const { return mThreads.size(); }

private:
    std::vector<std::reference_wrapper<ThreadManager>> mThreads;
};

}  // namespace mwl::Threading
